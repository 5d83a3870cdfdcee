// Volumes of real file systems, and the properties of directories on them.
#include <sharesnap/platform/volume.h>

#include "storage_support.hpp"

#include <sys/mount.h>

namespace {

using RealVolume = storage::SnapshotTest;
using DirectoryProperty = storage::SnapshotTest;

std::string volumeOf(const std::string &path) {
    char volume[4096] = "(none)";
    return QOVAShareVolPathGet(path.c_str(), volume, sizeof(volume)) == 0 ? volume : "(failed)";
}

TEST_F(RealVolume, HoldsItsSubvolumes) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs/nested"));
    EXPECT_EQ("/vol1", volumeOf("/vol1"));
    EXPECT_EQ("/vol1", volumeOf("/vol1/docs/letter"));
    EXPECT_EQ("/vol1", volumeOf("/vol1/docs/nested/absent"));
    EXPECT_EQ("/vol1", volumeOf(take("s") + "/letter"));
}

TEST_F(RealVolume, IsToldByTypeAndDevice) {
    ASSERT_EQ("", testkit::Sandbox::mountVolume("/vol2", "ext4", 16));
    EXPECT_EQ(FS_TYPE_BTRFS, QOVAGetFSType("/vol1", 0));
    EXPECT_EQ(FS_TYPE_BTRFS, QOVAGetFSType("/vol1/docs/letter", 0));
    EXPECT_EQ(FS_TYPE_EXT4, QOVAGetFSType("/vol2", 0));
    EXPECT_EQ(FS_TYPE_EXT4, QOVAGetFSType("/vol2/absent", 0));
    QOVAMOUNTVOLINFO info = {};
    ASSERT_EQ(0, QOVAMountVolInfoGet("/vol1/docs", &info));
    EXPECT_EQ(FS_TYPE_BTRFS, info.nFsType);
    EXPECT_STREQ("/vol1", info.szMountPath);
    EXPECT_EQ(0, std::string(info.szDevice).find("/dev/"));
    EXPECT_EQ(nullptr, info.pNext);
    ASSERT_EQ(0, QOVAMountVolInfoGet("/vol2", &info));
    EXPECT_EQ(FS_TYPE_EXT4, info.nFsType);
    int btrfs = 0;
    QOVAMOUNTVOLINFO *all = QOVAMountVolAllEnum(0, 1, 0);
    for (const QOVAMOUNTVOLINFO *volume = all; volume != nullptr; volume = volume->pNext) {
        btrfs += volume->nFsType == FS_TYPE_BTRFS && std::string(volume->szMountPath) == "/vol1" ? 1 : 0;
    }
    QOVAMountVolInfoFree(all);
    EXPECT_EQ(1, btrfs);
    QOVAMOUNTVOLINFO *ext4 = QOVAMountVolAllEnum(FS_TYPE_EXT4, 1, 0);
    ASSERT_NE(nullptr, ext4);
    for (const QOVAMOUNTVOLINFO *volume = ext4; volume != nullptr; volume = volume->pNext) {
        EXPECT_EQ(FS_TYPE_EXT4, volume->nFsType);
    }
    QOVAMountVolInfoFree(ext4);
}

TEST_F(RealVolume, MayBeASubvolumeThatIsMounted) {
    QOVAMOUNTVOLINFO info = {};
    ASSERT_EQ(0, QOVAMountVolInfoGet("/vol1", &info));
    ASSERT_EQ(0, mkdir("/vol4", 0755));
    ASSERT_EQ(0, mount(info.szDevice, "/vol4", "btrfs", 0, "subvol=docs"));
    // And one more that is mounted below it: a part of the volume.
    ASSERT_EQ(0, mkdir("/vol4/inner", 0755));
    ASSERT_EQ(0, mount(info.szDevice, "/vol4/inner", "btrfs", 0, "subvol=snaps"));
    EXPECT_EQ("/vol4", volumeOf("/vol4/letter"));
    EXPECT_EQ("/vol4", volumeOf("/vol4/inner"));
    EXPECT_EQ("/vol4", volumeOf("/vol4/inner/absent"));
    EXPECT_EQ("/vol1", volumeOf("/vol1/docs/letter"));
    EXPECT_EQ(FS_TYPE_BTRFS, QOVAGetFSType("/vol4/inner", 0));
    EXPECT_EQ(0, umount2("/vol4/inner", MNT_DETACH));
    EXPECT_EQ(0, umount2("/vol4", MNT_DETACH));
    EXPECT_EQ(0, rmdir("/vol4"));
}

TEST_F(DirectoryProperty, NodatacowIsTheFlagOfTheDirectory) {
    EXPECT_EQ(0, QLIBFSGetBTRFSNodatacow("/vol1/docs"));
    ASSERT_EQ(0, testkit::runProcess({"chattr", "+C", "/vol1/docs"}).exitStatus);
    EXPECT_EQ(1, QLIBFSGetBTRFSNodatacow("/vol1/docs"));
    EXPECT_EQ(0, QLIBFSGetBTRFSCompression("/vol1/docs"));
    EXPECT_EQ(0, QLIBFSGetBTRFSNodatacow("/vol1/snaps"));
}

TEST_F(DirectoryProperty, CompressionIsTheFlagOrTheMethodOfTheDirectory) {
    EXPECT_EQ(0, QLIBFSGetBTRFSCompression("/vol1/docs"));
    ASSERT_EQ(0, testkit::runProcess({"btrfs", "property", "set", "/vol1/docs", "compression", "zstd"}).exitStatus);
    EXPECT_EQ(1, QLIBFSGetBTRFSCompression("/vol1/docs"));
    ASSERT_EQ(0, testkit::runProcess({"btrfs", "property", "set", "/vol1/docs", "compression", "no"}).exitStatus);
    EXPECT_EQ(0, QLIBFSGetBTRFSCompression("/vol1/docs"));
    ASSERT_EQ(0, testkit::runProcess({"chattr", "+c", "/vol1/snaps"}).exitStatus);
    EXPECT_EQ(1, QLIBFSGetBTRFSCompression("/vol1/snaps"));
}

TEST_F(DirectoryProperty, OfAnEncryptedShareAreThoseOfItsBackEnd) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@docs@"));
    ASSERT_EQ(0, testkit::runProcess({"chattr", "+C", "/vol1/@docs@"}).exitStatus);
    // A view whose program is gone: nothing can be learnt from it.
    const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    const std::string options = "fd=" + std::to_string(device) + ",rootmode=40000,user_id=0,group_id=0";
    const int mounted = mount("/vol1/@docs@", "/vol1/docs", "fuse.gocryptfs", 0, options.c_str());
    close(device);
    if (mounted != 0) {
        GTEST_SKIP() << "no FUSE here";
    }
    EXPECT_EQ(1, QLIBFSGetBTRFSNodatacow("/vol1/docs"));
    EXPECT_EQ(1, QLIBFSGetBTRFSNodatacow("/vol1//docs/"));
    EXPECT_EQ(0, QLIBFSGetBTRFSCompression("/vol1/docs"));
    EXPECT_EQ(0, umount2("/vol1/docs", MNT_DETACH));
    EXPECT_EQ(0, QLIBFSGetBTRFSNodatacow("/vol1/docs"));
}

TEST_F(DirectoryProperty, OfAnotherFileSystemIsntSet) {
    const std::string scratch = testkit::Sandbox::scratch();
    EXPECT_EQ(0, QLIBFSGetBTRFSNodatacow(scratch.c_str()));
    EXPECT_EQ(0, QLIBFSGetBTRFSCompression(scratch.c_str()));
}

TEST_F(DirectoryProperty, OfNoDirectoryIsAFailure) {
    ASSERT_EQ(0, symlink("/vol1/docs", "/vol1/link"));
    for (const char *path : {"/vol1/nothing", "/vol1/docs/letter", "/vol1/link"}) {
        EXPECT_EQ(-1, QLIBFSGetBTRFSNodatacow(path)) << path;
        EXPECT_EQ(-1, QLIBFSGetBTRFSCompression(path)) << path;
    }
    EXPECT_EQ(-1, QLIBFSGetBTRFSNodatacow(nullptr));
    EXPECT_EQ(-1, QLIBFSGetBTRFSCompression(nullptr));
}

} // namespace
