// Which volume holds a path.
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/volume.h>

#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/process.hpp"
#include "support/sandbox.hpp"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using testkit::Sandbox;

std::string volumeOf(const std::string &path) {
    char volume[4096] = "(none)";
    return QOVAShareVolPathGet(path.c_str(), volume, sizeof(volume)) == 0 ? volume : "(failed)";
}

class VolumeOfPath : public testkit::SandboxTest {
protected:
    void SetUp() override {
        if (Sandbox::simulated()) {
            GTEST_SKIP() << "needs the real storage core";
        }
        testkit::SandboxTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_EQ("", Sandbox::mountSimulatedVolume("/vol1"));
        ASSERT_EQ("", Sandbox::mountSimulatedVolume("/vol2"));
        ASSERT_TRUE(testkit::makeDirectories("/vol1/docs/inner"));
    }
    void TearDown() override {
        while (!m_mounts.empty()) {
            EXPECT_EQ(0, umount2(m_mounts.back().c_str(), MNT_DETACH)) << m_mounts.back();
            m_mounts.pop_back();
        }
    }
    void mountAt(const std::string &path) {
        ASSERT_TRUE(testkit::makeDirectories(path));
        ASSERT_EQ(0, mount("tmpfs", path.c_str(), "tmpfs", 0, nullptr)) << path;
        m_mounts.push_back(path);
    }

    // A FUSE file system whose program is there but never answers; it dies when the descriptor is closed.
    int mountFuse(const std::string &path, const std::string &source) {
        const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
        const std::string options = "fd=" + std::to_string(device) + ",rootmode=40000,user_id=0,group_id=0";
        if (device >= 0 && mount(source.c_str(), path.c_str(), "fuse.gocryptfs", 0, options.c_str()) == 0) {
            m_mounts.push_back(path);
            return device;
        }
        close(device);
        return -1;
    }

    std::vector<std::string> m_mounts;
};

// Whether a check holds, made by a child that is killed if it should wait for ever.
bool holdsSoon(const std::function<bool()> &check) {
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(60);
        _exit(check() ? 0 : 1);
    }
    const int status = testkit::waitForChild(pid);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(VolumeOfPath, IsTheFileSystemMountedAtDepthOne) {
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/file", "x"));
    for (const char *path : {"/vol1", "/vol1/", "/vol1/docs", "/vol1/docs/file", "//vol1//docs/./inner/"}) {
        EXPECT_EQ("/vol1", volumeOf(path)) << path;
    }
    EXPECT_EQ("/vol2", volumeOf("/vol2"));
}

TEST_F(VolumeOfPath, OfAnAbsentPathIsThatOfItsNearestAncestor) {
    EXPECT_EQ("/vol1", volumeOf("/vol1/absent"));
    EXPECT_EQ("/vol1", volumeOf("/vol1/docs/absent/far/below"));
    ASSERT_TRUE(testkit::writeFile("/vol1/file", "x"));
    EXPECT_EQ("/vol1", volumeOf("/vol1/file/below"));
    EXPECT_EQ("/vol1", volumeOf("/vol1/" + std::string(255, 'n')));
}

TEST_F(VolumeOfPath, HoldsWhatIsMountedBelowIt) {
    mountAt("/vol1/docs/inner");
    mountAt("/vol1/docs/inner/deeper still");
    EXPECT_EQ("/vol1", volumeOf("/vol1/docs/inner"));
    EXPECT_EQ("/vol1", volumeOf("/vol1/docs/inner/deeper still/absent"));
}

TEST_F(VolumeOfPath, GoesByThePlaceThatLinksLeadTo) {
    ASSERT_EQ(0, symlink("/vol2", "/vol1/link"));
    ASSERT_EQ(0, symlink("/vol2/absent", "/vol1/dangling"));
    EXPECT_EQ("/vol2", volumeOf("/vol1/link"));
    EXPECT_EQ("/vol2", volumeOf("/vol1/link/absent"));
    EXPECT_EQ("/vol1", volumeOf("/vol1/dangling"));
    EXPECT_EQ("/vol2", volumeOf("/vol1/docs/../../vol2"));
}

TEST_F(VolumeOfPath, OutsideOfAllVolumesFails) {
    ASSERT_TRUE(testkit::makeDirectories("/plain/deep"));
    mountAt("/plain/deep");
    for (const char *path : {"/", "/absent", "/plain", "/plain/deep", "/plain/deep/absent", "relative", ""}) {
        QLIBCErrSetEx(0, "test", 1);
        EXPECT_EQ("(failed)", volumeOf(path)) << path;
        EXPECT_NE(0U, QLIBCErrGet()) << path;
    }
    EXPECT_EQ("(failed)", volumeOf("/vol1/" + std::string(256, 'n')));
    QOVAMOUNTVOLINFO info = {};
    EXPECT_EQ(-1, QOVAMountVolInfoGet("/", &info));
    TearDown();
    EXPECT_EQ(0, rmdir("/plain/deep"));
    EXPECT_EQ(0, rmdir("/plain"));
}

TEST_F(VolumeOfPath, FitsIntoTheBufferOrFails) {
    char volume[6] = "";
    EXPECT_EQ(0, QOVAShareVolPathGet("/vol1/docs", volume, 6));
    EXPECT_STREQ("/vol1", volume);
    EXPECT_EQ(-1, QOVAShareVolPathGet("/vol1/docs", volume, 5));
    EXPECT_EQ(unsigned(SNAP_ERR_BAD_PARAMETER), QLIBCErrGet());
    EXPECT_EQ(-1, QOVAShareVolPathGet("/vol1/docs", volume, 0));
    EXPECT_EQ(-1, QOVAShareVolPathGet("/vol1/docs", nullptr, 6));
    EXPECT_EQ(-1, QOVAShareVolPathGet(nullptr, volume, 6));
}

TEST_F(VolumeOfPath, HasTypeAndDevice) {
    QOVAMOUNTVOLINFO info = {};
    ASSERT_EQ(0, QOVAMountVolInfoGet("/vol1/docs/absent", &info));
    EXPECT_EQ(FS_TYPE_TMPFS, info.nFsType);
    EXPECT_STREQ("/vol1", info.szMountPath);
    EXPECT_EQ(FS_TYPE_TMPFS, QOVAGetFSType("/vol1", 0));
    EXPECT_EQ(FS_TYPE_TMPFS, QOVAGetFSType("/vol1/docs/absent", 0));
    EXPECT_EQ(FS_TYPE_UNKNOWN, QOVAGetFSType("/proc", 0));
    EXPECT_GT(0, QOVAGetFSType("", 0));
    EXPECT_GT(0, QOVAGetFSType(nullptr, 0));
    EXPECT_EQ(-1, QOVAMountVolInfoGet(nullptr, &info));
    EXPECT_EQ(-1, QOVAMountVolInfoGet("/vol1", nullptr));
}

TEST_F(VolumeOfPath, IsEnumeratedOnce) {
    mountAt("/vol1/docs/inner");
    mountAt("/vol2"); // upon the other one
    std::vector<std::string> paths;
    QOVAMOUNTVOLINFO *all = QOVAMountVolAllEnum(0, 1, 0);
    for (const QOVAMOUNTVOLINFO *volume = all; volume != nullptr; volume = volume->pNext) {
        paths.emplace_back(volume->szMountPath);
    }
    QOVAMountVolInfoFree(all);
    EXPECT_EQ(1, std::count(paths.begin(), paths.end(), "/vol1"));
    EXPECT_EQ(1, std::count(paths.begin(), paths.end(), "/vol2"));
    EXPECT_EQ(0, std::count(paths.begin(), paths.end(), "/"));
    EXPECT_EQ(0, std::count(paths.begin(), paths.end(), "/vol1/docs/inner"));
    EXPECT_EQ(nullptr, QOVAMountVolAllEnum(FS_TYPE_EXT3, 1, 0));
    errno = EBUSY;
    QOVAMountVolInfoFree(nullptr);
    EXPECT_EQ(EBUSY, errno);
}

TEST_F(VolumeOfPath, IsToldWithoutAskingAFuseFileSystem) {
    const int device = mountFuse("/vol1/docs", "/vol1/@docs@");
    if (device < 0) {
        GTEST_SKIP() << "no FUSE here";
    }
    const auto told = [] {
        return volumeOf("/vol1/docs") == "/vol1" && volumeOf("/vol1/docs/absent/file") == "/vol1" &&
               volumeOf("/vol1/./docs//file") == "/vol1" && QOVAGetFSType("/vol1/docs", 0) == FS_TYPE_TMPFS;
    };
    EXPECT_TRUE(holdsSoon(told)) << "while its program doesn't answer";
    close(device);
    EXPECT_TRUE(holdsSoon(told)) << "after its program died";
}

TEST_F(VolumeOfPath, PropertiesOfAnEncryptedShareAreThoseOfItsBackEnd) {
    ASSERT_EQ(0, mkdir("/vol1/@docs@", 0755));
    const int device = mountFuse("/vol1/docs", "/vol1/@docs@");
    if (device < 0) {
        GTEST_SKIP() << "no FUSE here";
    }
    EXPECT_TRUE(holdsSoon(
        [] { return QLIBFSGetBTRFSNodatacow("/vol1/docs/") == 0 && QLIBFSGetBTRFSCompression("/vol1/docs") == 0; }));
    close(device);
}

} // namespace
