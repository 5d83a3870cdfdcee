/* The queue of deleted subvolumes: which of those that went are still being cleaned up by the file system.

   Each share subvolume has a file in /run/sharesnap/deleted, named after the file system's and the subvolume's id, with
   a line "<id> <path>" for every subvolume that was about to go. Adding is one appending write, whatever the length of
   the file; asking meets the ids with those that the file system still has to clean. Ids are never used twice, so a
   line that has had its day is harmless until the file has grown enough to be worth a cleaning of its own. */
#include <sharesnap/platform/subvolume.h>

#include "common/btrfs_tree.h"
#include "common/failure.h"
#include "common/path_walk.h"

#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <string_view>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unordered_set>

using namespace QovaPlatform;

namespace {

/* Sizes in bytes at which a file is cleaned: when it is read, and when a line that is added crosses a multiple. */
constexpr off_t CLEAN_WHEN_READ = 64 * 1024;
constexpr off_t CLEAN_WHEN_ADDED = 1024 * 1024;

using IdSet = std::unordered_set<uint64_t>;

/* A subvolume and its id. Not open on failure, with errno; EINVAL for what is no subvolume: only Btrfs tells an id. */
struct Subvolume {
    Descriptor top;
    uint64_t ullId = 0;

    explicit Subvolume(const char *szPath) : top(OpenWithoutLinks(szPath, O_RDONLY | O_DIRECTORY)) {
        struct stat status = {};
        if (!top.IsOpen()) {
            return;
        }
        if (fstat(top.Get(), &status) != 0) {
            top.Close();
        } else if (status.st_ino != BTRFS_FIRST_FREE_OBJECTID || BtrfsSubvolumeId(top.Get(), &ullId) != 0) {
            errno = status.st_ino != BTRFS_FIRST_FREE_OBJECTID || errno == ENOTTY ? EINVAL : errno;
            top.Close();
        }
    }
};

/* The queue's directory. Others may make files in the one above, but this one isn't for them: when another user can
   write to it the files in it could be any user's. */
Descriptor OpenQueueDirectory(bool blCreate) {
    const Descriptor run = OpenWithoutLinks("/run", O_RDONLY | O_DIRECTORY);
    if (!run.IsOpen()) {
        return Descriptor();
    }
    Descriptor directory = OpenBeneath(run.Get(), "sharesnap/deleted", O_RDONLY | O_DIRECTORY);
    if (!directory.IsOpen() && errno == ENOENT && blCreate) {
        if (mkdirat(run.Get(), "sharesnap", 0755) != 0 && errno != EEXIST) {
            return Descriptor();
        }
        const Descriptor shared = OpenBeneath(run.Get(), "sharesnap", O_RDONLY | O_DIRECTORY);
        if (!shared.IsOpen() || (mkdirat(shared.Get(), "deleted", 0700) != 0 && errno != EEXIST)) {
            return Descriptor();
        }
        directory = OpenBeneath(shared.Get(), "deleted", O_RDONLY | O_DIRECTORY);
    }
    struct stat status = {};
    if (!directory.IsOpen() || fstat(directory.Get(), &status) != 0) {
        return Descriptor();
    }
    if (status.st_uid != geteuid() || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        errno = EPERM;
        return Descriptor();
    }
    return directory;
}

/* The name of a share subvolume's file: "<file system's UUID>-<subvolume's id>". */
int QueueName(const Subvolume &share, std::string &szName) {
    static constexpr char szDigits[] = "0123456789abcdef";
    btrfs_ioctl_fs_info_args info = {};
    if (ioctl(share.top.Get(), BTRFS_IOC_FS_INFO, &info) != 0) {
        return -1;
    }
    szName.clear();
    for (const unsigned char uByte : info.fsid) {
        szName += szDigits[uByte >> 4];
        szName += szDigits[uByte & 15];
    }
    szName += "-" + std::to_string(share.ullId);
    return 0;
}

/* Opens the queue of a share; nFlags is for openat. */
Descriptor OpenQueue(const Subvolume &share, int nFlags) {
    std::string szName;
    if (QueueName(share, szName) != 0) {
        return Descriptor();
    }
    const Descriptor directory = OpenQueueDirectory((nFlags & O_CREAT) != 0);
    if (!directory.IsOpen()) {
        return Descriptor();
    }
    return Descriptor(openat(directory.Get(), szName.c_str(), nFlags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
}

/* One line whatever the path holds. */
std::string Line(uint64_t ullId, const char *szPath) {
    std::string szLine = std::to_string(ullId) + " ";
    for (; *szPath != '\0'; ++szPath) {
        szLine.push_back(*szPath == '\n' ? '?' : *szPath);
    }
    return szLine + "\n";
}

int ReadAll(int nFd, std::string &szText) {
    struct stat status = {};
    if (fstat(nFd, &status) != 0) {
        return -1;
    }
    szText.resize(static_cast<size_t>(status.st_size));
    const ssize_t cbRead = szText.empty() ? 0 : pread(nFd, &szText[0], szText.size(), 0);
    szText.resize(0 < cbRead ? static_cast<size_t>(cbRead) : 0);
    return cbRead < 0 ? -1 : 0;
}

/* Calls body with id, path and the whole line for each whole line. */
template <typename Body>
void ForEachLine(std::string_view szText, Body &&body) {
    for (size_t cbLine = szText.find('\n'); cbLine != std::string_view::npos; cbLine = szText.find('\n')) {
        const std::string_view szLine = szText.substr(0, cbLine + 1);
        uint64_t ullId = 0;
        const auto result = std::from_chars(szLine.data(), szLine.data() + cbLine, ullId);
        if (result.ec == std::errc() && *result.ptr == ' ') {
            const size_t uPath = static_cast<size_t>(result.ptr - szLine.data()) + 1;
            body(ullId, szLine.substr(uPath, cbLine - uPath), szLine);
        }
        szText.remove_prefix(cbLine + 1);
    }
}

/* The subvolumes that are deleted and not yet cleaned up: the orphans of the tree of trees. */
int IdsBeingCleaned(int nSubvolume, IdSet &ids) {
    const BtrfsKey first = {BTRFS_ORPHAN_OBJECTID, BTRFS_ORPHAN_ITEM_KEY, 0};
    const BtrfsKey last = {BTRFS_ORPHAN_OBJECTID, BTRFS_ORPHAN_ITEM_KEY, UINT64_MAX};
    return BtrfsTreeSearch(nSubvolume, BTRFS_ROOT_TREE_OBJECTID, first, last,
                           [&](const BtrfsKey &key, const char *, size_t) {
                               ids.insert(key.ullOffset);
                               return true;
                           });
}

/* Whether the file system still has a tree of that id; when it can't be told, it has. */
bool Exists(int nSubvolume, uint64_t ullId) {
    bool blFound = false;
    const int nResult =
        BtrfsTreeSearch(nSubvolume, BTRFS_ROOT_TREE_OBJECTID, {ullId, BTRFS_ROOT_ITEM_KEY, 0},
                        {ullId, BTRFS_ROOT_ITEM_KEY, UINT64_MAX}, [&](const BtrfsKey &, const char *, size_t) {
                            blFound = true;
                            return false;
                        });
    return nResult != 0 || blFound;
}

/* Leaves the lines of subvolumes that are being cleaned or haven't gone yet. Best effort: a file that somebody uses at
   this moment is left for another time, and what a crash in the middle loses is a number in a display. */
void Clean(int nSubvolume, int nQueue) {
    std::string szText;
    std::string szKept;
    IdSet cleaned;
    if (flock(nQueue, LOCK_EX | LOCK_NB) != 0) {
        return;
    }
    if (ReadAll(nQueue, szText) == 0 && IdsBeingCleaned(nSubvolume, cleaned) == 0) {
        IdSet kept;
        ForEachLine(szText, [&](uint64_t ullId, std::string_view, std::string_view szLine) {
            if ((cleaned.count(ullId) != 0 || Exists(nSubvolume, ullId)) && kept.insert(ullId).second) {
                szKept.append(szLine);
            }
        });
        // The file is open for appending: the write lands at its new end.
        if (szKept.size() < szText.size() && ftruncate(nQueue, 0) == 0) {
            (void)!write(nQueue, szKept.data(), szKept.size());
        }
    }
    (void)flock(nQueue, LOCK_UN); // closing the file unlocks it as well
}

int Add(const char *szShareSubvol, const char *szSnapshot) {
    const Subvolume share(szShareSubvol);
    if (!share.top.IsOpen()) {
        return -1;
    }
    const Subvolume snapshot(szSnapshot);
    if (!snapshot.top.IsOpen()) {
        return -1;
    }
    const Descriptor queue = OpenQueue(share, O_RDWR | O_APPEND | O_CREAT);
    if (!queue.IsOpen()) {
        return -1;
    }
    const std::string szLine = Line(snapshot.ullId, szSnapshot);
    struct stat status = {};
    // Shared among those who append; only a cleaning shuts them out, for a moment.
    if (flock(queue.Get(), LOCK_SH) != 0 || fstat(queue.Get(), &status) != 0 ||
        write(queue.Get(), szLine.data(), szLine.size()) != static_cast<ssize_t>(szLine.size())) {
        return -1;
    }
    const off_t cbAfter = status.st_size + static_cast<off_t>(szLine.size());
    if (status.st_size / CLEAN_WHEN_ADDED != cbAfter / CLEAN_WHEN_ADDED) {
        Clean(share.top.Get(), queue.Get());
    }
    return 0;
}

int Get(const char *szShareSubvol, QLIBCSZHASH **ppHash) {
    const Subvolume share(szShareSubvol);
    if (!share.top.IsOpen()) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    const Descriptor queue = OpenQueue(share, O_RDWR | O_APPEND);
    if (!queue.IsOpen() && errno == ENOENT) {
        return 0;
    }
    std::string szText;
    IdSet cleaned;
    if (!queue.IsOpen() || flock(queue.Get(), LOCK_SH) != 0 || ReadAll(queue.Get(), szText) != 0 ||
        IdsBeingCleaned(share.top.Get(), cleaned) != 0) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    int nResult = 0;
    ForEachLine(szText, [&](uint64_t ullId, std::string_view szPath, std::string_view) {
        if (nResult == 0 && cleaned.count(ullId) != 0 &&
            QLIBCSzHashSetValue(ppHash, std::to_string(ullId).c_str(), std::string(szPath).c_str()) < 0) {
            nResult = -1;
        }
    });
    if (CLEAN_WHEN_READ < static_cast<off_t>(szText.size())) {
        Clean(share.top.Get(), queue.Get());
    }
    return nResult;
}

} // namespace

int QOVABtrfsDeletedSubvolAdd(const char *szShareSubvol, const char *szSnapshot) {
    if (szShareSubvol == nullptr || szSnapshot == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        const int nResult = Add(szShareSubvol, szSnapshot);
        if (nResult != 0) {
            QOVA_FAIL_ERRNO();
        }
        return nResult;
    });
}

int QOVABtrfsDeletedSubvolGet(const char *szShareSubvol, QLIBCSZHASH **ppHash) {
    if (szShareSubvol == nullptr || ppHash == nullptr || *ppHash == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] { return Get(szShareSubvol, ppHash); });
}
