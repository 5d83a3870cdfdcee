// The share getter that outlasts a busy share database.
#ifndef SHARESNAP_INTL_UTILS_SHARE_INFO_GET_H
#define SHARESNAP_INTL_UTILS_SHARE_INFO_GET_H

#include <sharesnap/platform/error.h>
#include <sharesnap/platform/share.h>
#include <unistd.h>

#include <cstdlib>

#include "frame/log.h"

namespace sharesnap {

// Gets the record of a share; while the database is busy up to five attempts, with 0 to 4 seconds of sleep after each.
// *ppShare starts null, and the caller frees the record. 0; or -1 with the code of the last attempt.
[[nodiscard]] inline int ShareGetWithRetry(const char *szName, QOVASHARE **ppShare) {
    constexpr int nAttempts = 5;
    constexpr int nFirstReported = 2;
    if (szName == nullptr) {
        SNAP_LOG(LOG_ERR, "Bad paramters for getting share info");
        return -1;
    }
    for (int nAttempt = 0; nAttempt < nAttempts; ++nAttempt) {
        if (QOVAShareGet(szName, ppShare) == 0) {
            return 0;
        }
        if (QLIBCErrGet() != SNAP_ERR_BUSY) {
            SNAP_LOG_REG(LOG_ERR, "QOVAShareGet failed. share (%s)[0x%04X %s:%d]", szName);
            return -1;
        }
        if (nAttempt >= nFirstReported) {
            SNAP_LOG_REG(LOG_DEBUG, "Failed to get the share (%s), re-try (%d)[0x%04X %s:%d]", szName, nAttempt);
        }
        // Without a seed the row is the same in every process: it spreads the attempts of one, not those of several.
        (void)sleep(static_cast<unsigned int>(std::rand() % 5));
    }
    return -1;
}

} // namespace sharesnap

#endif
