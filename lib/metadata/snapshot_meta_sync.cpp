// Reconciliation: the volume is the truth for which snapshots exist and for the facts of their subvolumes, the metadata
// file for everything else.
#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/process.h>
#include <sharesnap/platform/volume.h>

#include <cerrno>
#include <cstring>

#include "frame/log.h"
#include "frame/owners.h"
#include "frame/path_format.h"
#include "frame/subvolume_line.h"
#include "intl_utils/share_info_get.h"

using namespace sharesnap;

namespace {

constexpr size_t kSize = 1024;
constexpr size_t kSetSize = 4096;
constexpr char kBtrfsProgram[] = "/sbin/btrfs";
constexpr char kOrphanText[] = "orphan snapshot created by unknown application";
constexpr unsigned int kShareTypeMask = 0x307;

bool AllocList(ListOwner &list) {
    list.reset(QLIBCSzListAlloc(kSize));
    if (!list) {
        SNAP_LOG_REG(LOG_ERR, "Failed to QLIBCSzListAlloc().[0x%04X %s:%d]");
    }
    return static_cast<bool>(list);
}

bool AllocHash(HashOwner &hash) {
    hash.reset(QLIBCSzHashAlloc(kSize));
    if (!hash) {
        SNAP_LOG_REG(LOG_ERR, "Failed to QLIBCSzHashAlloc().[0x%04X %s:%d]");
    }
    return static_cast<bool>(hash);
}

// The names of one share, as three passes work on them.
struct NameSets {
    ListOwner metadata; // sections
    ListOwner volume;   // subvolumes
    ListOwner both;
    ListOwner stale;   // in the metadata only
    ListOwner missing; // on the volume only
};

// Calls a function for each name of the list.
template <typename Action>
void ForEachName(const QLIBCSZLIST *pList, Action action) {
    for (int i = 0; i < pList->nItem; ++i) {
        const char *szName = QLIBCSzListGet(pList, i);
        if (szName == nullptr) {
            SNAP_LOG_REG(LOG_ERR, "Failed to get share name in item(%d).[0x%04X %s:%d]", i);
            continue;
        }
        action(szName);
    }
}

// What the volume holds of the share. 0 or -1.
int ReadVolume(const QOVASHARE *pShare, const char *szVolPath, NameSets &sets) {
    ListOwner all;
    if (!AllocList(all) || !AllocList(sets.volume)) {
        return -1;
    }
    if (SnapMetaSyncBtrfsListVol(szVolPath, &all) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get volume(%s) subvolume list form btrfs.[0x%04X %s:%d]", szVolPath);
        return -1;
    }
    if (SnapMetaSyncFindShareSnapList(pShare, all.get(), &sets.volume) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to find share(%s) snap list.[0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    return 0;
}

// What the metadata says. 0 or -1.
int ReadMetadata(const QOVASHARE *pShare, NameSets &sets) {
    if (!AllocList(sets.metadata)) {
        return -1;
    }
    if (QOVAShareSnapList(pShare, &sets.metadata, nullptr) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share(%s) snapshot list from metadata.[0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    return 0;
}

// A set that can't be made must not be taken for an empty one: every section would count as stale. 0 or -1.
int Compare(NameSets &sets) {
    sets.both.reset(QLIBCSzListAnd(sets.metadata.get(), sets.volume.get(), kSetSize));
    if (sets.both) {
        sets.stale.reset(QLIBCSzListSub(sets.metadata.get(), sets.both.get(), kSetSize));
        sets.missing.reset(QLIBCSzListSub(sets.volume.get(), sets.both.get(), kSetSize));
    }
    if (!sets.stale || !sets.missing) {
        SNAP_LOG_REG(LOG_ERR, "Failed to QLIBCSzListAlloc().[0x%04X %s:%d]");
        return -1;
    }
    return 0;
}

// The section of a subvolume that is gone.
void DropStale(const QOVASHARE *pShare, const char *szName) {
    if (SnapMetaSectionDel(pShare, szName, 1) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to delete share(%s) snapshot(%s) meta section.[0x%04X %s:%d]", pShare->szName,
                     szName);
        return;
    }
    SNAP_LOG_REG(LOG_WARNING, "Success to delete share(%s) nonexist snapshot(%s) meta section.[0x%04X %s:%d]",
                 pShare->szName, szName);
}

// A section for a subvolume that has none. A hidden one has no owner: it is shown, with a text that says so. 0 or -1.
int AddMissing(const QOVASHARE *pShare, const char *szName) {
    HashOwner hash;
    if (!AllocHash(hash)) {
        return -1;
    }
    if (SnapFillSubvolInfo(pShare, szName, &hash) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share(%s) snapshot(%s) info.[0x%04X %s:%d]", pShare->szName, szName);
        return -1;
    }
    const char *szHide = QLIBCSzHashGetValue(hash.get(), "hide");
    const bool blOrphan = szHide != nullptr && std::strcmp(szHide, "true") == 0;
    if (blOrphan) {
        (void)QLIBCSzHashSetValue(&hash, "desc", kOrphanText); // the text alone is lost when it can't be held
    }
    if (QOVAShareSnapDefaultAttr(&hash) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to QOVAShareSnapDefaultAttr().[0x%04X %s:%d]");
        return -1;
    }
    if (QOVAShareSnapMetaSectionAdd(pShare, szName, hash.get()) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to add share(%s) snapshot(%s) meta secion.[0x%04X %s:%d]", pShare->szName,
                     szName);
        return -1;
    }
    if (blOrphan && QOVAShareSnapAttrSet(pShare, szName, "hide", "false") < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to set share(%s) snapshot(%s) hide as false.[0x%04X %s:%d]", pShare->szName,
                     szName);
        return -1;
    }
    return 0;
}

void AdoptMissing(const QOVASHARE *pShare, const char *szName) {
    if (AddMissing(pShare, szName) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to add share(%s) snapshot(%s) meta section.[0x%04X %s:%d]", pShare->szName,
                     szName);
        return;
    }
    SNAP_LOG_REG(LOG_WARNING, "Success to add share(%s) missing snapshot(%s) meta section.[0x%04X %s:%d]",
                 pShare->szName, szName);
}

// One section and the facts of its subvolume.
struct Refresh {
    HashOwner section;
    HashOwner facts;
    ListOwner keys; // of the facts
};

// 0 or -1.
int ReadBoth(const QOVASHARE *pShare, const char *szName, Refresh &refresh) {
    if (!AllocHash(refresh.section) || !AllocHash(refresh.facts) || !AllocList(refresh.keys)) {
        return -1;
    }
    if (QOVAShareSnapAttrList(pShare, szName, &refresh.section) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share(%s) snapshot(%s) attr list.[0x%04X %s:%d]", pShare->szName, szName);
        return -1;
    }
    if (SnapFillSubvolInfo(pShare, szName, &refresh.facts) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share(%s) snapshot(%s) info.[0x%04X %s:%d]", pShare->szName, szName);
        return -1;
    }
    if (QLIBCSzHashEnumKey(refresh.facts.get(), &refresh.keys) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get hash enum key from hash.[0x%04X %s:%d]");
        return -1;
    }
    return 0;
}

// A value of the section that begins with the subvolume's counts as equal.
bool HasFact(const QLIBCSZHASH *pSection, const char *szKey, const char *szFact) {
    const char *szPresent = QLIBCSzHashGetValue(pSection, szKey);
    return szPresent != nullptr && std::strncmp(szFact, szPresent, std::strlen(szFact)) == 0;
}

enum class Merge { unchanged, changed, failed };

// Brings the facts into the section's pairs.
Merge MergeFacts(const QOVASHARE *pShare, const char *szName, Refresh &refresh) {
    Merge result = Merge::unchanged;
    for (int i = 0; i < refresh.keys->nItem; ++i) {
        const char *szKey = QLIBCSzListGet(refresh.keys.get(), i);
        const char *szFact = QLIBCSzHashGetValue(refresh.facts.get(), szKey);
        if (szFact == nullptr || HasFact(refresh.section.get(), szKey, szFact)) {
            continue;
        }
        if (QLIBCSzHashSetValue(&refresh.section, szKey, szFact) < 0) {
            SNAP_LOG(LOG_ERR, "Failed to set share(%s) snapshot(%s) key(%s) value(%s)", pShare->szName, szName, szKey,
                     szFact);
            result = Merge::failed;
        } else if (result == Merge::unchanged) {
            result = Merge::changed;
        }
    }
    return result;
}

// The write is the last step: a failure before it leaves the section as it was.
void RefreshSection(const QOVASHARE *pShare, const char *szName) {
    Refresh refresh;
    bool blFailed = true;
    if (ReadBoth(pShare, szName, refresh) == 0) {
        const Merge merge = MergeFacts(pShare, szName, refresh);
        const int nDefaults = QOVAShareSnapDefaultAttr(&refresh.section);
        if (nDefaults < 0) {
            SNAP_LOG_REG(LOG_ERR, "Failed to QOVAShareSnapDefaultAttr().[0x%04X %s:%d]");
        } else if (nDefaults != 1 && merge == Merge::unchanged) {
            return;
        } else if (QOVAShareSnapAttrMultiSet(pShare, szName, refresh.section.get()) < 0) {
            SNAP_LOG_REG(LOG_ERR, "Failed to set mulit attr share(%s) snapshot(%s).[0x%04X %s:%d]", pShare->szName,
                         szName);
        } else {
            blFailed = merge == Merge::failed;
        }
    }
    if (blFailed) {
        SNAP_LOG_REG(LOG_ERR, "Failed to change share(%s) snapshot(%s) meta section.[0x%04X %s:%d]", pShare->szName,
                     szName);
        return;
    }
    SNAP_LOG_REG(LOG_WARNING, "Success to update share(%s) snapshot(%s) meta section.[0x%04X %s:%d]", pShare->szName,
                 szName);
}

// The metadata follows the volume, name by name; then the recount. 0 or -1.
int Reconcile(const QOVASHARE *pShare, NameSets &sets) {
    if (ReadMetadata(pShare, sets) < 0 || Compare(sets) < 0) {
        return -1;
    }
    ForEachName(sets.stale.get(), [pShare](const char *szName) { DropStale(pShare, szName); });
    ForEachName(sets.missing.get(), [pShare](const char *szName) { AdoptMissing(pShare, szName); });
    ForEachName(sets.both.get(), [pShare](const char *szName) { RefreshSection(pShare, szName); });
    if (QOVAShareSnapSyncSnapCount(pShare) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to sync share(%s)'s snapshot count.[0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    return 0;
}

void SyncNamedShare(const char *szName) {
    ShareOwner share;
    if (ShareGetWithRetry(szName, &share) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share (%s)[0x%04X %s:%d]", szName);
        return;
    }
    if (QOVAShareSnapMetaSync(share.get()) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to sync share(%s) meta.[0x%04X %s:%d]", szName);
    }
}

using VolumesOwner = Owner<QOVAMOUNTVOLINFO, QOVAMountVolInfoFree>;

} // namespace

int QOVAShareSnapMetaSync(const QOVASHARE *pShare) {
    if (pShare == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    QOVAMOUNTVOLINFO info = {};
    if (QOVAMountVolInfoGet(pShare->szPath, &info) < 0) {
        SNAP_LOG(LOG_ERR, "Failed to get volume info = %s, qovaerr=[0x%04X]", pShare->szPath, QLIBCErrGet());
        SNAP_SET_ERR(SNAP_ERR_VOLUME_INFO);
        return -1;
    }
    if (info.nFsType != FS_TYPE_BTRFS) {
        SNAP_SET_ERR(SNAP_ERR_UNSUPPORTED);
        return -1;
    }
    NameSets sets;
    if (ReadVolume(pShare, info.szMountPath, sets) < 0) {
        return -1;
    }
    if (Reconcile(pShare, sets) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to sync share(%s) meta.[0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    return 0;
}

int QOVAShareSnapMetaSyncAll(void) {
    ListOwner names;
    if (!AllocList(names)) {
        return -1;
    }
    const VolumesOwner volumes(QOVAMountVolAllEnum(0, 1, 0));
    for (const QOVAMOUNTVOLINFO *pVolume = volumes.get(); pVolume != nullptr; pVolume = pVolume->pNext) {
        if (pVolume->nFsType != FS_TYPE_BTRFS) {
            continue;
        }
        QLIBCSzListRemoveAll(names.get());
        if (QOVAShareEnumByMntPathAndEnumType(&names, pVolume->szMountPath, kShareTypeMask) < 0) {
            SNAP_LOG_REG(LOG_ERR, "Failed to get volume(%s) share list.[0x%04X %s:%d]", pVolume->szMountPath);
            continue;
        }
        ForEachName(names.get(), SyncNamedShare);
    }
    return 0;
}

int SnapMetaSyncBtrfsListVol(const char *szVolPath, QLIBCSZLIST **ppList) {
    FILE *pStream = QLIBCPopen(kBtrfsProgram, "r", "subvolume", "list", szVolPath, static_cast<char *>(nullptr));
    if (pStream == nullptr) {
        SNAP_LOG(LOG_ERR, "Failed to do [%s subvolume list %s], err=%m", kBtrfsProgram, szVolPath);
        return -1;
    }
    int nResult = 0;
    char szPath[kSubvolumeLineSize];
    while (nResult == 0 && NextSubvolumePath(pStream, szPath)) {
        if (QLIBCSzListPush(ppList, szPath) < 0) {
            nResult = -1; // a list with a gap would make a section stale
        }
    }
    if (!EndsWhole(pStream)) {
        nResult = -1;
    }
    (void)QLIBCPclose(pStream); // what the tool printed is trusted, whatever its exit status
    return nResult;
}

int SnapMetaSyncFindShareSnapList(const QOVASHARE *pShare, const QLIBCSZLIST *pVolList, QLIBCSZLIST **ppList) {
    if (pShare == nullptr || pVolList == nullptr || ppList == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    char szPrefix[kPathSize];
    if (!SnapshotPrefix(pShare, szPrefix, sizeof(szPrefix))) {
        return -1;
    }
    const size_t cbPrefix = std::strlen(szPrefix);
    int nResult = 0;
    ForEachName(pVolList, [&](const char *szPath) {
        if (std::strncmp(szPath, szPrefix, cbPrefix) == 0 && QLIBCSzListPush(ppList, szPath + cbPrefix) < 0) {
            nResult = -1;
        }
    });
    return nResult;
}
