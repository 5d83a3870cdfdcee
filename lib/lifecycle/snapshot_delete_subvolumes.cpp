// One list of snapshots to the platform's deletion, each queued as deleted before it goes.
#include <sharesnap/frame.h>
#include <sharesnap/platform/subvolume.h>

#include "frame/log.h"
#include "frame/path_format.h"
#include "lifecycle/snapshot_remove_list.h"

namespace {

using namespace sharesnap;

// A snapshot that is missing from the queue is deleted all the same.
void QueueAsDeleted(const char *szSubvol, const char *szSnapDir, const QLIBCSZLIST *pList) {
    for (int i = 0; i < pList->nItem; ++i) {
        char szPath[kPathSize] = "";
        if (!FormatPath(szPath, sizeof(szPath), "%s/%s", szSnapDir, QLIBCSzListGet(pList, i)) ||
            QOVABtrfsDeletedSubvolAdd(szSubvol, szPath) != 0) {
            SNAP_LOG_REG(LOG_ERR, "Failed to add subvol [%s] to deleted subvol list[0x%04X %s:%d]", szSubvol);
        }
    }
}

} // namespace

namespace sharesnap {

int SnapDeleteSubvolList(const QOVASHARE *pShare, const QLIBCSZLIST *pList, int *pDeletedCount) {
    if (pShare == nullptr || pList == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    char szSnapDir[kPathSize] = "";
    if (QOVAShareSnapGetOrCreateSnapDir(pShare, szSnapDir, sizeof(szSnapDir), 0) != 1) {
        SNAP_LOG_REG(LOG_ERR, "Fail to get snapshot dir for share %s. [0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    char szSubvol[kPathSize] = "";
    if (ShareSubvolumePathGet(pShare, szSubvol, sizeof(szSubvol)) != 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share subvol path of share [%s][0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    QueueAsDeleted(szSubvol, szSnapDir, pList);
    if (QOVABtrfsDeleteSubvolListFaultTolerantEx(szSnapDir, pList, pDeletedCount) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Faild to delete subvolumes.[0x%04X %s:%d]");
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return -1;
    }
    return 0;
}

} // namespace sharesnap
