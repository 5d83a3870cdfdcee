// What follows a share when it is made, renamed or removed.
#include <sharesnap/config.h>
#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/file_operation.h>
#include <sharesnap/platform/subvolume.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "frame/log.h"
#include "frame/owners.h"
#include "frame/path_format.h"
#include "intl_utils/share_info_get.h"

namespace {

using namespace sharesnap;

constexpr size_t kShareNameSize = 1024;
constexpr size_t kListSize = 1024;
constexpr char kIconFile[] = "desktop.ini";

[[nodiscard]] int RefuseNull() {
    SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
    return -1;
}

struct ShareName {
    char szName[kShareNameSize] = "";
    char szPath[kPathSize] = "";
};

[[nodiscard]] bool SplitSharePath(const char *szSharePath, ShareName &split) {
    if (QOVAShareNamePathGet(szSharePath, split.szName, sizeof(split.szName), split.szPath, sizeof(split.szPath)) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share name and path from %s [0x%04X %s:%d]", szSharePath);
        return false;
    }
    return true;
}

struct Removal {
    const char *szSharePath;
    ShareName split;
    ListOwner list;
    ShareOwner share;
    char szSnapDir[kPathSize] = "";
};

[[nodiscard]] bool FetchShare(Removal &r) {
    if (ShareGetWithRetry(r.split.szName, &r.share) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share (%s)[0x%04X %s:%d]", r.split.szName);
        return false;
    }
    return true;
}

// From the file system, so that snapshots go too that the metadata has lost.
[[nodiscard]] bool ListSnapshots(Removal &r) {
    if (BtrfsListSnaps(r.share.get(), &r.list) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to list snapshots for share [%s][0x%04X %s:%d]", r.split.szName);
        return false;
    }
    return true;
}

[[nodiscard]] bool DeleteSnapshots(const Removal &r) {
    if (QOVABtrfsDeleteSubvolListFaultTolerant(r.szSnapDir, r.list.get()) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Faild to delete subvolumes.[0x%04X %s:%d]");
        return false;
    }
    return true;
}

[[nodiscard]] bool RemoveIcon(const Removal &r) {
    char szPath[kPathSize] = "";
    if (!FormatPath(szPath, sizeof(szPath), "%s/%s", r.szSnapDir, kIconFile)) {
        SNAP_SET_ERR(SNAP_ERR_REMOVE_FAILED);
        return false;
    }
    if (ShareSnapCheckFileExist(szPath) == 1 && std::remove(szPath) != 0) {
        SNAP_LOG(LOG_ERR, "Failed to remove snapshot directory %s file %s (%m)", r.szSnapDir, kIconFile);
        SNAP_SET_ERR(SNAP_ERR_REMOVE_FAILED);
        return false;
    }
    return true;
}

[[nodiscard]] bool DeleteSnapDir(const Removal &r) {
    if (QOVABtrfsDeleteSubvolFaultTolerant(r.szSnapDir) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to delete subvolume %s err:(%s) [0x%04X %s:%d]", r.szSnapDir,
                     std::strerror(errno));
        SNAP_SET_ERR(SNAP_ERR_REMOVE_FAILED);
        return false;
    }
    return true;
}

[[nodiscard]] bool RemoveSnapDirWithSnapshots(Removal &r) {
    const int nStands = QOVAShareSnapGetOrCreateSnapDir(r.share.get(), r.szSnapDir, sizeof(r.szSnapDir), 0);
    if (nStands < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get snapshot directory from share [%s] [0x%04X %s:%d]", r.split.szName);
        return false;
    }
    return nStands == 0 || (DeleteSnapshots(r) && RemoveIcon(r) && DeleteSnapDir(r));
}

[[nodiscard]] bool RemoveEaDir(const Removal &r) {
    int64_t nFlag = 1;
    if (QOVAEARemove(r.split.szPath, 3, &nFlag) < 0) {
        SNAP_LOG(LOG_ERR, "failed to remove share [%s] eaDir", r.split.szName);
        return false;
    }
    return true;
}

[[nodiscard]] bool DeleteShareSubvolume(const Removal &r) {
    if (QOVABtrfsDeleteSubvolFaultTolerant(r.szSharePath) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to delete btrfs subvolume [%s] [0x%04X %s:%d]", r.szSharePath);
        return false;
    }
    return true;
}

// With the share gone a leftover metadata file is no failure of its removal.
void DeleteMetadata(const Removal &r) {
    if (SnapMetaFileDelete(r.share.get()) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to delete metafile of share [%s] [0x%04X %s:%d]", r.split.szName);
    }
}

struct Rename {
    const QOVASHARE *pOld;
    const QOVASHARE *pNew;
    const char *szOldPath;
    const char *szNewPath;
};

[[nodiscard]] bool MoveSettings(const Rename &r) {
    if (QOVAShareSnapConfUpdate(r.pOld->szName, r.pNew->szName, nullptr) < 0) {
        SNAP_LOG_REG(LOG_ERR, "sharesnap config share rename fail (%s -> %s) [0x%04X %s:%d]", r.pOld->szName,
                     r.pNew->szName);
        return false;
    }
    return true;
}

[[nodiscard]] bool MoveMetadata(const Rename &r) {
    if (SnapMetaFileRename(r.pOld, r.pNew) < 0) {
        SNAP_LOG_REG(LOG_ERR, "meta rename fail (%s -> %s) [0x%04X %s:%d]", r.pOld->szName, r.pNew->szName);
        return false;
    }
    return true;
}

[[nodiscard]] bool MoveSnapDir(const Rename &r) {
    if (SnapshotDirRename(r.pOld, r.pNew) < 0) {
        SNAP_LOG_REG(LOG_ERR, "snap dir rename fail (%s -> %s) [0x%04X %s:%d]", r.pOld->szName, r.pNew->szName);
        return false;
    }
    return true;
}

[[nodiscard]] bool MoveData(const Rename &r) {
    if (std::rename(r.szOldPath, r.szNewPath) != 0) {
        SNAP_LOG(LOG_ERR, "Failed to rename %s to %s\n", r.szOldPath, r.szNewPath);
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return false;
    }
    return true;
}

void MoveSnapDirBack(const Rename &r) {
    if (SnapshotDirRename(r.pNew, r.pOld) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to rollback snapdir share (%s -> %s) [0x%04X %s:%d]", r.pNew->szName,
                     r.pOld->szName);
    }
}

void MoveMetadataBack(const Rename &r) {
    if (SnapMetaFileRename(r.pNew, r.pOld) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to rollback snap metafile (%s -> %s) [0x%04X %s:%d]", r.pNew->szName,
                     r.pOld->szName);
    }
}

void MoveSettingsBack(const Rename &r) {
    if (QOVAShareSnapConfUpdate(r.pNew->szName, r.pOld->szName, nullptr) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to rollback sharesnap conf (%s -> %s) [0x%04X %s:%d]", r.pNew->szName,
                     r.pOld->szName);
    }
}

} // namespace

int QOVAShareSnapShareCreate(const char *szPath) {
    if (szPath == nullptr) {
        return RefuseNull();
    }
    return QOVABtrfsCreateSubVol(szPath) < 0 ? -1 : 0;
}

int QOVAShareSnapConfigDelete(const char *szSharePath) {
    if (szSharePath == nullptr) {
        return RefuseNull();
    }
    ShareName split;
    if (!SplitSharePath(szSharePath, split)) {
        return -1;
    }
    if (QOVAShareSnapConfDeleteShare(split.szName) != 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to delete sharesnap config section(%s) [0x%04X %s:%d]", split.szName);
        return -1;
    }
    return 0;
}

int QOVAShareSnapDataDelete(const char *szSharePath) {
    if (szSharePath == nullptr) {
        return RefuseNull();
    }
    Removal r{szSharePath, {}, {}, {}, {}};
    r.list.reset(QLIBCSzListAlloc(kListSize));
    if (!r.list || !SplitSharePath(szSharePath, r.split) || !FetchShare(r) || !ListSnapshots(r) ||
        !RemoveSnapDirWithSnapshots(r) || !RemoveEaDir(r) || !DeleteShareSubvolume(r)) {
        return -1;
    }
    DeleteMetadata(r);
    return 0;
}

int QOVAShareSnapShareRename(const QOVASHARE *pShareOld, const QOVASHARE *pShareNew, const char *szOldPath,
                             const char *szNewPath) {
    if (pShareOld == nullptr || pShareNew == nullptr || szOldPath == nullptr || szNewPath == nullptr) {
        return RefuseNull();
    }
    const Rename r{pShareOld, pShareNew, szOldPath, szNewPath};
    if (!MoveSettings(r)) {
        return -1;
    }
    // Each store that has moved goes back, the last one first, whatever became of the one before.
    if (MoveMetadata(r)) {
        if (MoveSnapDir(r)) {
            if (MoveData(r)) {
                return 0;
            }
            MoveSnapDirBack(r);
        }
        MoveMetadataBack(r);
    }
    MoveSettingsBack(r);
    return -1;
}
