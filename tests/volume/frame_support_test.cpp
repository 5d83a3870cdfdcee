#include "support/faults.hpp"
#include "support/fixtures.hpp"
#include "support/lock_holder.hpp"
#include "support/log_capture.hpp"

#include <sharesnap/frame.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/platform/subvolume.h>
#include <sharesnap/platform/volume.h>

#include <sys/stat.h>

namespace {

class Support : public testkit::VolumeTest {
protected:
    void SetUp() override {
        VolumeTest::SetUp();
        if (!IsSkipped()) {
            ASSERT_EQ("", testkit::makeShare("docs"));
            docs_ = testkit::getShare("docs");
            ASSERT_NE(nullptr, docs_);
        }
    }
    ~Support() override { BlackList = {nullptr, 0}; }

    [[nodiscard]] QOVASHARE *docs() const { return docs_.get(); }

    // The code that the check leaves, 0 for a share that passes.
    unsigned int check(const QOVASHARE *share, unsigned int action) {
        type = -7;
        QLIBCErrSetEx(0, "", 0);
        const int result = QOVAShareSnapCheckSupport(share, &type, action);
        EXPECT_EQ(result == 0, QLIBCErrGet() == 0);
        return QLIBCErrGet();
    }

    int type = 0;

private:
    testkit::SharePointer docs_;
};

TEST_F(Support, ASubvolumeOnBtrfsHasIt) {
    EXPECT_EQ(0u, check(docs(), 0));
    EXPECT_EQ(FS_TYPE_BTRFS, type);
    EXPECT_EQ(0u, check(docs(), SNAP_CREATE | SNAP_DELETE | SNAP_CLONE));
    EXPECT_EQ(0, QOVAShareSnapCheckSupport(docs(), nullptr, 0));
    EXPECT_EQ(0x0D00u, check(nullptr, 0));
}

TEST_F(Support, AShareOnExt4HasNoneAndItsTypeIsTold) {
    ASSERT_EQ("", testkit::Sandbox::mountVolume("/vol2", "ext4", 32));
    ASSERT_EQ(0, mkdir("/vol2/plain", 0755));
    ASSERT_EQ("", testkit::addShare("plain", "/vol2/plain"));
    const testkit::SharePointer plain = testkit::getShare("plain");
    EXPECT_EQ(0xD900u, check(plain.get(), 0));
    EXPECT_EQ(FS_TYPE_EXT4, type);
    EXPECT_EQ(0xD900u, check(plain.get(), SNAP_CREATE));
}

TEST_F(Support, APlainDirectoryHasNone) {
    ASSERT_EQ(0, mkdir("/vol1/plain", 0755));
    ASSERT_EQ("", testkit::addShare("plain", "/vol1/plain"));
    const testkit::SharePointer plain = testkit::getShare("plain");
    EXPECT_EQ(0xD900u, check(plain.get(), 0));
    EXPECT_EQ(FS_TYPE_BTRFS, type);
}

TEST_F(Support, AShareWhoseDataIsGoneFails) {
    ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/docs"));
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, QOVAShareSnapCheckSupport(docs(), nullptr, 0));
    EXPECT_TRUE(
        testkit::logged(LOG_ERR, "Failed to check subvol for path (/vol1/docs) err:(No such file or directory)["));
}

TEST_F(Support, OneRefusedActionRefusesAll) {
    int anything = 0;
    BlackList = {&anything, SNAP_DELETE};
    EXPECT_EQ(0u, check(docs(), SNAP_CREATE));
    EXPECT_EQ(0xD900u, check(docs(), SNAP_CREATE | SNAP_DELETE));
    EXPECT_EQ(0u, check(docs(), 0)); // paths alone are never refused
}

TEST_F(Support, AMaskOutOfRangeIsNotReduced) {
    EXPECT_EQ(0x0D00u, check(docs(), 0x200));
    EXPECT_EQ(0x0D00u, check(docs(), 0x201));
}

TEST_F(Support, AForbiddenShareIsRefusedEachActionButItsPaths) {
    const testkit::Replacement<int(const QOVASHARE *, int *)> forbidden("QLIBShareIsForbiddenGet",
                                                                        [](const QOVASHARE *, int *answer) {
                                                                            *answer = 1;
                                                                            return 0;
                                                                        });
    EXPECT_EQ(0x6400u, check(docs(), SNAP_CREATE));
    EXPECT_EQ(0u, check(docs(), 0));
}

TEST_F(Support, TheDataOfAnEncryptedShareIsItsBackEnd) {
    ASSERT_EQ(0, mkdir("/vol1/safe", 0755));
    ASSERT_EQ("", testkit::addShare("safe", "/vol1/safe", 0x02));
    const testkit::SharePointer safe = testkit::getShare("safe");
    safe->uStatus = 0x02;
    EXPECT_EQ(-1, QOVAShareSnapCheckSupport(safe.get(), nullptr, 0));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@safe@"));
    {
        std::vector<std::string> asked;
        using VolPath = int(const char *, char *, size_t);
        const testkit::Replacement<VolPath> volume("QOVAShareVolPathGet", [&](const char *path, char *buf, size_t cb) {
            asked.emplace_back(path);
            return testkit::real<VolPath>("QOVAShareVolPathGet")(path, buf, cb);
        });
        EXPECT_EQ(0u, check(safe.get(), SNAP_CREATE | SNAP_CLONE));
        EXPECT_EQ((std::vector<std::string>{"/vol1/@safe@"}), asked);
    }
    EXPECT_EQ(0xD900u, check(safe.get(), 0x10));
}

TEST_F(Support, FailuresOfEachStepAreReported) {
    const struct {
        const char *symbol;
        const char *text;
    } steps[] = {{"QOVAShareVolPathGet", "Failed to get vol path of share(docs)["},
                 {"QOVAGetFSType", "Failed to fs type from path (/vol1)["},
                 {"QOVABtrfsIsSubVol", "Failed to check subvol for path (/vol1/docs) err:("},
                 {"QLIBShareIsForbiddenGet", "Failed get share forbidden status for share docs["}};
    for (const auto &step : steps) {
        testkit::logClear();
        const testkit::Fault fault(step.symbol);
        EXPECT_EQ(-1, QOVAShareSnapCheckSupport(docs(), nullptr, SNAP_CREATE)) << step.symbol;
        EXPECT_TRUE(testkit::logged(LOG_ERR, step.text));
    }
    const testkit::Fault fault("QLIBShareIsEncryptionGet");
    EXPECT_EQ(-1, QOVAShareSnapCheckSupport(docs(), nullptr, 0));
}

class MetadataLocks : public Support {
protected:
    static constexpr const char *file = "/run/lock/sharesnap/sharesnap_meta_lock/docs.lock";
};

TEST_F(MetadataLocks, GiveADescriptor) {
    const int exclusive = QOVAShareSnapLockMetaFile(docs(), 1);
    ASSERT_GE(exclusive, 0);
    EXPECT_NE(0, QLIBCFileUnlockByFile(exclusive));
    const testkit::LockHolder reader(file, testkit::LockHolder::shared);
    ASSERT_TRUE(reader.holds());
    const int shared = QOVAShareSnapLockMetaFile(docs(), 0);
    ASSERT_GE(shared, 0);
    EXPECT_NE(0, QLIBCFileUnlockByFile(shared));
}

TEST_F(MetadataLocks, WaitForAWriterAndGiveUpAfterTenSeconds) {
    const testkit::LockHolder writer(file, testkit::LockHolder::exclusive);
    ASSERT_TRUE(writer.holds());
    int wait = 0;
    const testkit::Replacement<int(const char *, int, int, int *)> shorter(
        "QLIBCFileLockTimeByFile", [&](const char *path, int mode, int seconds, int *fd) {
            wait = seconds;
            return testkit::real<int(const char *, int, int, int *)>("QLIBCFileLockTimeByFile")(path, mode, 0, fd);
        });
    EXPECT_EQ(-1, QOVAShareSnapLockMetaFile(docs(), 0));
    EXPECT_EQ(10, wait);
    EXPECT_EQ(0x0400u, QLIBCErrGet());
    EXPECT_TRUE(
        testkit::logged(LOG_ERR, "Failed to lock file [/run/lock/sharesnap/sharesnap_meta_lock/docs.lock] [0x0400 "));
}

TEST_F(MetadataLocks, OfTwoSharesNeverContend) {
    ASSERT_EQ("", testkit::makeShare("other"));
    const testkit::SharePointer other = testkit::getShare("other");
    const testkit::LockHolder writer(file, testkit::LockHolder::exclusive);
    ASSERT_TRUE(writer.holds());
    const int lock = QOVAShareSnapLockMetaFile(other.get(), 1);
    ASSERT_GE(lock, 0);
    EXPECT_NE(0, QLIBCFileUnlockByFile(lock));
}

TEST_F(MetadataLocks, ANameTooLongForThePathIsRefused) {
    QOVASHARE share = {};
    std::string name(2000, 'n');
    share.szName = name.data();
    EXPECT_EQ(-1, QOVAShareSnapLockMetaFile(&share, 1));
    EXPECT_EQ(-1, QOVAShareSnapLockMetaFile(nullptr, 1));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
}

} // namespace
