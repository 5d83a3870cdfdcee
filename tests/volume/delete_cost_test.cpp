// What a deletion costs: the number of names makes it longer, but it asks the disk to write as often as for a few, and
// neither reads nor writes a file anew for each name.
#include "volume/lifecycle.hpp"

#include <cstdio>

#include "support/bounded.hpp"
#include "support/trace.hpp"

using namespace lifecycle;

namespace {

constexpr int kFew = 8;
constexpr int kMany = 64;
// For each name: the look at its holders, at its subvolume before and after, its place in the queue, the deletion.
constexpr size_t kMostCallsOfAName = 160;

class DeleteCost : public Fixture {
protected:
    void SetUp() override {
        Fixture::SetUp();
        if (!IsSkipped()) {
            (void)remove({take()}); // makes what later ones find
        }
    }

    testkit::Cost cost(const char *what, const Names &names) {
        const testkit::Cost cost = testkit::traceCost([&] { return remove(names) == 0; });
        std::printf("[  COST    ] %s: %zu calls, %zu syncs, %zu bytes read, %zu written\n", what, cost.calls,
                    cost.syncs, cost.bytesRead, cost.bytesWritten);
        EXPECT_TRUE(cost.whole) << what;
        EXPECT_EQ(0U, cost.programs) << what;
        return cost;
    }
};

TEST_F(DeleteCost, IsTwoSyncsForAFewNamesAndForMany) {
    const Names all = takeSome(kFew + kMany);
    const size_t fileSize = meta().size();
    const testkit::Cost few = cost("a few", Names(all.begin(), all.begin() + kFew));
    const testkit::Cost many = cost("many", Names(all.begin() + kFew, all.end()));
    EXPECT_EQ(Names{}, standing());
    EXPECT_EQ(0, storedCount());
    // The metadata and the deletions.
    EXPECT_LT(0U, few.syncs);
    EXPECT_GE(2U, few.syncs);
    EXPECT_EQ(few.syncs, many.syncs);
    if (!testkit::hasOwnMemory()) {
        return; // what takes memory of its own makes calls of its own
    }
    EXPECT_GE(few.calls + (kMany - kFew) * kMostCallsOfAName, many.calls);
    // Once through the file for what is to go and once for what stays; the rest is small.
    EXPECT_GE(8 * fileSize + kMany * 512, few.bytesRead);
    EXPECT_GE(8 * fileSize + kMany * 512, many.bytesRead);
    EXPECT_GE(2 * fileSize + kMany * 512, many.bytesWritten);
}

// They are a list of their own, which is on disk by itself.
TEST_F(DeleteCost, IsOneSyncMoreWithHiddenOnesWhateverTheirNumber) {
    Names one = takeSome(2);
    one.push_back(take({{"hide", "true"}}));
    Names several = takeSome(2);
    for (int i = 0; i < 20; ++i) {
        several.push_back(take({{"hide", "true"}}));
    }
    const testkit::Cost few = cost("one hidden", one);
    const testkit::Cost many = cost("several hidden", several);
    EXPECT_EQ(Names{}, standing());
    EXPECT_LT(0U, few.syncs);
    EXPECT_GE(3U, few.syncs);
    EXPECT_EQ(few.syncs, many.syncs);
    if (testkit::hasOwnMemory()) {
        EXPECT_GE(few.calls + 19 * kMostCallsOfAName, many.calls);
    }
}

// The sections that stay are copied, whatever their number.
TEST_F(DeleteCost, OfOneAmongManyIsTwiceThroughTheFile) {
    const Names all = takeSome(kMany);
    const size_t fileSize = meta().size();
    const testkit::Cost one = cost("one of many", {all[kMany / 2]});
    const testkit::Cost again = cost("one of many", {all[1]});
    EXPECT_GE(2U, one.syncs);
    EXPECT_EQ(one.syncs, again.syncs);
    if (testkit::hasOwnMemory()) {
        EXPECT_GE(8 * fileSize + 16384, one.bytesRead);
        EXPECT_GE(2 * fileSize + 16384, one.bytesWritten);
    }
}

} // namespace
