// Creation of a snapshot: name, announcement, count, frozen configuration, metadata, subvolume; and what is undone when
// a stage fails.
#include "lifecycle/snapshot_create.h"

#include <sharesnap/config.h>
#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/metadata.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "frame/log.h"

namespace {

using namespace sharesnap;

constexpr unsigned long kHookSeconds = 10;
constexpr unsigned int kMaxRetry = 10;
constexpr size_t kListSize = 512;
constexpr size_t kHashSize = 1024;

enum { RESULT_DONE = 0, RESULT_FAILED = -1, RESULT_CONFLICT = -2 };

// Two requests met on one name: a later second gives another one.
[[nodiscard]] bool IsConflict(unsigned int uCode) {
    return uCode == SNAP_ERR_SECTION_EXISTS || uCode == SNAP_ERR_SNAPSHOT_EXISTS;
}

[[nodiscard]] bool CheckSupport(Creation &c) {
    return QOVAShareSnapCheckSupport(c.pShare, &c.nFsType, SNAP_CREATE) >= 0;
}

[[nodiscard]] bool UseOwnHashWithoutCallers(Creation &c) {
    if (c.ppHash != nullptr) {
        return true;
    }
    c.privateHash.reset(QLIBCSzHashAlloc(kHashSize));
    c.ppHash = &c.privateHash;
    return static_cast<bool>(c.privateHash);
}

[[nodiscard]] bool MakeNameList(Creation &c) {
    c.list.reset(QLIBCSzListAlloc(kListSize));
    if (!c.list) {
        SNAP_LOG(LOG_ERR, "QLIBCSzListAlloc() failed");
        return false;
    }
    return true;
}

[[nodiscard]] bool CompleteAttributes(Creation &c) {
    if (QOVAShareSnapDefaultAttr(c.ppHash) < 0) {
        return false;
    }
    const char *szHide = QLIBCSzHashGetValue(*c.ppHash, "hide");
    c.blHidden = szHide != nullptr && std::strcmp(szHide, "true") == 0;
    return true;
}

[[nodiscard]] bool ReadClock(Creation &c) {
    c.tNow = time(nullptr);
    if (c.tNow == static_cast<time_t>(-1)) {
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return false;
    }
    return true;
}

void ReadTimeFormat(Creation &c) {
    char szValue[64] = "";
    c.blLocalTime = QOVAShareSnapConfGet(c.pShare->szName, "local_time_format", szValue, sizeof(szValue)) == 1 &&
                    std::strcmp(szValue, "true") == 0;
}

[[nodiscard]] bool NameSnapshot(Creation &c) {
    return SnapNameGenerateByTime(c.szName, sizeof(c.szName), c.tNow, c.blLocalTime ? 1U : 0U) >= 0;
}

[[nodiscard]] bool CheckNameIsFree(const Creation &c) {
    char szPath[kPathSize] = "";
    if (QOVAShareSnapGetSnapPath(c.pShare, c.szName, szPath, sizeof(szPath)) == 1) {
        SNAP_SET_ERR(SNAP_ERR_SNAPSHOT_EXISTS);
        return false;
    }
    return true;
}

[[nodiscard]] bool OpenPlugin(Creation &c) {
    if (QOVAShareSnapshotPluginInit(&c.pPlugin) < 0) {
        return false;
    }
    return QLIBCSzListPush(&c.list, c.szName) >= 0;
}

// Runs in the child.
int ShareSnapCreateRehook(void *pArg) {
    const auto *pCreation = static_cast<const Creation *>(pArg);
    if (QOVAShareSnapshotPluginAction(SNAP_PHASE_PRE, pCreation->pPlugin, pCreation->pShare, nullptr,
                                      pCreation->list.get(), "CREATE", 0) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Fail to execute share snapshot plugin (PRE) of share [%s][0x%04X %s:%d]",
                     pCreation->pShare->szName);
        return -1;
    }
    return 0;
}

// A plug-in that fails or is too slow doesn't stop a snapshot: its -1 comes back as the exit status 255. The result is
// negative only when the child was killed by someone else or couldn't be run.
[[nodiscard]] bool AnnounceBefore(Creation &c) {
    const TimeLimitTask task{ShareSnapCreateRehook, &c};
    int nRet = -1;
    if (ShareSnapTimeLimitFork(kHookSeconds, &task, &nRet) >= 0 && nRet >= 0) {
        return true;
    }
    if (QLIBCErrGet() == SNAP_ERR_TIME_LIMIT) {
        SNAP_LOG_REG(LOG_ERR, "Re-hooks cannot finish within %d seconds[0x%04X %s:%d]", static_cast<int>(kHookSeconds));
        return true;
    }
    SNAP_LOG_REG(LOG_ERR, "Failed to perform re-hook, ret: %d[0x%04X %s:%d]", nRet);
    return false;
}

[[nodiscard]] bool CountVisible(Creation &c) {
    if (c.blHidden) {
        return true;
    }
    if (QOVAShareSnapCheckMaxRetry(c.pShare) < 0) {
        return false;
    }
    const int nCount = QOVAShareSnapUpdateSnapCountEx(c.pShare, 1, 1);
    if (nCount < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to increase snapcount for share [%s], ret [%d]. [0x%04X %s:%d]", c.pShare->szName,
                     nCount);
        return false;
    }
    c.blRollbackCount = nCount > 0;
    return true;
}

// The snapshot then contains the share's configuration as it is now.
[[nodiscard]] bool FreezeConfiguration(const Creation &c) {
    if (!c.blShareInfo) {
        return true;
    }
    if (QOVAShareSnapShareInfoSet(c.pShare) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to backup share [%s] configuration [0x%04X %s:%d]", c.pShare->szName);
        return false;
    }
    return true;
}

[[nodiscard]] bool AddMetadata(Creation &c) {
    if (QOVAShareSnapMetaSectionAdd(c.pShare, c.szName, *c.ppHash) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to add metadata for share [%s], snapshot [%s] [0x%04X %s:%d]", c.pShare->szName,
                     c.szName);
        return false;
    }
    c.blRollbackMeta = true;
    return true;
}

[[nodiscard]] bool RunStages(Creation &c) {
    if (!CheckSupport(c) || !UseOwnHashWithoutCallers(c) || !MakeNameList(c) || !CompleteAttributes(c) ||
        !ReadClock(c)) {
        return false;
    }
    ReadTimeFormat(c);
    return NameSnapshot(c) && CheckNameIsFree(c) && OpenPlugin(c) && AnnounceBefore(c) && CountVisible(c) &&
           FreezeConfiguration(c) && AddMetadata(c) && CheckReservedSpace(c) && CheckFileSystemType(c) &&
           TakeSnapshot(c);
}

void HandOverName(const Creation &c) {
    if (c.szSnapName != nullptr) {
        (void)std::snprintf(c.szSnapName, c.cbSnapName, "%s", c.szName); // a small buffer gets what fits
    }
}

// The count first, then the metadata.
void UndoFailed(const Creation &c, unsigned int uCode) {
    SNAP_LOG_REG(LOG_ERR, "Failed to create snapshot, err [%d]. [0x%04X %s:%d]", static_cast<int>(uCode));
    if (c.blRollbackCount && QOVAShareSnapUpdateSnapCountEx(c.pShare, -1, 0) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to rollback snapcount for share [%s] [0x%04X %s:%d]", c.pShare->szName);
    }
    if (c.blRollbackMeta && SnapMetaSectionDel(c.pShare, c.szName, 1) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to rollback metadata for share [%s], snapshot [%s] [0x%04X %s:%d]",
                     c.pShare->szName, c.szName);
    }
}

void AnnounceAfter(const Creation &c, int nResult) {
    if (c.pPlugin == nullptr) {
        return;
    }
    if ((c.uFlags & SNAP_CREATE_BLOCKING_POST) != 0) {
        (void)QLIBPluginSetBlocking(c.pPlugin, 1); // the action is sent in either case
    }
    if (QOVAShareSnapshotPluginAction(SNAP_PHASE_POST, c.pPlugin, c.pShare, nullptr, c.list.get(), "CREATE", nResult) <
        0) {
        SNAP_LOG(LOG_ERR, "Fail to execute share snapshot plugin (POST)");
    }
    QLIBPluginExit(c.pPlugin);
}

int ShareSnapCreateInternal(const QOVASHARE *pShare, char *szSnapName, size_t cbSnapName, QLIBCSZHASH **ppHash,
                            bool blShareInfo, unsigned int uFlags) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    Creation c;
    c.pShare = pShare;
    c.szSnapName = szSnapName;
    c.cbSnapName = cbSnapName;
    c.ppHash = ppHash;
    c.blShareInfo = blShareInfo;
    c.uFlags = uFlags;

    bool blDone = RunStages(c);
    if (blDone) {
        HandOverName(c);
    }
    // A conflict code can stand in the register although the snapshot was taken, left by an earlier step. It can't be
    // told from a true conflict, so the snapshot is given up: its section goes, its subvolume is left to
    // reconciliation.
    const ErrorKeeper keeper;
    if (blDone && IsConflict(keeper.code())) {
        blDone = false;
        c.blRollbackCount = true;
        c.blRollbackMeta = true;
    }
    int nResult = RESULT_DONE;
    if (!blDone) {
        nResult = IsConflict(keeper.code()) ? RESULT_CONFLICT : RESULT_FAILED;
        UndoFailed(c, keeper.code());
    }
    if (c.blShareInfo) {
        QOVAShareSnapShareInfoClear(c.pShare);
    }
    AnnounceAfter(c, nResult);
    keeper.restore(__FILE_NAME__, __LINE__);
    return nResult;
}

} // namespace

int QOVAShareSnapCreate(const QOVASHARE *pShare, char *szSnapName, size_t cbSnapName, QLIBCSZHASH **ppHash) {
    return ShareSnapCreateInternal(pShare, szSnapName, cbSnapName, ppHash, true, 0);
}

int QOVAShareSnapCreateEx(const QOVASHARE *pShare, char *szSnapName, size_t cbSnapName, QLIBCSZHASH **ppHash,
                          unsigned int uFlags) {
    return ShareSnapCreateInternal(pShare, szSnapName, cbSnapName, ppHash, true, uFlags);
}

int QOVAShareSnapCreateNoShareInfo(const QOVASHARE *pShare, char *szSnapName, size_t cbSnapName, QLIBCSZHASH **ppHash) {
    return ShareSnapCreateInternal(pShare, szSnapName, cbSnapName, ppHash, false, 0);
}

int ShareSnapCreateNameConflictRetry(const QOVASHARE *pShare, char *szSnapName, size_t cbSnapName, QLIBCSZHASH **ppHash,
                                     unsigned int nRetry) {
    if (nRetry > kMaxRetry) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    int nResult = RESULT_CONFLICT;
    for (unsigned int i = 0; i <= nRetry && nResult == RESULT_CONFLICT; ++i) {
        nResult = QOVAShareSnapCreate(pShare, szSnapName, cbSnapName, ppHash);
        if (nResult == RESULT_CONFLICT) {
            // Names have a resolution of a second: only a later one gives another name.
            (void)sleep(1);
        }
    }
    return nResult;
}
