#include "frame/run_directory.h"

#include <sharesnap/frame.h>
#include <sys/stat.h>

#include <cerrno>

#include "frame/log.h"

namespace sharesnap {

int GetOrCreateRunDirectory(const char *szPath) {
    const int nExist = ShareSnapCheckDirExist(szPath);
    if (nExist < 0) {
        SNAP_SET_ERR(SNAP_ERR_NOT_A_DIRECTORY);
        return -1;
    }
    if (nExist == 0 && mkdir(szPath, 0777) < 0 && errno != EEXIST) {
        SNAP_LOG(LOG_ERR, "Failed to mkdir [%s], errno=%d/%m\n", szPath, errno);
        SNAP_SET_ERR(SNAP_ERR_CREATE_FAILED);
        return 0;
    }
    return 1;
}

} // namespace sharesnap
