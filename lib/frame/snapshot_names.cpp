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

int Number(const char *szText, int nDigits) {
    int nNumber = 0;
    for (int i = 0; i < nDigits; ++i) {
        nNumber = nNumber * 10 + (szText[i] - '0');
    }
    return nNumber;
}

// The time of a name of the UTC form just as it is generated: what strptime and timegm say of it, without their cost,
// which listings of thousands of snapshots would feel. Any other name is left to them: false.
bool ParseGeneratedName(const char *szName, time_t *ptTime) {
    constexpr char kForm[] = "GMT-0000.00.00-00.00.00";
    for (size_t i = 0; i < sizeof(kForm) - 1; ++i) { // ends at the name's end at the latest
        if (kForm[i] == '0' ? szName[i] < '0' || szName[i] > '9' : szName[i] != kForm[i]) {
            return false;
        }
    }
    const int nYear = Number(szName + 4, 4);
    const int nMonth = Number(szName + 9, 2);
    const int nDay = Number(szName + 12, 2);
    const int nHour = Number(szName + 15, 2);
    const int nMinute = Number(szName + 18, 2);
    const int nSecond = Number(szName + 21, 2);
    if (nYear < 1970 || nMonth < 1 || nMonth > 12 || nDay < 1 || nDay > 31 || nHour > 23 || nMinute > 59 ||
        nSecond > 59) {
        return false;
    }
    // Years from March on, so that the leap day is the last one of its year.
    const int nMarchYear = nMonth > 2 ? nYear : nYear - 1;
    const int nDayOfYear = (153 * (nMonth > 2 ? nMonth - 3 : nMonth + 9) + 2) / 5 + nDay - 1;
    const int nDays = nMarchYear * 365 + nMarchYear / 4 - nMarchYear / 100 + nMarchYear / 400 + nDayOfYear - 719468;
    *ptTime = static_cast<time_t>(nDays) * 86400 + nHour * 3600 + nMinute * 60 + nSecond;
    return true;
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
    if (ParseGeneratedName(szName, ptTime)) {
        return 0;
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
