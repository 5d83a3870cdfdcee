// The retrying share getter is inline in the rooms that use it. Seen from outside it is what reconciliation of all
// shares and the deleting count do before anything else.
#include "support/faults.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"

#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/error.h>

#include <algorithm>

namespace {

class ShareGetter : public testkit::AnyVolumeTest {
protected:
    void SetUp() override {
        AnyVolumeTest::SetUp();
        if (!IsSkipped()) {
            ASSERT_EQ("", testkit::makeShare("docs"));
        }
    }

    int count() {
        uint32_t deleting = 0;
        QLIBCErrSetEx(0, "", 0);
        return QOVAShareSnapDeletingCountGet("/vol1/docs", &deleting);
    }

    testkit::NoSleep naps;
};

TEST_F(ShareGetter, ABusyDatabaseIsAskedFiveTimes) {
    const testkit::Fault busy("QOVAShareGet", 0, 0, -1, 0x0400);
    (void)count();
    EXPECT_EQ(5u, busy.calls());
    EXPECT_EQ(0x0400u, QLIBCErrGet());
    ASSERT_EQ(5u, naps.seconds().size()); // behind the last attempt, too
    EXPECT_LE(*std::max_element(naps.seconds().begin(), naps.seconds().end()), 4u);
    EXPECT_EQ(3u, testkit::logCount(LOG_DEBUG, "Failed to get the share (docs), re-try ("));
    for (const char *attempt : {"2", "3", "4"}) {
        EXPECT_EQ(1u, testkit::logCount(LOG_DEBUG, std::string("re-try (") + attempt + ")[0x0400"));
    }
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get share (docs)[0x0400"));
}

TEST_F(ShareGetter, GoesOnAsSoonAsTheDatabaseAnswers) {
    int calls = 0;
    const testkit::Replacement<int(const char *, QOVASHARE **)> get(
        "QOVAShareGet", [&](const char *name, QOVASHARE **share) {
            if (++calls < 5) {
                QLIBCErrSetEx(SNAP_ERR_BUSY, "test", 1);
                return -1;
            }
            return testkit::real<int(const char *, QOVASHARE **)>("QOVAShareGet")(name, share);
        });
    EXPECT_EQ(0, count());
    EXPECT_EQ(5, calls);
    EXPECT_EQ(4u, naps.seconds().size());
    EXPECT_TRUE(testkit::nothingFailed());
}

TEST_F(ShareGetter, AnyOtherFailureEndsItAtOnce) {
    const testkit::Fault gone("QOVAShareGet", 0, 0, -1, 0x2200);
    (void)count();
    EXPECT_EQ(1u, gone.calls());
    EXPECT_TRUE(naps.seconds().empty());
    EXPECT_TRUE(
        testkit::loggedMatch(LOG_ERR, "^share_info_get\\.h:[0-9]+ QOVAShareGet failed\\. share \\(docs\\)\\[0x2200 "));
    EXPECT_EQ(0u, testkit::logCount(LOG_DEBUG, "re-try"));
}

TEST_F(ShareGetter, NullIsFreedWithoutHarm) {
    QOVAShareFree(nullptr);
    QLIBCSzListFree(nullptr);
    QLIBCSzHashFree(nullptr);
}

} // namespace
