#include "move_lock.h"

#include "failure.h"

#include <sharesnap/frame.h>
#include <sharesnap/platform/file_lock.h>

namespace command {

MoveLock::MoveLock() {
    (void)QOVAShareSnapCreateRunLockShareSnapDir(); // the attempt to lock tells
    if (QLIBCFileLockTimeByFile("/run/lock/sharesnap/share_rename.lock", 1, 10, &fd_) == 0) {
        throw Failure(exitFailed, "another rename or restore of a share is under way", "try again when it is done");
    }
}

MoveLock::~MoveLock() {
    (void)QLIBCFileUnlockByFile(fd_); // ends with the process at the latest
}

} // namespace command
