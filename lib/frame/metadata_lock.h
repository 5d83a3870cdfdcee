// The metadata lock of a share, held for a scope.
#ifndef SHARESNAP_FRAME_METADATA_LOCK_H
#define SHARESNAP_FRAME_METADATA_LOCK_H

#include <sharesnap/frame.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/file_lock.h>

#include "frame/log.h"
#include "frame/owners.h"

namespace sharesnap {

enum class MetadataLockMode { shared = 0, exclusive = 1 };

// Unlocking can fail: that is logged, and neither the result nor the code of the operation changes by it.
class MetadataLock {
public:
    MetadataLock() = default;
    ~MetadataLock() {
        release([this] {
            SNAP_LOG_REG(LOG_ERR, "fail to QLIBCFileUnlockByFile of share(%s) metadata[0x%04X %s:%d]", pShare_->szName);
        });
    }
    MetadataLock(const MetadataLock &) = delete;
    MetadataLock &operator=(const MetadataLock &) = delete;

    // Waits up to 10 seconds. Logs a failure.
    [[nodiscard]] bool take(const QOVASHARE *pShare, MetadataLockMode mode) {
        pShare_ = pShare;
        nFd_ = QOVAShareSnapLockMetaFile(pShare, static_cast<int>(mode));
        if (nFd_ < 0) {
            SNAP_LOG_REG(LOG_ERR, "Failed to lock meta file [0x%04X %s:%d]");
        }
        return nFd_ >= 0;
    }

    // Gives it back before the scope ends, with the caller's own line for a failure.
    template <typename ReportFailure>
    void release(ReportFailure report) {
        if (nFd_ < 0) {
            return;
        }
        const ErrnoKeeper errnoKeeper;
        const unsigned int uCode = QLIBCErrGet();
        const char *szFile = QLIBCErrorGetFile();
        const int nLine = QLIBCErrorGetLine();
        if (QLIBCFileUnlockByFile(nFd_) == 0) {
            report();
            QLIBCErrSetEx(uCode, szFile, nLine);
        }
        nFd_ = -1;
    }

private:
    const QOVASHARE *pShare_ = nullptr;
    int nFd_ = -1;
};

} // namespace sharesnap

#endif
