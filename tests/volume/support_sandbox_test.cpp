// Real volumes in the sandbox.
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/process.hpp"
#include "support/sandbox.hpp"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <linux/magic.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

using testkit::Sandbox;

namespace {

using SandboxVolume = testkit::VolumeTest;

long typeOf(const std::string &path) {
    struct statfs fs = {};
    return statfs(path.c_str(), &fs) == 0 ? long(fs.f_type) : -1;
}

// What a loop device stands on, as numbers; all zero when it stands on nothing.
struct Backing {
    char device[64];
    uint64_t onDevice;
    uint64_t inode;
};

Backing backingOf(const char *device) {
    Backing backing = {};
    std::snprintf(backing.device, sizeof(backing.device), "%s", device);
    const int fd = open(device, O_RDONLY | O_CLOEXEC);
    loop_info64 info = {};
    if (fd >= 0 && ioctl(fd, LOOP_GET_STATUS64, &info) == 0) {
        backing.onDevice = info.lo_device;
        backing.inode = info.lo_inode;
    }
    close(fd);
    return backing;
}

// The device of a mount, or an empty text.
std::string deviceOf(const std::string &mountPoint) {
    std::istringstream mounts(testkit::readFile("/proc/self/mounts"));
    std::string device;
    std::string path;
    std::string rest;
    while (mounts >> device >> path && std::getline(mounts, rest)) {
        if (path == mountPoint) {
            return device;
        }
    }
    return "";
}

TEST_F(SandboxVolume, IsAnEmptyBtrfsAtDepthOne) {
    EXPECT_EQ(long(BTRFS_SUPER_MAGIC), typeOf("/vol1"));
    EXPECT_TRUE(testkit::directoryNames("/vol1").empty());
    const testkit::ProcessResult result = testkit::runProcess({"btrfs", "subvolume", "create", "/vol1/docs"});
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

TEST_F(SandboxVolume, HasRoomForTheReserveOfASnapshot) {
    struct statfs fs = {};
    ASSERT_EQ(0, statfs("/vol1", &fs));
    EXPECT_GT(uint64_t(fs.f_bavail) * uint64_t(fs.f_bsize), uint64_t(150) << 20);
}

TEST_F(SandboxVolume, CanHaveASecondOneOfAnotherKind) {
    ASSERT_EQ("", Sandbox::mountVolume("/vol2", "ext4", 16));
    EXPECT_EQ(long(EXT4_SUPER_MAGIC), typeOf("/vol2"));
    EXPECT_EQ(long(BTRFS_SUPER_MAGIC), typeOf("/vol1"));
    EXPECT_TRUE(Sandbox::unmountVolume("/vol2"));
    EXPECT_FALSE(testkit::exists("/vol2"));
}

TEST_F(SandboxVolume, TwoOfBtrfsStandSideBySide) {
    ASSERT_EQ("", Sandbox::mountVolume("/vol2"));
    ASSERT_TRUE(testkit::writeFile("/vol2/here", "2"));
    EXPECT_FALSE(testkit::exists("/vol1/here"));
}

TEST_F(SandboxVolume, IsNewAfterAReset) {
    ASSERT_TRUE(testkit::writeFile("/vol1/here", "1"));
    Sandbox::reset();
    EXPECT_FALSE(testkit::exists("/vol1"));
    ASSERT_EQ("", Sandbox::mountVolume("/vol1"));
    EXPECT_TRUE(testkit::directoryNames("/vol1").empty());
}

TEST_F(SandboxVolume, LeavesNoLoopDeviceBehindWhenItsProcessesAreKilled) {
    int report[2];
    ASSERT_EQ(0, pipe(report));
    const pid_t pid = fork();
    if (pid == 0) {
        // A sandbox of its own, as a test program has, then no chance to clean up.
        Backing backing = {};
        if (Sandbox::enter() && Sandbox::mountVolume("/vol1").empty()) {
            backing = backingOf(deviceOf("/vol1").c_str());
        }
        (void)!write(report[1], &backing, sizeof(backing));
        kill(getpid(), SIGKILL);
    }
    close(report[1]);
    Backing backing = {};
    ASSERT_EQ(ssize_t(sizeof(backing)), read(report[0], &backing, sizeof(backing)));
    close(report[0]);
    ASSERT_TRUE(WIFSIGNALED(testkit::waitForChild(pid)));
    ASSERT_NE(0U, backing.inode);
    // The kernel clears it in the background, and another test may take it at once for another image.
    bool gone = false;
    for (int attempt = 0; !gone && attempt < 6000; ++attempt) {
        const Backing now = backingOf(backing.device);
        gone = now.onDevice != backing.onDevice || now.inode != backing.inode;
        usleep(gone ? 0 : 10000);
    }
    EXPECT_TRUE(gone) << backing.device;
}

TEST_F(SandboxVolume, ManySandboxesTakeVolumesAtTheSameTime) {
    std::vector<pid_t> children;
    for (int i = 0; i < 6; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            const bool done = Sandbox::enter() && Sandbox::mountVolume("/vol1").empty() &&
                              testkit::writeFile("/vol1/number", std::to_string(i)) &&
                              testkit::readFile("/vol1/number") == std::to_string(i) &&
                              testkit::directoryNames("/vol1").size() == 1;
            _exit(done ? 0 : 1);
        }
        children.push_back(pid);
    }
    for (const pid_t pid : children) {
        EXPECT_EQ(0, testkit::waitForChild(pid));
    }
}

TEST_F(SandboxVolume, HoldsASandboxWithinItself) {
    ASSERT_TRUE(testkit::writeFile("/vol1/outer", "x"));
    const pid_t pid = fork();
    if (pid == 0) {
        const bool done = Sandbox::enter() && !testkit::exists("/vol1") && Sandbox::mountVolume("/vol1").empty() &&
                          !testkit::exists("/vol1/outer");
        _exit(done ? 0 : 1);
    }
    EXPECT_EQ(0, testkit::waitForChild(pid));
    EXPECT_TRUE(testkit::exists("/vol1/outer"));
}

} // namespace
