// The event that tells an administrator what became of a creation.
#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/event_log.h>
#include <sharesnap/platform/subvolume.h>
#include <sharesnap/platform/volume.h>

#include <cstdio>

#include "frame/log.h"
#include "frame/owners.h"
#include "lifecycle/snapshot_create.h"

namespace {

using namespace sharesnap;

enum { EVENT_TYPE = 9, EVENT_LEVEL_INFO = 1, EVENT_LEVEL_ERROR = 3 };

constexpr size_t kTextSize = 1024;

// %s of a text of our own: none of them can fail to fit.
void CopyText(char *szText, const char *szSource) {
    (void)std::snprintf(szText, kTextSize, "%s", szSource);
}

[[nodiscard]] bool ReserveText(const QOVASHARE *pShare, char *szText) {
    char szVolume[QOVA_VOLUME_PATH_SIZE] = "";
    if (VolumePathParseEx(pShare->szPath, szVolume) < 0) {
        SNAP_LOG(LOG_ERR, "Fail to parse volume path from [%s]", pShare->szPath);
        return false;
    }
    const int nVolume = QOVAVolIDParse(szVolume);
    if (nVolume < 0) {
        SNAP_LOG(LOG_ERR, "Fail to parse volume id from [%s]", szVolume);
        return false;
    }
    (void)std::snprintf(szText, kTextSize, "Reserved space %d MB from [Volume %d] is not enough", kReserveMB, nVolume);
    return true;
}

[[nodiscard]] bool FailureText(const QOVASHARE *pShare, unsigned int uCode, char *szText) {
    switch (uCode) {
    case SNAP_ERR_BUSY:
        CopyText(szText, "System busy");
        return true;
    case SNAP_ERR_SNAPSHOT_LIMIT:
    case SNAP_ERR_SYSTEM_SNAPSHOT_LIMIT:
        (void)std::snprintf(szText, kTextSize, "The number of snapshot reaches share limit %d or system limit %lu.",
                            QOVAShareSnapMaximumGet(), QOVABtrfsSnapCountMaximumGet());
        return true;
    case SNAP_ERR_QUOTA_EXCEEDED:
        CopyText(szText, "Share used size reaches the limit of share quota ");
        return true;
    case SNAP_ERR_NO_SPACE:
        CopyText(szText, "Available volume size is insufficient");
        return true;
    case SNAP_ERR_LOW_RESERVED_SPACE:
        return ReserveText(pShare, szText);
    default:
        CopyText(szText, "Operation failed");
        return true;
    }
}

[[nodiscard]] int WriteEvent(const QOVASHARE *pShare, const char *szSnapName, const char *szActor, bool blSuccess,
                             unsigned int uCode) {
    if (blSuccess) {
        return QOVALogSet1(EVENT_TYPE, EVENT_LEVEL_INFO, SNAP_EVENT_CREATE_DONE, szActor, szSnapName, pShare->szName,
                           static_cast<char *>(nullptr));
    }
    char szText[kTextSize] = "";
    if (!FailureText(pShare, uCode, szText)) {
        return -1;
    }
    return QOVALogSet1(EVENT_TYPE, EVENT_LEVEL_ERROR, SNAP_EVENT_CREATE_FAILED, szActor, pShare->szName, szText,
                       static_cast<char *>(nullptr));
}

} // namespace

int QOVAShareSnapCreateLogSet(const QOVASHARE *pShare, const char *szSnapName, const char *szActor, int blSuccess) {
    // The event reports a failure: writing it must not change the code that it tells of.
    const ErrorKeeper keeper;
    int nResult = -1;
    if (pShare == nullptr || szActor == nullptr || (blSuccess != 0 && szSnapName == nullptr)) {
        SNAP_LOG_REG(LOG_ERR, "Bad Parameter.[0x%04X %s:%d]");
    } else if (WriteEvent(pShare, szSnapName, szActor, blSuccess != 0, keeper.code()) >= 0) {
        nResult = 0;
    }
    keeper.restore(__FILE_NAME__, __LINE__);
    return nResult;
}
