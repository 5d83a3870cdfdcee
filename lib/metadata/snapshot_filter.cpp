// Selectors: filters on the sections of a metadata file.
#include <sharesnap/frame.h>
#include <sharesnap/metadata.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "frame/log.h"

using namespace sharesnap;

namespace {

constexpr size_t kTextSize = 1024;

int RefuseNull(const char *szCheckFile, int nLine, const char *szCheck) {
    (void)BadArgument(szCheckFile, nLine, szCheck); // a selector can't fail: it skips
    return SNAP_SELECT_SKIP;
}

#define SELECTOR_BAD_ARGUMENT(szCheck) RefuseNull(__FILE_NAME__, __LINE__, (szCheck))

// The time in a text that holds a snapshot name from "GMT" on.
bool TimeInText(const char *szText, time_t *ptTime) {
    const char *szName = std::strstr(szText, "GMT");
    return szName != nullptr && QOVAShareSnapTimeGet(szName, ptTime) == 0;
}

// The test of an attribute selector, without its negation.
bool MatchesAttribute(const QLIBCSZHASH *pHash, const char *szTest) {
    char szCopy[kTextSize];
    (void)std::snprintf(szCopy, sizeof(szCopy), "%s", szTest); // longer texts are compared as cut
    const bool blExact = std::strstr(szCopy, "==") != nullptr;
    char *szRest = nullptr;
    const char *szKey = strtok_r(szCopy, "=", &szRest);
    const char *szWanted = szKey != nullptr ? strtok_r(nullptr, "=", &szRest) : nullptr;
    const char *szValue = szKey != nullptr ? QLIBCSzHashGetValue(pHash, szKey) : nullptr;
    if (szValue == nullptr) {
        return false;
    }
    if (blExact) {
        return std::strcmp(szValue, szWanted != nullptr ? szWanted : "") == 0;
    }
    return szWanted == nullptr || std::strstr(szValue, szWanted) != nullptr;
}

} // namespace

int QOVAShareSnapSelectorAdd(QOVAShareSnapEnum **ppQOVAShareSnapEnum, QOVAShareSnapSelector pSelector, void *pData) {
    if (ppQOVAShareSnapEnum == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != ppQOVAShareSnapEnum");
    }
    if (pSelector == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pSelector");
    }
    if (pData == nullptr) {
        return SNAP_BAD_ARGUMENT("0 != pData");
    }
    if (SnapSelectorCheck(pSelector, pData) < 0) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    auto *pLink = static_cast<QOVAShareSnapEnum *>(std::malloc(sizeof(QOVAShareSnapEnum)));
    if (pLink == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_OUT_OF_MEMORY);
        return -1;
    }
    *pLink = {pSelector, pData, *ppQOVAShareSnapEnum};
    *ppQOVAShareSnapEnum = pLink;
    return 0;
}

int SnapSelectorCheck(QOVAShareSnapSelector pSelector, void *pData) {
    if (pSelector != QOVAShareSnapTimeSelector) {
        return 0;
    }
    time_t tIgnored = 0;
    return pData != nullptr && TimeInText(static_cast<const char *>(pData), &tIgnored) ? 0 : -1;
}

int QOVAShareSnapTimeSelector(const char *szSnapName, const QLIBCSZHASH *pHash, void *pData) {
    (void)pHash;
    if (szSnapName == nullptr) {
        return SELECTOR_BAD_ARGUMENT("((void *)0) != szSnapName");
    }
    if (pData == nullptr) {
        return SELECTOR_BAD_ARGUMENT("0 != pData");
    }
    const char *szTest = static_cast<const char *>(pData);
    time_t tSnapshot = 0;
    time_t tReference = 0;
    if (std::strstr(szTest, "GMT") == nullptr || !TimeInText(szSnapName, &tSnapshot) ||
        !TimeInText(szTest, &tReference)) {
        return SNAP_SELECT_SKIP;
    }
    const double dDifference = difftime(tSnapshot, tReference);
    const char cNeeded = dDifference < 0 ? '<' : dDifference > 0 ? '>' : '=';
    return std::strchr(szTest, cNeeded) != nullptr ? SNAP_SELECT_KEEP : SNAP_SELECT_SKIP;
}

int QOVAShareSnapAttrSelector(const char *szSnapName, const QLIBCSZHASH *pHash, void *pData) {
    if (szSnapName == nullptr) {
        return SELECTOR_BAD_ARGUMENT("((void *)0) != szSnapName");
    }
    if (pHash == nullptr) {
        return SELECTOR_BAD_ARGUMENT("((void *)0) != pHash");
    }
    if (pData == nullptr) {
        return SELECTOR_BAD_ARGUMENT("0 != pData");
    }
    const char *szTest = static_cast<const char *>(pData);
    const bool blNegated = szTest[0] == '!';
    return MatchesAttribute(pHash, blNegated ? szTest + 1 : szTest) != blNegated ? SNAP_SELECT_KEEP : SNAP_SELECT_SKIP;
}

int QOVAShareSnapCommonSelector(const char *szSnapName, const QLIBCSZHASH *pHash, void *pData) {
    if (szSnapName == nullptr) {
        return SELECTOR_BAD_ARGUMENT("((void *)0) != szSnapName");
    }
    if (pHash == nullptr) {
        return SELECTOR_BAD_ARGUMENT("((void *)0) != pHash");
    }
    if (pData == nullptr) {
        return SELECTOR_BAD_ARGUMENT("0 != pData");
    }
    const char *szUuid = QLIBCSzHashGetValue(pHash, "ruuid");
    if (szUuid == nullptr) {
        return SNAP_SELECT_SKIP;
    }
    char szItem[kTextSize];
    (void)std::snprintf(szItem, sizeof(szItem), "%s=%s", szSnapName, szUuid);
    return QLIBCSzListFind(static_cast<const QLIBCSZLIST *>(pData), szItem) < 0 ? SNAP_SELECT_SKIP : SNAP_SELECT_KEEP;
}
