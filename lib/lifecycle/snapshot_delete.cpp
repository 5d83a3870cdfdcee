// Deletion of a batch of snapshots with a result for each: announcements, refusal of held snapshots, results.
#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/event_log.h>

#include <cerrno>
#include <cstring>

#include "frame/log.h"
#include "frame/owners.h"
#include "lifecycle/snapshot_remove_list.h"

namespace {

using namespace sharesnap;

enum { EVENT_TYPE = 9, EVENT_LEVEL_INFO = 1 };

constexpr size_t kListSize = 1024;

struct Batch {
    const QOVASHARE *pShare;
    const QLIBCSZLIST *pListSnap;
    QLIBCMRESULT **ppMResult; // the caller's results, index by index those of pListSnap
    MResultOwner inner;       // the results of the accepted names
    ListOwner accepted;       // names without a holder; in the end those that are gone
    ListOwner initiators;
    QLIBPLUGIN *pPlugin = nullptr; // stays open: the platform keeps track of its handles
};

[[nodiscard]] bool PrepareBatch(Batch &b) {
    b.inner.reset(QLIBCMResultAlloc());
    b.accepted.reset(QLIBCSzListAlloc(kListSize));
    b.initiators.reset(QLIBCSzListAlloc(kListSize));
    return b.inner && b.accepted && b.initiators;
}

// Initialising may give another record in place of the given one.
[[nodiscard]] bool InitResults(const Batch &b) {
    QLIBCMRESULT *pResult = QLIBCMResultInit(*b.ppMResult, b.pListSnap->nItem, SNAP_ERR_OPERATION_FAILED);
    if (pResult == nullptr) {
        return false;
    }
    *b.ppMResult = pResult;
    return true;
}

[[nodiscard]] bool AnnounceBefore(const Batch &b) {
    if (QOVAShareSnapshotPluginAction(SNAP_PHASE_PRE, b.pPlugin, b.pShare, nullptr, b.pListSnap, "DELETE", 0) < 0) {
        SNAP_LOG(LOG_ERR, "Fail to execute share snapshot plugin (PRE)");
        return false;
    }
    return true;
}

void SetResult(const Batch &b, int nIndex, int nCode) {
    if (QLIBCMResultSetCoreError(*b.ppMResult, nIndex, nCode) < 0) {
        SNAP_LOG(LOG_ERR, "QLIBCMResultSetCoreError failed.");
    }
}

// Names that someone holds are refused, the others go on to the accepted list.
[[nodiscard]] bool RefuseHeldSnapshots(Batch &b) {
    for (int i = 0; i < b.pListSnap->nItem; ++i) {
        const char *szName = QLIBCSzListGet(b.pListSnap, i);
        QLIBCSzListRemoveAll(b.initiators.get());
        if (QOVAShareSnapSysLockInitiatorList(b.pShare, szName, &b.initiators) < 0) {
            SNAP_LOG_REG(LOG_ERR, "Failed list snapshot locker fot snap [%s] share [%s] [0x%04X %s:%d]", szName,
                         b.pShare->szName);
            return false;
        }
        if (b.initiators->nItem > 0) {
            SetResult(b, i, SNAP_RESULT_LOCKED);
        } else if (QLIBCSzListPush(&b.accepted, szName) < 0) {
            return false;
        }
    }
    return true;
}

[[nodiscard]] bool RemoveAccepted(Batch &b) {
    if (SnapRemoveList(b.pShare, b.accepted.get(), &b.inner) < 0) {
        const int nErrno = errno;
        SNAP_LOG_REG(LOG_ERR, "Failed to remove snapshots.[0x%04X %s:%d]");
        if (nErrno == ENOSPC) {
            SNAP_SET_ERR(SNAP_ERR_NO_SPACE);
        }
        return false;
    }
    return true;
}

// The accepted names stand in the order of the whole list, so one walk over both finds each one's place.
void MergeResults(const Batch &b) {
    for (int i = 0, j = 0; i < b.pListSnap->nItem && j < b.accepted->nItem; ++i) {
        if (std::strcmp(QLIBCSzListGet(b.pListSnap, i), QLIBCSzListGet(b.accepted.get(), j)) != 0) {
            continue;
        }
        int nCode = SNAP_ERR_OPERATION_FAILED;
        if (QLIBCMResultGetCoreErrorByIndex(b.inner.get(), j, &nCode) < 0) {
            SNAP_LOG(LOG_ERR, "QLIBCMResultGetCoreErrorByIndex failed.");
        } else {
            SetResult(b, i, nCode);
        }
        ++j;
    }
}

void CollectDeleted(Batch &b) {
    QLIBCSzListRemoveAll(b.accepted.get());
    for (int i = 0; i < b.pListSnap->nItem; ++i) {
        int nCode = SNAP_ERR_OPERATION_FAILED;
        if (QLIBCMResultGetCoreErrorByIndex(*b.ppMResult, i, &nCode) >= 0 && nCode == 0) {
            // Only the announcement hears of this list.
            (void)QLIBCSzListPush(&b.accepted, QLIBCSzListGet(b.pListSnap, i));
        }
    }
}

[[nodiscard]] int DeleteBatch(Batch &b) {
    if (!AnnounceBefore(b) || !RefuseHeldSnapshots(b) || !RemoveAccepted(b)) {
        return -1;
    }
    MergeResults(b);
    CollectDeleted(b);
    return QLIBCMResultCoreSuccess(*b.ppMResult) == 1 ? 0 : -1;
}

// The register tells why the batch stopped; what the plug-ins leave there doesn't count.
void AnnounceAfter(const Batch &b, int nResult) {
    if (b.pPlugin == nullptr) {
        return;
    }
    const ErrorKeeper keeper;
    if (QOVAShareSnapshotPluginAction(SNAP_PHASE_POST, b.pPlugin, b.pShare, nullptr, b.accepted.get(), "DELETE",
                                      nResult) < 0) {
        SNAP_LOG(LOG_ERR, "Fail to execute share plugin (POST)");
    }
    if (QLIBCErrGet() != keeper.code()) {
        keeper.restore(__FILE_NAME__, __LINE__);
    }
}

} // namespace

int QOVAShareSnapDelete(const QOVASHARE *pShare, const QLIBCSZLIST *pListSnap, QLIBCMRESULT **ppMResult) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    if (pListSnap == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pListSnap");
    }
    if (ppMResult == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != ppMResult");
    }
    Batch b{pShare, pListSnap, ppMResult, {}, {}, {}};
    int nFsType = -1;
    if (!PrepareBatch(b) || !InitResults(b) || QOVAShareSnapCheckSupport(pShare, &nFsType, SNAP_DELETE) < 0) {
        return -1;
    }
    if (pListSnap->nItem == 0) {
        return 0;
    }
    if (QOVAShareSnapshotPluginInit(&b.pPlugin) < 0) {
        return -1;
    }
    const int nResult = DeleteBatch(b);
    AnnounceAfter(b, nResult);
    return nResult;
}

int QOVAShareSnapDeleteLogSet(const QOVASHARE *pShare, const char *szFirst, const char *szSecond, int blSuccess) {
    // The event may report a failure: writing it must not change the code that the caller has yet to read.
    const ErrorKeeper keeper;
    int nResult = -1;
    if (pShare == nullptr || szFirst == nullptr || szSecond == nullptr) {
        SNAP_LOG_REG(LOG_ERR, "Bad Parameter.[0x%04X %s:%d]");
    } else {
        const unsigned int uEvent = blSuccess != 0 ? SNAP_EVENT_DELETE_DONE : SNAP_EVENT_DELETE_FAILED;
        nResult = QOVALogSet1(EVENT_TYPE, EVENT_LEVEL_INFO, uEvent, szFirst, pShare->szName, szSecond,
                              static_cast<char *>(nullptr)) < 0
                      ? -1
                      : 0;
    }
    keeper.restore(__FILE_NAME__, __LINE__);
    return nResult;
}
