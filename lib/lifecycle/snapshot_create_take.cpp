// The later stages of a creation: the reserve on the volume, the subvolume itself, its mark and its facts.
#include <sharesnap/frame.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/subvolume.h>
#include <sharesnap/platform/volume.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "frame/log.h"
#include "frame/path_format.h"
#include "lifecycle/snapshot_create.h"

namespace {

using namespace sharesnap;

constexpr size_t kTargetSize = 1024;
constexpr size_t kFactsSize = 1024;

struct Taking {
    const Creation &c;
    HashOwner facts;
    char szSource[kPathSize] = "";
    char szTarget[kTargetSize] = "";
};

[[nodiscard]] bool FindFreeSpace(const QOVASHARE *pShare, unsigned long long &ullFree) {
    char szVolume[QOVA_VOLUME_PATH_SIZE] = "";
    if (VolumePathParseEx(pShare->szPath, szVolume) < 0) {
        SNAP_LOG(LOG_ERR, "Fail to parse volume path from [%s]", pShare->szPath);
        return false;
    }
    struct statfs info = {};
    if (statfs(szVolume, &info) < 0) {
        SNAP_LOG(LOG_ERR, "Failed to statfs [%s], errno:(%s)", szVolume, std::strerror(errno));
        return false;
    }
    ullFree = static_cast<unsigned long long>(info.f_bavail) * static_cast<unsigned long long>(info.f_bsize);
    return true;
}

[[nodiscard]] bool FindSource(Taking &t) {
    const QOVASHARE *pShare = t.c.pShare;
    int nEncrypted = 0;
    if (QLIBShareIsEncryptionGet(pShare, &nEncrypted) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get encryption status of share [%s] [0x%04X %s:%d]", pShare->szName);
        return false;
    }
    if (nEncrypted == 0) {
        return FormatPath(t.szSource, sizeof(t.szSource), "%s", pShare->szPath);
    }
    if (QLIBShareEncryptPathGet(pShare->szPath, t.szSource, sizeof(t.szSource)) < 0) {
        SNAP_LOG(LOG_ERR, "Get EncPath failed.");
        return false;
    }
    return true;
}

[[nodiscard]] bool CheckSource(const Taking &t) {
    if (QOVABtrfsIsSubVol(t.szSource) < 1) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return false;
    }
    return true;
}

[[nodiscard]] bool FindTarget(Taking &t) {
    char szDirectory[kTargetSize] = "";
    if (QOVAShareSnapGetOrCreateSnapDir(t.c.pShare, szDirectory, sizeof(szDirectory), 1) != 1) {
        SNAP_LOG_REG(LOG_ERR, "Fail to create and get snapshot dir for share %s. [0x%04X %s:%d]", t.c.pShare->szName);
        return false;
    }
    return FormatPath(t.szTarget, sizeof(t.szTarget), "%s/%s", szDirectory, t.c.szName);
}

[[nodiscard]] bool TakeSubvolume(const Taking &t) {
    const clock_t tBefore = clock(); // processor time, without the waits for the disk
    const int nTaken = QOVABtrfsReadOnlySnapshotTake(t.szSource, t.szTarget);
    const clock_t tAfter = clock();
    if (nTaken < 0) {
        SNAP_LOG_REG(LOG_ERR, "Faild to create subvolume %s \n[0x%04X %s:%d]", t.szTarget);
        if (QLIBCErrGet() == 0) {
            SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        }
        return false;
    }
    SNAP_LOG(LOG_WARNING, "The time taken by creating snapshot [%s] of share [%s] is %f s.\n", t.c.szName,
             t.c.pShare->szName, static_cast<double>(tAfter - tBefore) / 1000000.0);
    return true;
}

[[nodiscard]] bool StoreFacts(Taking &t) {
    const QOVASHARE *pShare = t.c.pShare;
    if (SnapFillSubvolInfo(pShare, t.c.szName, &t.facts) < 0) {
        // The snapshot is good without facts that the platform can't tell.
        return QLIBCErrGet() == SNAP_ERR_UNSUPPORTED;
    }
    if (QOVAShareSnapAttrMultiSet(pShare, t.c.szName, t.facts.get()) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to set attributes to snapshot [%s] of share [%s][0x%04X %s:%d]", t.c.szName,
                     pShare->szName);
        return false;
    }
    return true;
}

[[nodiscard]] bool CompleteSubvolume(Taking &t) {
    return QOVABtrfsSubvolHideAttrSet(t.szTarget, t.c.blHidden ? 1 : 0) >= 0 && StoreFacts(t);
}

// The caller hears why the snapshot couldn't be completed, also when its deletion fails too.
void DeleteTaken(const Taking &t) {
    const ErrorKeeper keeper;
    if (QOVABtrfsDeleteSubvolFaultTolerant(t.szTarget) < 0) {
        SNAP_LOG(LOG_ERR, "Failed to delete subvol %s, err: %s", t.szTarget, std::strerror(errno));
    }
    keeper.restore(__FILE_NAME__, __LINE__);
}

[[nodiscard]] bool TakeAndComplete(Taking &t) {
    t.facts.reset(QLIBCSzHashAlloc(kFactsSize));
    if (!t.facts || !FindSource(t) || !CheckSource(t) || !FindTarget(t) || !TakeSubvolume(t)) {
        return false;
    }
    if (!CompleteSubvolume(t)) {
        DeleteTaken(t);
        return false;
    }
    return true;
}

} // namespace

namespace sharesnap {

bool CheckReservedSpace(const Creation &c) {
    unsigned long long ullFree = 0;
    if (!FindFreeSpace(c.pShare, ullFree)) {
        SNAP_LOG(LOG_ERR, "Failed to check volume free space for share [%s]", c.pShare->szName);
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return false;
    }
    if (ullFree < kReserveBytes) {
        SNAP_SET_ERR(SNAP_ERR_LOW_RESERVED_SPACE);
        return false;
    }
    return true;
}

bool CheckFileSystemType(const Creation &c) {
    if (c.nFsType != FS_TYPE_BTRFS) {
        SNAP_LOG(LOG_ERR, "Unsupported file system type!\n");
        SNAP_SET_ERR(SNAP_ERR_UNSUPPORTED);
        return false;
    }
    return true;
}

bool TakeSnapshot(const Creation &c) {
    Taking t{c, {}, {}, {}};
    if (!TakeAndComplete(t)) {
        SNAP_LOG_REG(LOG_ERR, "Failed to create snapshot\n[0x%04X %s:%d]");
        return false;
    }
    return true;
}

} // namespace sharesnap
