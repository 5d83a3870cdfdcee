// The directories that the library makes: subvolumes and plain directories at the top of a volume, one for each share
// below them, and the directories below /run.
#include <fcntl.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/file_operation.h>
#include <sharesnap/platform/subvolume.h>
#include <sharesnap/platform/volume.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "frame/log.h"
#include "frame/path_format.h"
#include "frame/run_directory.h"

// A platform can lack the operation, as on a kernel without the system call under it: the address is null then.
extern "C" __attribute__((weak)) int QOVASmbAttributeSet(const char *szPath, int nCommand);

namespace sharesnap {

namespace {

constexpr char kRunLockDirectory[] = "/run/lock/sharesnap";
constexpr char kRunDirectory[] = "/run/sharesnap";

int CheckArguments(const QOVASHARE *pShare, const char *szDir, const char *szPath, size_t cbPath) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    if (szDir == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szDir");
    }
    if (szPath == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szPath");
    }
    if (cbPath == 0) {
        return SNAP_BAD_ARGUMENT("0 < cbPath");
    }
    return 0;
}

// Writes the path of szDir at the top of the share's volume. 0 or -1.
int TopPath(const QOVASHARE *pShare, const char *szDir, char *szPath, size_t cbPath) {
    if (CheckArguments(pShare, szDir, szPath, cbPath) < 0) {
        return -1;
    }
    char szVolume[kPathSize];
    if (QOVAShareVolPathGet(pShare->szPath, szVolume, sizeof(szVolume)) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Volpath of %s not found [0x%04X %s:%d]", pShare->szPath);
        return -1;
    }
    return FormatPath(szPath, cbPath, "%s/%s", szVolume, szDir) ? 0 : -1;
}

// Writes the path of the share's own directory below szTop, the look for which gave nTop. 0 or -1.
int SharePath(const QOVASHARE *pShare, int nTop, const char *szTop, char *szPath, size_t cbPath) {
    if (nTop < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get @sharesnap path [0x%04X %s:%d]");
        return -1;
    }
    int nEncrypted = 0;
    if (QLIBShareIsEncryptionGet(pShare, &nEncrypted) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get eycrnption status of share [%s] [0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    const bool blWritten = nEncrypted != 0 ? FormatPath(szPath, cbPath, "%s/@%s@", szTop, pShare->szName)
                                           : FormatPath(szPath, cbPath, "%s/%s", szTop, pShare->szName);
    return blWritten ? 0 : -1;
}

// Renames what stands in the way of a subvolume. Nothing is ever deleted or replaced by it.
bool MoveAside(const char *szPath) {
    char szAside[kPathSize - 1];
    if (!FormatPath(szAside, sizeof(szAside), "%s.%ld", szPath, static_cast<long>(std::time(nullptr)))) {
        return false;
    }
    struct stat info;
    if (lstat(szAside, &info) == 0) {
        errno = EEXIST;
    } else if (std::rename(szPath, szAside) == 0) {
        return true;
    }
    SNAP_LOG_REG(LOG_ERR, "Failed to rename dir [%s] to [%s][0x%04X %s:%d]", szPath, szAside);
    SNAP_SET_ERR(SNAP_ERR_CREATE_FAILED);
    return false;
}

int SmbAttributeSet(const char *szPath, int nCommand) {
    if (QOVASmbAttributeSet == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    return QOVASmbAttributeSet(szPath, nCommand);
}

bool WriteDesktopIni(const char *szIni) {
    FILE *pStream = std::fopen(szIni, "we");
    if (pStream == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_OPEN_FAILED);
        return false;
    }
    // An icon that is lost on a full volume is no reason to fail.
    (void)std::fprintf(pStream, "[.ShellClassInfo]\n");
    (void)std::fprintf(pStream, "IconFile=%%SystemRoot%%\\system32\\SHELL32.dll\n");
    (void)std::fprintf(pStream, "IconIndex=117\n");
    (void)std::fclose(pStream);
    return true;
}

// Makes a new share directory show up as a system folder in network clients. Failures cost the looks alone.
void DressShareDirectory(const char *szPath) {
    if (BtrfsSubvolNoLoadUsrQuotaAttrSet(szPath, 1) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to set path [%s] NoLoadUsrQuota Attr.[0x%04X %s:%d]", szPath);
    }
    if (SmbAttributeSet(szPath, F_SETSMB_SYSTEM) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to set path [%s] ArchiveBut F_SETSMB_SYSTEM.[0x%04X %s:%d]", szPath);
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return;
    }
    char szIni[kPathSize];
    if (!FormatPath(szIni, sizeof(szIni), "%s/desktop.ini", szPath) || !WriteDesktopIni(szIni)) {
        return;
    }
    if (SmbAttributeSet(szIni, F_SETSMB_FILE) < 0) {
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
    }
    if (chmod(szIni, 0666) < 0) {
        SNAP_LOG(LOG_ERR, "chmod failed for %s. err:(%s)", szIni, std::strerror(errno));
    }
}

// A plain directory: 1 it stands, 0 absent without blCreate or mkdir failed, -1 something else stands there.
int GetOrCreateDirectory(const char *szPath, int blCreate) {
    const int nExist = ShareSnapCheckDirExist(szPath);
    if (nExist < 0) {
        SNAP_SET_ERR(SNAP_ERR_NOT_A_DIRECTORY);
        return -1;
    }
    if (nExist == 1) {
        return 1;
    }
    if (blCreate == 0) {
        return 0;
    }
    if (mkdir(szPath, 0777) < 0 && errno != EEXIST) {
        SNAP_LOG(LOG_ERR, "Failed to mkdir [%s], errno=%d/%m\n", szPath, errno);
        SNAP_SET_ERR(SNAP_ERR_CREATE_FAILED);
        return 0;
    }
    return 1;
}

} // namespace

} // namespace sharesnap

using namespace sharesnap;

int ShareSnapCheckDirExist(const char *szPath) {
    struct stat info;
    if (szPath == nullptr || stat(szPath, &info) < 0) {
        return 0;
    }
    return S_ISDIR(info.st_mode) ? 1 : -1;
}

int ShareSnapCheckFileExist(const char *szPath) {
    struct stat info;
    if (szPath == nullptr || stat(szPath, &info) < 0) {
        return 0;
    }
    return S_ISREG(info.st_mode) ? 1 : -1;
}

int SnapGetOrCreateSubvolume(const QOVASHARE *pShare, const char *szDir, char *szPath, size_t cbPath, int blCreate) {
    if (TopPath(pShare, szDir, szPath, cbPath) < 0) {
        return -1;
    }
    const int nSubvolume = QOVABtrfsIsSubVol(szPath);
    if (nSubvolume == 1) {
        return 1;
    }
    if (blCreate == 0) {
        return 0;
    }
    if (nSubvolume == 0 && !MoveAside(szPath)) {
        return 0;
    }
    if (QOVABtrfsCreateSubVol(szPath) != -1) {
        return 1;
    }
    // Another process may have made it in between.
    if (QOVABtrfsIsSubVol(szPath) == 1) {
        return 1;
    }
    SNAP_SET_ERR(SNAP_ERR_CREATE_FAILED);
    return 0;
}

int SnapGetOrCreateSubvolumeWithShare(const QOVASHARE *pShare, const char *szDir, char *szPath, size_t cbPath,
                                      int blCreate) {
    if (pShare == nullptr || szPath == nullptr || cbPath == 0) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    char szTop[kPathSize];
    const int nTop = SnapGetOrCreateSubvolume(pShare, szDir, szTop, sizeof(szTop), blCreate);
    if (blCreate != 0 && nTop != 1) {
        SNAP_LOG_REG(LOG_ERR, "Failed to create @sharesnap subvolume [0x%04X %s:%d]");
        return -1;
    }
    if (SharePath(pShare, nTop, szTop, szPath, cbPath) < 0) {
        return -1;
    }
    const int nSubvolume = QOVABtrfsIsSubVol(szPath);
    if (nSubvolume == 1) {
        return 1;
    }
    if (blCreate == 0) {
        return 0;
    }
    if (nSubvolume == 0 && !MoveAside(szPath)) {
        return 0;
    }
    if (QOVABtrfsCreateSubVol(szPath) == -1) {
        SNAP_LOG(LOG_ERR, "Failed to subvol %s, errno=%d/%m\n", szPath, errno);
        SNAP_SET_ERR(SNAP_ERR_CREATE_FAILED);
        return 0;
    }
    DressShareDirectory(szPath);
    return 1;
}

int QOVAShareSnapGetOrCreateDir(const QOVASHARE *pShare, const char *szDir, char *szPath, size_t cbPath, int blCreate) {
    if (TopPath(pShare, szDir, szPath, cbPath) < 0) {
        return -1;
    }
    return GetOrCreateDirectory(szPath, blCreate);
}

int SnapGetOrCreateDirWithShare(const QOVASHARE *pShare, const char *szDir, char *szPath, size_t cbPath, int blCreate) {
    if (pShare == nullptr || szPath == nullptr || cbPath == 0) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    char szTop[kPathSize];
    const int nTop = QOVAShareSnapGetOrCreateDir(pShare, szDir, szTop, sizeof(szTop), blCreate);
    if (blCreate != 0 && nTop != 1) {
        SNAP_LOG_REG(LOG_ERR, "Failed to create @sharesnap directory [0x%04X %s:%d]");
        return -1;
    }
    if (SharePath(pShare, nTop, szTop, szPath, cbPath) < 0) {
        return -1;
    }
    return GetOrCreateDirectory(szPath, blCreate);
}

int QOVAShareSnapCreateRunLockShareSnapDir(void) {
    return GetOrCreateRunDirectory(kRunLockDirectory);
}

int QOVAShareSnapCreateTmpShareSnapDir(const char *szIgnored) {
    (void)szIgnored;
    return GetOrCreateRunDirectory(kRunDirectory);
}
