// The machine's name in the network.
#include "common/keepers.h"

#include <cstdio>
#include <sharesnap/platform/hostname.h>
#include <sys/utsname.h>

extern "C" int QOVALnxGetHostname(char *szBuf, size_t cbBuf) {
    if (szBuf == nullptr || cbBuf == 0) {
        return QOVA_BAD_ARGUMENT();
    }
    utsname names = {};
    if (uname(&names) != 0) {
        QOVA_SET_CODE(SNAP_ERR_OPERATION_FAILED);
        return -1;
    }
    (void)std::snprintf(szBuf, cbBuf, "%s", names.nodename); // a longer name is cut
    return 0;
}
