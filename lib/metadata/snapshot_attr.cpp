// Attributes: the pairs of a snapshot's section. The attribute "hide" has a second home, a mark on the subvolume.
#include <sharesnap/frame.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/section_file.h>
#include <sharesnap/platform/subvolume.h>

#include <cstdlib>
#include <cstring>

#include "frame/inside_name.h"
#include "frame/log.h"
#include "frame/metadata_lock.h"
#include "frame/owners.h"
#include "frame/path_format.h"
#include "metadata/attr_limits.h"

using namespace sharesnap;

namespace {

constexpr size_t kSize = 1024;
constexpr size_t kDeleteSize = 512;
constexpr char kHide[] = "hide";

// Reads a value of "hide": exactly "true" or "false". False, with a log line, for any other.
bool ParseHide(const char *szValue, int *pblHide) {
    *pblHide = std::strcmp(szValue, "true") == 0 ? 1 : 0;
    if (*pblHide == 0 && std::strcmp(szValue, "false") != 0) {
        SNAP_LOG(LOG_ERR, "Snapshot attr set: value of hide should be true or false");
        return false;
    }
    return true;
}

// One call of QOVAShareSnapAttrSet.
struct SingleSet {
    const QOVASHARE *pShare;
    const char *szSnapName;
    const char *szAttr;
    const char *szValue;
    bool blIsHide = false;
    int blHide = 0;              // the wanted state
    TextOwner oldHide{};         // the section's value, or "false"
    HashOwner hash{};            // the section
    char szFile[kPathSize] = ""; // the metadata file
};

// Adds the attribute to the section in the file. 0 or -1. Under the lock.
int WriteSection(SingleSet *pSet) {
    if (QLIBCFileGetSection(pSet->szFile, pSet->szSnapName, &pSet->hash) < 1) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share(%s) snapshot(%s) section [0x%04X %s:%d]", pSet->pShare->szName,
                     pSet->szSnapName);
        return -1;
    }
    if (pSet->blIsHide) {
        const char *szPresent = QLIBCSzHashGetValue(pSet->hash.get(), kHide);
        pSet->oldHide.reset(strdup(szPresent != nullptr ? szPresent : "false"));
        if (!pSet->oldHide) {
            SNAP_SET_ERR(SNAP_ERR_OUT_OF_MEMORY);
            return -1;
        }
    }
    if (QLIBCSzHashSetValue(&pSet->hash, pSet->szAttr, pSet->szValue) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to set key-value to share(%s) snapshot(%s) section [0x%04X %s:%d]",
                     pSet->pShare->szName, pSet->szSnapName);
        return -1;
    }
    if (QLIBCSzHashGetLength(pSet->hash.get()) > SNAP_ATTR_MAX_PAIRS) {
        SNAP_SET_ERR(SNAP_ERR_TOO_MANY_ATTRIBUTES);
        return -1;
    }
    if (SnapFileSectionSet(pSet->szFile, pSet->szSnapName, nullptr, pSet->hash.get(), nullptr) <= 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to set key-value to share(%s) snapshot(%s) section [0x%04X %s:%d]",
                     pSet->pShare->szName, pSet->szSnapName);
        return -1;
    }
    return 0;
}

// Hides or shows the subvolume of a snapshot. A section may be forged: its name must not lead to the mark of anything
// but a snapshot. 0 or -1.
int SetMark(const char *szPath, const char *szSnapName, int blHide) {
    if (!NameStaysInside(szSnapName)) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    return QOVABtrfsSubvolHideAttrSet(szPath, blHide) < 0 ? -1 : 0;
}

// Sets the mark of the subvolume. 0 or -1.
int MarkSubvolume(const SingleSet *pSet) {
    char szDirectory[kPathSize];
    if (QOVAShareSnapGetOrCreateSnapDir(pSet->pShare, szDirectory, sizeof(szDirectory), 1) != 1) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get snapshot directory [0x%04X %s:%d]");
        return -1;
    }
    char szPath[kPathSize];
    if (!FormatPath(szPath, sizeof(szPath), "%s/%s", szDirectory, pSet->szSnapName) ||
        SetMark(szPath, pSet->szSnapName, pSet->blHide) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to set subvolume hide attribute on [%s] [0x%04X %s:%d]", szPath);
        return -1;
    }
    return 0;
}

// The file follows the subvolume that couldn't be changed. The failure that led here keeps its code.
void RevertHide(const SingleSet *pSet) {
    const ErrorKeeper cause;
    if (QLIBCFileSetSectionValue(pSet->szFile, pSet->szSnapName, kHide, pSet->oldHide.get()) != 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to revert share(%s) snapshot(%s) hide attribute to %s [0x%04X %s:%d]",
                     pSet->pShare->szName, pSet->szSnapName, pSet->oldHide.get());
        cause.restore(__FILE_NAME__, __LINE__);
    }
}

// File first, subvolume second, both under the lock. 0 or -1.
int SetUnderLock(SingleSet *pSet) {
    MetadataLock lock;
    if (!lock.take(pSet->pShare, MetadataLockMode::exclusive)) {
        return -1;
    }
    if (WriteSection(pSet) < 0) {
        return -1;
    }
    if (pSet->blIsHide && MarkSubvolume(pSet) < 0) {
        RevertHide(pSet);
        return -1;
    }
    return 0;
}

// One call of QOVAShareSnapAttrMultiSet.
struct MultiSet {
    const QOVASHARE *pShare;
    const char *szSnapName;
    const QLIBCSZHASH *pAttributes;
    bool blHasHide = false;
    int blHide = 0;   // the wanted state
    ListOwner keys{}; // of pAttributes
    HashOwner hash{}; // the section
    char szFile[kPathSize] = "";
};

// One attribute into the section. 0 or -1.
int MergeOne(MultiSet *pSet, const char *szKey) {
    const char *szValue = QLIBCSzHashGetValue(pSet->pAttributes, szKey);
    if (szKey == nullptr || szValue == nullptr) {
        return 0;
    }
    if (IsTooLong(szKey, szValue)) {
        SNAP_SET_ERR(SNAP_ERR_ATTR_TOO_LONG);
        return -1;
    }
    if (std::strcmp(szKey, kHide) == 0) {
        if (!ParseHide(szValue, &pSet->blHide)) {
            SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
            return -1;
        }
        pSet->blHasHide = true;
    }
    (void)QLIBCSzHashSetValue(&pSet->hash, szKey, szValue); // one that can't be held is left out
    return 0;
}

// All attributes into the section in the file, or none. 0 or -1. Under the lock.
int MergeSection(MultiSet *pSet) {
    if (QLIBCFileGetSection(pSet->szFile, pSet->szSnapName, &pSet->hash) < 1) {
        return -1;
    }
    for (int i = 0; i < pSet->keys->nItem; ++i) {
        if (MergeOne(pSet, QLIBCSzListGet(pSet->keys.get(), i)) < 0) {
            return -1;
        }
    }
    if (QLIBCSzHashPairNum(pSet->hash.get()) > SNAP_ATTR_MAX_PAIRS) {
        SNAP_SET_ERR(SNAP_ERR_TOO_MANY_ATTRIBUTES);
        return -1;
    }
    return SnapFileSectionSet(pSet->szFile, pSet->szSnapName, nullptr, pSet->hash.get(), kPairFormat) > 0 ? 0 : -1;
}

// The mark of the subvolume. Nothing is undone when it can't be set: reconciliation repairs the file.
void MarkSubvolume(const MultiSet *pSet) {
    char szDirectory[kPathSize];
    if (QOVAShareSnapGetOrCreateSnapDir(pSet->pShare, szDirectory, sizeof(szDirectory), 1) != 1) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get snap dir of share[%s][0x%04X %s:%d]", pSet->pShare->szName);
        return;
    }
    char szPath[kPathSize];
    if (!FormatPath(szPath, sizeof(szPath), "%s/%s", szDirectory, pSet->szSnapName) ||
        SetMark(szPath, pSet->szSnapName, pSet->blHide) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Fail to set attribute of snapshot [%s][0x%04X %s:%d]", pSet->szSnapName);
    }
}

// Reads the section that loses an attribute, before the lock is taken. 0 or -1.
int ReadForDelete(const QOVASHARE *pShare, const char *szSnapName, char (&szFile)[kPathSize], QLIBCSZHASH **ppHash) {
    const int nFile = SnapMetaGetOrCreateFile(pShare, szFile, sizeof(szFile), 0);
    if (nFile < 0) {
        SNAP_LOG_REG(LOG_ERR, "Meta file of share[%s] doesn't exist [0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    if (nFile == 0) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    const int nPairs = QLIBCFileGetSection(szFile, szSnapName, ppHash);
    if (nPairs < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share [%s] metafile section [%s] [0x%04X %s:%d]", pShare->szName,
                     szSnapName);
        return -1;
    }
    if (nPairs == 0) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    return 0;
}

} // namespace

int QOVAShareSnapAttrGet(const QOVASHARE *pShare, const char *szSnapName, const char *szAttr, char *szValue,
                         size_t cbValue) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    if (szSnapName == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szSnapName");
    }
    if (szAttr == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szAttr");
    }
    if (szValue == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != szValue");
    }
    char szFile[kPathSize];
    if (SnapMetaGetOrCreateFile(pShare, szFile, sizeof(szFile), 0) != 1) {
        SNAP_LOG_REG(LOG_ERR, "Failed to access metadata file on share [%s] [0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    MetadataLock lock;
    if (!lock.take(pShare, MetadataLockMode::shared)) {
        return -1;
    }
    if (QLIBCFileGetSectionValue(szFile, szSnapName, szAttr, szValue, cbValue) < 0) {
        const unsigned int uCode = QLIBCErrGet();
        if (uCode != SNAP_ERR_NO_SUCH_SECTION && uCode != SNAP_ERR_NO_SUCH_KEY) {
            SNAP_LOG(LOG_ERR, "Failed to get section [%s] attr [%s], errno=0x%X", szSnapName, szAttr, uCode);
        }
        return -1;
    }
    return 0;
}

int QOVAShareSnapAttrList(const QOVASHARE *pShare, const char *szSnapName, QLIBCSZHASH **ppHash) {
    if (pShare == nullptr || szSnapName == nullptr || ppHash == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    char szFile[kPathSize];
    const int nFile = SnapMetaGetOrCreateFile(pShare, szFile, sizeof(szFile), 0);
    if (nFile < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to access metadata file on share [%s] [0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    if (nFile == 0) {
        SNAP_SET_ERR(SNAP_ERR_NO_SUCH_SECTION);
        return -1;
    }
    MetadataLock lock;
    if (!lock.take(pShare, MetadataLockMode::shared)) {
        return -1;
    }
    if (QLIBCFileGetSection(szFile, szSnapName, ppHash) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share [%s] metafile section [%s] [0x%04X %s:%d]", pShare->szName,
                     szSnapName);
        return -1;
    }
    return 0;
}

int QOVAShareSnapAttrSet(const QOVASHARE *pShare, const char *szSnapName, const char *szAttr, const char *szValue) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    if (szSnapName == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szSnapName");
    }
    if (szAttr == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szAttr");
    }
    if (szValue == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != szValue");
    }
    if (IsTooLong(szAttr, szValue)) {
        SNAP_SET_ERR(SNAP_ERR_ATTR_TOO_LONG);
        return -1;
    }
    SingleSet set{pShare, szSnapName, szAttr, szValue};
    set.hash.reset(QLIBCSzHashAlloc(kSize));
    if (!set.hash) {
        SNAP_LOG(LOG_ERR, "QLIBCSzHashAlloc failed");
        return -1;
    }
    if (SnapMetaGetOrCreateFile(pShare, set.szFile, sizeof(set.szFile), 1) != 1) {
        SNAP_LOG_REG(LOG_ERR, "Failed to access metadata file on share [%s][0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    set.blIsHide = std::strcmp(szAttr, kHide) == 0;
    if (set.blIsHide && !ParseHide(szValue, &set.blHide)) {
        return -1;
    }
    return SetUnderLock(&set);
}

int QOVAShareSnapAttrMultiSet(const QOVASHARE *pShare, const char *szSnapName, const QLIBCSZHASH *pAttrHash) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    if (szSnapName == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szSnapName");
    }
    if (pAttrHash == nullptr) {
        return SNAP_BAD_ARGUMENT("0 != pAttrHash");
    }
    MultiSet set{pShare, szSnapName, pAttrHash};
    set.hash.reset(QLIBCSzHashAlloc(kSize));
    set.keys.reset(QLIBCSzListAlloc(kSize));
    if (!set.hash || !set.keys || SnapMetaGetOrCreateFile(pShare, set.szFile, sizeof(set.szFile), 1) != 1) {
        return -1;
    }
    if (QLIBCSzHashEnumKey(pAttrHash, &set.keys) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to enum attributes key of share(%s) snapshot(%s) [0x%04X %s:%d]", pShare->szName,
                     szSnapName);
        return -1;
    }
    MetadataLock lock;
    if (!lock.take(pShare, MetadataLockMode::exclusive)) {
        return -1;
    }
    // From here on only the register tells of a failure.
    const bool blWritten = MergeSection(&set) == 0;
    lock.release([pShare] {
        SNAP_LOG_REG(LOG_ERR, "Fail to QLIBCFileUnlockByFile of share(%s) metadata[0x%04X %s:%d]", pShare->szName);
    });
    if (blWritten && set.blHasHide) {
        MarkSubvolume(&set);
    }
    return 0;
}

int QOVAShareSnapAttrDelete(const QOVASHARE *pShare, const char *szSnapName, const char *szAttr) {
    if (pShare == nullptr || szSnapName == nullptr || szAttr == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    HashOwner hash(QLIBCSzHashAlloc(kDeleteSize));
    if (!hash) {
        SNAP_LOG_REG(LOG_ERR, "Failed to alloc hash[0x%04X %s:%d]");
        return -1;
    }
    char szFile[kPathSize];
    if (ReadForDelete(pShare, szSnapName, szFile, &hash) < 0) {
        return -1;
    }
    MetadataLock lock;
    if (!lock.take(pShare, MetadataLockMode::exclusive)) {
        return -1;
    }
    if (QLIBCSzHashGetValue(hash.get(), szAttr) == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_NO_SUCH_KEY);
        return -1;
    }
    if (QLIBCSzHashRemoveKey(hash.get(), szAttr) == 0 ||
        SnapFileSectionSet(szFile, szSnapName, nullptr, hash.get(), kPairFormat) != 1) {
        SNAP_LOG_REG(LOG_ERR, "Failed to delete share [%s] snapshot [%s] attr [%s] [0x%04X %s:%d]", pShare->szName,
                     szSnapName, szAttr);
        return -1;
    }
    return 0;
}
