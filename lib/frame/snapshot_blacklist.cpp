// Which actions are refused on a share, whatever the caller wants.
#include <sharesnap/frame.h>

#include "frame/log.h"

QOVAShareSnapBlackListRecord BlackList;

namespace {

// Actions that callers outside the library ask for.
constexpr unsigned int kNeedsUnlocked = 0x004;
constexpr unsigned int kNeverOnEncrypted = 0x010;

// Location types on which nothing may be done.
bool IsRefusedLocation(int nType) {
    return nType == 0 || nType == 2 || nType == 3;
}

} // namespace

int QOVAShareSnapBlackList(const QOVASHARE *pShare, unsigned int *puAction) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    if (puAction == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != action");
    }
    if (*puAction == 0) {
        return SNAP_BAD_ARGUMENT("SNAP_CREATE <= *action");
    }
    if (*puAction > SNAP_ALL) {
        return SNAP_BAD_ARGUMENT("SNAP_ALL >= *action");
    }
    if ((pShare->uStatus & QOVA_SHARE_STATUS_ENCRYPTED) != 0) {
        *puAction &= ~kNeverOnEncrypted;
        if ((pShare->uStatus & QOVA_SHARE_STATUS_UNLOCKED) == 0) {
            *puAction &= ~kNeedsUnlocked;
        }
    }
    if (BlackList.pEntry != nullptr) {
        *puAction &= ~BlackList.uMask;
    }
    if (IsRefusedLocation(QLIBShareLocTypeGet(pShare->szPath))) {
        *puAction = 0;
    }
    return 0;
}
