#include "faults/export_sweep.hpp"
#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/log_capture.hpp"
#include "support/metadata_fixture.hpp"

#include <sharesnap/counters.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/subvolume.h>

#include <algorithm>
#include <optional>

namespace {

using testkit::FaultPoint;

// A share whose metadata disagrees with the volume in each of the ways there are.
class SyncFaults : public testkit::MetadataTest {
protected:
    void SetUp() override {
        if (testkit::Sandbox::simulated()) {
            GTEST_SKIP() << "needs the real storage core";
        }
        MetadataTest::SetUp();
        if (!IsSkipped()) {
            takeSubvolume("kept");
            takeSubvolume("missing");
            takeSubvolume("orphan", true);
        }
    }

    static constexpr const char *disagreeing = "[stale]\nhide=false\n[kept]\nhide=false\ndesc=mine\n";

    void disagree() {
        writeMeta(disagreeing);
        ASSERT_EQ(0, QOVABtrfsSubvolHideAttrSet(subvolume("orphan").c_str(), 1));
        QLIBCErrSetEx(0, "", 0);
    }

    // What holds whatever failed: the volume is untouched, and what a user wrote is still there.
    void nothingLost(const FaultPoint &point) {
        for (const char *name : {"kept", "missing", "orphan"}) {
            EXPECT_TRUE(testkit::exists(subvolume(name))) << point;
        }
        EXPECT_NE(std::string::npos, meta().find("desc=mine")) << point << "\n" << meta();
    }

    // A second run without a failure mends all that the first one left.
    void mends(const FaultPoint &point) {
        ASSERT_EQ(0, QOVAShareSnapMetaSync(docs())) << point;
        std::vector<std::string> names = listed();
        std::sort(names.begin(), names.end());
        EXPECT_EQ((std::vector<std::string>{"kept", "missing", "orphan"}), names) << point;
        int count = -1;
        EXPECT_LE(0, QOVAShareSnapGetSnapCount(docs(), &count, 0)) << point;
        int recount = -1;
        EXPECT_LE(0, QOVAShareSnapGetSnapCount(docs(), &recount, 1)) << point;
        EXPECT_EQ(recount, count) << point;
    }
};

TEST_F(SyncFaults, OneShare) {
    const faults::Codes codes = {
        {"QOVAMountVolInfoGet", {0x8300}},
        {"fgets", {0x2A00}},
        {"malloc", {0x0200}},
        {"fopen", {0x0900}},
        {"QOVAShareVolPathGet", {0x2A00, 0x0700}}, // of the volume and of the metadata file
        {"QLIBShareIsEncryptionGet", {0x2A00, 0x0700}},
        {"setxattr", {}}, // a counter that can't be stored is told by a line with errno alone
    };
    testkit::Sweep run;
    run.function = "QOVAShareSnapMetaSync";
    int result = 0;
    std::optional<testkit::Leftovers> before;
    run.prepare = [&] {
        disagree();
        before.emplace(std::vector<std::string>{"/vol1/@sharesnap"});
    };
    run.operation = [&] { result = QOVAShareSnapMetaSync(docs()); };
    run.check = [&](const FaultPoint &point) {
        EXPECT_TRUE(result == 0 || result == -1) << point;
        EXPECT_TRUE(result == 0 || faults::isCodeOf(codes, point, QLIBCErrGet())) << point;
        if (!point.leavesBehind()) {
            EXPECT_EQ("", before->compare()) << point;
        }
        nothingLost(point);
        mends(point);
        testkit::logClear();
    };
    EXPECT_GT(run.run(), 50u);
    EXPECT_EQ(0, result);
}

TEST_F(SyncFaults, ListOfTheVolume) {
    std::optional<testkit::Names> paths;
    faults::sweep(
        {"SnapMetaSyncBtrfsListVol", 0, {{"fgets", {-1, 0x2A00}}, {"QLIBCPclose", {0}}}}, [&] { paths.emplace(); },
        [&] { return SnapMetaSyncBtrfsListVol("/vol1", paths->address()); },
        [&](const FaultPoint &, int result) {
            if (result == 0) {
                EXPECT_EQ(6U, paths->all().size());
            }
        });
    std::optional<testkit::Names> names;
    faults::sweep(
        {"SnapMetaSyncFindShareSnapList", 0}, [&] { names.emplace(); },
        [&] { return SnapMetaSyncFindShareSnapList(docs(), paths->get(), names->address()); },
        [&](const FaultPoint &, int result) {
            if (result == 0) {
                EXPECT_EQ(3U, names->all().size());
            }
        });
}

TEST_F(SyncFaults, AllShares) {
    testkit::Sweep run;
    run.function = "QOVAShareSnapMetaSyncAll";
    int result = 0;
    // What happens within one share is swept above.
    run.only = {"QLIBCSzListAlloc", "QOVAMountVolAllEnum", "QOVAShareEnumByMntPathAndEnumType", "QOVAShareGet",
                "QOVAMountVolInfoGet"};
    std::optional<testkit::Leftovers> before;
    run.prepare = [&] {
        disagree();
        before.emplace(std::vector<std::string>{"/vol1/@sharesnap"});
    };
    run.operation = [&] { result = QOVAShareSnapMetaSyncAll(); };
    run.check = [&](const FaultPoint &point) {
        const bool first = point.symbol == "QLIBCSzListAlloc" && point.index == 1;
        EXPECT_EQ(first ? -1 : 0, result) << point;
        EXPECT_EQ("", before->compare()) << point;
        nothingLost(point);
        mends(point);
        testkit::logClear();
    };
    EXPECT_GT(run.run(), 4u);
    EXPECT_EQ(0, result);
}

} // namespace
