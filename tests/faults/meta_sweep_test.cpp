#include "faults/export_sweep.hpp"
#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/metadata_fixture.hpp"

#include <sharesnap/frame.h>
#include <sharesnap/platform/error.h>

#include <cstdio>
#include <filesystem>
#include <optional>

namespace {

using testkit::FaultPoint;
using testkit::Names;
using testkit::Pairs;

constexpr const char *twoSections = "[GMT-2026.01.01-00.00.00]\nhide=false\n[GMT-2026.01.02-03.04.05]\nhide=false\n";

class MetaFaults : public testkit::MetadataTest {
protected:
    // Runs the operation on the text with each of its calls failing once. A failure is -1 and leaves a code and no file
    // but the metadata file; what it leaves in that is for `more` to look at, which gets the point and the result.
    void sweep(const char *function, const std::string &text, const std::function<int()> &operation, int done,
               const std::function<void(const FaultPoint &, int)> &more) {
        testkit::Sweep run;
        run.function = function;
        int result = 0;
        std::optional<testkit::Leftovers> before;
        run.prepare = [&] {
            std::filesystem::remove("/vol1/@sharesnap/@other.meta");
            writeMeta(text);
            QLIBCErrSetEx(0, "", 0);
            before.emplace(std::vector<std::string>{"/vol1/@sharesnap"});
        };
        run.operation = [&] { result = operation(); };
        run.check = [&](const FaultPoint &point) {
            EXPECT_TRUE(result == done || result == -1) << point << " gave " << result;
            if (result == -1 && done != -1) {
                EXPECT_NE(0u, QLIBCErrGet()) << point;
            }
            if (!point.leavesBehind() && !testkit::exists("/vol1/@sharesnap/@other.meta")) {
                EXPECT_EQ("", before->compare()) << point;
            }
            more(point, result);
        };
        EXPECT_GT(run.run(), 0u);
        EXPECT_EQ(done, result) << "without a failure";
    }

    static bool isRead(const FaultPoint &point) {
        return point.symbol == "getdelim" || point.symbol == "__getdelim" || point.symbol == "QLIBCStrSepPair";
    }
};

TEST_F(MetaFaults, FindingAndMakingTheFile) {
    char path[4096] = "";
    faults::sweep(
        {"SnapMetaGetOrCreateFile",
         1,
         {{"QOVABtrfsIsSubVol", {1}}, {"stat", {1}}, {"open", {0, 0x0C00}}, {"close", {1}}},
         {metaPath}},
        [] { std::filesystem::remove(metaPath); },
        [&] { return SnapMetaGetOrCreateFile(docs(), path, sizeof(path), 1); },
        [](const FaultPoint &, int result) { EXPECT_EQ(result == 1, testkit::exists(metaPath)); });
    writeMeta("[a]\nx=y\n");
    faults::sweep(
        {"SnapMetaGetOrCreateFile", 1, {{"QOVABtrfsIsSubVol", {1}}, {"stat", {0}}, {"lstat", {1}}}}, {},
        [&] { return SnapMetaGetOrCreateFile(docs(), path, sizeof(path), 0); },
        [](const FaultPoint &, int) { EXPECT_EQ("[a]\nx=y\n", meta()); });
}

TEST_F(MetaFaults, AddingASelector) {
    QOVAShareSnapEnum *chain = nullptr;
    char data[] = "hide=false";
    faults::sweep(
        {"QOVAShareSnapSelectorAdd", 0, {{"malloc", {-1, 0x0200}}}},
        [&] {
            QOVAShareSnapEnumFree(chain);
            chain = nullptr;
        },
        [&] { return QOVAShareSnapSelectorAdd(&chain, QOVAShareSnapAttrSelector, data); },
        [&](const FaultPoint &, int result) { EXPECT_EQ(result == 0, chain != nullptr); });
    QOVAShareSnapEnumFree(chain);
}

TEST_F(MetaFaults, AddingASection) {
    const Pairs pairs = {{"k", "v"}, {"l", "w"}};
    sweep(
        "QOVAShareSnapMetaSectionAdd", "[a]\nx=y\n",
        [&] { return QOVAShareSnapMetaSectionAdd(docs(), "b", pairs.get()); }, 0,
        [&](const FaultPoint &point, int result) {
            EXPECT_EQ(result == 0 ? "[a]\nx=y\n[b]\nk=v\nl=w\n" : "[a]\nx=y\n", meta()) << point;
        });
}

TEST_F(MetaFaults, AddingTheFirstSection) {
    const Pairs pairs = {{"k", "v"}};
    testkit::Sweep run;
    int result = 0;
    run.function = "QOVAShareSnapMetaSectionAdd";
    run.prepare = [&] { std::filesystem::remove(metaPath); };
    run.operation = [&] { result = QOVAShareSnapMetaSectionAdd(docs(), "a", pairs.get()); };
    run.check = [&](const FaultPoint &point) { EXPECT_EQ(result == 0 ? "[a]\nk=v\n" : "", meta()) << point; };
    EXPECT_GT(run.run(), 0u);
}

TEST_F(MetaFaults, RemovingASection) {
    sweep(
        "SnapMetaSectionDel", "[a]\nx=y\n[b]\nk=v\n", [&] { return SnapMetaSectionDel(docs(), "a", 1); }, 0,
        [&](const FaultPoint &point, int result) {
            EXPECT_EQ(result == 0 ? "[b]\nk=v\n" : "[a]\nx=y\n[b]\nk=v\n", meta()) << point;
        });
}

TEST_F(MetaFaults, RemovingTheFile) {
    // A file that can't be resolved is no failure: 0, and it stands.
    sweep(
        "SnapMetaFileDelete", "[a]\nx=y\n", [&] { return SnapMetaFileDelete(docs()); }, 0,
        [&](const FaultPoint &point, int result) {
            if (result == -1) {
                EXPECT_EQ("[a]\nx=y\n", meta()) << point;
            }
        });
}

TEST_F(MetaFaults, MovingTheFile) {
    ASSERT_EQ("", testkit::makeShare("other"));
    const testkit::SharePointer other = testkit::getShare("other");
    sweep(
        "SnapMetaFileRename", "[a]\nx=y\n", [&] { return SnapMetaFileRename(docs(), other.get()); }, 0,
        [&](const FaultPoint &point, int) {
            // In one place or the other, whole.
            EXPECT_EQ("[a]\nx=y\n", meta() + testkit::readFile("/vol1/@sharesnap/@other.meta")) << point;
        });
}

TEST_F(MetaFaults, ListingIsWholeOrFails) {
    Names names;
    sweep(
        "QOVAShareSnapList", twoSections,
        [&] {
            QLIBCSzListRemoveAll(names.get());
            return QOVAShareSnapList(docs(), names.address(), nullptr);
        },
        0,
        [&](const FaultPoint &point, int result) {
            // A read error counts as the end of the file, and so does a file that can't be seen.
            if (result == 0 && !isRead(point) && point.symbol != "stat" && point.symbol != "stat64") {
                EXPECT_EQ(2u, names.all().size()) << point;
            }
        });
}

TEST_F(MetaFaults, ReadingASection) {
    Pairs pairs;
    char name[64];
    sweep(
        "SnapFileGetNextSection", twoSections,
        [&] {
            FILE *stream = nullptr;
            {
                const testkit::Bypass quiet;
                stream = std::fopen(metaPath, "re");
            }
            const int result = SnapFileGetNextSection(stream, name, sizeof(name), pairs.address());
            std::fclose(stream);
            return result == 0 ? 1 : result; // a read error gives what was gathered
        },
        1, [](const FaultPoint &, int) {});
}

TEST_F(MetaFaults, FindingTheLatest) {
    char name[64] = "";
    sweep(
        "QOVAShareSnapGetLatest", twoSections,
        [&] {
            const int result = QOVAShareSnapGetLatest(docs(), name, sizeof(name));
            return result == 0 ? 1 : result; // a list that ends early may be empty
        },
        1, [](const FaultPoint &, int) {});
}

TEST_F(MetaFaults, FindingByTime) {
    char name[64] = "";
    testkit::Sweep run;
    int result = 0;
    writeMeta("[GMT+0530-2026.01.02-08.34.05]\nhide=false\n");
    run.function = "QOVAShareSnapNameGetByTime";
    run.operation = [&] { result = QOVAShareSnapNameGetByTime(docs(), name, sizeof(name), 1767323045); };
    run.check = [&](const FaultPoint &point) {
        EXPECT_TRUE(result == 0 || result == -1) << point;
        if (result == 0) {
            EXPECT_STREQ("GMT+0530-2026.01.02-08.34.05", name) << point;
        }
    };
    EXPECT_GT(run.run(), 0u);
    EXPECT_EQ(0, result);
}

} // namespace
