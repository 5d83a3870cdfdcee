// System locks: counted claims of named initiators on single snapshots. A snapshot is locked exactly when it has a
// section in the share's data file, since a count that falls to 0 takes its key out and a last key its section.
#include <fcntl.h>
#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/file.h>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/platform/section_file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame/log.h"
#include "frame/owners.h"
#include "frame/path_format.h"
#include "frame/run_directory.h"

using namespace sharesnap;

namespace {

constexpr char kLockDirectory[] = "/run/lock/sharesnap/sys_lock";
constexpr char kDataDirectory[] = "/run/sharesnap/sys_lock";
constexpr char kSuffix[] = "sharesnap_sys_lock";
constexpr int kLockSeconds = 10;
enum LockMode { kShared = 0, kExclusive = 1 };

[[nodiscard]] bool ClaimPath(char *szPath, size_t cbPath, const char *szDirectory, const char *szShare) {
    return FormatPath(szPath, cbPath, "%s/%s.%s", szDirectory, szShare, kSuffix);
}

int SnapSysLockFileLock(const char *szShare, LockMode mode, int *pFd) {
    if (QOVAShareSnapCreateRunLockShareSnapDir() < 0) {
        return 0;
    }
    if (GetOrCreateRunDirectory(kLockDirectory) < 0) {
        return 0;
    }
    // A directory that couldn't be made shows in the attempt to lock.
    char szPath[kPathSize];
    if (!ClaimPath(szPath, sizeof(szPath), kLockDirectory, szShare)) {
        return 0;
    }
    return QLIBCFileLockTimeByFile(szPath, mode, kLockSeconds, pFd) == 0 ? 0 : 1;
}

int SnapSysLockFilePathGet(const char *szShare, char *szPath, size_t cbPath, int blCreate) {
    if (QOVAShareSnapCreateTmpShareSnapDir(szShare) < 0) {
        return -1;
    }
    if (GetOrCreateRunDirectory(kDataDirectory) < 0) {
        return -1;
    }
    if (!ClaimPath(szPath, cbPath, kDataDirectory, szShare)) {
        return -1;
    }
    if (blCreate != 1) {
        return 0;
    }
    // Without waiting for the other end of a pipe that somebody put there; readers and writers refuse it later.
    const DescriptorOwner file(open(szPath, O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0770));
    if (!file) {
        SNAP_SET_ERR(SNAP_ERR_OPEN_FAILED);
        return -1;
    }
    return 0;
}

// 1 found, 0 no such key or section, -1 failure.
int SnapSysLockValueGet(const char *szShare, const char *szSnapshot, const char *szInitiator, uint32_t *pCount) {
    *pCount = 0;
    char szPath[kPathSize];
    if (SnapSysLockFilePathGet(szShare, szPath, sizeof(szPath), 1) < 0) {
        return -1;
    }
    char szValue[1024] = "";
    if (QLIBCFileGetSectionValue(szPath, szSnapshot, szInitiator, szValue, sizeof(szValue)) >= 0) {
        *pCount = static_cast<uint32_t>(std::strtol(szValue, nullptr, 10));
        return 1;
    }
    const unsigned int uCode = QLIBCErrGet();
    if (uCode == SNAP_ERR_NO_SUCH_KEY || uCode == SNAP_ERR_NO_SUCH_SECTION) {
        return 0;
    }
    SNAP_LOG_REG(LOG_ERR, "Failed to get section(%s) key(%s) for file(%s)[0x%04X %s:%d]", szSnapshot, szInitiator,
                 szPath);
    return -1;
}

// Writes the snapshot's section as the hash says: removed when empty, else added or replaced.
int WriteSection(const QOVASHARE *pShare, const char *szPath, const char *szSnapshot, const QLIBCSZHASH *pHash) {
    if (QLIBCSzHashGetLength(pHash) == 0) {
        return SnapFileSectionRemove(szPath, szSnapshot) < 0 ? -1 : 0;
    }
    const int nAdded = SnapFileSectionAdd(szPath, szSnapshot, pHash, nullptr);
    if (nAdded > 0) {
        return 0;
    }
    if (nAdded < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to add key-value to share(%s) snapshot(%s) section [0x%04X %s:%d]",
                     pShare->szName, szSnapshot);
        return -1;
    }
    if (SnapFileSectionSet(szPath, szSnapshot, nullptr, pHash, nullptr) > 0) {
        return 0;
    }
    SNAP_LOG_REG(LOG_ERR, "Failed to set key-value to share(%s) snapshot(%s) section [0x%04X %s:%d]", pShare->szName,
                 szSnapshot);
    return -1;
}

int SnapSysLockValueSet(const QOVASHARE *pShare, const char *szSnapshot, const char *szInitiator, uint32_t uCount) {
    HashOwner hash(QLIBCSzHashAlloc(1024));
    if (!hash) {
        return -1;
    }
    char szPath[kPathSize];
    if (SnapSysLockFilePathGet(pShare->szName, szPath, sizeof(szPath), 1) < 0 ||
        QLIBCFileGetSection(szPath, szSnapshot, &hash) < 0) {
        return -1;
    }
    if (uCount == 0) {
        (void)QLIBCSzHashRemoveKey(hash.get(), szInitiator); // an absent claim is no failure
    } else {
        char szValue[16];
        (void)std::snprintf(szValue, sizeof(szValue), "%u", uCount);
        if (QLIBCSzHashSetValue(&hash, szInitiator, szValue) < 0) {
            return -1;
        }
    }
    return WriteSection(pShare, szPath, szSnapshot, hash.get());
}

void Unlock(const QOVASHARE *pShare, int nFd) {
    if (nFd >= 0 && QLIBCFileUnlockByFile(nFd) == 0) {
        SNAP_LOG_REG(LOG_WARNING, "Failed to unlock share %s[0x%04X %s:%d]", pShare->szName);
    }
}

[[nodiscard]] bool HasName(const QOVASHARE *pShare) {
    return pShare != nullptr && pShare->szName != nullptr;
}

enum class Change { kIncrement, kDecrement, kRemove };

uint32_t Apply(Change change, uint32_t uCount) {
    switch (change) {
    case Change::kIncrement:
        return uCount == UINT32_MAX ? uCount : uCount + 1; // a count of 0 would be no claim
    case Change::kDecrement:
        return uCount == 0 ? 0 : uCount - 1;
    case Change::kRemove:
        break;
    }
    return 0;
}

int ChangeLocked(const QOVASHARE *pShare, const char *szSnapshot, const char *szInitiator, Change change) {
    uint32_t uCount = 0;
    if (change != Change::kRemove && SnapSysLockValueGet(pShare->szName, szSnapshot, szInitiator, &uCount) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get sys lock for share(%s) snap(%s) key(%s)[0x%04X %s:%d]", pShare->szName,
                     szSnapshot, szInitiator);
        return -1;
    }
    if (SnapSysLockValueSet(pShare, szSnapshot, szInitiator, Apply(change, uCount)) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to set sys lock for share(%s) snap(%s) key(%s)[0x%04X %s:%d]", pShare->szName,
                     szSnapshot, szInitiator);
        return -1;
    }
    return 1;
}

int ChangeClaim(const QOVASHARE *pShare, const char *szSnapshot, const char *szInitiator, Change change) {
    if (!HasName(pShare) || szSnapshot == nullptr || szInitiator == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    int nFd = -1;
    if (SnapSysLockFileLock(pShare->szName, kExclusive, &nFd) == 0) {
        return -1;
    }
    const int nResult = ChangeLocked(pShare, szSnapshot, szInitiator, change);
    Unlock(pShare, nFd);
    return nResult;
}

int ListInitiators(const QOVASHARE *pShare, const char *szSnapshot, QLIBCSZHASH **ppHash, QLIBCSZLIST **pList) {
    char szPath[kPathSize];
    if (SnapSysLockFilePathGet(pShare->szName, szPath, sizeof(szPath), 1) < 0) {
        return -1;
    }
    if (QLIBCFileGetSection(szPath, szSnapshot, ppHash) >= 0) {
        if (QLIBCSzHashGetLength(*ppHash) > 0 && QLIBCSzHashEnumKey(*ppHash, pList) < 0) {
            return -1;
        }
        return 1;
    }
    if (QLIBCErrGet() == SNAP_ERR_NO_SUCH_SECTION) {
        return 1;
    }
    SNAP_LOG_REG(LOG_ERR, "Failed to get section(%s) for file(%s)[0x%04X %s:%d]", szSnapshot, szPath);
    return -1;
}

void UnlinkIfThere(const char *szPath) {
    if (QLIBCFileExist(szPath) == 1 && unlink(szPath) < 0) {
        SNAP_LOG(LOG_ERR, "Failed to unlink:(%s), err:(%s)", szPath, std::strerror(errno));
    }
}

} // namespace

int QOVAShareSnapSysLockIncrement(const QOVASHARE *pShare, const char *szSnapshot, const char *szInitiator) {
    return ChangeClaim(pShare, szSnapshot, szInitiator, Change::kIncrement);
}

int QOVAShareSnapSysLockDecrement(const QOVASHARE *pShare, const char *szSnapshot, const char *szInitiator) {
    return ChangeClaim(pShare, szSnapshot, szInitiator, Change::kDecrement);
}

int QOVAShareSnapSysLockRemove(const QOVASHARE *pShare, const char *szSnapshot, const char *szInitiator) {
    return ChangeClaim(pShare, szSnapshot, szInitiator, Change::kRemove);
}

int QOVAShareSnapSysLockGet(const QOVASHARE *pShare, const char *szSnapshot, const char *szInitiator,
                            uint32_t *pCount) {
    if (!HasName(pShare) || szSnapshot == nullptr || szInitiator == nullptr || pCount == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    int nFd = -1;
    if (SnapSysLockFileLock(pShare->szName, kShared, &nFd) == 0) {
        return -1;
    }
    int nResult = 1;
    if (SnapSysLockValueGet(pShare->szName, szSnapshot, szInitiator, pCount) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get sys lock for share(%s) snap(%s) key(%s)[0x%04X %s:%d]", pShare->szName,
                     szSnapshot, szInitiator);
        nResult = -1;
    }
    Unlock(pShare, nFd);
    return nResult;
}

int QOVAShareSnapSysLockInitiatorList(const QOVASHARE *pShare, const char *szSnapshot, QLIBCSZLIST **pList) {
    if (!HasName(pShare) || szSnapshot == nullptr || pList == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    HashOwner hash(QLIBCSzHashAlloc(1024));
    int nFd = -1;
    if (!hash || SnapSysLockFileLock(pShare->szName, kShared, &nFd) == 0) {
        return -1;
    }
    const int nResult = ListInitiators(pShare, szSnapshot, &hash, pList);
    Unlock(pShare, nFd);
    return nResult;
}

int ShareSnapSysLockShareRenameHook(const char *szOld, const char *szNew) {
    if (szOld == nullptr || szNew == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    char szOldLock[kPathSize];
    char szOldData[kPathSize];
    char szNewData[kPathSize];
    if (!ClaimPath(szOldLock, sizeof(szOldLock), kLockDirectory, szOld) ||
        SnapSysLockFilePathGet(szOld, szOldData, sizeof(szOldData), 0) < 0 ||
        SnapSysLockFilePathGet(szNew, szNewData, sizeof(szNewData), 0) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get snapshot lock file for share(%s) [0x%04X %s:%d]", szOld);
        return -1;
    }
    UnlinkIfThere(szOldLock); // the lock file comes back by itself under the new name
    if (QLIBCFileExist(szOldData) == 1 && rename(szOldData, szNewData) < 0) {
        SNAP_LOG(LOG_ERR, "Failed to rename:(%s) to (%s), err:(%s)", szOldData, szNewData, std::strerror(errno));
    }
    return 0;
}

int ShareSnapSysLockShareDeleteHook(const char *szShare) {
    if (szShare == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    char szLock[kPathSize];
    char szData[kPathSize];
    if (!ClaimPath(szLock, sizeof(szLock), kLockDirectory, szShare) ||
        SnapSysLockFilePathGet(szShare, szData, sizeof(szData), 0) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get snapshot lock file for share(%s) [0x%04X %s:%d]", szShare);
        return -1;
    }
    UnlinkIfThere(szLock);
    UnlinkIfThere(szData);
    return 0;
}
