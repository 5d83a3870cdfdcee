/* The mount table of the process, as the kernel prints it in /proc/self/mountinfo, and the volumes in it: file systems
   mounted at depth one, such as /vol1. */
#ifndef SHARESNAP_PLATFORM_COMMON_MOUNT_TABLE_H
#define SHARESNAP_PLATFORM_COMMON_MOUNT_TABLE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace QovaPlatform {

struct Mount {
    uint64_t ullId = 0;
    uint64_t ullParentId = 0;
    std::string szRoot;       // what of the file system is mounted
    std::string szMountPoint; // where
    std::string szType;       // such as "btrfs" or "fuse.gocryptfs"
    std::string szSource;     // the device, or what the file system's program put there

    [[nodiscard]] bool IsFuse() const;
    [[nodiscard]] bool IsAtDepthOne() const;
};

class MountTable {
public:
    /* Takes in a table in the kernel's form; lines that aren't in it are passed over. */
    explicit MountTable(std::string_view szText);
    /* The table of this process. False with errno when it can't be read. */
    [[nodiscard]] static bool Read(std::string &szText);

    [[nodiscard]] const Mount *ById(uint64_t ullId) const;
    /* The mount seen at that mount point: the last one when several stand on each other. */
    [[nodiscard]] const Mount *ByMountPoint(std::string_view szMountPoint) const;

    /* The mount that holds a path; an absent path resolves through its nearest existing ancestor. A path at or below
       the mount point of a FUSE file system is told by its text alone: such a file system is never asked, since one
       whose program died answers ENOTCONN, and one whose program hangs doesn't answer. Null with errno. */
    [[nodiscard]] const Mount *Holding(const char *szPath) const;
    /* The volume that holds a path: the nearest mount at depth one on the way up from Holding(); a mount below it, such
       as the view of an encrypted share, belongs to it. Null with ENODEV when there is none, or with Holding()'s errno.
     */
    [[nodiscard]] const Mount *VolumeOf(const char *szPath) const;
    /* All volumes that can be seen, in the table's order; of those mounted upon each other the uppermost. */
    [[nodiscard]] std::vector<const Mount *> Volumes() const;

private:
    [[nodiscard]] const Mount *LongestPrefix(std::string_view szPath) const;

    std::vector<Mount> m_mounts;
};

/* The path without double and trailing slashes and without "." components. */
[[nodiscard]] std::string PlainPath(std::string_view szPath);

} // namespace QovaPlatform

#endif
