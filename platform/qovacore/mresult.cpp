// The multi-result record.

#include "support.h"
#include <algorithm>
#include <new>
#include <sharesnap/platform/mresult.h>
#include <vector>

struct QLIBCMRESULT {
    std::vector<int> codes;
};

QLIBCMRESULT *QLIBCMResultAlloc(void) {
    auto *pResult = new (std::nothrow) QLIBCMRESULT;
    if (pResult == nullptr) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OUT_OF_MEMORY, ENOMEM);
    }
    return pResult;
}

QLIBCMRESULT *QLIBCMResultInit(QLIBCMRESULT *pResult, int nItem, int nDefault) {
    if (pResult == nullptr || nItem < 0) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return nullptr;
    }
    try {
        std::vector<int> codes(static_cast<size_t>(nItem), nDefault);
        pResult->codes.swap(codes);
    } catch (const std::bad_alloc &) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OUT_OF_MEMORY, ENOMEM);
        return nullptr;
    }
    return pResult;
}

int QLIBCMResultSetCoreError(QLIBCMRESULT *pResult, int nIndex, int nCode) {
    if (pResult == nullptr || nIndex < 0 || static_cast<size_t>(nIndex) >= pResult->codes.size()) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return -1;
    }
    pResult->codes[static_cast<size_t>(nIndex)] = nCode;
    return 0;
}

int QLIBCMResultGetCoreErrorByIndex(const QLIBCMRESULT *pResult, int nIndex, int *pnCode) {
    if (pResult == nullptr || pnCode == nullptr || nIndex < 0 || static_cast<size_t>(nIndex) >= pResult->codes.size()) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return -1;
    }
    *pnCode = pResult->codes[static_cast<size_t>(nIndex)];
    return 0;
}

int QLIBCMResultCoreSuccess(const QLIBCMRESULT *pResult) {
    if (pResult == nullptr) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return 0;
    }
    return std::all_of(pResult->codes.begin(), pResult->codes.end(), [](int nCode) { return nCode == 0; }) ? 1 : 0;
}

void QLIBCMResultFree(QLIBCMRESULT *pResult) {
    const qovacore::ErrnoKeeper keeper;
    delete pResult;
}
