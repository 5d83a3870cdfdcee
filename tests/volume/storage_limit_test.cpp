// The limit of snapshots of the whole system.
#include "storage_support.hpp"

#include <sys/mount.h>

namespace {

void setCounter(const std::string &path, std::string text) {
    text.resize(1024, '\0');
    ASSERT_EQ(0, setxattr(path.c_str(), "user.snapcount", text.data(), text.size(), 0)) << path;
}

class SystemLimit : public testkit::VolumeTest {
protected:
    void SetUp() override {
        testkit::VolumeTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        ASSERT_TRUE(testkit::writeFile("/etc.defaults/qovainfo.conf", "max_snapshots_per_system=\"10\"\n"));
        ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@sharesnap"));
        ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@sharesnap/docs"));
        ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@sharesnap/@photos@"));
        ASSERT_TRUE(testkit::writeFile("/vol1/@sharesnap/@docs.meta", ""));
    }
};

TEST_F(SystemLimit, ComesFromTheDefaultsFile) {
    EXPECT_EQ(10UL, QOVABtrfsSnapCountMaximumGet());
    ASSERT_TRUE(testkit::writeFile("/etc.defaults/qovainfo.conf", "max_snapshots_per_share=5\n"));
    EXPECT_EQ(65536UL, QOVABtrfsSnapCountMaximumGet());
    for (const char *value : {"", "many", "-3", "12x", "99999999999999999999999"}) {
        ASSERT_TRUE(
            testkit::writeFile("/etc.defaults/qovainfo.conf", std::string("max_snapshots_per_system=") + value + "\n"));
        EXPECT_EQ(65536UL, QOVABtrfsSnapCountMaximumGet()) << value;
    }
    ASSERT_EQ(0, unlink("/etc.defaults/qovainfo.conf"));
    EXPECT_EQ(65536UL, QOVABtrfsSnapCountMaximumGet());
}

TEST_F(SystemLimit, AKeyOrAFileThatIsAbsentIsNoFailure) {
    storage::setCode(0x1500);
    ASSERT_TRUE(testkit::writeFile("/etc.defaults/qovainfo.conf", "max_snapshots_per_share=5\n"));
    EXPECT_EQ(65536UL, QOVABtrfsSnapCountMaximumGet());
    EXPECT_EQ(0x1500u, QLIBCErrGet());
    ASSERT_EQ(0, unlink("/etc.defaults/qovainfo.conf"));
    EXPECT_EQ(0, QOVABtrfsSnapCountReachMaxCheck());
    EXPECT_EQ(0x1500u, QLIBCErrGet());
    EXPECT_STREQ("test", QLIBCErrorGetFile());
}

TEST_F(SystemLimit, IsReachedByTheSumOfAllSharesOfAVolume) {
    EXPECT_EQ(0, QOVABtrfsSnapCountReachMaxCheck());
    setCounter("/vol1/@sharesnap/docs", "6");
    setCounter("/vol1/@sharesnap/@photos@", "3");
    EXPECT_EQ(0, QOVABtrfsSnapCountReachMaxCheck());
    setCounter("/vol1/@sharesnap/@photos@", "4");
    EXPECT_EQ(-2, QOVABtrfsSnapCountReachMaxCheck());
}

TEST_F(SystemLimit, SumsAllVolumesAndTakesNoDirectoryTwice) {
    setCounter("/vol1/@sharesnap/docs", "6");
    ASSERT_EQ("", testkit::Sandbox::mountVolume("/vol2"));
    EXPECT_EQ(0, QOVABtrfsSnapCountReachMaxCheck());
    // The first volume once more under another name.
    ASSERT_EQ(0, mkdir("/vol3", 0755));
    ASSERT_EQ(0, mount("/vol1", "/vol3", nullptr, MS_BIND, nullptr));
    const int twice = QOVABtrfsSnapCountReachMaxCheck();
    EXPECT_EQ(0, umount2("/vol3", MNT_DETACH));
    EXPECT_EQ(0, rmdir("/vol3"));
    EXPECT_EQ(0, twice);
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol2/@sharesnap"));
    ASSERT_EQ(0, mkdir("/vol2/@sharesnap/music", 0755));
    setCounter("/vol2/@sharesnap/music", "4");
    EXPECT_EQ(-2, QOVABtrfsSnapCountReachMaxCheck());
}

TEST_F(SystemLimit, CountsNothingForCountersThatCantBeRead) {
    setCounter("/vol1/@sharesnap/docs", "many");
    setCounter("/vol1/@sharesnap/@photos@", "-50");
    ASSERT_EQ(0, mkdir("/vol1/elsewhere", 0755));
    setCounter("/vol1/elsewhere", "1000");
    ASSERT_EQ(0, symlink("/vol1/elsewhere", "/vol1/@sharesnap/planted"));
    EXPECT_EQ(0, QOVABtrfsSnapCountReachMaxCheck());
}

} // namespace
