// The data of a new share, made of a snapshot or of the live subvolume of another share.
#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/subvolume.h>
#include <sharesnap/platform/volume.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "frame/inside_name.h"
#include "frame/log.h"
#include "frame/owners.h"
#include "frame/path_format.h"

namespace {

using namespace sharesnap;

constexpr size_t kListSize = 512;

struct Cloning {
    const QOVASHARE *pOrigShare;
    const QOVASHARE *pNewShare;
    const char *szSnapName; // null clones the live share
    ListOwner list;
    QLIBPLUGIN *pPlugin = nullptr;
    char szVolume[kPathSize] = "";
    int nOrigEncrypted = 0;
    int nNewEncrypted = 0;
    char szSource[kPathSize] = "";
    char szTarget[kPathSize] = "";

    [[nodiscard]] const char *Action() const { return szSnapName != nullptr ? "CLONE_SNAP" : "CLONE_SHARE"; }
};

[[nodiscard]] bool MakeNameList(Cloning &c) {
    c.list.reset(QLIBCSzListAlloc(kListSize));
    if (!c.list) {
        SNAP_LOG(LOG_ERR, "QLIBCSzListAlloc() failed");
        return false;
    }
    return true;
}

[[nodiscard]] bool ReadShares(Cloning &c) {
    int nFsType = -1;
    return QOVAShareSnapCheckSupport(c.pOrigShare, &nFsType, SNAP_CLONE) >= 0 &&
           QOVAShareVolPathGet(c.pOrigShare->szPath, c.szVolume, sizeof(c.szVolume)) >= 0 &&
           QLIBShareIsEncryptionGet(c.pOrigShare, &c.nOrigEncrypted) >= 0 &&
           QLIBShareIsEncryptionGet(c.pNewShare, &c.nNewEncrypted) >= 0;
}

[[nodiscard]] bool CheckSameEncryption(const Cloning &c) {
    if (c.nOrigEncrypted != c.nNewEncrypted) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return false;
    }
    return true;
}

// A volume whose name merely begins with the name of this one passes here, and the clone across volumes fails.
[[nodiscard]] bool CheckSameVolume(const Cloning &c) {
    if (std::strncmp(c.pNewShare->szPath, c.szVolume, std::strlen(c.szVolume)) != 0) {
        SNAP_SET_ERR(SNAP_ERR_UNSUPPORTED);
        return false;
    }
    return true;
}

[[nodiscard]] bool FindData(const QOVASHARE *pShare, int nEncrypted, char *szBuf, size_t cbBuf) {
    if (nEncrypted == 1) {
        if (QLIBShareEncryptPathGet(pShare->szPath, szBuf, cbBuf) < 0) {
            SNAP_LOG_REG(LOG_ERR, "Failed to get the encrypted path from [%s][0x%04X %s:%d]", pShare->szPath);
            return false;
        }
        return true;
    }
    return FormatPath(szBuf, cbBuf, "%s", pShare->szPath);
}

// Whether the snapshot stands is left to the clone itself.
[[nodiscard]] bool FindSource(Cloning &c) {
    if (c.szSnapName == nullptr) {
        return FindData(c.pOrigShare, c.nOrigEncrypted, c.szSource, sizeof(c.szSource));
    }
    char szDirectory[kPathSize] = "";
    if (QOVAShareSnapGetOrCreateSnapDir(c.pOrigShare, szDirectory, sizeof(szDirectory), 0) != 1 ||
        !FormatPath(c.szSource, sizeof(c.szSource), "%s/%s", szDirectory, c.szSnapName)) {
        SNAP_LOG_REG(LOG_ERR, "Fail to get snapshot directory [0x%04X %s:%d]");
        return false;
    }
    return true;
}

[[nodiscard]] bool FindTarget(Cloning &c) {
    return FindData(c.pNewShare, c.nNewEncrypted, c.szTarget, sizeof(c.szTarget));
}

// A failing plug-in stops a clone.
[[nodiscard]] bool AnnounceBefore(Cloning &c) {
    (void)QLIBCSzListPush(&c.list, c.szSnapName); // null for a live clone, which has no snapshot to tell of
    if (QOVAShareSnapshotPluginAction(SNAP_PHASE_PRE, c.pPlugin, c.pOrigShare, c.pNewShare, c.list.get(), c.Action(),
                                      0) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Fail to execute share snapshot plugin (PRE)[0x%04X %s:%d]");
        return false;
    }
    return true;
}

// A name with a slash would lead into a snapshot, where users' own symbolic links lie, or out of the snapshot
// directory.
[[nodiscard]] bool IsSnapshotName(const char *szName) {
    return NameStaysInside(szName) && std::strchr(szName, '/') == nullptr;
}

[[nodiscard]] bool TakeClone(const Cloning &c) {
    int nTaken = -1;
    if (c.szSnapName == nullptr || IsSnapshotName(c.szSnapName)) {
        nTaken = QOVABtrfsSnapshotTake(c.szSource, c.szTarget);
    } else {
        errno = ENOENT;
    }
    if (nTaken != 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to clone share [%s] from [%s]. errno: %s [0x%04X %s:%d]", c.szTarget, c.szSource,
                     std::strerror(errno));
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return false;
    }
    return true;
}

// A clone is a share: nobody looks for a hidden mark on one, so a leftover mark is no failure.
void ClearHiddenMark(const Cloning &c) {
    if (QOVABtrfsSubvolHideAttrSet(c.szTarget, 0) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to set subvol hide attr [%s] [0x%04X %s:%d]", c.szTarget);
    }
}

[[nodiscard]] int MakeClone(Cloning &c) {
    if (!FindSource(c) || !FindTarget(c) || !AnnounceBefore(c) || !TakeClone(c)) {
        return -1;
    }
    ClearHiddenMark(c);
    return 0;
}

void AnnounceAfter(const Cloning &c, int nResult) {
    if (QOVAShareSnapshotPluginAction(SNAP_PHASE_POST, c.pPlugin, c.pOrigShare, c.pNewShare, c.list.get(), c.Action(),
                                      nResult) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Fail to execute share snapshot plugin (POST)[0x%04X %s:%d]");
    }
    QLIBPluginExit(c.pPlugin);
}

} // namespace

int QOVAShareSnapClone(const QOVASHARE *pOrigShare, const QOVASHARE *pNewShare, const char *szSnapName) {
    if (pOrigShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pOrigShare");
    }
    if (pNewShare == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != pNewShare");
    }
    Cloning c{pOrigShare, pNewShare, szSnapName, {}};
    int nResult = -1;
    if (MakeNameList(c) && ReadShares(c) && CheckSameEncryption(c) && CheckSameVolume(c) &&
        QOVAShareSnapshotPluginInit(&c.pPlugin) >= 0) {
        nResult = MakeClone(c);
        AnnounceAfter(c, nResult);
    }
    SNAP_SET_ERR(QLIBCErrGet());
    return nResult;
}
