// What a system lock is for: the deletion of a held snapshot is refused, and only that.
#include "volume/lifecycle.hpp"

#include <sharesnap/counters.h>

using namespace lifecycle;

namespace {

class HeldSnapshot : public Fixture {
protected:
    static constexpr int kLocked = 0xF400;
};

TEST_F(HeldSnapshot, StaysWhileOneOfItsInitiatorsHoldsIt) {
    const std::string name = take();
    ASSERT_EQ(1, QOVAShareSnapSysLockIncrement(share, name.c_str(), "backup"));
    ASSERT_EQ(1, QOVAShareSnapSysLockIncrement(share, name.c_str(), "replication"));
    ASSERT_EQ(1, QOVAShareSnapSysLockDecrement(share, name.c_str(), "backup"));
    EXPECT_EQ(-1, remove({name}));
    EXPECT_EQ(std::vector<int>{kLocked}, codes);
    EXPECT_TRUE(stands(name));
    ASSERT_EQ(1, QOVAShareSnapSysLockRemove(share, name.c_str(), "replication"));
    EXPECT_EQ(0, remove({name}));
    EXPECT_FALSE(stands(name));
}

TEST_F(HeldSnapshot, IsFreeAfterTheRunTimeFilesAreGone) {
    const std::string name = take();
    ASSERT_EQ(1, QOVAShareSnapSysLockIncrement(share, name.c_str(), "backup"));
    EXPECT_EQ(-1, remove({name}));
    std::filesystem::remove_all("/run/sharesnap"); // a reboot empties it
    uint32_t count = 7;
    EXPECT_EQ(1, QOVAShareSnapSysLockGet(share, name.c_str(), "backup", &count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(0, remove({name}));
}

} // namespace
