#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/metadata_fixture.hpp"

#include <sharesnap/platform/error.h>
#include <sharesnap/platform/subvolume.h>

#include <optional>

namespace {

using testkit::FaultPoint;
using testkit::Pairs;

class AttrFaults : public testkit::MetadataTest {
protected:
    static constexpr const char *before = "[a]\nhide=false\nk=v\n[b]\nk=w\n";

    // Runs the operation on a share with the visible snapshot a, each of its calls failing once. A failure leaves a
    // code; nothing is left over but the sections, at which `more` looks.
    void sweep(const char *function, const std::function<int()> &operation,
               const std::function<void(const FaultPoint &, int)> &more) {
        testkit::Sweep run;
        run.function = function;
        int result = 0;
        std::optional<testkit::Leftovers> leftovers;
        run.prepare = [&] {
            writeMeta(before);
            (void)QOVABtrfsSubvolHideAttrSet(subvolume("a").c_str(), 0);
            QLIBCErrSetEx(0, "", 0);
            leftovers.emplace(std::vector<std::string>{"/vol1/@sharesnap"});
        };
        run.operation = [&] { result = operation(); };
        run.check = [&](const FaultPoint &point) {
            EXPECT_TRUE(result == 0 || result == -1) << point << " gave " << result;
            // A file that can't be seen is a missing one, which has no code of its own.
            if (result == -1 && point.symbol != "stat" && point.symbol != "stat64") {
                EXPECT_NE(0u, QLIBCErrGet()) << point;
            }
            if (!point.leavesBehind()) {
                EXPECT_EQ("", leftovers->compare()) << point;
            }
            more(point, result);
        };
        EXPECT_GT(run.run(), 0u);
        EXPECT_EQ(0, result) << "without a failure";
    }
};

TEST_F(AttrFaults, Reading) {
    char value[16] = "";
    sweep(
        "QOVAShareSnapAttrGet", [&] { return QOVAShareSnapAttrGet(docs(), "a", "k", value, sizeof(value)); },
        [&](const FaultPoint &point, int result) {
            if (result == 0) {
                EXPECT_STREQ("v", value) << point;
            }
            EXPECT_EQ(before, meta()) << point;
        });
    std::optional<Pairs> pairs;
    sweep(
        "QOVAShareSnapAttrList",
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
        "QOVAShareSnapAttrSet", [&] { return QOVAShareSnapAttrSet(docs(), "a", "k", "new"); },
        [&](const FaultPoint &point, int result) {
            EXPECT_EQ(result == 0 ? "[a]\nhide=false\nk=new\n[b]\nk=w\n" : before, meta()) << point;
        });
}

TEST_F(AttrFaults, HidingWithOneChangesFileAndSubvolumeOrNeither) {
    takeSubvolume("a");
    sweep(
        "QOVAShareSnapAttrSet", [&] { return QOVAShareSnapAttrSet(docs(), "a", "hide", "true"); },
        [&](const FaultPoint &point, int result) {
            EXPECT_EQ(result == 0 ? "[a]\nhide=true\nk=v\n[b]\nk=w\n" : before, meta()) << point;
            EXPECT_EQ(result == 0 ? "true" : "false", markOf("a")) << point;
        });
}

TEST_F(AttrFaults, SettingManyWritesAllOrNone) {
    takeSubvolume("a");
    const Pairs pairs = {{"hide", "true"}, {"k", "new"}, {"l", "x"}};
    const std::string after = "[a]\nhide=true\nk=new\nl=x\n[b]\nk=w\n";
    size_t failedQuietly = 0;
    sweep(
        "QOVAShareSnapAttrMultiSet", [&] { return QOVAShareSnapAttrMultiSet(docs(), "a", pairs.get()); },
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
        "QOVAShareSnapAttrDelete", [&] { return QOVAShareSnapAttrDelete(docs(), "a", "k"); },
        [&](const FaultPoint &point, int result) {
            EXPECT_EQ(result == 0 ? "[a]\nhide=false\n[b]\nk=w\n" : before, meta()) << point;
        });
}

TEST_F(AttrFaults, Defaults) {
    std::optional<Pairs> pairs;
    sweep(
        "QOVAShareSnapDefaultAttr",
        [&] {
            pairs.emplace();
            const int result = QOVAShareSnapDefaultAttr(pairs->address());
            return result == 1 ? 0 : result;
        },
        [&](const FaultPoint &point, int result) {
            const size_t wanted = point.symbol == "QLIBCSzHashSetValue" ? 3 : 4;
            EXPECT_EQ(result == 0 ? wanted : 0u, pairs->all().size()) << point;
        });
}

} // namespace
