// The attributes that every snapshot has, whether its maker names them or not.
#include <sharesnap/metadata.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "frame/log.h"
#include "frame/owners.h"

using namespace sharesnap;

namespace {

// The name of this process: the first argument of its command line, which ends with a NUL. 0 or -1.
int TakeByGet(char **pszName) {
    const ReadStreamOwner stream(std::fopen("/proc/self/cmdline", "re"));
    if (!stream) {
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        SNAP_LOG(LOG_ERR, "Failed to open /proc/self/cmdline, errno:%d %m\n", errno);
        return -1;
    }
    size_t cbBuffer = 0;
    if (getdelim(pszName, &cbBuffer, '\n', stream.get()) < 0) {
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        SNAP_LOG(LOG_ERR, "Failed to read /proc/self/cmdline, errno:%d %m\n", errno);
        return -1;
    }
    return 0;
}

// 1 when the key was absent and got its default, else 0. A hash that can't grow goes unnoticed.
int AddDefault(QLIBCSZHASH **ppHash, const char *szKey, const char *szValue) {
    if (QLIBCSzHashGetValue(*ppHash, szKey) != nullptr) {
        return 0;
    }
    (void)QLIBCSzHashSetValue(ppHash, szKey, szValue);
    return 1;
}

} // namespace

int QOVAShareSnapDefaultAttr(QLIBCSZHASH **ppHash) {
    if (ppHash == nullptr || *ppHash == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    int nAdded = 0;
    if (QLIBCSzHashGetValue(*ppHash, "take-by") == nullptr) {
        TextOwner name;
        if (TakeByGet(&name) < 0) {
            return -1;
        }
        nAdded |= AddDefault(ppHash, "take-by", name.get());
    }
    nAdded |= AddDefault(ppHash, "lock", "true");
    nAdded |= AddDefault(ppHash, "desc", "");
    const char *szHide = QLIBCSzHashGetValue(*ppHash, "hide");
    if (szHide == nullptr) {
        return nAdded | AddDefault(ppHash, "hide", "false");
    }
    if (std::strcmp(szHide, "true") != 0 && std::strcmp(szHide, "false") != 0) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    return nAdded;
}
