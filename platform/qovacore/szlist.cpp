// The string list: one block of memory with the header, the texts behind it and, from the end backwards, the offset of
// each text. Filling and emptying a list thus costs no allocation an item, and growing moves the list as a whole.

#include "support.h"
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sharesnap/platform/szlist.h>
#include <string_view>
#include <unordered_set>

namespace {

struct List {
    QLIBCSZLIST head;
    size_t cbBlock;   // the whole block
    size_t cbTextEnd; // offset behind the last text
};

constexpr size_t MIN_TEXT = 64;
constexpr size_t OFFSETS_AT_START = 16;

List *asList(QLIBCSZLIST *pList) {
    return reinterpret_cast<List *>(pList);
}

const List *asList(const QLIBCSZLIST *pList) {
    return reinterpret_cast<const List *>(pList);
}

// The offset of item i lies at the end of the block, i + 1 places from behind.
size_t *offsetAt(List *pList, int nIndex) {
    char *pEnd = reinterpret_cast<char *>(pList) + pList->cbBlock;
    return reinterpret_cast<size_t *>(pEnd) - 1 - nIndex;
}

const size_t *offsetAt(const List *pList, int nIndex) {
    const char *pEnd = reinterpret_cast<const char *>(pList) + pList->cbBlock;
    return reinterpret_cast<const size_t *>(pEnd) - 1 - nIndex;
}

const char *itemAt(const List *pList, int nIndex) {
    return reinterpret_cast<const char *>(pList) + *offsetAt(pList, nIndex);
}

size_t offsetBytes(const List *pList) {
    return static_cast<size_t>(pList->head.nItem) * sizeof(size_t);
}

size_t freeBytes(const List *pList) {
    return pList->cbBlock - pList->cbTextEnd - offsetBytes(pList);
}

// A block for the given number of bytes, rounded so that the offsets at its end are aligned.
List *newBlock(size_t cbBlock) {
    if (cbBlock > static_cast<size_t>(PTRDIFF_MAX) - sizeof(size_t)) {
        return nullptr;
    }
    cbBlock = (cbBlock + sizeof(size_t) - 1) / sizeof(size_t) * sizeof(size_t);
    auto *pList = static_cast<List *>(malloc(cbBlock));
    if (pList != nullptr) {
        pList->head.nItem = 0;
        pList->cbBlock = cbBlock;
        pList->cbTextEnd = sizeof(List);
    }
    return pList;
}

// A copy with room for one more text; the list itself stays as it is.
List *grownCopy(const List *pList, size_t cbText) {
    const size_t cbUsed = pList->cbTextEnd + offsetBytes(pList);
    const size_t cbNeeded = cbUsed + cbText + sizeof(size_t);
    if (cbNeeded < cbUsed || cbNeeded > static_cast<size_t>(PTRDIFF_MAX) / 2) {
        return nullptr;
    }
    List *pNew = newBlock(cbNeeded > pList->cbBlock ? cbNeeded * 2 : pList->cbBlock * 2);
    if (pNew == nullptr) {
        return nullptr;
    }
    const size_t cbBlock = pNew->cbBlock;
    memcpy(pNew, pList, pList->cbTextEnd);
    pNew->cbBlock = cbBlock;
    if (pList->head.nItem > 0) {
        const int nLast = pList->head.nItem - 1;
        memcpy(offsetAt(pNew, nLast), offsetAt(pList, nLast), offsetBytes(pList));
    }
    return pNew;
}

// The strings of the list that do (or don't) stand in the other one, each looked up once.
QLIBCSZLIST *select(const QLIBCSZLIST *pList, const QLIBCSZLIST *pOther, size_t cbInit, bool blInOther) {
    if (pList == nullptr || pOther == nullptr) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return nullptr;
    }
    QLIBCSZLIST *pResult = QLIBCSzListAlloc(cbInit);
    if (pResult == nullptr) {
        return nullptr;
    }
    try {
        std::unordered_set<std::string_view> others;
        others.reserve(static_cast<size_t>(pOther->nItem));
        for (int i = 0; i < pOther->nItem; ++i) {
            others.emplace(itemAt(asList(pOther), i));
        }
        for (int i = 0; i < pList->nItem; ++i) {
            const char *szItem = itemAt(asList(pList), i);
            if ((others.count(szItem) != 0) == blInOther && QLIBCSzListPush(&pResult, szItem) < 0) {
                QLIBCSzListFree(pResult);
                return nullptr;
            }
        }
    } catch (const std::bad_alloc &) {
        QLIBCSzListFree(pResult);
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OUT_OF_MEMORY, ENOMEM);
        return nullptr;
    }
    return pResult;
}

} // namespace

QLIBCSZLIST *QLIBCSzListAlloc(size_t cbInit) {
    const size_t cbText = cbInit < MIN_TEXT ? MIN_TEXT : cbInit;
    const size_t cbExtra = sizeof(List) + OFFSETS_AT_START * sizeof(size_t);
    List *pList = cbText > static_cast<size_t>(PTRDIFF_MAX) - cbExtra ? nullptr : newBlock(cbText + cbExtra);
    if (pList == nullptr) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OUT_OF_MEMORY, ENOMEM);
        return nullptr;
    }
    return &pList->head;
}

void QLIBCSzListFree(QLIBCSZLIST *pList) {
    const qovacore::ErrnoKeeper keeper;
    free(pList);
}

int qovacore::pushText(QLIBCSZLIST **ppList, std::string_view text) {
    List *pList = asList(*ppList);
    const size_t cbText = text.size() + 1;
    List *pOld = nullptr;
    if (pList->head.nItem == INT_MAX) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OUT_OF_MEMORY, ENOMEM);
        return -1;
    }
    if (freeBytes(pList) < cbText + sizeof(size_t)) {
        List *pNew = grownCopy(pList, cbText);
        if (pNew == nullptr) {
            QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OUT_OF_MEMORY, ENOMEM);
            return -1;
        }
        pOld = pList;
        pList = pNew;
        *ppList = &pNew->head;
    }
    char *pPlace = reinterpret_cast<char *>(pList) + pList->cbTextEnd;
    memcpy(pPlace, text.data(), text.size());
    pPlace[text.size()] = '\0';
    *offsetAt(pList, pList->head.nItem) = pList->cbTextEnd;
    pList->cbTextEnd += cbText;
    ++pList->head.nItem;
    if (pOld != nullptr) {
        free(pOld); // only now: the new text may be an item of the list itself
    }
    return pList->head.nItem;
}

int qovacore::pushPair(QLIBCSZLIST **ppList, std::string_view text, size_t nSign) {
    List *pList = asList(*ppList);
    if (freeBytes(pList) < text.size() + 1 + 2 * sizeof(size_t) || pList->head.nItem > INT_MAX - 2) {
        return pushText(ppList, text.substr(0, nSign)) < 0 ? -1 : pushText(ppList, text.substr(nSign + 1));
    }
    // The texts of a list stand one behind the other, so both come with one copy, and the sign becomes the end of the key.
    char *pPlace = reinterpret_cast<char *>(pList) + pList->cbTextEnd;
    memcpy(pPlace, text.data(), text.size());
    pPlace[nSign] = '\0';
    pPlace[text.size()] = '\0';
    size_t *pOffset = offsetAt(pList, pList->head.nItem + 1);
    pOffset[1] = pList->cbTextEnd;
    pOffset[0] = pList->cbTextEnd + nSign + 1;
    pList->cbTextEnd += text.size() + 1;
    pList->head.nItem += 2;
    return pList->head.nItem;
}

int QLIBCSzListPush(QLIBCSZLIST **ppList, const char *szItem) {
    if (ppList == nullptr || *ppList == nullptr) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return -1;
    }
    return szItem != nullptr ? qovacore::pushText(ppList, szItem) : 0;
}

const char *QLIBCSzListGet(const QLIBCSZLIST *pList, int nIndex) {
    if (pList == nullptr || nIndex < 0 || nIndex >= pList->nItem) {
        return nullptr;
    }
    return itemAt(asList(pList), nIndex);
}

void QLIBCSzListRemoveAll(QLIBCSZLIST *pList) {
    if (pList != nullptr) {
        pList->nItem = 0;
        asList(pList)->cbTextEnd = sizeof(List);
    }
}

int QLIBCSzListFind(const QLIBCSZLIST *pList, const char *szItem) {
    if (pList == nullptr || szItem == nullptr) {
        return -1;
    }
    for (int i = 0; i < pList->nItem; ++i) {
        if (strcmp(itemAt(asList(pList), i), szItem) == 0) {
            return i;
        }
    }
    return -1;
}

QLIBCSZLIST *QLIBCSzListAnd(const QLIBCSZLIST *pList, const QLIBCSZLIST *pOther, size_t cbInit) {
    return select(pList, pOther, cbInit, true);
}

QLIBCSZLIST *QLIBCSzListSub(const QLIBCSZLIST *pList, const QLIBCSZLIST *pOther, size_t cbInit) {
    return select(pList, pOther, cbInit, false);
}
