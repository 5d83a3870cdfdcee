#include "frame/run_directory.h"

#include <sys/stat.h>

#include <cerrno>

#include "frame/log.h"

namespace sharesnap {

int GetOrCreateRunDirectory(const char *szPath) {
    // Users can write to the directory above: a link that one of them puts there isn't followed.
    struct stat info;
    const bool blExist = lstat(szPath, &info) == 0;
    if (blExist && !S_ISDIR(info.st_mode)) {
        SNAP_SET_ERR(SNAP_ERR_NOT_A_DIRECTORY);
        return -1;
    }
    if (!blExist && mkdir(szPath, 0777) < 0 && errno != EEXIST) {
        SNAP_LOG(LOG_ERR, "Failed to mkdir [%s], errno=%d/%m\n", szPath, errno);
        SNAP_SET_ERR(SNAP_ERR_CREATE_FAILED);
        return 0;
    }
    return 1;
}

} // namespace sharesnap
