#include "config/share_config_file.h"

#include <fcntl.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/platform/file_operation.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "frame/log.h"
#include "frame/owners.h"
#include "frame/path_format.h"
#include "frame/run_directory.h"

namespace sharesnap {

namespace {

constexpr char kLockDirectory[] = "/run/lock/sharesnap/sharesnap_share_configuration_lock";
constexpr int kLockSeconds = 10;

// Users write into the share: a link in the place of one of these is something of the wrong type, whatever it leads to.
bool IsLink(const char *szPath) {
    struct stat st;
    return lstat(szPath, &st) == 0 && S_ISLNK(st.st_mode);
}

int CheckDir(const char *szPath) {
    return IsLink(szPath) ? -1 : ShareSnapCheckDirExist(szPath);
}

int CheckFile(const char *szPath) {
    return IsLink(szPath) ? -1 : ShareSnapCheckFileExist(szPath);
}

} // namespace

int ShareBasePathGet(const QOVASHARE *pShare, char *szPath, std::size_t cbPath) {
    int nEncrypted = 0;
    if (QLIBShareIsEncryptionGet(pShare, &nEncrypted) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get encryption status of share [%s] [0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    if (nEncrypted == 0) {
        return FormatPath(szPath, cbPath, "%s", pShare->szPath) ? 0 : -1;
    }
    if (QLIBShareEncryptPathGet(pShare->szPath, szPath, cbPath) < 0) {
        SNAP_LOG_REG(LOG_ERR, "get sahre [%s] encpath failed.[0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    return 0;
}

int ShareEaDirGet(const QOVASHARE *pShare, char *szPath, int blCreate) {
    if (pShare == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    char szBase[kPathSize];
    if (ShareBasePathGet(pShare, szBase, sizeof(szBase)) < 0) {
        return -1;
    }
    if (!FormatPath(szPath, kPathSize, "%s/%s", szBase, kEaDirName)) {
        return -1;
    }
    const int nExist = CheckDir(szPath);
    if (nExist < 0) {
        SNAP_SET_ERR(SNAP_ERR_BAD_FILE_TYPE);
        return -1;
    }
    if (nExist == 1 || blCreate == 0) {
        return nExist;
    }
    if (QOVAEAMKDir(0, szPath) != 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to create %s [0x%04X %s:%d]", szPath);
        return 0;
    }
    return 1;
}

int ShareConfigDirGet(const QOVASHARE *pShare, char *szPath, int blCreate) {
    if (pShare == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    char szEaDir[kPathSize];
    if (ShareEaDirGet(pShare, szEaDir, blCreate) != 1) {
        SNAP_SET_ERR(SNAP_ERR_EA_DIR_UNAVAILABLE);
        return -1;
    }
    if (!FormatPath(szPath, kPathSize, "%s/%s", szEaDir, kShareConfigDirName)) {
        return -1;
    }
    const int nExist = CheckDir(szPath);
    if (nExist < 0) {
        SNAP_SET_ERR(SNAP_ERR_BAD_FILE_TYPE);
        return -1;
    }
    if (nExist == 1 || blCreate == 0) {
        return nExist;
    }
    if (mkdir(szPath, 0644) < 0) {
        if (errno != EEXIST) {
            SNAP_LOG(LOG_ERR, "Failed to mkdir [%s], errno=%d/%m\n", szPath, errno);
            SNAP_SET_ERR(SNAP_ERR_CREATE_FAILED);
            return 0;
        }
        if (CheckDir(szPath) < 0) { // what was put there meanwhile is of the wrong type, too
            SNAP_SET_ERR(SNAP_ERR_BAD_FILE_TYPE);
            return -1;
        }
    }
    (void)lchown(szPath, 0, 0); // root makes it as a rule; a link planted meanwhile isn't followed
    return 1;
}

int ShareConfigFileGet(const QOVASHARE *pShare, char *szPath, int blCreate) {
    if (pShare == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    char szDirectory[kPathSize];
    const int nDirectory = ShareConfigDirGet(pShare, szDirectory, blCreate);
    if (nDirectory != 1) {
        if (blCreate != 0 || nDirectory < 0) {
            SNAP_LOG_REG(LOG_ERR, "Failed to get @eaDir for %s [0x%04X %s:%d]", pShare->szName);
            return nDirectory;
        }
        return 0;
    }
    if (!FormatPath(szPath, kPathSize, "%s/%s", szDirectory, kShareConfigFileName)) {
        return -1;
    }
    const int nExist = CheckFile(szPath);
    if (nExist < 0) {
        SNAP_SET_ERR(SNAP_ERR_BAD_FILE_TYPE);
        return -1;
    }
    if (nExist == 1 || blCreate == 0) {
        return nExist;
    }
    // Never through a link that a user of the share planted, nor waiting for the reader of a pipe, and what another
    // process wrote meanwhile stays.
    const DescriptorOwner file(open(szPath, O_CREAT | O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
    if (!file) {
        SNAP_LOG(LOG_ERR, "Failed to create [%s]\n", szPath);
        SNAP_SET_ERR(SNAP_ERR_CREATE_FAILED);
        return 0;
    }
    return 1;
}

int ShareConfigLock(const char *szShareName, ConfigLockMode mode) {
    if (QOVAShareSnapCreateRunLockShareSnapDir() != 1 || GetOrCreateRunDirectory(kLockDirectory) != 1) {
        return -1;
    }
    char szPath[kPathSize];
    if (!FormatPath(szPath, sizeof(szPath), "%s/%s.lock", kLockDirectory, szShareName)) {
        return -1;
    }
    int nFd = -1;
    if (QLIBCFileLockTimeByFile(szPath, static_cast<int>(mode), kLockSeconds, &nFd) == 0) {
        return -1;
    }
    return nFd;
}

} // namespace sharesnap
