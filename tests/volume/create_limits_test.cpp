// What stops a creation: the numbers of snapshots, the reserve, a full volume; and what is undone then.
#include "volume/lifecycle.hpp"

#include <fcntl.h>
#include <sys/vfs.h>

using namespace lifecycle;

namespace {

constexpr uint64_t kReserve = 0x6400000;

class SnapCreateLimit : public Fixture {
protected:
    static void limitShare(int maximum) {
        ASSERT_TRUE(testkit::writeFile("/etc.defaults/qovainfo.conf",
                                       "max_snapshots_per_share=\"" + std::to_string(maximum) + "\"\n"));
    }

    int create(const Pairs &attributes = {}) {
        const testkit::FixedTime clock(++now_);
        Hash hash(attributes);
        return QOVAShareSnapCreate(share, nullptr, 0, hash.address());
    }
};

TEST_F(SnapCreateLimit, IsOfTheShare) {
    limitShare(2);
    const Names names = takeSome(2);
    EXPECT_EQ(-1, create());
    EXPECT_EQ(0x1500U, QLIBCErrGet());
    EXPECT_EQ(names, sections());
    EXPECT_EQ(names, standing());
    EXPECT_EQ(2, storedCount());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Force sync snapcount and retry."));
}

TEST_F(SnapCreateLimit, DoesNotHoldForHiddenSnapshots) {
    limitShare(1);
    (void)take();
    EXPECT_EQ(0, create({{"hide", "true"}}));
    EXPECT_EQ(1, storedCount());
    EXPECT_EQ(2U, standing().size());
}

TEST_F(SnapCreateLimit, RepairsADriftedCounterBeforeItRefuses) {
    limitShare(3);
    (void)take();
    storeCount(700);
    EXPECT_EQ(0, create());
    EXPECT_EQ(2, storedCount());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Force sync snapcount and retry."));
}

// The one takes the counter for true, the other counts before it refuses.
TEST_F(SnapCreateLimit, CheckTakesTheCounterForTrueAndTheRetryRepairsIt) {
    limitShare(2);
    (void)take();
    testkit::logClear();
    EXPECT_EQ(0, QOVAShareSnapCheckReachMaxSnapshot(share));
    EXPECT_EQ(0, QOVAShareSnapCheckMaxRetry(share));
    EXPECT_TRUE(testkit::nothingFailed());
    for (const int drifted : {2, 3, 700}) {
        storeCount(drifted);
        setCode(0);
        EXPECT_EQ(-1, QOVAShareSnapCheckReachMaxSnapshot(share)) << drifted;
        EXPECT_EQ(0x1500U, QLIBCErrGet());
        EXPECT_EQ(drifted, storedCount());
        EXPECT_TRUE(testkit::nothingFailed());
        EXPECT_EQ(0, QOVAShareSnapCheckMaxRetry(share)) << drifted;
        EXPECT_EQ(1, storedCount());
        EXPECT_EQ(1U, testkit::logCount(LOG_ERR, "Force sync snapcount and retry."));
        testkit::logClear();
    }
    (void)take();
    for (const auto check : {QOVAShareSnapCheckReachMaxSnapshot, QOVAShareSnapCheckMaxRetry}) {
        setCode(0);
        EXPECT_EQ(-1, check(share));
        EXPECT_EQ(0x1500U, QLIBCErrGet());
        EXPECT_EQ(2, storedCount());
    }
}

// What can't be told isn't taken for room, and the retry may find it out.
TEST_F(SnapCreateLimit, RetryAsksOnceMoreWhenTheSystemCannotTell) {
    int asked = 0;
    const testkit::Replacement<int()> unknown("QOVABtrfsSnapCountReachMaxCheck", [&] { return ++asked == 1 ? -1 : 0; });
    EXPECT_EQ(0, QOVAShareSnapCheckMaxRetry(share));
    EXPECT_EQ(2, asked);
    EXPECT_EQ(0, QOVAShareSnapCheckReachMaxSnapshot(share));
}

TEST_F(SnapCreateLimit, IsOfTheSystemToo) {
    const testkit::Replacement<int()> reached("QOVABtrfsSnapCountReachMaxCheck", [] { return -2; });
    EXPECT_EQ(-1, create());
    EXPECT_EQ(0x1500U, QLIBCErrGet());
    EXPECT_EQ(0, create({{"hide", "true"}}));
}

TEST_F(SnapCreateLimit, FailsWhenTheSystemCannotTell) {
    for (const int answer : {-1, 7, -9}) {
        const testkit::Replacement<int()> unknown("QOVABtrfsSnapCountReachMaxCheck", [answer] { return answer; });
        testkit::logClear();
        EXPECT_EQ(-1, create());
        const std::string text = answer == -1 ? "Failed to check Btrfs snapshot count, ret: "
                                              : "Unknown error occurs when checking Btrfs snapshot count, ret: ";
        EXPECT_TRUE(testkit::logged(LOG_ERR, text + std::to_string(answer) + "[0x"));
    }
    EXPECT_EQ("", meta());
}

TEST_F(SnapCreateLimit, ReserveOfExactlyAHundredMegabytesIsEnough) {
    const testkit::FreeSpace space(kReserve);
    EXPECT_EQ(0, create());
    EXPECT_EQ(1, storedCount());
}

TEST_F(SnapCreateLimit, ReserveWithABlockMoreIsEnough) {
    const testkit::FreeSpace space(kReserve + 1);
    EXPECT_EQ(0, create());
    EXPECT_EQ(1, storedCount());
}

TEST_F(SnapCreateLimit, ReserveWithAByteLessUndoesCountAndMetadata) {
    const std::string name = take();
    const std::string before = meta();
    const testkit::Leftovers leftovers({"/vol1/@sharesnap", "/vol1/docs"});
    const testkit::FreeSpace space(kReserve - 1);
    EXPECT_EQ(-1, create());
    EXPECT_EQ(0xE400U, QLIBCErrGet());
    EXPECT_EQ(1, storedCount());
    EXPECT_EQ(before, meta());
    EXPECT_EQ(Names{name}, standing());
    EXPECT_EQ("", leftovers.compare());
}

uint64_t freeBytes() {
    struct statfs info = {};
    return statfs("/vol1", &info) == 0 ? uint64_t(info.f_bavail) * uint64_t(info.f_bsize) : 0;
}

// A real volume on either side of the reserve. What Btrfs tells moves in steps, so the file grows until it has passed.
TEST_F(SnapCreateLimit, ReserveIsThatOfTheRealVolume) {
    ASSERT_GT(freeBytes(), kReserve);
    EXPECT_EQ(0, create());
    const int file = open("/vol1/ballast", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(file, 0);
    off_t size = 0;
    while (freeBytes() >= kReserve && size < (off_t(400) << 20)) {
        ASSERT_EQ(0, fallocate(file, 0, size, off_t(4) << 20)) << errno;
        size += off_t(4) << 20;
    }
    ASSERT_LT(freeBytes(), kReserve);
    EXPECT_EQ(-1, create());
    EXPECT_EQ(0xE400U, QLIBCErrGet());
    EXPECT_EQ(1, storedCount());
    EXPECT_EQ(1U, sections().size());
    ASSERT_EQ(0, ftruncate(file, 0));
    EXPECT_TRUE(eventually([&] { return syncfs(file) == 0 && freeBytes() >= kReserve; }));
    close(file);
    EXPECT_EQ(0, create());
    EXPECT_EQ(2, storedCount());
}

// Where a volume that is full to the last block lets the snapshot through it is whole, else nothing of it is there.
TEST_F(SnapCreateLimit, FullVolumeGivesAWholeSnapshotOrNone) {
    const std::string name = take();
    const int file = open("/vol1/ballast", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(file, 0);
    const std::vector<char> block(1 << 20, 'x');
    size_t piece = block.size();
    for (size_t written = 0; piece >= 4096 && written < (size_t(1) << 30);) {
        const ssize_t done = write(file, block.data(), piece);
        written += done > 0 ? size_t(done) : 0;
        piece = done > 0 ? piece : piece / 2;
    }
    (void)fsync(file);
    close(file);
    const testkit::FreeSpace space(kReserve);
    const int created = create();
    if (created == 0) {
        EXPECT_EQ(2U, standing().size());
        EXPECT_EQ(2U, sections().size());
        EXPECT_EQ(2, storedCount());
    } else {
        EXPECT_EQ(-1, created);
        EXPECT_NE(0U, QLIBCErrGet());
        EXPECT_EQ(Names{name}, standing());
        EXPECT_EQ(Names{name}, sections());
        EXPECT_EQ(1, storedCount());
    }
    (void)unlink("/vol1/ballast");
}

TEST_F(SnapCreateLimit, NoSpaceForTheSectionIsTold) {
    const std::string name = take();
    const testkit::Replacement<int(const char *, const char *, const QLIBCSZHASH *, const char *)> full(
        "QLIBCFileAddSection", [](const char *, const char *, const QLIBCSZHASH *, const char *) {
            setCode(0x0B00);
            errno = ENOSPC;
            return -1;
        });
    EXPECT_EQ(-1, create());
    EXPECT_EQ(0x2900U, QLIBCErrGet());
    EXPECT_EQ(1, storedCount());
    EXPECT_EQ(Names{name}, sections());
}

} // namespace
