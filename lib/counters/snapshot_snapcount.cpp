// The number of visible snapshots of a share, kept in an extended attribute of its snapshot directory. The metadata
// file is the truth; the attribute is a cache that every reader can do without and every update repairs.
#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/platform/volume.h>
#include <sys/xattr.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "frame/log.h"
#include "frame/owners.h"
#include "frame/path_format.h"
#include "frame/run_directory.h"
#include "intl_utils/share_info_get.h"

using namespace sharesnap;

namespace {

constexpr char kLockDirectory[] = "/run/lock/sharesnap/sharesnap_snapcount_lock";
constexpr char kAttribute[] = "user.snapcount";
constexpr size_t kValueSize = 1024; // the attribute is always written whole
constexpr int kLockSeconds = 5;
constexpr unsigned int kShareTypeMask = 0x301;

// The counter's lock. Taking it can fail; giving it back is only logged.
class SnapCountLock {
public:
    explicit SnapCountLock(const QOVASHARE *pShare) : pShare_(pShare) {}
    SnapCountLock(const SnapCountLock &) = delete;
    SnapCountLock &operator=(const SnapCountLock &) = delete;
    ~SnapCountLock() {
        if (nFd_ >= 0 && QLIBCFileUnlockByFile(nFd_) == 0) {
            SNAP_LOG_REG(LOG_ERR, "QLIBCFileUnlockByFile fail: %s[0x%04X %s:%d]", szPath_);
        }
    }

    [[nodiscard]] bool take() {
        if (QOVAShareSnapCreateRunLockShareSnapDir() != 1) {
            SNAP_LOG_REG(LOG_ERR, "Fail in SnapCreateRunLockShareSnapDir [0x%04X %s:%d]");
            return false;
        }
        if (GetOrCreateRunDirectory(kLockDirectory) != 1) {
            return false;
        }
        if (!FormatPath(szPath_, sizeof(szPath_), "%s/%s.lock", kLockDirectory, pShare_->szName)) {
            return false;
        }
        int nFd = -1;
        if (QLIBCFileLockTimeByFile(szPath_, 1, kLockSeconds, &nFd) == 0) {
            SNAP_LOG_REG(LOG_ERR, "Fail to QLIBCFileLockTimeByFile: %s[0x%04X %s:%d]", szPath_);
            return false;
        }
        nFd_ = nFd;
        return true;
    }

private:
    const QOVASHARE *pShare_;
    char szPath_[1024] = "";
    int nFd_ = -1;
};

// A sum within an int. A stored value can be anything: it must not wrap round and so change its sign.
int Add(int nCount, int nDelta) {
    const int64_t nSum = int64_t{nCount} + nDelta;
    return static_cast<int>(std::clamp<int64_t>(nSum, INT_MIN, INT_MAX));
}

// Null arguments are a failure with their code.
bool HasShare(const QOVASHARE *pShare) {
    if (pShare == nullptr || pShare->szName == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return false;
    }
    return true;
}

bool ReadAttribute(const char *szDirectory, int *pCount) {
    char szValue[kValueSize + 1];
    const ssize_t cb = getxattr(szDirectory, kAttribute, szValue, kValueSize);
    if (cb <= 0) {
        return false;
    }
    szValue[cb] = '\0';
    return std::sscanf(szValue, "%d", pCount) == 1;
}

// Counts the sections whose "hide" is false: hidden snapshots, and sections without the key, stay out.
int Recount(const QOVASHARE *pShare, int *pCount) {
    ListOwner list(QLIBCSzListAlloc(512));
    if (!list) {
        SNAP_LOG(LOG_ERR, "QLIBCSzListAlloc() failed");
        return -1;
    }
    char szVisible[] = "hide=false";
    Owner<QOVAShareSnapEnum, QOVAShareSnapEnumFree> chain;
    if (QOVAShareSnapSelectorAdd(&chain, QOVAShareSnapAttrSelector, szVisible) < 0) {
        return -1;
    }
    if (QOVAShareSnapList(pShare, &list, chain.get()) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share(%s) snapshot list [0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    *pCount = list->nItem;
    return 1;
}

int ShareSnapSnapCountSet(const QOVASHARE *pShare, int nCount, int blCreate) {
    if (nCount < 0) {
        return -1;
    }
    char szPath[kPathSize] = "";
    const int nDirectory = QOVAShareSnapGetOrCreateSnapDir(pShare, szPath, sizeof(szPath), blCreate);
    if (nDirectory != 1) {
        return (nDirectory == 0 && nCount == 0) ? 0 : -1; // no directory already says zero
    }
    char szValue[kValueSize] = "";
    (void)std::snprintf(szValue, sizeof(szValue), "%d", nCount);
    if (setxattr(szPath, kAttribute, szValue, sizeof(szValue), 0) < 0) {
        SNAP_LOG(LOG_ERR, "Fail to setxattr on %s, name: %s, value: %s, strerror: %m", szPath, kAttribute, szValue);
        return -1;
    }
    return 0;
}

int StoreCount(const QOVASHARE *pShare, int nCount, int blCreate) {
    if (ShareSnapSnapCountSet(pShare, nCount, blCreate) < 0) {
        SNAP_LOG(LOG_ERR, "Fail to set ShareSnapCount of [%s] to %d.", pShare->szName, nCount);
        return -1;
    }
    return nCount;
}

// Adds one share's count to the sum. 0 also for a share that adds nothing; -1 ends the sum.
int AddShareToTotal(const char *szName, int blSync, int *pTotal) {
    ShareOwner share;
    if (ShareGetWithRetry(szName, &share) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share (%s)[0x%04X %s:%d]", szName);
        return 0;
    }
    char szVolume[kPathSize];
    if (QOVAShareVolPathGet(share->szPath, szVolume, sizeof(szVolume)) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Volpath of %s not found [0x%04X %s:%d]", share->szPath);
        return -1;
    }
    QOVAMOUNTVOLINFO info;
    std::memset(&info, 0, sizeof(info));
    if (QOVAMountVolInfoGet(share->szPath, &info) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Fail to get mount volume info of path [%s].[0x%04X %s:%d]", share->szPath);
        return -1;
    }
    if (info.nFsType != FS_TYPE_BTRFS) {
        return 0;
    }
    const int nCount = ShareSnapSnapCountGet(share.get(), blSync);
    if (nCount < 0) {
        SNAP_LOG(LOG_ERR, "Failed to get snapshot count of [%s]", szName);
        return -1;
    }
    *pTotal = Add(*pTotal, nCount);
    return 0;
}

} // namespace

int QOVAShareSnapGetSnapCount(const QOVASHARE *pShare, int *pCount, int blRecount) {
    if (pCount == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    *pCount = 0;
    char szPath[kPathSize] = "";
    const int nDirectory = QOVAShareSnapGetOrCreateSnapDir(pShare, szPath, sizeof(szPath), 0);
    if (nDirectory != 1) {
        return nDirectory;
    }
    if (blRecount == 0) {
        if (ReadAttribute(szPath, pCount)) {
            return 0;
        }
        *pCount = 0;
    }
    return Recount(pShare, pCount);
}

int QOVAShareSnapUpdateSnapCountEx(const QOVASHARE *pShare, int nDelta, int blCreate) {
    if (!HasShare(pShare)) {
        return -1;
    }
    SnapCountLock lock(pShare);
    if (!lock.take()) {
        return -1;
    }
    int nCount = 0;
    const int nSource = QOVAShareSnapGetSnapCount(pShare, &nCount, 0);
    if (nSource < 0) {
        return -1;
    }
    // A recount without blCreate holds the change already: the metadata was written first.
    if (nSource == 0 || blCreate != 0) {
        nCount = Add(nCount, nDelta);
    }
    if (nCount < 0) {
        SNAP_LOG(LOG_ERR, "Share snapcount [%d] of share [%s] should not less than zero, autofix it to [0]", nCount,
                 pShare->szName);
        nCount = 0;
    }
    return StoreCount(pShare, nCount, blCreate);
}

int QOVAShareSnapUpdateSnapCount(const QOVASHARE *pShare, int nDelta) {
    return QOVAShareSnapUpdateSnapCountEx(pShare, nDelta, 0);
}

int ShareSnapSnapCountGet(const QOVASHARE *pShare, int blSync) {
    int nCount = 0;
    if (blSync == 0) {
        return QOVAShareSnapGetSnapCount(pShare, &nCount, 0) < 0 ? -1 : nCount;
    }
    if (!HasShare(pShare)) {
        return -1;
    }
    SnapCountLock lock(pShare);
    if (!lock.take() || QOVAShareSnapGetSnapCount(pShare, &nCount, 1) < 0) {
        return -1;
    }
    return StoreCount(pShare, nCount, 0);
}

int QOVAShareSnapSyncSnapCount(const QOVASHARE *pShare) {
    return ShareSnapSnapCountGet(pShare, 1);
}

int ShareSnapGlobalSnapCountGet(int blSync) {
    ListOwner list(QLIBCSzListAlloc(1024));
    if (!list) {
        SNAP_LOG_REG(LOG_ERR, "Fail in QLIBCSzListAlloc[0x%04X %s:%d]");
        return -1;
    }
    if (QOVAShareEnum(&list, kShareTypeMask) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Fail in QOVAShareEnum[0x%04X %s:%d]");
        return -1;
    }
    int nTotal = 0;
    for (int i = 0; i < list->nItem; ++i) {
        const char *szName = QLIBCSzListGet(list.get(), i);
        if (szName == nullptr) {
            SNAP_LOG_REG(LOG_ERR, "Failed to get element from list[0x%04X %s:%d]");
            continue;
        }
        if (AddShareToTotal(szName, blSync, &nTotal) < 0) {
            return -1;
        }
    }
    return nTotal;
}

int QOVAShareSnapGetGlobalSnapCount(void) {
    return ShareSnapGlobalSnapCountGet(0);
}

int QOVAShareSnapSyncGlobalSnapCount(void) {
    return ShareSnapGlobalSnapCountGet(1);
}
