/* The attribute by which network clients know a path as the system's own. */
#include <sharesnap/platform/file_operation.h>

#include "common/failure.h"

#include <cstring>
#include <sys/xattr.h>

int QOVASmbAttributeSet(const char *szPath, int nCommand) {
    if (szPath == nullptr || (nCommand != F_SETSMB_FILE && nCommand != F_SETSMB_SYSTEM)) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    // Bits of a DOS attribute: hidden 0x02, system 0x04, directory 0x10.
    const char *szValue = nCommand == F_SETSMB_SYSTEM ? "0x14" : "0x6";
    if (lsetxattr(szPath, "user.DOSATTRIB", szValue, strlen(szValue), 0) != 0) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    return 0;
}
