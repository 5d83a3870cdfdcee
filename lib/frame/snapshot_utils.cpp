// Where a share's snapshots lie, whether it can have any, what the volume holds of them; the metadata lock, and the
// writes of sectioned files.
#include <fcntl.h>
#include <linux/btrfs.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/platform/process.h>
#include <sharesnap/platform/section_file.h>
#include <sharesnap/platform/subvolume.h>
#include <sharesnap/platform/volume.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "frame/log.h"
#include "frame/owners.h"
#include "frame/path_format.h"
#include "frame/run_directory.h"
#include "frame/subvolume_line.h"

using namespace sharesnap;

namespace {

constexpr char kSnapshotTop[] = "@sharesnap";
constexpr char kMetaLockDirectory[] = "/run/lock/sharesnap/sharesnap_meta_lock";
constexpr int kMetaLockSeconds = 10;
constexpr char kBtrfsProgram[] = "/sbin/btrfs";
// User quota isn't loaded for a subvolume with this flag.
constexpr uint64_t BTRFS_SUBVOL_NOLOAD_USRQUOTA = 0x200000000;

// The subvolume that really holds the share's data. 0 or -1.
int DataPath(const QOVASHARE *pShare, char *szPath, size_t cbPath) {
    int nEncrypted = 0;
    if (QLIBShareIsEncryptionGet(pShare, &nEncrypted) < 0) {
        return -1;
    }
    if (nEncrypted == 0) {
        return FormatPath(szPath, cbPath, "%s", pShare->szPath) ? 0 : -1;
    }
    if (QLIBShareEncryptPathGet(pShare->szPath, szPath, cbPath) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get encrypt path for share(%s) [0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    return 0;
}

// The data must be a subvolume on Btrfs. 0 or -1.
int CheckVolume(const QOVASHARE *pShare, int *pFsType) {
    char szData[kPathSize];
    if (DataPath(pShare, szData, sizeof(szData)) < 0) {
        return -1;
    }
    char szVolume[kPathSize];
    if (QOVAShareVolPathGet(szData, szVolume, sizeof(szVolume)) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get vol path of share(%s)[0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    const int nType = QOVAGetFSType(szVolume, 0);
    if (nType < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to fs type from path (%s)[0x%04X %s:%d]", szVolume);
        return -1;
    }
    if (pFsType != nullptr) {
        *pFsType = nType;
    }
    if (nType != FS_TYPE_BTRFS) {
        SNAP_SET_ERR(SNAP_ERR_UNSUPPORTED);
        return -1;
    }
    const int nSubvolume = QOVABtrfsIsSubVol(szData);
    if (nSubvolume < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to check subvol for path (%s) err:(%s)[0x%04X %s:%d]", szData,
                     std::strerror(errno));
        return -1;
    }
    if (nSubvolume == 0) {
        SNAP_SET_ERR(SNAP_ERR_UNSUPPORTED);
        return -1;
    }
    return 0;
}

// Every action that is asked for must be allowed. 0 or -1.
int CheckAction(const QOVASHARE *pShare, unsigned int nAction) {
    unsigned int uAllowed = nAction;
    if (QOVAShareSnapBlackList(pShare, &uAllowed) < 0) {
        return -1;
    }
    if (uAllowed != nAction) {
        SNAP_SET_ERR(SNAP_ERR_UNSUPPORTED);
        return -1;
    }
    int nForbidden = 0;
    if (QLIBShareIsForbiddenGet(pShare, &nForbidden) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed get share forbidden status for share %s[0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    if (nForbidden == 1) {
        SNAP_SET_ERR(SNAP_ERR_SHARE_FORBIDDEN);
        return -1;
    }
    return 0;
}

// A full volume is told from other failures of a write.
int NoticeFullVolume(int nResult) {
    if (nResult == -1 && errno == ENOSPC) {
        SNAP_SET_ERR(SNAP_ERR_NO_SPACE);
    }
    return nResult;
}

void ClosePipe(FILE *pStream) {
    (void)QLIBCPclose(pStream); // what the program printed is trusted, whatever its exit status
}

using PipeOwner = Owner<FILE, ClosePipe>;

} // namespace

int QOVAShareSnapCheckSupport(const QOVASHARE *pShare, int *pFsType, unsigned int nAction) {
    if (pShare == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    if (CheckVolume(pShare, pFsType) < 0) {
        return -1;
    }
    return nAction == 0 ? 0 : CheckAction(pShare, nAction);
}

int QOVAShareSnapGetOrCreateSnapDir(const QOVASHARE *pShare, char *szPath, size_t cbPath, int blCreate) {
    if (pShare == nullptr || szPath == nullptr || cbPath == 0) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    int nType = FS_TYPE_UNKNOWN;
    if (QOVAShareSnapCheckSupport(pShare, &nType, 0) < 0 || nType != FS_TYPE_BTRFS) {
        return -1;
    }
    const int nResult = SnapGetOrCreateSubvolumeWithShare(pShare, kSnapshotTop, szPath, cbPath, blCreate);
    if (nResult < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to access Btrfs share %s snapshot directory [0x%04X %s:%d]", pShare->szName);
    }
    return nResult;
}

int QOVAShareSnapGetSnapPath(const QOVASHARE *pShare, const char *szSnapshot, char *szBuf, size_t cbBuf) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    if (szSnapshot == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szSnapshot");
    }
    if (szBuf == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szBuf");
    }
    if (cbBuf == 0) {
        return SNAP_BAD_ARGUMENT("0 < cbBuf");
    }
    char szDirectory[kPathSize];
    const int nDirectory = QOVAShareSnapGetOrCreateSnapDir(pShare, szDirectory, sizeof(szDirectory), 0);
    if (nDirectory < 0 || !FormatPath(szBuf, cbBuf, "%s/%s", szDirectory, szSnapshot)) {
        return -1;
    }
    if (nDirectory != 1) {
        return 0;
    }
    const int nSubvolume = QOVABtrfsIsSubVol(szBuf);
    if (nSubvolume < 0) {
        return 0;
    }
    return nSubvolume == 1 ? 1 : -1;
}

int SnapshotDirRename(const QOVASHARE *pOldShare, const QOVASHARE *pNewShare) {
    if (pOldShare == nullptr || pNewShare == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    char szNew[kPathSize];
    const int nNew = SnapGetOrCreateSubvolumeWithShare(pNewShare, kSnapshotTop, szNew, sizeof(szNew), 0);
    if (nNew < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get new snapshot directory path [0x%04X %s:%d]");
        return -1;
    }
    if (nNew == 1) {
        SNAP_LOG_REG(LOG_ERR, "New snapshot directory %s already exist [0x%04X %s:%d]", szNew);
        SNAP_SET_ERR(SNAP_ERR_SNAPSHOT_EXISTS);
        return -1;
    }
    // Made when missing, so that a share without snapshots is renamed like any other.
    char szOld[kPathSize];
    if (QOVAShareSnapGetOrCreateSnapDir(pOldShare, szOld, sizeof(szOld), 1) != 1) {
        SNAP_LOG_REG(LOG_ERR, "Original snapshot directory doesn't exist [0x%04X %s:%d]");
        return -1;
    }
    if (std::rename(szOld, szNew) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to rename %s to %s [0x%04X %s:%d]", szOld, szNew);
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return -1;
    }
    return 0;
}

int BtrfsListSnaps(const QOVASHARE *pShare, QLIBCSZLIST **ppList) {
    if (pShare == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    char szVolume[QOVA_VOLUME_PATH_SIZE] = {};
    if (VolumePathParseEx(pShare->szPath, szVolume) < 0) {
        SNAP_LOG(LOG_ERR, "Fail to parse volume path from [%s]", pShare->szPath);
        return -1;
    }
    const PipeOwner stream(QLIBCPopen(kBtrfsProgram, "r", "subvolume", "list", szVolume, static_cast<char *>(nullptr)));
    if (!stream) {
        char szCommand[kPathSize];
        const ErrnoKeeper keeper;
        (void)std::snprintf(szCommand, sizeof(szCommand), "%s subvolume list '%s' 2>/dev/null", kBtrfsProgram,
                            szVolume); // for the log alone: no shell runs
        errno = keeper.value();
        SNAP_LOG(LOG_ERR, "Failed to do [%s], err=%m", szCommand);
        return -1;
    }
    char szPrefix[kPathSize];
    if (!SnapshotPrefix(pShare, szPrefix, sizeof(szPrefix))) {
        return -1;
    }
    const size_t cbPrefix = std::strlen(szPrefix);
    char szPath[kSubvolumeLineSize];
    while (NextSubvolumePath(stream.get(), szPath)) {
        if (std::strncmp(szPath, szPrefix, cbPrefix) == 0 && QLIBCSzListPush(ppList, szPath + cbPrefix) < 0) {
            return -1; // a list with a gap would tell of snapshots that are gone
        }
    }
    return EndsWhole(stream.get()) ? 0 : -1;
}

int ShareSubvolumePathGet(const QOVASHARE *pShare, char *szShareSubvolPath, size_t cb) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    if (szShareSubvolPath == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != szShareSubvolPath");
    }
    int nEncrypted = 0;
    if (QLIBShareIsEncryptionGet(pShare, &nEncrypted) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get encryption status of share [%s] [0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    if (nEncrypted != 0) {
        if (QLIBShareEncryptPathGet(pShare->szPath, szShareSubvolPath, cb) < 0) {
            SNAP_LOG_REG(LOG_ERR, "Failed to get encrypt path for share [%s] [0x%04X %s:%d]", pShare->szName);
            return -1;
        }
        return 0;
    }
    if (!FormatPath(szShareSubvolPath, cb, "%s", pShare->szPath)) {
        SNAP_LOG(LOG_ERR, "Failed to copy share subvolume path");
        return -1;
    }
    return 0;
}

int SnapFillSubvolInfo(const QOVASHARE *pShare, const char *szSnapName, QLIBCSZHASH **ppHash) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    if (szSnapName == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szSnapName");
    }
    if (ppHash == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != ppHash");
    }
    char szDirectory[kPathSize];
    if (QOVAShareSnapGetOrCreateSnapDir(pShare, szDirectory, sizeof(szDirectory), 0) != 1) {
        return -1;
    }
    char szPath[kPathSize];
    if (!FormatPath(szPath, sizeof(szPath), "%s/%s", szDirectory, szSnapName)) {
        return -1;
    }
    const int nResult = QOVASnapFillSubvolInfoWithPath(szPath, ppHash);
    if (nResult < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to fill subvol info by path[%s][0x%04X %s:%d]", szPath);
    }
    return nResult;
}

int QOVAShareSnapLockMetaFile(const QOVASHARE *pShare, int nMode) {
    if (pShare == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    char szLock[1024];
    if (!FormatPath(szLock, sizeof(szLock), "/run/lock/sharesnap/sharesnap_meta_lock/%s.lock", pShare->szName) ||
        QOVAShareSnapCreateRunLockShareSnapDir() != 1 || GetOrCreateRunDirectory(kMetaLockDirectory) != 1) {
        return -1;
    }
    int nFd = -1;
    if (QLIBCFileLockTimeByFile(szLock, nMode, kMetaLockSeconds, &nFd) == 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to lock file [%s] [0x%04X %s:%d]", szLock);
        return -1;
    }
    return nFd;
}

int SnapFileSectionSet(const char *szPath, const char *szSection, const char *szNewSection, const QLIBCSZHASH *pHash,
                       const char *szFormat) {
    return NoticeFullVolume(QLIBCFileSetSection(szPath, szSection, szNewSection, pHash, szFormat));
}

int SnapFileSectionAdd(const char *szPath, const char *szSection, const QLIBCSZHASH *pHash, const char *szFormat) {
    return NoticeFullVolume(QLIBCFileAddSection(szPath, szSection, pHash, szFormat));
}

int SnapFileSectionRemove(const char *szPath, const char *szSection) {
    return NoticeFullVolume(QLIBCFileRemoveSection(szPath, szSection));
}

int BtrfsSubvolNoLoadUsrQuotaAttrSet(const char *szPath, int blSet) {
    const DescriptorOwner subvolume(open(szPath, O_RDONLY | O_CLOEXEC));
    if (!subvolume) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get subvolume [0x%04X %s:%d]");
        SNAP_SET_ERR(SNAP_ERR_OPEN_FAILED);
        return -1;
    }
    uint64_t uFlags = 0;
    if (ioctl(subvolume.get(), BTRFS_IOC_SUBVOL_GETFLAGS, &uFlags) < 0) {
        SNAP_LOG(LOG_ERR, "Failed to get subvolume flags.\n");
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return -1;
    }
    uFlags = blSet != 0 ? uFlags | BTRFS_SUBVOL_NOLOAD_USRQUOTA : uFlags & ~BTRFS_SUBVOL_NOLOAD_USRQUOTA;
    if (ioctl(subvolume.get(), BTRFS_IOC_SUBVOL_SETFLAGS, &uFlags) < 0) {
        SNAP_LOG(LOG_ERR, "Failed to set subvolume flags.\n");
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return -1;
    }
    return 0;
}
