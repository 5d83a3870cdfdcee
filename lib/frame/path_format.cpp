#include "frame/path_format.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "frame/log.h"

namespace sharesnap {

bool FormatPath(char *szPath, std::size_t cbPath, const char *szFormat, ...) {
    va_list args;
    va_start(args, szFormat);
    const int cb = std::vsnprintf(szPath, cbPath, szFormat, args);
    va_end(args);
    if (cb < 0 || static_cast<std::size_t>(cb) >= cbPath) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        errno = ENAMETOOLONG;
        return false;
    }
    return true;
}

} // namespace sharesnap
