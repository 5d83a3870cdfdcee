#include "move_lock.h"

#include "failure.h"

#include <sharesnap/frame.h>
#include <sharesnap/platform/file_lock.h>

namespace command {

MoveLock::MoveLock(Mode mode, int seconds) {
    (void)QOVAShareSnapCreateRunLockShareSnapDir(); // the attempt to lock tells
    held_ = QLIBCFileLockTimeByFile("/run/lock/sharesnap/share_rename.lock", mode, seconds, &fd_) != 0;
}

MoveLock::MoveLock(Mode mode) : MoveLock(mode, 10) {
    if (!held_) {
        const char *others = mode == alone ? "another rename or restore of a share, or a change of their names,"
                                           : "a rename or restore of a share";
        throw Failure(exitFailed, std::string(others) + " is under way", "try again when it is done");
    }
}

MoveLock::~MoveLock() {
    if (held_) {
        (void)QLIBCFileUnlockByFile(fd_); // ends with the process at the latest
    }
}

} // namespace command
