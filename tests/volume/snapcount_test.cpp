#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/metadata.h>
#include <sys/xattr.h>

#include <gtest/gtest.h>
#include <string>

#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/lock_holder.hpp"
#include "support/log_capture.hpp"

namespace {

constexpr char kDirectory[] = "/vol1/@sharesnap/docs";
constexpr char kMetaFile[] = "/vol1/@sharesnap/@docs.meta";
constexpr char kVisible[] = "lock=true\nhide=false\n";
constexpr char kHidden[] = "lock=true\nhide=true\n";

class SnapCount : public testkit::DocsVolumeTest {
protected:
    void makeDirectory() {
        char path[4096];
        ASSERT_EQ(1, QOVAShareSnapGetOrCreateSnapDir(share_.get(), path, sizeof(path), 1));
    }

    // Two visible snapshots, a hidden one and one without the key stand in the metadata.
    void writeSections() {
        makeDirectory();
        ASSERT_TRUE(testkit::writeFile(kMetaFile, std::string("[a]\n") + kVisible + "[b]\n" + kHidden + "[c]\n" +
                                                      kVisible + "[d]\nlock=true\n"));
    }

    void store(const std::string &value) {
        makeDirectory();
        ASSERT_EQ(0, setxattr(kDirectory, "user.snapcount", value.data(), value.size(), 0));
    }

    static std::string stored() {
        char value[4096];
        const ssize_t cb = getxattr(kDirectory, "user.snapcount", value, sizeof(value));
        return cb < 0 ? "none" : std::string(value, static_cast<size_t>(cb));
    }

    [[nodiscard]] int count(int recount = 0) const {
        int number = -7;
        result_ = QOVAShareSnapGetSnapCount(share_.get(), &number, recount);
        return number;
    }

    const QOVASHARE *share() const { return share_.get(); }
    mutable int result_ = -7;
};

TEST_F(SnapCount, AddsToTheStoredValueWhateverTheMetadataSays) {
    store("3");
    EXPECT_EQ(4, QOVAShareSnapUpdateSnapCountEx(share(), 1, 0));
    EXPECT_EQ(5, QOVAShareSnapUpdateSnapCountEx(share(), 1, 1));
    EXPECT_EQ(4, QOVAShareSnapUpdateSnapCount(share(), -1));
}

TEST_F(SnapCount, LeavesTheDeltaOutOfARecountThatHoldsItAlready) {
    makeDirectory();
    writeSections();
    EXPECT_EQ(2, QOVAShareSnapUpdateSnapCountEx(share(), -1, 0));
    EXPECT_EQ('2', stored()[0]);
}

TEST_F(SnapCount, AddsTheDeltaToARecountThatDoesNotHoldItYet) {
    makeDirectory();
    writeSections();
    EXPECT_EQ(3, QOVAShareSnapUpdateSnapCountEx(share(), 1, 1));
    EXPECT_EQ('3', stored()[0]);
}

TEST_F(SnapCount, NeverFallsBelowZero) {
    store("0");
    EXPECT_EQ(0, QOVAShareSnapUpdateSnapCount(share(), -1));
    EXPECT_TRUE(
        testkit::logged(LOG_ERR, "Share snapcount [-1] of share [docs] should not less than zero, autofix it to [0]"));
    EXPECT_EQ('0', stored()[0]);
}

TEST_F(SnapCount, RepairsANegativeValueInAnUpdateAlone) {
    store("-5");
    EXPECT_EQ(-5, count());
    EXPECT_EQ(0, result_);
    EXPECT_EQ(0, QOVAShareSnapUpdateSnapCount(share(), 0));
    EXPECT_TRUE(
        testkit::logged(LOG_ERR, "Share snapcount [-5] of share [docs] should not less than zero, autofix it to [0]"));
    EXPECT_EQ(0, count());
}

TEST_F(SnapCount, StaysAtTheEndOfItsRange) {
    store("2147483647");
    EXPECT_EQ(2147483647, QOVAShareSnapUpdateSnapCount(share(), 1));
    EXPECT_EQ(2147483647, count());
    store("-2147483648");
    EXPECT_EQ(0, QOVAShareSnapUpdateSnapCount(share(), -1));
    EXPECT_EQ(0, count());
}

TEST_F(SnapCount, TakesTheNumberInFrontAndRecountsWithoutOne) {
    writeSections();
    store("12abc");
    EXPECT_EQ(12, count());
    EXPECT_EQ(0, result_);
    store("abc");
    EXPECT_EQ(2, count());
    EXPECT_EQ(1, result_);
    EXPECT_EQ("abc", stored());
    store("");
    EXPECT_EQ(2, count());
    EXPECT_EQ(1, result_);
}

TEST_F(SnapCount, IsStoredWholeWithTheNumberFirst) {
    store("0");
    EXPECT_EQ(17, QOVAShareSnapUpdateSnapCount(share(), 17));
    const std::string value = stored();
    ASSERT_EQ(1024u, value.size());
    EXPECT_EQ(std::string("17") + std::string(1022, '\0'), value);
}

TEST_F(SnapCount, IsZeroWithoutADirectory) {
    EXPECT_EQ(0, count());
    EXPECT_EQ(0, result_);
    EXPECT_EQ(0, QOVAShareSnapUpdateSnapCount(share(), -1));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "autofix it to [0]"));
    EXPECT_EQ(-1, QOVAShareSnapUpdateSnapCount(share(), 1));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to set ShareSnapCount of [docs] to 1."));
    EXPECT_FALSE(testkit::exists(kDirectory));
}

TEST_F(SnapCount, MakesTheDirectoryWhenAskedTo) {
    EXPECT_EQ(1, QOVAShareSnapUpdateSnapCountEx(share(), 1, 1));
    EXPECT_TRUE(testkit::isDirectory(kDirectory));
    EXPECT_EQ(1, count());
}

TEST_F(SnapCount, SyncStoresTheRecount) {
    writeSections();
    store("40");
    EXPECT_EQ(40, ShareSnapSnapCountGet(share(), 0));
    EXPECT_EQ(2, QOVAShareSnapSyncSnapCount(share()));
    EXPECT_EQ(2, count());
}

TEST_F(SnapCount, RecountOfAMissingMetadataFileIsZero) {
    store("9");
    EXPECT_EQ(0, count(1));
    EXPECT_EQ(1, result_);
}

TEST_F(SnapCount, WaitsForTheLockAndGivesUp) {
    store("3");
    ASSERT_EQ(1, QOVAShareSnapCreateRunLockShareSnapDir());
    const std::string lock = "/run/lock/sharesnap/sharesnap_snapcount_lock/docs.lock";
    EXPECT_EQ(3, QOVAShareSnapUpdateSnapCount(share(), 0)); // makes the lock's directory
    testkit::LockHolder holder(lock, 1);
    EXPECT_EQ(-1, QOVAShareSnapUpdateSnapCount(share(), 1));
    EXPECT_EQ(unsigned{SNAP_ERR_BUSY}, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to QLIBCFileLockTimeByFile: " + lock + "[0x0400 "));
    EXPECT_EQ(3, count()); // a reader doesn't wait
}

TEST_F(SnapCount, LeavesNothingOfAFailedWrite) {
    store("3");
    testkit::Fault fault("setxattr", 1, ENOSPC);
    EXPECT_EQ(-1, QOVAShareSnapUpdateSnapCount(share(), 1));
    EXPECT_TRUE(fault.met());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to setxattr on /vol1/@sharesnap/docs, name: user.snapcount, value: 4, "
                                         "strerror: No space left on device"));
    EXPECT_EQ(3, count());
}

TEST_F(SnapCount, FailedUnlockIsLoggedAlone) {
    store("3");
    testkit::Fault fault("QLIBCFileUnlockByFile", 1, EIO);
    EXPECT_EQ(4, QOVAShareSnapUpdateSnapCount(share(), 1));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "QLIBCFileUnlockByFile fail: /run/lock/sharesnap/sharesnap_snapcount_lock/"
                                         "docs.lock[0x"));
    EXPECT_EQ(4, count());
}

TEST_F(SnapCount, FileInTheLockDirectorysPlaceRefuses) {
    store("3");
    ASSERT_EQ(1, QOVAShareSnapCreateRunLockShareSnapDir());
    ASSERT_TRUE(testkit::writeFile("/run/lock/sharesnap/sharesnap_snapcount_lock", "x"));
    EXPECT_EQ(-1, QOVAShareSnapUpdateSnapCount(share(), 1));
    EXPECT_EQ(unsigned{SNAP_ERR_NOT_A_DIRECTORY}, QLIBCErrGet());
    EXPECT_EQ(3, count());
}

TEST_F(SnapCount, ShareWithoutSnapshotSupportFails) {
    ASSERT_EQ("", testkit::Sandbox::mountVolume("/vol2", "ext4"));
    ASSERT_TRUE(testkit::makeDirectories("/vol2/media"));
    ASSERT_EQ("", testkit::addShare("media", "/vol2/media"));
    const testkit::SharePointer media = testkit::getShare("media");
    int number = 5;
    EXPECT_EQ(-1, QOVAShareSnapGetSnapCount(media.get(), &number, 0));
    EXPECT_EQ(0, number);
    EXPECT_EQ(-1, QOVAShareSnapUpdateSnapCountEx(media.get(), 1, 1));
}

TEST_F(SnapCount, RefusesNullArguments) {
    int number = 5;
    EXPECT_EQ(-1, QOVAShareSnapGetSnapCount(nullptr, &number, 0));
    EXPECT_EQ(0, number);
    EXPECT_EQ(-1, QOVAShareSnapGetSnapCount(share(), nullptr, 0));
    EXPECT_EQ(-1, QOVAShareSnapUpdateSnapCount(nullptr, 1));
    EXPECT_EQ(-1, QOVAShareSnapSyncSnapCount(nullptr));
    EXPECT_EQ(unsigned{SNAP_ERR_BAD_PARAMETER}, QLIBCErrGet());
}

class GlobalSnapCount : public SnapCount {
protected:
    void SetUp() override {
        SnapCount::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_EQ("", testkit::makeShare("pics"));
        store("3");
        const testkit::SharePointer pics = testkit::getShare("pics");
        ASSERT_EQ(4, QOVAShareSnapUpdateSnapCountEx(pics.get(), 4, 1));
    }
};

TEST_F(GlobalSnapCount, SumsAllShares) {
    EXPECT_EQ(7, QOVAShareSnapGetGlobalSnapCount());
    writeSections();
    EXPECT_EQ(2, QOVAShareSnapSyncGlobalSnapCount());
    EXPECT_EQ(2, QOVAShareSnapGetGlobalSnapCount());
}

TEST_F(GlobalSnapCount, IsCountedAnewOnlyWhenAskedTo) {
    writeSections();
    EXPECT_EQ(7, ShareSnapGlobalSnapCountGet(0));
    EXPECT_EQ(7, ShareSnapGlobalSnapCountGet(0)); // nothing was stored
    EXPECT_EQ(2, ShareSnapGlobalSnapCountGet(1));
    EXPECT_EQ(2, ShareSnapGlobalSnapCountGet(0));
}

TEST_F(GlobalSnapCount, PassesAShareOverThatCannotBeFetched) {
    testkit::Fault fault("QOVAShareGet", 1, 0, -1, 0x2200);
    EXPECT_EQ(4, QOVAShareSnapGetGlobalSnapCount());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get share (docs)[0x2200 "));
}

TEST_F(GlobalSnapCount, FailsWhenAVolumePathCannotBeFound) {
    testkit::Fault fault("QOVAShareVolPathGet", 1, ENOENT);
    EXPECT_EQ(-1, QOVAShareSnapGetGlobalSnapCount());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Volpath of /vol1/docs not found"));
}

TEST_F(GlobalSnapCount, LeavesOtherFileSystemsOut) {
    ASSERT_EQ("", testkit::Sandbox::mountVolume("/vol2", "ext4"));
    ASSERT_TRUE(testkit::makeDirectories("/vol2/media"));
    ASSERT_EQ("", testkit::addShare("media", "/vol2/media"));
    EXPECT_EQ(7, QOVAShareSnapGetGlobalSnapCount());
}

TEST_F(GlobalSnapCount, SaysNoMoreThanAnIntHolds) {
    store("2147483647");
    EXPECT_EQ(2147483647, QOVAShareSnapGetGlobalSnapCount());
}

TEST_F(GlobalSnapCount, FailsWithTheFirstShareThatFails) {
    const testkit::Fault fault("setxattr", 2, ENOSPC);
    EXPECT_EQ(-1, QOVAShareSnapSyncGlobalSnapCount());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get snapshot count of [pics]"));
    const testkit::Fault volume("QOVAMountVolInfoGet", 1, EIO);
    EXPECT_EQ(-1, QOVAShareSnapGetGlobalSnapCount());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to get mount volume info of path [/vol1/docs].["));
}

TEST_F(GlobalSnapCount, WaitsForABusyDatabaseFiveTimesAShare) {
    testkit::NoSleep naps;
    testkit::Fault fault("QOVAShareGet", 0, 0, -1, SNAP_ERR_BUSY);
    EXPECT_EQ(0, QOVAShareSnapGetGlobalSnapCount());
    EXPECT_EQ(10u, fault.calls());
    EXPECT_EQ(10u, naps.seconds().size());
}

} // namespace
