// The string hash: one block of memory with the header, the texts behind it and, from the end backwards, one record a
// pair in the order of insertion. Emptying and refilling it thus allocates nothing. Few pairs are searched one by one;
// above INDEX_FROM pairs an index of its own is kept beside the block.

#include "support.h"
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sharesnap/platform/szhash.h>
#include <string_view>

namespace {

struct Pair {
    size_t nKey; // offsets from the start of the block
    size_t nValue;
    size_t cbKey; // lengths without the end
    size_t cbValue;
    size_t cbValueRoom; // bytes at nValue, end included
};

struct Hash {
    QLIBCSZHASH head;
    uint32_t nSlot;   // size of the index, a power of two, 0 without one
    int *pIndex;      // pair numbers, -1 for a free slot
    size_t cbBlock;   // the whole block
    size_t cbTextEnd; // offset behind the last text
};

constexpr size_t MIN_TEXT = 64;
constexpr size_t PAIRS_AT_START = 16;
constexpr int INDEX_FROM = 16;
constexpr uint32_t KEPT_SLOT = 256; // an index of this size outlives the emptying of its hash
constexpr uint32_t MAX_SLOT = UINT32_C(1) << 31;

Hash *asHash(QLIBCSZHASH *pHash) {
    return reinterpret_cast<Hash *>(pHash);
}

const Hash *asHash(const QLIBCSZHASH *pHash) {
    return reinterpret_cast<const Hash *>(pHash);
}

char *bytes(Hash *pHash) {
    return reinterpret_cast<char *>(pHash);
}

const char *bytes(const Hash *pHash) {
    return reinterpret_cast<const char *>(pHash);
}

Pair *pairAt(Hash *pHash, int nIndex) {
    return reinterpret_cast<Pair *>(bytes(pHash) + pHash->cbBlock) - 1 - nIndex;
}

const Pair *pairAt(const Hash *pHash, int nIndex) {
    return reinterpret_cast<const Pair *>(bytes(pHash) + pHash->cbBlock) - 1 - nIndex;
}

std::string_view keyAt(const Hash *pHash, int nIndex) {
    const Pair *pPair = pairAt(pHash, nIndex);
    return {bytes(pHash) + pPair->nKey, pPair->cbKey};
}

size_t pairBytes(const Hash *pHash) {
    return static_cast<size_t>(pHash->head.nPair) * sizeof(Pair);
}

size_t freeBytes(const Hash *pHash) {
    return pHash->cbBlock - pHash->cbTextEnd - pairBytes(pHash);
}

Hash *newBlock(size_t cbBlock) {
    if (cbBlock > static_cast<size_t>(PTRDIFF_MAX) - alignof(Pair)) {
        return nullptr;
    }
    cbBlock = (cbBlock + alignof(Pair) - 1) / alignof(Pair) * alignof(Pair);
    auto *pHash = static_cast<Hash *>(malloc(cbBlock));
    if (pHash != nullptr) {
        pHash->head.nPair = 0;
        pHash->nSlot = 0;
        pHash->pIndex = nullptr;
        pHash->cbBlock = cbBlock;
        pHash->cbTextEnd = sizeof(Hash);
    }
    return pHash;
}

// The slot of the key, or the free slot where it belongs. There always is a free one.
uint32_t slotOf(const Hash *pHash, std::string_view key) {
    const uint32_t nMask = pHash->nSlot - 1;
    uint32_t nSlot = static_cast<uint32_t>(std::hash<std::string_view>{}(key)) & nMask;
    while (pHash->pIndex[nSlot] >= 0 && keyAt(pHash, pHash->pIndex[nSlot]) != key) {
        nSlot = (nSlot + 1) & nMask;
    }
    return nSlot;
}

void dropIndex(Hash *pHash) {
    free(pHash->pIndex);
    pHash->pIndex = nullptr;
    pHash->nSlot = 0;
}

// Enters all pairs anew, where there is an index.
void fillIndex(Hash *pHash) {
    if (pHash->nSlot == 0) {
        return;
    }
    for (uint32_t i = 0; i < pHash->nSlot; ++i) {
        pHash->pIndex[i] = -1;
    }
    for (int i = 0; i < pHash->head.nPair; ++i) {
        pHash->pIndex[slotOf(pHash, keyAt(pHash, i))] = i;
    }
}

// Enters the last pair, at most half of the slots being taken. Without memory for an index the hash goes without one:
// it is slower then, and nothing else.
void indexLastPair(Hash *pHash) {
    const int nLast = pHash->head.nPair - 1;
    if (pHash->nSlot / 2 > static_cast<uint32_t>(nLast)) {
        pHash->pIndex[slotOf(pHash, keyAt(pHash, nLast))] = nLast;
        return;
    }
    if (nLast < INDEX_FROM) {
        return;
    }
    uint32_t nSlot = 64;
    while (nSlot < MAX_SLOT && nSlot / 4 <= static_cast<uint32_t>(nLast)) {
        nSlot *= 2;
    }
    dropIndex(pHash);
    pHash->pIndex = static_cast<int *>(malloc(nSlot * sizeof(int)));
    if (pHash->pIndex != nullptr) {
        pHash->nSlot = nSlot;
        fillIndex(pHash);
    }
}

int find(const Hash *pHash, std::string_view key) {
    if (pHash->nSlot != 0) {
        return pHash->pIndex[slotOf(pHash, key)];
    }
    // Keys tend to be few and short: most of the others differ in length or at their first byte.
    const char cFirst = key.empty() ? '\0' : key.front();
    for (int i = 0; i < pHash->head.nPair; ++i) {
        const Pair *pPair = pairAt(pHash, i);
        const char *pKey = bytes(pHash) + pPair->nKey;
        if (pPair->cbKey == key.size() && *pKey == cFirst && memcmp(pKey, key.data(), key.size()) == 0) {
            return i;
        }
    }
    return -1;
}

size_t appendText(Hash *pHash, const char *szText, size_t cbText) {
    const size_t nOffset = pHash->cbTextEnd;
    memcpy(bytes(pHash) + nOffset, szText, cbText);
    bytes(pHash)[nOffset + cbText] = '\0';
    pHash->cbTextEnd += cbText + 1;
    return nOffset;
}

// A copy without the texts that replaced and removed pairs have left behind, with room for cbMore further bytes. The
// hash itself stays as it is; the index is not handed over.
Hash *grownCopy(const Hash *pHash, size_t cbMore) {
    size_t cbLive = sizeof(Hash) + pairBytes(pHash);
    for (int i = 0; i < pHash->head.nPair; ++i) {
        cbLive += pairAt(pHash, i)->cbKey + pairAt(pHash, i)->cbValueRoom + 1;
    }
    if (cbMore > static_cast<size_t>(PTRDIFF_MAX) / 2 - cbLive) {
        return nullptr;
    }
    const size_t cbNeeded = cbLive + cbMore;
    Hash *pNew = newBlock(cbNeeded > pHash->cbBlock / 2 ? cbNeeded * 2 : pHash->cbBlock);
    if (pNew == nullptr) {
        return nullptr;
    }
    for (int i = 0; i < pHash->head.nPair; ++i) {
        const Pair &from = *pairAt(pHash, i);
        Pair &to = *pairAt(pNew, i);
        to = from;
        to.nKey = appendText(pNew, bytes(pHash) + from.nKey, from.cbKey);
        to.nValue = appendText(pNew, bytes(pHash) + from.nValue, from.cbValue);
        to.cbValueRoom = from.cbValue + 1;
        ++pNew->head.nPair;
    }
    return pNew;
}

// Makes room for cbMore bytes. The block that was left, or null; the caller frees it when the texts that it was given
// have been copied, since they may lie in it. *pblFailed tells that there was no memory.
Hash *makeRoom(QLIBCSZHASH **ppHash, size_t cbMore, bool *pblFailed) {
    Hash *pHash = asHash(*ppHash);
    *pblFailed = false;
    if (freeBytes(pHash) >= cbMore) {
        return nullptr;
    }
    Hash *pNew = grownCopy(pHash, cbMore);
    if (pNew == nullptr) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OUT_OF_MEMORY, ENOMEM);
        *pblFailed = true;
        return nullptr;
    }
    pNew->pIndex = pHash->pIndex; // pair numbers stay what they are
    pNew->nSlot = pHash->nSlot;
    *ppHash = &pNew->head;
    return pHash;
}

int replaceValue(QLIBCSZHASH **ppHash, int nIndex, const char *szValue, size_t cbValue) {
    Pair *pPair = pairAt(asHash(*ppHash), nIndex);
    if (cbValue + 1 <= pPair->cbValueRoom) {
        memmove(bytes(asHash(*ppHash)) + pPair->nValue, szValue, cbValue + 1);
        pPair->cbValue = cbValue;
        return 0;
    }
    bool blFailed = false;
    Hash *pOld = makeRoom(ppHash, cbValue + 1, &blFailed);
    if (blFailed) {
        return -1;
    }
    Hash *pHash = asHash(*ppHash);
    pPair = pairAt(pHash, nIndex);
    pPair->nValue = appendText(pHash, szValue, cbValue);
    pPair->cbValue = cbValue;
    pPair->cbValueRoom = cbValue + 1;
    free(pOld);
    return 0;
}

} // namespace

QLIBCSZHASH *QLIBCSzHashAlloc(size_t cbInit) {
    const size_t cbText = cbInit < MIN_TEXT ? MIN_TEXT : cbInit;
    const size_t cbExtra = sizeof(Hash) + PAIRS_AT_START * sizeof(Pair);
    Hash *pHash = cbText > static_cast<size_t>(PTRDIFF_MAX) - cbExtra ? nullptr : newBlock(cbText + cbExtra);
    if (pHash == nullptr) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OUT_OF_MEMORY, ENOMEM);
        return nullptr;
    }
    return &pHash->head;
}

void QLIBCSzHashFree(QLIBCSZHASH *pHash) {
    const qovacore::ErrnoKeeper keeper;
    if (pHash != nullptr) {
        dropIndex(asHash(pHash));
        free(pHash);
    }
}

int QLIBCSzHashSetValue(QLIBCSZHASH **ppHash, const char *szKey, const char *szValue) {
    if (ppHash == nullptr || *ppHash == nullptr || szKey == nullptr || szValue == nullptr) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return -1;
    }
    const size_t cbKey = strlen(szKey);
    const size_t cbValue = strlen(szValue);
    const int nIndex = find(asHash(*ppHash), {szKey, cbKey});
    if (nIndex >= 0) {
        return replaceValue(ppHash, nIndex, szValue, cbValue);
    }
    if ((*ppHash)->nPair == INT_MAX) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OUT_OF_MEMORY, ENOMEM);
        return -1;
    }
    bool blFailed = false;
    Hash *pOld = makeRoom(ppHash, cbKey + cbValue + 2 + sizeof(Pair), &blFailed);
    if (blFailed) {
        return -1;
    }
    Hash *pHash = asHash(*ppHash);
    Pair pair{};
    pair.nKey = appendText(pHash, szKey, cbKey);
    pair.nValue = appendText(pHash, szValue, cbValue);
    pair.cbKey = cbKey;
    pair.cbValue = cbValue;
    pair.cbValueRoom = cbValue + 1;
    *pairAt(pHash, pHash->head.nPair) = pair;
    ++pHash->head.nPair;
    free(pOld);
    indexLastPair(pHash);
    return 0;
}

const char *QLIBCSzHashGetValue(const QLIBCSZHASH *pHash, const char *szKey) {
    if (pHash == nullptr || szKey == nullptr) {
        return nullptr;
    }
    const int nIndex = find(asHash(pHash), szKey);
    return nIndex < 0 ? nullptr : bytes(asHash(pHash)) + pairAt(asHash(pHash), nIndex)->nValue;
}

int QLIBCSzHashRemoveKey(QLIBCSZHASH *pHash, const char *szKey) {
    if (pHash == nullptr || szKey == nullptr) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return 0;
    }
    Hash *pOwn = asHash(pHash);
    const int nIndex = find(pOwn, szKey);
    if (nIndex < 0) {
        return 0;
    }
    // The records lie backwards, so those behind the removed one move towards the end of the block.
    Pair *pLast = pairAt(pOwn, pHash->nPair - 1);
    memmove(pLast + 1, pLast, static_cast<size_t>(pHash->nPair - 1 - nIndex) * sizeof(Pair));
    --pHash->nPair;
    fillIndex(pOwn);
    return 1;
}

int QLIBCSzHashEnumKey(const QLIBCSZHASH *pHash, QLIBCSZLIST **ppList) {
    if (pHash == nullptr || ppList == nullptr || *ppList == nullptr) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return -1;
    }
    for (int i = 0; i < pHash->nPair; ++i) {
        if (QLIBCSzListPush(ppList, keyAt(asHash(pHash), i).data()) < 0) {
            return -1;
        }
    }
    return 0;
}

int QLIBCSzHashPairNum(const QLIBCSZHASH *pHash) {
    return pHash != nullptr ? pHash->nPair : 0;
}

int QLIBCSzHashGetLength(const QLIBCSZHASH *pHash) {
    return QLIBCSzHashPairNum(pHash);
}

void QLIBCHashRemoveAll(QLIBCSZHASH *pHash) {
    if (pHash != nullptr) {
        const qovacore::ErrnoKeeper keeper;
        Hash *pOwn = asHash(pHash);
        pHash->nPair = 0;
        pOwn->cbTextEnd = sizeof(Hash);
        if (pOwn->nSlot > KEPT_SLOT) {
            dropIndex(pOwn);
        }
        fillIndex(pOwn);
    }
}
