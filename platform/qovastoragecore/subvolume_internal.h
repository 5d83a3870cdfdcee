/* What the files on subvolumes share. */
#ifndef SHARESNAP_PLATFORM_SUBVOLUME_INTERNAL_H
#define SHARESNAP_PLATFORM_SUBVOLUME_INTERNAL_H

#include <string>

namespace QovaPlatform {

/* 1 a subvolume's top directory, 0 something else, -1 with errno. An O_PATH descriptor will do. */
[[nodiscard]] int IsSubvolume(int nFd);

/* The hidden mark of the subvolume of that name in an open directory. It stands on the directory, since the subvolume
   itself is read-only. */
/* 1 hidden, 0 not, -1 with errno. */
[[nodiscard]] int HiddenMarkGet(int nDirectory, const std::string &szName);
/* 0; -1 with errno. */
[[nodiscard]] int HiddenMarkSet(int nDirectory, const std::string &szName);
/* The same; without a write when there is no mark. */
[[nodiscard]] int HiddenMarkClear(int nDirectory, const std::string &szName);

} // namespace QovaPlatform

#endif
