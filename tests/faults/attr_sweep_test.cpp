#include "faults/export_sweep.hpp"
#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/metadata_fixture.hpp"

#include <sharesnap/platform/error.h>
#include <sharesnap/platform/subvolume.h>

#include <optional>

namespace {

using testkit::FaultPoint;
using testkit::Pairs;

using faults::borne;
using faults::Outcomes;
using faults::with;

// A path that can't be looked at counts as absent: that is no failure but for the file itself.
const Outcomes kReading = borne(0, {"QOVABtrfsIsSubVol", "lstat", "QLIBCFileUnlockByFile"});
// A file that can't be seen is made anew, which leaves what stands.
const Outcomes kWriting = with(kReading, {{"stat", {0}}});

class AttrFaults : public testkit::MetadataTest {
protected:
    static constexpr const char *before = "[a]\nhide=false\nk=v\n[b]\nk=w\n";

    // Runs the operation on a share with the visible snapshot a, each of its calls failing once.
    static void sweep(const faults::Export &exported, const faults::Operation &operation, const faults::Truth &truth) {
        faults::sweep(
            exported,
            [] {
                writeMeta(before);
                (void)QOVABtrfsSubvolHideAttrSet(subvolume("a").c_str(), 0);
            },
            operation, truth);
    }
};

TEST_F(AttrFaults, Reading) {
    char value[16] = "";
    sweep(
        {"QOVAShareSnapAttrGet", 0, with(kReading, {{"stat", {-1, 0}}})},
        [&] { return QOVAShareSnapAttrGet(docs(), "a", "k", value, sizeof(value)); },
        [&](const FaultPoint &point, int result) {
            if (result == 0) {
                EXPECT_STREQ("v", value) << point;
            }
            EXPECT_EQ(before, meta()) << point;
        });
    std::optional<Pairs> pairs;
    sweep(
        {"QOVAShareSnapAttrList", 0, with(kReading, {{"stat", {-1, 0x2200}}})},
        [&] {
            pairs.emplace();
            return QOVAShareSnapAttrList(docs(), "a", pairs->address());
        },
        [&](const FaultPoint &point, int result) {
            EXPECT_EQ(result == 0 ? 2u : 0u, pairs->all().size()) << point;
            EXPECT_EQ(before, meta()) << point;
        });
}

TEST_F(AttrFaults, SettingOne) {
    sweep(
        {"QOVAShareSnapAttrSet", 0, kWriting}, [&] { return QOVAShareSnapAttrSet(docs(), "a", "k", "new"); },
        [&](const FaultPoint &point, int result) {
            EXPECT_EQ(result == 0 ? "[a]\nhide=false\nk=new\n[b]\nk=w\n" : before, meta()) << point;
        });
}

TEST_F(AttrFaults, HidingWithOneChangesFileAndSubvolumeOrNeither) {
    takeSubvolume("a");
    sweep(
        {"QOVAShareSnapAttrSet", 0,
         with(
             kWriting,
             {{"strdup", {-1, 0x0200}}, {"QOVABtrfsIsSubVol 2", {-1, 0x2A00}}, {"QOVABtrfsIsSubVol 4", {-1, 0x0C00}}})},
        [&] { return QOVAShareSnapAttrSet(docs(), "a", "hide", "true"); },
        [&](const FaultPoint &point, int result) {
            EXPECT_EQ(result == 0 ? "[a]\nhide=true\nk=v\n[b]\nk=w\n" : before, meta()) << point;
            EXPECT_EQ(result == 0 ? "true" : "false", markOf("a")) << point;
        });
}

TEST_F(AttrFaults, SettingManyWritesAllOrNone) {
    // Once the lock is held the register alone tells of a failure.
    const Outcomes outcomes = with(kWriting, {{"QLIBCFileGetSection", {0, 0x0900}},
                                              {"QLIBCSzHashSetValue", {0, 0x0200}},
                                              {"QLIBCFileSetSection", {0, 0x0B00}},
                                              {"QLIBShareIsEncryptionGet 2", {0, 0x2A00}},
                                              {"QLIBShareIsEncryptionGet 3", {0, 0x2A00}},
                                              {"QOVAShareVolPathGet 2", {0, 0x2A00}},
                                              {"QOVAShareVolPathGet 3", {0, 0x2A00}},
                                              {"QOVAGetFSType", {0, 0x2A00}},
                                              {"QOVABtrfsIsSubVol 2", {0, 0x2A00}},
                                              {"QOVABtrfsIsSubVol 4", {0, 0x0C00}},
                                              {"QOVABtrfsSubvolHideAttrSet", {0, 0x2A00}}});
    takeSubvolume("a");
    const Pairs pairs = {{"hide", "true"}, {"k", "new"}, {"l", "x"}};
    const std::string after = "[a]\nhide=true\nk=new\nl=x\n[b]\nk=w\n";
    size_t failedQuietly = 0;
    sweep(
        {"QOVAShareSnapAttrMultiSet", 0, outcomes}, [&] { return QOVAShareSnapAttrMultiSet(docs(), "a", pairs.get()); },
        [&](const FaultPoint &point, int result) {
            if (point.symbol == "QLIBCSzHashSetValue") {
                return; // a pair that can't be held is left out
            }
            EXPECT_TRUE(meta() == before || meta() == after) << point << "\n" << meta();
            if (result == -1) {
                EXPECT_EQ(before, meta()) << point;
            } else if (meta() == before || markOf("a") == "false") {
                EXPECT_NE(0u, QLIBCErrGet()) << point; // the register alone tells
                ++failedQuietly;
            }
        });
    EXPECT_GT(failedQuietly, 0u);
}

TEST_F(AttrFaults, Deleting) {
    sweep(
        {"QOVAShareSnapAttrDelete", 0, with(kReading, {{"stat", {-1, 0x0D00}}})},
        [&] { return QOVAShareSnapAttrDelete(docs(), "a", "k"); },
        [&](const FaultPoint &point, int result) {
            EXPECT_EQ(result == 0 ? "[a]\nhide=false\n[b]\nk=w\n" : before, meta()) << point;
        });
}

TEST_F(AttrFaults, Defaults) {
    std::optional<Pairs> pairs;
    sweep(
        {"QOVAShareSnapDefaultAttr", 1,
         with(borne(1, {"fclose", "QLIBCSzHashSetValue"}), {{"fopen", {-1, 0x2A00}}, {"getdelim", {-1, 0x2A00}}})},
        [&] {
            pairs.emplace();
            return QOVAShareSnapDefaultAttr(pairs->address());
        },
        [&](const FaultPoint &point, int result) {
            const size_t wanted = point.symbol == "QLIBCSzHashSetValue" ? 3 : 4;
            EXPECT_EQ(result == 1 ? wanted : 0u, pairs->all().size()) << point;
        });
}

} // namespace
