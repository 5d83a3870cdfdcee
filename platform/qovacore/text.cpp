// Splitting and joining of texts.

#include "support.h"
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sharesnap/platform/text.h>
#include <string>

int QLIBCStrTok(const char *szText, const char *szSeparator, QLIBCSZLIST **ppList) {
    if (szText == nullptr || szSeparator == nullptr || szSeparator[0] == '\0' || ppList == nullptr ||
        *ppList == nullptr) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return -1;
    }
    try {
        const size_t cbSeparator = strlen(szSeparator);
        std::string piece;
        for (const char *szNext = szText; szNext != nullptr;) {
            const char *szEnd = strstr(szNext, szSeparator);
            piece.assign(szNext, szEnd != nullptr ? static_cast<size_t>(szEnd - szNext) : strlen(szNext));
            if (!piece.empty() && QLIBCSzListPush(ppList, piece.c_str()) < 0) {
                return -1;
            }
            szNext = szEnd != nullptr ? szEnd + cbSeparator : nullptr;
        }
    } catch (const std::bad_alloc &) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OUT_OF_MEMORY, ENOMEM);
        return -1;
    }
    return 0;
}

namespace {

// The bytes of the joined text with its end; 0 when an int can't hold them.
size_t joinedBytes(const char *const *rgszItem, int nItem, size_t cbSeparator) {
    size_t cbTotal = 1;
    for (int i = 0; i < nItem; ++i) {
        cbTotal += strlen(rgszItem[i]) + (i > 0 ? cbSeparator : 0);
        if (cbTotal > static_cast<size_t>(INT_MAX)) {
            return 0;
        }
    }
    return cbTotal;
}

} // namespace

int QLIBCStrJoin(const char *const *rgszItem, int nItem, const char *szSeparator, char **pszResult, int *pcbResult) {
    if ((rgszItem == nullptr && nItem > 0) || nItem < 0 || szSeparator == nullptr || pszResult == nullptr ||
        pcbResult == nullptr) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return -1;
    }
    for (int i = 0; i < nItem; ++i) {
        if (rgszItem[i] == nullptr) {
            QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
            return -1;
        }
    }
    const size_t cbSeparator = strlen(szSeparator);
    const size_t cbTotal = joinedBytes(rgszItem, nItem, cbSeparator);
    const bool blFits = *pszResult != nullptr && *pcbResult > 0 && static_cast<size_t>(*pcbResult) >= cbTotal;
    // A new block, not an enlarged one: the items may point into the old text.
    char *szJoined = cbTotal == 0 ? nullptr : static_cast<char *>(malloc(cbTotal));
    if (szJoined == nullptr) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OUT_OF_MEMORY, ENOMEM);
        return -1;
    }
    char *szEnd = szJoined;
    for (int i = 0; i < nItem; ++i) {
        szEnd = i > 0 ? stpcpy(szEnd, szSeparator) : szEnd;
        szEnd = stpcpy(szEnd, rgszItem[i]);
    }
    *szEnd = '\0';
    if (blFits) {
        memcpy(*pszResult, szJoined, cbTotal);
        free(szJoined);
    } else {
        free(*pszResult);
        *pszResult = szJoined;
        *pcbResult = static_cast<int>(cbTotal);
    }
    return 0;
}
