/* Reading of Btrfs trees through the kernel's tree search. Needs CAP_SYS_ADMIN. */
#ifndef SHARESNAP_PLATFORM_COMMON_BTRFS_TREE_H
#define SHARESNAP_PLATFORM_COMMON_BTRFS_TREE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace QovaPlatform {

/* Key of an item: where it stands in its tree. */
struct BtrfsKey {
    uint64_t ullObject = 0;
    uint32_t uType = 0;
    uint64_t ullOffset = 0;
};

/* Calls onItem for each item from the first to the last key, in order, until it returns false. 0; -1 with errno
   (ENOENT: the file system has no such tree; ENOTTY: it is no Btrfs). */
[[nodiscard]] int BtrfsTreeSearch(int nFd, uint64_t ullTree, const BtrfsKey &first, const BtrfsKey &last,
                                  const std::function<bool(const BtrfsKey &, const char *, size_t)> &onItem);

/* Id of the subvolume that holds an open file or directory. 0; -1 with errno. */
[[nodiscard]] int BtrfsSubvolumeId(int nFd, uint64_t *pullId);

/* Path of a directory inside its subvolume, from the subvolume's top, without slashes at its ends; "" for the top.
   0; -1 with errno. */
[[nodiscard]] int BtrfsDirectoryPath(int nFd, uint64_t ullSubvolume, uint64_t ullInode, std::string &szPath);

} // namespace QovaPlatform

#endif
