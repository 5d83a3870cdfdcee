// File checks.

#include "support.h"
#include <fcntl.h>
#include <sharesnap/platform/file.h>

int QLIBCFileExist(const char *szPath) {
    struct stat status;
    return szPath != nullptr && lstat(szPath, &status) == 0 ? 1 : 0;
}

int QLIBCFileCheckDir(const char *szPath) {
    struct stat status;
    return szPath != nullptr && lstat(szPath, &status) == 0 && S_ISDIR(status.st_mode) ? 1 : 0;
}

int QLIBCFileTouch(const char *szPath) {
    if (szPath == nullptr) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return -1;
    }
    // Not to be stopped by a pipe without a reader, nor to take over a terminal.
    const qovacore::UniqueFd fd(open(szPath, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY,
                                     S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH));
    struct stat status;
    if (!fd.valid() || fstat(fd.get(), &status) != 0) {
        QOVACORE_SET_CODE(SNAP_ERR_CREATE_FAILED);
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_CREATE_FAILED, EINVAL);
        return -1;
    }
    if (futimens(fd.get(), nullptr) != 0) {
        QOVACORE_SET_CODE(SNAP_ERR_OPERATION_FAILED);
        return -1;
    }
    return 0;
}

int QLIBCFileStat(const char *szPath, int nFlag, struct stat *pStat) {
    if (szPath == nullptr || pStat == nullptr) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return -1;
    }
    if ((nFlag != 0 ? stat(szPath, pStat) : lstat(szPath, pStat)) != 0) {
        QOVACORE_SET_CODE(SNAP_ERR_OPERATION_FAILED);
        return -1;
    }
    return 0;
}
