// What a snapshot of a plain share costs beside the snapshot itself.
#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>

#include <cstdio>
#include <gtest/gtest.h>
#include <string>

#include "support/bounded.hpp"
#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/trace.hpp"

namespace {

class CreateCost : public testkit::DocsVolumeTest {
protected:
    void SetUp() override {
        DocsVolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        // The first one makes what later ones find.
        ASSERT_EQ(0, ShareSnapCreateNameConflictRetry(share_.get(), nullptr, 0, nullptr, 10));
    }
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

// All attributes of a snapshot go into its section at once.
TEST_F(CreateCost, IsTheSameForManyAttributes) {
    time_t now = 1767323045;
    const auto cost = [this, &now](int attributes) {
        const testkit::FixedTime clock(++now); // no name is taken already
        QLIBCSZHASH *hash = QLIBCSzHashAlloc(4096);
        for (int i = 0; i < attributes; ++i) {
            EXPECT_LE(0, QLIBCSzHashSetValue(&hash, ("key" + std::to_string(i)).c_str(), "value"));
        }
        const testkit::Cost traced = testkit::traceCost(
            [this, &hash] { return ShareSnapCreateNameConflictRetry(share_.get(), nullptr, 0, &hash, 10) == 0; });
        QLIBCSzHashFree(hash);
        EXPECT_TRUE(traced.whole);
        return traced;
    };
    const testkit::Cost few = cost(1);
    const testkit::Cost many = cost(48);
    std::printf("[  COST    ] of 1 attribute: %zu calls, of 48: %zu\n", few.calls, many.calls);
    EXPECT_EQ(few.syncs, many.syncs);
    if (testkit::hasOwnMemory()) {
        EXPECT_GE(few.calls + 47, many.calls);
    }
}

// Selectors that ask for a value of each snapshot don't read the file again for it.
TEST_F(CreateCost, OfASelectionIsAFewTimesThroughTheFile) {
    constexpr int standing = 100;
    std::string text = testkit::readFile("/vol1/@sharesnap/@docs.meta");
    for (int i = 1; i < standing; ++i) {
        text +=
            "[GMT-2001.01.01-" + std::to_string(i) + "]\nhide=false\ncolor=red\ndesc=" + std::string(200, 'd') + "\n";
    }
    ASSERT_TRUE(testkit::writeFile("/vol1/@sharesnap/@docs.meta", text));
    const testkit::Cost cost = testkit::traceCost([this] {
        char visible[] = "hide=false";
        char red[] = "color=red";
        QOVAShareSnapEnum *chain = nullptr;
        QLIBCSZLIST *list = QLIBCSzListAlloc(512);
        const bool good = QOVAShareSnapSelectorAdd(&chain, QOVAShareSnapAttrSelector, visible) == 0 &&
                          QOVAShareSnapSelectorAdd(&chain, QOVAShareSnapAttrSelector, red) == 0 &&
                          QOVAShareSnapList(share_.get(), &list, chain) == 0 && list->nItem == standing - 1;
        QLIBCSzListFree(list);
        QOVAShareSnapEnumFree(chain);
        return good;
    });
    std::printf("[  COST    ] of a selection from %zu bytes: %zu read\n", text.size(), cost.bytesRead);
    EXPECT_TRUE(cost.whole);
    EXPECT_EQ(0U, cost.syncs);
    EXPECT_EQ(0U, cost.programs);
    if (testkit::hasOwnMemory()) {
        EXPECT_GE(4 * text.size() + 32768, cost.bytesRead);
    }
}

} // namespace
