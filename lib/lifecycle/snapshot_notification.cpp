// Notices about a share to users of the desktop.
#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/hostname.h>
#include <sharesnap/platform/notification.h>

#include <cerrno>

#include "frame/log.h"
#include "frame/owners.h"

namespace {

using namespace sharesnap;

constexpr size_t kHostnameSize = 64;
constexpr size_t kHashSize = 1024;

struct Variable {
    const char *szKey;
    const char *szValue;
    const char *szLogName;
};

[[nodiscard]] bool SetVariables(QLIBCSZHASH **ppHash, const char *szHostname, const char *szShareName) {
    const Variable rgVariable[] = {
        {"%HOSTNAME%", szHostname, "%HOSTNAME%"},
        {"%SHARE%", szShareName, "%SHARE%"},
        {"DESKTOP_NOTIFY_TITLE", "snapmgr:app_title", "%DESKTOP_NOTIFY_TITLE%"},
        {"DESKTOP_NOTIFY_CLASSNAME", "QOVA.QDS.DisasterRecovery.Application", "%DESKTOP_NOTIFY_CLASSNAME%"},
    };
    for (const Variable &variable : rgVariable) {
        if (QLIBCSzHashSetValue(ppHash, variable.szKey, variable.szValue) < 0) {
            SNAP_LOG_REG(LOG_ERR, "Failed to set value %s[0x%04X %s:%d]", variable.szLogName);
            return false;
        }
    }
    return true;
}

} // namespace

int QOVAShareSnapSendNotification(const char *szTag, const char *szShareName, QLIBCSZHASH **ppHash) {
    if (szTag == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != tag");
    }
    if (szShareName == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != szShareName");
    }
    char szHostname[kHostnameSize] = "";
    if (QOVALnxGetHostname(szHostname, sizeof(szHostname)) < 0) {
        SNAP_LOG_REG(LOG_ERR, "QOVALnxGetHostname failed. errno=[0x%04X][0x%04X %s:%d]",
                     static_cast<unsigned int>(errno));
        return -1;
    }
    HashOwner privateHash;
    if (ppHash == nullptr) {
        privateHash.reset(QLIBCSzHashAlloc(kHashSize));
        if (!privateHash) {
            SNAP_LOG_REG(LOG_ERR, "Failed to alloc hash[0x%04X %s:%d]");
            return -1;
        }
        ppHash = &privateHash;
    }
    if (!SetVariables(ppHash, szHostname, szShareName)) {
        return -1;
    }
    if (QOVASysNotifySendNotifiction(szTag, ppHash) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to QOVASysNotifySendNotifiction with tag [%s][0x%04X %s:%d]", szTag);
        return -1;
    }
    return 0;
}
