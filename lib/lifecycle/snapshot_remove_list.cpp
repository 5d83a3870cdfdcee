// Removal of the snapshots that passed the checks of a batch. The counter goes down before the first subvolume is
// touched, so that a crash leaves it too low and never too high; what still exists afterwards is put back.
#include "lifecycle/snapshot_remove_list.h"

#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/section_file.h>
#include <sharesnap/platform/volume.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "frame/log.h"

namespace {

using namespace sharesnap;

constexpr size_t kListSize = 1024;
constexpr size_t kHashSize = 1024;
constexpr size_t kHideSize = 1024;
constexpr char kFound[] = "true";
constexpr char kNotFound[] = "false";

[[nodiscard]] bool InitResults(const Removal &r) {
    QLIBCMRESULT *pResult = QLIBCMResultInit(*r.ppResult, r.names.Count(), SNAP_ERR_OPERATION_FAILED);
    if (pResult == nullptr) {
        return false;
    }
    *r.ppResult = pResult;
    return true;
}

[[nodiscard]] bool FindMetadata(Removal &r) {
    // Nothing is created: a share without metadata has nothing to delete.
    if (SnapMetaGetOrCreateFile(r.pShare, r.szMeta, sizeof(r.szMeta), 0) != 1) {
        SNAP_LOG_REG(LOG_ERR, "Failed to access metadata file on share [%s] [0x%04X %s:%d]", r.pShare->szName);
        return false;
    }
    return true;
}

[[nodiscard]] bool PrepareLists(Removal &r) {
    r.status.reset(QLIBCSzHashAlloc(kHashSize));
    if (!r.status) {
        SNAP_LOG(LOG_ERR, "QLIBCSzHashAlloc failed");
        return false;
    }
    r.visible.reset(QLIBCSzListAlloc(kListSize));
    r.hidden.reset(QLIBCSzListAlloc(kListSize));
    if (!r.visible || !r.hidden) {
        std::printf("QLIBCSzListAlloc failed. [0x%04X %s:%d]\n", QLIBCErrGet(), QLIBCErrorGetFile(),
                    QLIBCErrorGetLine());
        return false;
    }
    return true;
}

// A name that can't be entered reads as not found in the end.
void SetStatus(Removal &r, int nIndex, const char *szStatus) {
    if (QLIBCSzHashSetValue(&r.status, r.names.Get(nIndex), szStatus) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to add snapshot in hash.[0x%04X %s:%d]");
    }
}

void EnterNames(Removal &r) {
    for (int i = 0; i < r.names.Count(); ++i) {
        SetStatus(r, i, kNotFound);
    }
}

[[nodiscard]] bool OpenInput(Removal &r) {
    r.input.reset(std::fopen(r.szMeta, "re"));
    if (!r.input) {
        SNAP_LOG(LOG_ERR, "Failed open metadata file [%s] errno:%d", r.szMeta, errno);
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return false;
    }
    if (fstat(fileno(r.input.get()), &r.inputStat) != 0) {
        SNAP_LOG(LOG_ERR, "Failed to stat intput file errno:%d", errno);
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return false;
    }
    return true;
}

// A section without the key is one of a visible snapshot.
[[nodiscard]] bool ReadHide(const Removal &r, const char *szName, char *szHide, size_t cbHide) {
    if (QLIBCFileGetSectionValue(r.szMeta, szName, "hide", szHide, cbHide) >= 0) {
        return true;
    }
    if (QLIBCErrGet() == SNAP_ERR_NO_SUCH_KEY) {
        (void)std::snprintf(szHide, cbHide, "%s", "false"); // fits
        return true;
    }
    SNAP_LOG_REG(LOG_ERR, "Failed to get section [%s] attr [%s][0x%04X %s:%d]", szName, "hide");
    return false;
}

// False only for what ends the removal.
[[nodiscard]] bool SortName(Removal &r, int nIndex) {
    const char *szName = r.names.Get(nIndex);
    if (!r.names.Stands(nIndex)) {
        SNAP_LOG_REG(LOG_ERR, "Failed to check share [%s] snapshot [%s] is subvol[0x%04X %s:%d]", r.pShare->szName,
                     szName);
        return true;
    }
    SetStatus(r, nIndex, kFound);
    char szHide[kHideSize] = "false";
    if (!ReadHide(r, szName, szHide, sizeof(szHide))) {
        return false;
    }
    return QLIBCSzListPush(std::strcmp(szHide, "false") == 0 ? &r.visible : &r.hidden, szName) >= 0;
}

// Pass one: which of the names have a section and a subvolume.
[[nodiscard]] bool FindSections(Removal &r) {
    while (r.line.Next(r.input.get())) {
        if (QLIBCIFileIsSection(r.line.Text(), r.line.Length()) == 0) {
            continue;
        }
        const int nIndex = r.names.FindSection(r.line.Text(), r.line.Length());
        if (nIndex >= 0 && !SortName(r, nIndex)) {
            return false;
        }
    }
    return CheckInputEnd(r);
}

[[nodiscard]] bool DecreaseCounter(Removal &r) {
    const int nVisible = r.visible->nItem;
    if (nVisible == 0) {
        return true;
    }
    if (QOVAShareSnapUpdateSnapCountEx(r.pShare, -nVisible, 1) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to decrease snapcount for share [%s] [0x%04X %s:%d]", r.pShare->szName);
        return false;
    }
    r.nDecreased = nVisible;
    return true;
}

// Both lists always: what fails with one is no reason to keep the other.
void DeleteSubvolumes(Removal &r) {
    if (r.nFsType != FS_TYPE_BTRFS) {
        r.blFailed = true;
        return;
    }
    if (SnapDeleteSubvolList(r.pShare, r.visible.get(), &r.nVisibleDeleted) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to delete snapshots in [%s][0x%04X %s:%d]", r.pShare->szPath);
        r.blFailed = true;
    }
    if (SnapDeleteSubvolList(r.pShare, r.hidden.get(), &r.nHiddenDeleted) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to delete hide snapshots in [%s][0x%04X %s:%d]", r.pShare->szPath);
        r.blFailed = true;
    }
    if (r.visible->nItem != r.nVisibleDeleted || r.hidden->nItem != r.nHiddenDeleted) {
        r.blFailed = true;
    }
}

void SetResult(const Removal &r, int nIndex, int nCode) {
    if (QLIBCMResultSetCoreError(*r.ppResult, nIndex, nCode) < 0) {
        SNAP_LOG(LOG_ERR, "QLIBCMResultSetCoreError failed.");
    }
}

void FillResults(Removal &r) {
    for (int i = 0; i < r.names.Count(); ++i) {
        const char *szStatus = QLIBCSzHashGetValue(r.status.get(), r.names.Get(i));
        if (szStatus == nullptr || std::strcmp(szStatus, kFound) != 0) {
            SetResult(r, i, SNAP_RESULT_NOT_FOUND);
        } else if (r.names.Survived(i)) {
            SNAP_LOG_REG(LOG_ERR, "Failed to delete share [%s] snapshot [%s][0x%04X %s:%d]", r.pShare->szName,
                         r.names.Get(i));
        } else {
            SetResult(r, i, 0);
        }
    }
}

// Puts back what still exists, whatever became of the metadata. errno and the register tell of the stop, not of this.
void PutBackSurvivors(const Removal &r) {
    const int nRemainder = r.nDecreased - r.nVisibleDeleted;
    if (nRemainder <= 0) {
        return;
    }
    const ErrnoKeeper errnoKeeper;
    const ErrorKeeper keeper;
    if (QOVAShareSnapUpdateSnapCountEx(r.pShare, nRemainder, 0) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to rollback snapcount for share [%s] [0x%04X %s:%d]", r.pShare->szName);
    }
    if (QLIBCErrGet() != keeper.code()) {
        keeper.restore(__FILE_NAME__, __LINE__);
    }
}

[[nodiscard]] int RemoveNames(Removal &r) {
    if (!FindMetadata(r) || !PrepareLists(r)) {
        return -1;
    }
    EnterNames(r);
    if (!r.lock.take(r.pShare, MetadataLockMode::exclusive) || !OpenInput(r) || !FindSections(r) ||
        !DecreaseCounter(r)) {
        return -1;
    }
    DeleteSubvolumes(r);
    const bool blRewritten = RewriteMetadata(r);
    if (blRewritten) {
        FillResults(r);
    }
    PutBackSurvivors(r);
    return blRewritten ? 0 : -1;
}

} // namespace

namespace sharesnap {

bool CheckInputEnd(const Removal &r) {
    if (std::feof(r.input.get()) == 0) {
        SNAP_LOG(LOG_ERR, "Failed to intput file eof errno:%d", errno);
        SNAP_SET_ERR(SNAP_ERR_READ_FAILED);
        return false;
    }
    return true;
}

int SnapRemoveList(const QOVASHARE *pShare, const QLIBCSZLIST *pListSnap, QLIBCMRESULT **ppResult) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    if (pListSnap == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pListSnap");
    }
    errno = 0; // the caller looks for a full volume: one that was met earlier doesn't count
    try {
        Removal r(pShare, pListSnap, ppResult);
        if (!InitResults(r) || QOVAShareSnapCheckSupport(pShare, &r.nFsType, SNAP_DELETE) < 0) {
            return -1;
        }
        return pListSnap->nItem == 0 ? 0 : RemoveNames(r);
    } catch (const std::bad_alloc &) {
        SNAP_SET_ERR(SNAP_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

} // namespace sharesnap
