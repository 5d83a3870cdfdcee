// What a snapshot of a plain share costs beside the snapshot itself.
#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>

#include <gtest/gtest.h>

#include "support/fixtures.hpp"
#include "support/trace.hpp"

namespace {

class CreateCost : public testkit::VolumeTest {
protected:
    void SetUp() override {
        VolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_EQ("", testkit::makeShare("docs"));
        share_ = testkit::getShare("docs");
        // The first one makes what later ones find.
        ASSERT_EQ(0, ShareSnapCreateNameConflictRetry(share_.get(), nullptr, 0, nullptr, 10));
    }

    testkit::SharePointer share_;
};

TEST_F(CreateCost, IsFourSyncsAndNoProgram) {
    const testkit::Cost cost = testkit::traceCost(
        [this] { return ShareSnapCreateNameConflictRetry(share_.get(), nullptr, 0, nullptr, 10) == 0; });
    EXPECT_TRUE(cost.whole);
    EXPECT_LT(100U, cost.calls);
    EXPECT_LT(0U, cost.syncs);
    EXPECT_GE(4U, cost.syncs);
    EXPECT_EQ(0U, cost.programs);
}

TEST_F(CreateCost, OfAListingIsNoSyncAndNoProgram) {
    const testkit::Cost cost = testkit::traceCost([this] {
        QLIBCSZLIST *list = QLIBCSzListAlloc(512);
        const bool good = QOVAShareSnapList(share_.get(), &list, nullptr) == 0 && list->nItem == 1;
        QLIBCSzListFree(list);
        return good;
    });
    EXPECT_TRUE(cost.whole);
    EXPECT_EQ(0U, cost.syncs);
    EXPECT_EQ(0U, cost.programs);
}

} // namespace
