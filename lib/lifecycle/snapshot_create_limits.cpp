// How many snapshots a share and the system may have.
#include <sharesnap/counters.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/section_file.h>
#include <sharesnap/platform/subvolume.h>

#include <algorithm>
#include <climits>
#include <cstdlib>

#include "frame/log.h"

namespace {

constexpr int kDefaultMaximum = 1024;
constexpr char kSystemSettings[] = "/etc.defaults/qovainfo.conf";

enum { SYSTEM_LIMIT_NOT_REACHED = 0, SYSTEM_LIMIT_UNKNOWN = -1, SYSTEM_LIMIT_REACHED = -2 };

[[nodiscard]] int CheckSystemLimit() {
    const int nReached = QOVABtrfsSnapCountReachMaxCheck();
    switch (nReached) {
    case SYSTEM_LIMIT_NOT_REACHED:
        return 0;
    case SYSTEM_LIMIT_REACHED:
        SNAP_SET_ERR(SNAP_ERR_SNAPSHOT_LIMIT);
        return -1;
    case SYSTEM_LIMIT_UNKNOWN:
        SNAP_LOG_REG(LOG_ERR, "Failed to check Btrfs snapshot count, ret: %d[0x%04X %s:%d]", nReached);
        return -1;
    default:
        SNAP_LOG_REG(LOG_ERR, "Unknown error occurs when checking Btrfs snapshot count, ret: %d[0x%04X %s:%d]",
                     nReached);
        return -1;
    }
}

} // namespace

int QOVAShareSnapMaximumGet(void) {
    char szValue[1024] = "";
    if (QLIBCFileGetKeyValue(kSystemSettings, "max_snapshots_per_share", szValue, sizeof(szValue), 0) < 1) {
        return kDefaultMaximum;
    }
    const long nMaximum = std::strtol(szValue, nullptr, 10);
    return static_cast<int>(std::clamp<long>(nMaximum, INT_MIN, INT_MAX));
}

int QOVAShareSnapCheckReachMaxSnapshot(const QOVASHARE *pShare) {
    const int nMaximum = QOVAShareSnapMaximumGet();
    int nCount = 0;
    if (QOVAShareSnapGetSnapCount(pShare, &nCount, 0) < 0) {
        return -1;
    }
    if (nCount >= nMaximum) {
        SNAP_SET_ERR(SNAP_ERR_SNAPSHOT_LIMIT);
        return -1;
    }
    return CheckSystemLimit();
}

int QOVAShareSnapCheckMaxRetry(const QOVASHARE *pShare) {
    if (QOVAShareSnapCheckReachMaxSnapshot(pShare) == 0) {
        return 0;
    }
    // The counters may have drifted from the metadata: repair them before a snapshot is refused.
    SNAP_LOG(LOG_ERR, "Force sync snapcount and retry.");
    (void)QOVAShareSnapSyncGlobalSnapCount(); // the second check tells whether it helped
    return std::min(QOVAShareSnapCheckReachMaxSnapshot(pShare), 0);
}
