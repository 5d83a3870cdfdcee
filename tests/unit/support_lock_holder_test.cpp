// Another process holds a lock, and lets go when told.
#include "support/fixtures.hpp"
#include "support/lock_holder.hpp"

#include <sharesnap/platform/error.h>
#include <sharesnap/platform/file_lock.h>

#include <csignal>
#include <gtest/gtest.h>

using testkit::LockHolder;

namespace {

using LockHolderTest = testkit::SandboxTest;

constexpr const char *path = "/run/lock/some/where.lock";

bool canLock(int mode, int seconds) {
    int fd = -1;
    return QLIBCFileLockTimeByFile(path, mode, seconds, &fd) != 0 && QLIBCFileUnlockByFile(fd) != 0;
}

TEST_F(LockHolderTest, KeepsOthersOutUntilItIsToldToLetGo) {
    LockHolder holder(path, LockHolder::exclusive);
    ASSERT_TRUE(holder.holds());
    EXPECT_FALSE(canLock(LockHolder::shared, 0));
    EXPECT_EQ(unsigned(SNAP_ERR_BUSY), QLIBCErrGet());
    holder.release();
    EXPECT_FALSE(holder.holds());
    EXPECT_TRUE(canLock(LockHolder::exclusive, 0));
}

TEST_F(LockHolderTest, SharesWithReaders) {
    const LockHolder holder(path, LockHolder::shared);
    ASSERT_TRUE(holder.holds());
    EXPECT_TRUE(canLock(LockHolder::shared, 0));
    EXPECT_FALSE(canLock(LockHolder::exclusive, 0));
}

TEST_F(LockHolderTest, LetsGoByItselfAfterAWhile) {
    LockHolder holder(path, LockHolder::exclusive);
    ASSERT_TRUE(holder.holds());
    holder.releaseAfter(std::chrono::milliseconds(100));
    EXPECT_TRUE(canLock(LockHolder::exclusive, 60));
}

TEST_F(LockHolderTest, LosesTheLockWithItsProcess) {
    const LockHolder holder(path, LockHolder::exclusive);
    ASSERT_TRUE(holder.holds());
    ASSERT_EQ(0, kill(holder.pid(), SIGKILL));
    EXPECT_TRUE(canLock(LockHolder::exclusive, 60));
}

TEST_F(LockHolderTest, IsGoneAtTheEndOfItsScope) {
    {
        const LockHolder holder(path, LockHolder::exclusive);
        ASSERT_TRUE(holder.holds());
    }
    EXPECT_TRUE(canLock(LockHolder::exclusive, 0));
}

} // namespace
