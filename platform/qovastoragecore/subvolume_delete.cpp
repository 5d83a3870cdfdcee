/* Deletion of subvolumes. */
#include <sharesnap/platform/subvolume.h>

#include "common/btrfs_tree.h"
#include "common/failure.h"
#include "common/path_walk.h"
#include "subvolume_internal.h"

#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <sys/ioctl.h>
#include <vector>

using namespace QovaPlatform;

namespace {

/* Each level holds two descriptors; nothing sensible nests this deep. */
constexpr int DEEPEST_NESTING = 100;

struct NestedSubvolume {
    uint64_t ullDirectoryInode;
    std::string szName;
};

int DeleteIn(int nDirectory, const std::string &szName, int nDepth);

/* 0 the subvolume is gone, by this call or before; -1 with errno. */
int Destroy(int nDirectory, const std::string &szName) {
    btrfs_ioctl_vol_args args = {};
    if (sizeof(args.name) <= szName.size()) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(args.name, szName.c_str(), szName.size() + 1);
    return ioctl(nDirectory, BTRFS_IOC_SNAP_DESTROY, &args) == 0 || errno == ENOENT ? 0 : -1;
}

int ListNested(int nSubvolume, uint64_t ullId, std::vector<NestedSubvolume> &nested) {
    const BtrfsKey first = {ullId, BTRFS_ROOT_REF_KEY, 0};
    const BtrfsKey last = {ullId, BTRFS_ROOT_REF_KEY, UINT64_MAX};
    return BtrfsTreeSearch(
        nSubvolume, BTRFS_ROOT_TREE_OBJECTID, first, last, [&](const BtrfsKey &, const char *pItem, size_t cbItem) {
            btrfs_root_ref ref;
            if (cbItem <= sizeof(ref)) {
                return true;
            }
            memcpy(&ref, pItem, sizeof(ref));
            nested.push_back({le64toh(ref.dirid), std::string(pItem + sizeof(ref), cbItem - sizeof(ref))});
            return true;
        });
}

int DeleteChild(int nSubvolume, uint64_t ullId, const NestedSubvolume &child, int nDepth) {
    std::string szPath;
    if (BtrfsDirectoryPath(nSubvolume, ullId, child.ullDirectoryInode, szPath) != 0) {
        return -1;
    }
    const Descriptor directory = OpenBeneath(nSubvolume, szPath.empty() ? "." : szPath.c_str(), O_RDONLY | O_DIRECTORY);
    return directory.IsOpen() ? DeleteIn(directory.Get(), child.szName, nDepth + 1) : -1;
}

/* Deletes what is nested in a subvolume. A read-only one is writable meanwhile, since nothing can be taken out of it
   otherwise; when something nested can't go, it stands as before. */
int DeleteNested(int nDirectory, const std::string &szName, int nDepth) {
    if (DEEPEST_NESTING <= nDepth) {
        errno = ELOOP;
        return -1;
    }
    const Descriptor subvolume = OpenBeneath(nDirectory, szName.c_str(), O_RDONLY | O_DIRECTORY);
    uint64_t ullId = 0;
    uint64_t ullFlags = 0;
    std::vector<NestedSubvolume> nested;
    if (!subvolume.IsOpen() || BtrfsSubvolumeId(subvolume.Get(), &ullId) != 0 ||
        ListNested(subvolume.Get(), ullId, nested) != 0 ||
        ioctl(subvolume.Get(), BTRFS_IOC_SUBVOL_GETFLAGS, &ullFlags) != 0) {
        return -1;
    }
    const bool blReadOnly = (ullFlags & BTRFS_SUBVOL_RDONLY) != 0;
    uint64_t ullWritable = ullFlags & ~static_cast<uint64_t>(BTRFS_SUBVOL_RDONLY);
    if (blReadOnly && ioctl(subvolume.Get(), BTRFS_IOC_SUBVOL_SETFLAGS, &ullWritable) != 0) {
        return -1;
    }
    for (const NestedSubvolume &child : nested) {
        if (DeleteChild(subvolume.Get(), ullId, child, nDepth) != 0) {
            const int nSaved = errno;
            if (blReadOnly) {
                // A failure here leaves a writable snapshot, which the next deletion takes like any other.
                (void)ioctl(subvolume.Get(), BTRFS_IOC_SUBVOL_SETFLAGS, &ullFlags);
            }
            errno = nSaved;
            return -1;
        }
    }
    return 0;
}

/* Deletes the subvolume of that name in an open directory, with what is nested in it and its hidden mark. 0 when it is
   gone; -1 with errno. */
int DeleteIn(int nDirectory, const std::string &szName, int nDepth) {
    int nResult = Destroy(nDirectory, szName);
    if (nResult != 0 && errno == ENOTEMPTY) {
        nResult = DeleteNested(nDirectory, szName, nDepth);
        if (nResult == 0) {
            nResult = Destroy(nDirectory, szName);
        }
    }
    if (nResult == 0) {
        // A mark that stays behind hides nothing: who makes a subvolume of that name again sets or clears it.
        (void)HiddenMarkClear(nDirectory, szName);
    }
    return nResult;
}

/* The same for a name that may lead through directories beneath the open one. */
int DeleteBeneath(int nDirectory, const char *szName) {
    std::string szParent;
    std::string szLast;
    if (szName[0] == '/' || HasParentComponent(szName) || !SplitPath(szName, szParent, szLast)) {
        errno = EINVAL;
        return -1;
    }
    if (szParent == ".") {
        return DeleteIn(nDirectory, szLast, 0);
    }
    const Descriptor parent = OpenBeneath(nDirectory, szParent.c_str(), O_RDONLY | O_DIRECTORY);
    if (!parent.IsOpen()) {
        return errno == ENOENT ? 0 : -1;
    }
    return DeleteIn(parent.Get(), szLast, 0);
}

/* A deletion is in memory only until the file system's next commit; a power cut before it brings the subvolumes back.
   fsync of the directory that held them commits at once. (BTRFS_IOC_START_SYNC leaves the commit to a thread of the
   kernel, which under load begins it up to 30 seconds later, and the caller waits as long.) Where something was deleted
   in another directory than this one the whole file system is synced. */
int Commit(int nDirectory, bool blElsewhere) {
    if ((blElsewhere ? ioctl(nDirectory, BTRFS_IOC_SYNC) : fsync(nDirectory)) != 0) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    return 0;
}

int DeleteList(const char *szDirectory, const QLIBCSZLIST *pList, int *pDeleted) {
    const Descriptor directory = OpenWithoutLinks(szDirectory, O_RDONLY | O_DIRECTORY);
    if (!directory.IsOpen()) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    if (pList->nItem <= 0) {
        return 0;
    }
    bool blElsewhere = false;
    for (int i = 0; i < pList->nItem; ++i) {
        const char *szName = QLIBCSzListGet(pList, i);
        blElsewhere = blElsewhere || (szName != nullptr && strchr(szName, '/') != nullptr);
        if (szName != nullptr && DeleteBeneath(directory.Get(), szName) == 0) {
            ++*pDeleted;
        } else {
            QOVA_FAIL_ERRNO();
        }
    }
    return Commit(directory.Get(), blElsewhere);
}

int DeleteByPath(const char *szPath) {
    const ParentAndName target = OpenParent(szPath);
    if (!target.directory.IsOpen()) {
        if (errno == ENOENT) {
            return 0; // gone with the directory that held it
        }
        QOVA_FAIL_ERRNO();
        return -1;
    }
    if (DeleteIn(target.directory.Get(), target.szName, 0) != 0) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    return Commit(target.directory.Get(), false);
}

} // namespace

int QOVABtrfsDeleteSubvolFaultTolerant(const char *szPath) {
    if (szPath == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] { return DeleteByPath(szPath); });
}

int QOVABtrfsDeleteSubvolListFaultTolerant(const char *szDirectory, const QLIBCSZLIST *pList) {
    int nDeleted = 0;
    return QOVABtrfsDeleteSubvolListFaultTolerantEx(szDirectory, pList, &nDeleted);
}

int QOVABtrfsDeleteSubvolListFaultTolerantEx(const char *szDirectory, const QLIBCSZLIST *pList, int *pDeleted) {
    if (szDirectory == nullptr || pList == nullptr || pDeleted == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    *pDeleted = 0;
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] { return DeleteList(szDirectory, pList, pDeleted); });
}
