// The announcements around every snapshot operation, through the platform's plug-ins named "share_snapshot".
#include <sharesnap/lifecycle.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "frame/log.h"
#include "frame/owners.h"

namespace {

using sharesnap::TextOwner;

// A snapshot's name with the blank behind it.
constexpr size_t kNameSize = 255;

enum { ENC_STATUS_PLAIN = 0, ENC_STATUS_UNLOCKED = 1, ENC_STATUS_LOCKED = 2 };

struct Announcement {
    QLIBPLUGIN *pPlugin;
    const QOVASHARE *pShare;
    const QOVASHARE *pNewShare;
    const QLIBCSZLIST *pSnapList;
    const char *szAction;
    int nResult;
};

[[nodiscard]] bool SetText(const Announcement &a, const char *szKey, const char *szValue) {
    return QLIBPluginSetArg(a.pPlugin, szKey, szValue) >= 0;
}

[[nodiscard]] bool SetNumber(const Announcement &a, const char *szKey, int nValue) {
    return QLIBPluginSetArgByInt(a.pPlugin, szKey, nValue) >= 0;
}

[[nodiscard]] bool HasUsableShare(const Announcement &a) {
    const QOVASHARE *pShare = a.pShare;
    return pShare != nullptr && pShare->szName != nullptr && pShare->szPath != nullptr && a.szAction != nullptr &&
           pShare->szName[0] != '\0' && pShare->szPath[0] != '\0';
}

[[nodiscard]] bool SetShare(const Announcement &a) {
    return SetText(a, "SHARE_NAME", a.pShare->szName) && SetText(a, "SHARE_PATH", a.pShare->szPath);
}

[[nodiscard]] bool SetNewShare(const Announcement &a) {
    if (a.pNewShare == nullptr) {
        return true;
    }
    if (a.pNewShare->szName != nullptr && !SetText(a, "NEW_SHARE_NAME", a.pNewShare->szName)) {
        return false;
    }
    return a.pNewShare->szPath == nullptr || SetText(a, "NEW_SHARE_PATH", a.pNewShare->szPath);
}

// Each name with a blank behind it, the last one too.
[[nodiscard]] bool SetSnapshots(const Announcement &a) {
    if (a.pSnapList == nullptr) {
        return true;
    }
    const size_t cbText = static_cast<size_t>(std::max(a.pSnapList->nItem, 0)) * kNameSize + 1;
    const TextOwner text(static_cast<char *>(std::calloc(cbText, 1)));
    if (!text) {
        SNAP_SET_ERR(SNAP_ERR_OUT_OF_MEMORY);
        return false;
    }
    size_t cbUsed = 0;
    for (int i = 0; i < a.pSnapList->nItem && cbUsed < cbText - 1; ++i) {
        const int nWritten = std::snprintf(text.get() + cbUsed, cbText - cbUsed, "%s ", QLIBCSzListGet(a.pSnapList, i));
        if (nWritten < 0) {
            return false;
        }
        // A name that is longer than any file's is cut, and the buffer is then full.
        cbUsed = std::min(cbUsed + static_cast<size_t>(nWritten), cbText - 1);
    }
    return SetText(a, "SNAPSHOT", text.get());
}

[[nodiscard]] int EncStatus(unsigned int uStatus) {
    if ((uStatus & QOVA_SHARE_STATUS_ENCRYPTED) == 0) {
        return ENC_STATUS_PLAIN;
    }
    return (uStatus & QOVA_SHARE_STATUS_UNLOCKED) != 0 ? ENC_STATUS_UNLOCKED : ENC_STATUS_LOCKED;
}

[[nodiscard]] bool SetOutcome(const Announcement &a) {
    return SetNumber(a, "RESULT", a.nResult) && SetText(a, "ACTION", a.szAction) &&
           SetNumber(a, "ENC_STATUS", EncStatus(a.pShare->uStatus));
}

} // namespace

int QOVAShareSnapshotPluginInit(QLIBPLUGIN **ppPlugin) {
    if (ppPlugin == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    if (QLIBPluginSDKInit("share_snapshot", "share_snapshot", ppPlugin) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Fail to do plugin init[0x%04X %s:%d]");
        return -1;
    }
    return 0;
}

int QOVAShareSnapshotPluginAction(int nPhase, QLIBPLUGIN *pPlugin, const QOVASHARE *pShare, const QOVASHARE *pNewShare,
                                  const QLIBCSZLIST *pSnapList, const char *szAction, int nResult) {
    if (pPlugin == nullptr) {
        return -1;
    }
    // No plug-in at all is the usual case and no failure.
    if (QLIBPluginHasInit(pPlugin) == 0) {
        return 0;
    }
    const Announcement a{pPlugin, pShare, pNewShare, pSnapList, szAction, nResult};
    if (!HasUsableShare(a)) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    if (!SetShare(a) || !SetNewShare(a) || !SetSnapshots(a) || !SetOutcome(a)) {
        return -1;
    }
    return QLIBPluginAction(nPhase, pPlugin);
}
