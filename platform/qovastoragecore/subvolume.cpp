/* Making of subvolumes and snapshots, and what is known of one. */
#include <sharesnap/platform/subvolume.h>

#include "common/failure.h"
#include "common/path_walk.h"
#include "subvolume_internal.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>

using namespace QovaPlatform;

namespace QovaPlatform {

int IsSubvolume(int nFd) {
    struct stat status = {};
    if (fstat(nFd, &status) != 0) {
        return -1;
    }
    if (!S_ISDIR(status.st_mode) || status.st_ino != BTRFS_FIRST_FREE_OBJECTID) {
        return 0;
    }
    struct statfs fileSystem = {};
    if (fstatfs(nFd, &fileSystem) != 0) {
        return -1;
    }
    return fileSystem.f_type == BTRFS_SUPER_MAGIC ? 1 : 0;
}

} // namespace QovaPlatform

namespace {

/* "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx"; "" when all bytes are 0. */
std::string UuidText(const unsigned char *rgByte) {
    static constexpr char szDigits[] = "0123456789abcdef";
    std::string szText;
    bool blAny = false;
    for (size_t i = 0; i < BTRFS_UUID_SIZE; ++i) {
        blAny = blAny || rgByte[i] != 0;
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            szText.push_back('-');
        }
        szText.push_back(szDigits[rgByte[i] >> 4]);
        szText.push_back(szDigits[rgByte[i] & 15]);
    }
    return blAny ? szText : std::string();
}

/* UTC, so that the text of a snapshot never changes. */
std::string TimeText(const btrfs_ioctl_timespec &time) {
    const time_t tSeconds = static_cast<time_t>(time.sec);
    struct tm parts = {};
    char szText[64] = "";
    if (gmtime_r(&tSeconds, &parts) != nullptr) {
        (void)strftime(szText, sizeof(szText), "%Y-%m-%dT%H:%M:%SZ", &parts);
    }
    return szText;
}

/* Opens a subvolume by its path, no component of which may be a symbolic link or "..". Not open on failure, with errno;
   EINVAL for what is no subvolume. */
Descriptor OpenSubvolume(const char *szPath) {
    Descriptor subvolume = OpenWithoutLinks(szPath, O_RDONLY | O_DIRECTORY);
    if (subvolume.IsOpen()) {
        const int nKind = IsSubvolume(subvolume.Get());
        if (nKind < 1) {
            errno = nKind == 0 ? EINVAL : errno;
            return Descriptor();
        }
    }
    return subvolume;
}

int TakeSnapshot(const char *szSource, const char *szTarget, unsigned long long ullFlags) {
    const Descriptor source = OpenSubvolume(szSource);
    if (!source.IsOpen()) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    const ParentAndName target = OpenParent(szTarget);
    if (!target.directory.IsOpen()) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    btrfs_ioctl_vol_args_v2 args = {};
    if (sizeof(args.name) <= target.szName.size()) {
        QOVA_FAIL_ARGUMENT(ENAMETOOLONG);
        return -1;
    }
    args.fd = source.Get();
    args.flags = ullFlags;
    memcpy(args.name, target.szName.c_str(), target.szName.size() + 1);
    if (ioctl(target.directory.Get(), BTRFS_IOC_SNAP_CREATE_V2, &args) != 0) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    return 0;
}

int SetHidden(const char *szPath, bool blHide) {
    const ParentAndName target = OpenParent(szPath);
    if (!target.directory.IsOpen()) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    const Descriptor subvolume = OpenBeneath(target.directory.Get(), target.szName.c_str(), O_PATH | O_NOFOLLOW);
    const int nKind = subvolume.IsOpen() ? IsSubvolume(subvolume.Get()) : -1;
    if (nKind < 1) {
        errno = nKind == 0 ? EINVAL : errno;
        QOVA_FAIL_ERRNO();
        return -1;
    }
    const int nResult = blHide ? HiddenMarkSet(target.directory.Get(), target.szName)
                               : HiddenMarkClear(target.directory.Get(), target.szName);
    if (nResult != 0) {
        QOVA_FAIL_ERRNO();
    }
    return nResult;
}

/* The kernel's record of an open subvolume. -1 with code and errno; a file system that has no such record, or a kernel
   that can't give it, is told by 0xD900. */
int ReadInfo(int nFd, btrfs_ioctl_get_subvol_info_args *pInfo) {
    // Some kernels give 1 for a success.
    if (ioctl(nFd, BTRFS_IOC_GET_SUBVOL_INFO, pInfo) >= 0) {
        return 0;
    }
    if (errno == ENOTTY) {
        QLIBCErrSetEx(SNAP_ERR_UNSUPPORTED, __FILE_NAME__, __LINE__);
    } else {
        QOVA_FAIL_ERRNO();
    }
    return -1;
}

int FillFacts(const char *szPath, QLIBCSZHASH **ppHash) {
    const ParentAndName target = OpenParent(szPath);
    if (!target.directory.IsOpen()) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    const Descriptor subvolume = OpenBeneath(target.directory.Get(), target.szName.c_str(), O_RDONLY | O_DIRECTORY);
    const int nKind = subvolume.IsOpen() ? IsSubvolume(subvolume.Get()) : -1;
    if (nKind < 1) {
        errno = nKind == 0 ? EINVAL : errno;
        QOVA_FAIL_ERRNO();
        return -1;
    }
    btrfs_ioctl_get_subvol_info_args info = {};
    if (ReadInfo(subvolume.Get(), &info) != 0) {
        return -1;
    }
    const int nHidden = HiddenMarkGet(target.directory.Get(), target.szName);
    if (nHidden < 0) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    // Both ends of a replication know a snapshot by the UUID that the sending end gave it.
    const std::string szReceived = UuidText(info.received_uuid);
    const std::string szOwn = UuidText(info.uuid);
    const struct {
        const char *szKey;
        std::string szValue;
    } rgFact[] = {{"hide", nHidden == 1 ? "true" : "false"},
                  {"ruuid", szReceived.empty() ? szOwn : szReceived},
                  {"uuid", szOwn},
                  {"parent_uuid", UuidText(info.parent_uuid)},
                  {"create_time", TimeText(info.otime)}};
    for (const auto &fact : rgFact) {
        if (QLIBCSzHashSetValue(ppHash, fact.szKey, fact.szValue.c_str()) < 0) {
            return -1;
        }
    }
    return 0;
}

} // namespace

int QOVABtrfsIsSubVol(const char *szPath) {
    if (szPath == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    const Descriptor file = OpenWithoutLinks(szPath, O_PATH | O_NOFOLLOW);
    const int nKind = file.IsOpen() ? IsSubvolume(file.Get()) : -1;
    if (nKind < 0) {
        QOVA_FAIL_ERRNO();
    }
    return nKind;
}

int QOVABtrfsCreateSubVol(const char *szPath) {
    if (szPath == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        const ParentAndName target = OpenParent(szPath);
        if (!target.directory.IsOpen()) {
            QOVA_FAIL_ERRNO();
            return -1;
        }
        btrfs_ioctl_vol_args args = {};
        if (sizeof(args.name) <= target.szName.size()) {
            QOVA_FAIL_ARGUMENT(ENAMETOOLONG);
            return -1;
        }
        memcpy(args.name, target.szName.c_str(), target.szName.size() + 1);
        if (ioctl(target.directory.Get(), BTRFS_IOC_SUBVOL_CREATE, &args) != 0) {
            QOVA_FAIL_ERRNO();
            return -1;
        }
        return 0;
    });
}

int QOVABtrfsReadOnlySnapshotTake(const char *szSource, const char *szTarget) {
    if (szSource == nullptr || szTarget == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    const int nResult =
        Guarded(__FILE_NAME__, __LINE__, -1, [&] { return TakeSnapshot(szSource, szTarget, BTRFS_SUBVOL_RDONLY); });
    if (nResult == 0) {
        // A creator that tries again after a name conflict would take that conflict's code for one of this attempt.
        QLIBCErrSetEx(0, "", 0);
    }
    return nResult;
}

int QOVABtrfsSnapshotTake(const char *szSource, const char *szTarget) {
    if (szSource == nullptr || szTarget == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] { return TakeSnapshot(szSource, szTarget, 0); });
}

int QOVABtrfsSubvolHideAttrSet(const char *szPath, int blHide) {
    if (szPath == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] { return SetHidden(szPath, blHide != 0); });
}

int QOVASnapFillSubvolInfoWithPath(const char *szPath, QLIBCSZHASH **ppHash) {
    if (szPath == nullptr || ppHash == nullptr || *ppHash == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] { return FillFacts(szPath, ppHash); });
}
