// Paths put together in fixed buffers.
#ifndef SHARESNAP_FRAME_PATH_FORMAT_H
#define SHARESNAP_FRAME_PATH_FORMAT_H

#include <cstddef>

namespace sharesnap {

// Enough for every path of the system with its end.
inline constexpr std::size_t kPathSize = 4096;

// snprintf for a path: a cut path would name something else, so one that doesn't fit is refused (0x0D00, ENAMETOOLONG).
[[nodiscard]] bool FormatPath(char *szPath, std::size_t cbPath, const char *szFormat, ...)
    __attribute__((format(printf, 3, 4)));

} // namespace sharesnap
#endif
