// Names of snapshots: the time of creation, in UTC or with the offset of the local time zone.
#include <sharesnap/frame.h>

#include <cstdio>
#include <cstring>

#include "frame/log.h"

namespace {

constexpr char kUtcTemplate[] = "GMT-%Y.%m.%d-%H.%M.%S";
constexpr size_t kTextSize = 255;
constexpr size_t kHourNameLength = 26;   // GMT+08-2026.01.02-03.04.05
constexpr size_t kMinuteNameLength = 28; // GMT+0530-2026.01.02-03.04.05

// The template of the local form is put together at run time.
void FormatTime(char *szBuf, size_t cbBuf, const char *szTemplate, const struct tm *pTime) {
    // The caller gives room enough; a name that doesn't fit is never found again, nothing worse.
    (void)strftime(szBuf, cbBuf, szTemplate, pTime);
}

int LocalName(char *szName, size_t cbName, time_t tTime) {
    struct tm fields = {};
    tzset();
    if (localtime_r(&tTime, &fields) == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return -1;
    }
    char szOffset[kTextSize] = "";
    (void)strftime(szOffset, sizeof(szOffset), "%z", &fields);
    if (std::strlen(szOffset) == 5 && std::strcmp(szOffset + 3, "00") == 0) {
        szOffset[3] = '\0';
    }
    char szTemplate[kTextSize];
    (void)std::snprintf(szTemplate, sizeof(szTemplate), "GMT%.8s-%%Y.%%m.%%d-%%H.%%M.%%S", szOffset);
    FormatTime(szName, cbName, szTemplate, &fields);
    return 0;
}

int UtcName(char *szName, size_t cbName, time_t tTime) {
    struct tm fields = {};
    if (gmtime_r(&tTime, &fields) == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return -1;
    }
    FormatTime(szName, cbName, kUtcTemplate, &fields);
    return 0;
}

// The offset in a name of the local form.
struct Offset {
    char cSign = 0;
    int nHours = 0;
    int nMinutes = 0;
};

// Where the date begins behind a well-formed offset; null when there is none.
const char *ParseOffset(const char *szName, Offset *pOffset) {
    const size_t cbName = std::strlen(szName);
    if (cbName == kHourNameLength && std::sscanf(szName, "GMT%c%2d", &pOffset->cSign, &pOffset->nHours) == 2) {
        return szName + 6;
    }
    if (cbName == kMinuteNameLength &&
        std::sscanf(szName, "GMT%c%2d%2d", &pOffset->cSign, &pOffset->nHours, &pOffset->nMinutes) == 3) {
        return szName + 8;
    }
    return nullptr;
}

int InvalidName(const char *szName) {
    SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
    // Listing a share can meet foreign names: no failure of anything.
    SNAP_LOG(LOG_DEBUG, "Invalid snapshot name %s", szName);
    return -1;
}

} // namespace

int SnapNameGenerateByTime(char *szName, size_t cbName, time_t tTime, unsigned int blLocal) {
    if (szName == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    return blLocal == 1 ? LocalName(szName, cbName, tTime) : UtcName(szName, cbName, tTime);
}

int QOVAShareSnapTimeGet(const char *szName, time_t *ptTime) {
    if (szName == nullptr || ptTime == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    struct tm fields = {};
    // What stands behind the seconds of this form doesn't matter.
    if (strptime(szName, kUtcTemplate, &fields) != nullptr) {
        *ptTime = timegm(&fields);
        return 0;
    }
    Offset offset;
    const char *szDate = ParseOffset(szName, &offset);
    if (szDate == nullptr) {
        return InvalidName(szName);
    }
    fields = {};
    if (strptime(szDate, "-%Y.%m.%d-%H.%M.%S", &fields) == nullptr) {
        return InvalidName(szName);
    }
    *ptTime = timegm(&fields);
    const time_t tOffset = static_cast<time_t>(offset.nHours) * 3600 + static_cast<time_t>(offset.nMinutes) * 60;
    if (offset.cSign == '+') {
        *ptTime -= tOffset;
    } else if (offset.cSign == '-') {
        *ptTime += tOffset;
    } else {
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return -1;
    }
    return 0;
}
