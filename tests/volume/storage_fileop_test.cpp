// File operations on a real volume: what needs subvolumes or attributes.
#include <sharesnap/platform/file_operation.h>

#include "storage_support.hpp"

#include <sys/mount.h>

using testkit::exists;
using testkit::writeFile;

namespace {

using ClientAttribute = storage::SnapshotTest;
using EaRemoval = storage::SnapshotTest;
using VolumeCopy = storage::SnapshotTest;

std::string attributeOf(const std::string &path) {
    char value[64] = "";
    const ssize_t size = lgetxattr(path.c_str(), "user.DOSATTRIB", value, sizeof(value));
    return size < 0 ? "(none)" : std::string(value, size_t(size));
}

TEST_F(ClientAttribute, IsTheTextThatSambaReads) {
    EXPECT_EQ(0, QOVASmbAttributeSet("/vol1/docs", F_SETSMB_SYSTEM));
    EXPECT_EQ("0x14", attributeOf("/vol1/docs"));
    EXPECT_EQ(0, QOVASmbAttributeSet("/vol1/docs/letter", F_SETSMB_FILE));
    EXPECT_EQ("0x6", attributeOf("/vol1/docs/letter"));
    EXPECT_EQ(0, QOVASmbAttributeSet("/vol1/docs/letter", F_SETSMB_FILE));
    EXPECT_EQ("0x6", attributeOf("/vol1/docs/letter"));
}

TEST_F(ClientAttribute, GoesThroughNoLink) {
    ASSERT_EQ(0, symlink("/vol1/docs/letter", "/vol1/docs/link"));
    storage::setCode(0);
    EXPECT_EQ(-1, QOVASmbAttributeSet("/vol1/docs/link", F_SETSMB_FILE));
    EXPECT_NE(0U, QLIBCErrGet());
    EXPECT_EQ("(none)", attributeOf("/vol1/docs/letter"));
    EXPECT_EQ(-1, QOVASmbAttributeSet("/vol1/docs/nothing", F_SETSMB_FILE));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, QOVASmbAttributeSet("/vol1/docs/letter", 1));
    EXPECT_EQ(-1, QOVASmbAttributeSet(nullptr, F_SETSMB_FILE));
}

TEST_F(EaRemoval, TakesSubvolumesThatUsersMadeInIt) {
    ASSERT_TRUE(testkit::makeDirectories("/vol1/docs/@eaDir/sub"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs/@eaDir/sub/own"));
    ASSERT_TRUE(writeFile("/vol1/docs/@eaDir/sub/own/file", "x"));
    int64_t flag = 1;
    EXPECT_EQ(0, QOVAEARemove("/vol1/docs", 3, &flag));
    EXPECT_FALSE(exists("/vol1/docs/@eaDir"));
    EXPECT_TRUE(exists("/vol1/docs/letter"));
}

TEST_F(EaRemoval, StopsAtWhatIsMountedInIt) {
    ASSERT_TRUE(testkit::makeDirectories("/vol1/docs/@eaDir/mounted"));
    ASSERT_TRUE(writeFile("/vol1/snaps/kept", "x"));
    ASSERT_EQ(0, mount("/vol1/snaps", "/vol1/docs/@eaDir/mounted", nullptr, MS_BIND, nullptr));
    int64_t flag = 1;
    storage::setCode(0);
    const int result = QOVAEARemove("/vol1/docs", 3, &flag);
    EXPECT_EQ(0, umount2("/vol1/docs/@eaDir/mounted", MNT_DETACH));
    EXPECT_EQ(-1, result);
    EXPECT_NE(0U, QLIBCErrGet());
    EXPECT_TRUE(exists("/vol1/snaps/kept"));
    EXPECT_EQ(0, QOVAEARemove("/vol1/docs", 3, &flag));
}

TEST_F(VolumeCopy, HoldsAllBytesWithinAndAcrossFileSystems) {
    std::string data(3'000'001, '\0');
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = char(i * 7 + i / 1000);
    }
    ASSERT_TRUE(writeFile("/vol1/docs/large", data));
    const QOVAFILECOPYOPTIONS options = {{1, 0, 1, 1}};
    EXPECT_EQ(0, QOVAFileCopy("/vol1/docs/large", "/vol1/snaps/copy", &options));
    EXPECT_TRUE(data == testkit::readFile("/vol1/snaps/copy"));
    const std::string other = testkit::Sandbox::scratch() + "/copy";
    EXPECT_EQ(0, QOVAFileCopy("/vol1/docs/large", other.c_str(), &options));
    EXPECT_TRUE(data == testkit::readFile(other));
}

TEST_F(VolumeCopy, OntoAFullVolumeFailsAndLeavesNothing) {
    ASSERT_EQ("", testkit::Sandbox::mountVolume("/vol2", "ext4", 16));
    ASSERT_TRUE(writeFile("/vol1/docs/large", std::string(32 << 20, 'x')));
    ASSERT_TRUE(writeFile("/vol2/copy", "old"));
    const std::vector<std::string> before = testkit::directoryNames("/vol2");
    const QOVAFILECOPYOPTIONS options = {{1, 0, 1, 1}};
    EXPECT_EQ(-1, QOVAFileCopy("/vol1/docs/large", "/vol2/copy", &options));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ(unsigned(SNAP_ERR_NO_SPACE), QLIBCErrGet());
    EXPECT_EQ("old", testkit::readFile("/vol2/copy"));
    EXPECT_EQ(before, testkit::directoryNames("/vol2"));
}

} // namespace
