// How many deleted subvolumes of a share the file system has still to clean.
#include <libgen.h>
#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/subvolume.h>

#include <cstdio>

#include "frame/log.h"
#include "frame/owners.h"
#include "frame/path_format.h"
#include "intl_utils/share_info_get.h"

namespace {

using namespace sharesnap;

constexpr size_t kHashSize = 1024;

[[nodiscard]] bool CheckShareExists(const char *szName, const char *szSharePath) {
    int nExists = 0;
    if (QLIBShareIsExist(szName, &nExists) != 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to check if share [%s] exists[0x%04X %s:%d]", szName);
        return false;
    }
    if (nExists == 0) {
        SNAP_LOG(LOG_ERR, "Invalid share path [%s]", szSharePath);
        return false;
    }
    return true;
}

[[nodiscard]] bool FindShareSubvolume(const char *szName, char *szSubvol, size_t cbSubvol) {
    ShareOwner share;
    if (ShareGetWithRetry(szName, &share) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share (%s)[0x%04X %s:%d]", szName);
        return false;
    }
    if (ShareSubvolumePathGet(share.get(), szSubvol, cbSubvol) != 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share subvol path of share [%s][0x%04X %s:%d]", szName);
        return false;
    }
    return true;
}

} // namespace

int QOVAShareSnapDeletingCountGet(const char *szSharePath, uint32_t *cDeletingCount) {
    if (szSharePath == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szSharePath");
    }
    if (cDeletingCount == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != cDeletingCount");
    }
    *cDeletingCount = 0;
    HashOwner hash(QLIBCSzHashAlloc(kHashSize));
    if (!hash) {
        SNAP_LOG_REG(LOG_ERR, "Failed to alloc hash[0x%04X %s:%d]");
        return -1;
    }
    char szPath[kPathSize] = ""; // basename cuts the path that it is given
    if (!FormatPath(szPath, sizeof(szPath), "%s", szSharePath)) {
        return -1;
    }
    const char *szName = basename(szPath);
    char szSubvol[kPathSize] = "";
    if (!CheckShareExists(szName, szSharePath) || !FindShareSubvolume(szName, szSubvol, sizeof(szSubvol))) {
        return -1;
    }
    if (QOVABtrfsDeletedSubvolGet(szSubvol, &hash) != 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get deleted subvol of [%s][0x%04X %s:%d]", szSubvol);
        return -1;
    }
    const int nCount = QLIBCSzHashPairNum(hash.get());
    *cDeletingCount = static_cast<uint32_t>(nCount);
    return nCount;
}
