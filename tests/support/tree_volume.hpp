// A volume for the file of a snapshot tree.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <sharesnap/platform/file_lock.h>
#include <string>

#include "files.hpp"
#include "fixtures.hpp"
#include "sandbox.hpp"

namespace testkit {

// What stands for a volume at /vol1, with the directories that the tree's file needs. Empty, or the reason of a failure.
inline std::string makeTreeVolume() {
    const std::string failure = Sandbox::mountSimulatedVolume("/vol1");
    if (!failure.empty()) {
        return failure;
    }
    return makeDirectories("/vol1/@eaDir") && makeDirectories("/vol1/@tmp") ? "" : "no directories for the tree";
}

class TreeVolumeTest : public SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        if (!IsSkipped()) {
            ASSERT_EQ("", makeTreeVolume());
        }
    }
};

// Whether another process finds the lock of the volume's tree taken.
inline bool treeIsLocked() {
    const pid_t child = fork();
    if (child == 0) {
        QLIBCFileCloseLock(); // what this process holds isn't the child's
        int fd = -1;
        _exit(QLIBCFileLockTimeByFile("/run/lock/sharesnap/snaptree_lock//vol1.lock", 1, 0, &fd) == 0 ? 1 : 0);
    }
    int status = 0;
    (void)waitpid(child, &status, 0);
    return !(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

} // namespace testkit
