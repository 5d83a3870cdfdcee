#include "faults/export_sweep.hpp"
#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/metadata_fixture.hpp"

#include <sharesnap/frame.h>
#include <sharesnap/platform/error.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <optional>

namespace {

using testkit::FaultPoint;
using testkit::Names;
using testkit::Pairs;

constexpr const char *twoSections = "[GMT-2026.01.01-00.00.00]\nhide=false\n[GMT-2026.01.02-03.04.05]\nhide=false\n";

using faults::borne;
using faults::Outcomes;
using faults::with;

// A file that can't be seen is made anew, which leaves what stands.
const Outcomes kAdding =
    with(borne(0, {"QOVABtrfsIsSubVol", "stat", "lstat", "close", "QLIBCFileUnlockByFile"}), {{"open", {-1, 0x0C00}}});

// A read error counts as the end of the file, and a file that can't be seen as none.
Outcomes listing(int done, int none) {
    return with(borne(done, {"QOVABtrfsIsSubVol", "lstat", "malloc", "getdelim", "QLIBCStrSepPair", "fclose",
                             "QLIBCFileUnlockByFile"}),
                with(borne(none, {"stat", "getdelim 1", "getdelim 2", "QLIBCStrSepPair 1"}),
                     {{"QOVAShareVolPathGet", {-1, 0x0700}},
                      {"QLIBShareIsEncryptionGet", {-1, 0x0700}},
                      {"fopen", {-1, 0x0900}}}));
}

// A sanitizer and a memory checker keep memory to themselves.
bool canFailMemory() {
    const std::vector<std::string> symbols = testkit::faultSymbols();
    return std::find(symbols.begin(), symbols.end(), "malloc") != symbols.end() &&
           testkit::readFile("/proc/self/maps").find("vgpreload") == std::string::npos;
}

class MetaFaults : public testkit::MetadataTest {
protected:
    // Runs the operation on the text with each of its calls failing once.
    static void sweep(const faults::Export &exported, const std::string &text, const faults::Operation &operation,
                      const faults::Truth &truth = {}) {
        faults::sweep(
            exported,
            [&] {
                std::filesystem::remove("/vol1/@sharesnap/@other.meta");
                writeMeta(text);
            },
            operation, truth);
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
    if (!canFailMemory()) {
        GTEST_SKIP() << "memory belongs to the sanitizer";
    }
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
        {"QOVAShareSnapMetaSectionAdd", 0, kAdding}, "[a]\nx=y\n",
        [&] { return QOVAShareSnapMetaSectionAdd(docs(), "b", pairs.get()); },
        [&](const FaultPoint &point, int result) {
            EXPECT_EQ(result == 0 ? "[a]\nx=y\n[b]\nk=v\nl=w\n" : "[a]\nx=y\n", meta()) << point;
        });
}

TEST_F(MetaFaults, AddingTheFirstSection) {
    const Pairs pairs = {{"k", "v"}};
    faults::sweep(
        {"QOVAShareSnapMetaSectionAdd", 0, kAdding, {metaPath}}, [] { std::filesystem::remove(metaPath); },
        [&] { return QOVAShareSnapMetaSectionAdd(docs(), "a", pairs.get()); },
        [](const FaultPoint &, int result) { EXPECT_EQ(result == 0 ? "[a]\nk=v\n" : "", meta()); });
}

TEST_F(MetaFaults, RemovingASection) {
    sweep(
        {"SnapMetaSectionDel", 0,
         with(borne(0, {"QOVABtrfsIsSubVol", "lstat", "QLIBCFileUnlockByFile"}),
              {{"QOVAShareVolPathGet", {-1, 0x0700}},
               {"QLIBShareIsEncryptionGet", {-1, 0x0700}},
               {"stat", {-1, 0x0700}}})},
        "[a]\nx=y\n[b]\nk=v\n", [&] { return SnapMetaSectionDel(docs(), "a", 1); },
        [&](const FaultPoint &point, int result) {
            EXPECT_EQ(result == 0 ? "[b]\nk=v\n" : "[a]\nx=y\n[b]\nk=v\n", meta()) << point;
        });
}

TEST_F(MetaFaults, RemovingTheFile) {
    // A file that can't be resolved is no failure: 0, and it stands.
    sweep(
        {"SnapMetaFileDelete", 0,
         with(borne(0, {"QOVAShareVolPathGet", "QOVABtrfsIsSubVol", "QLIBShareIsEncryptionGet", "stat", "lstat"}),
              {{"unlink", {-1, 0x2A00}}})},
        "[a]\nx=y\n", [&] { return SnapMetaFileDelete(docs()); },
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
        {"SnapMetaFileRename",
         0,
         with(borne(0, {"QOVABtrfsIsSubVol", "stat", "lstat"}), {{"QOVAShareVolPathGet 2", {-1, 0xBE00}},
                                                                 {"QLIBShareIsEncryptionGet 2", {-1, 0xBE00}},
                                                                 {"rename", {-1, 0x2A00}}}),
         {"/vol1/@sharesnap/@other.meta"}},
        "[a]\nx=y\n", [&] { return SnapMetaFileRename(docs(), other.get()); },
        [&](const FaultPoint &point, int) {
            // In one place or the other, whole.
            EXPECT_EQ("[a]\nx=y\n", meta() + testkit::readFile("/vol1/@sharesnap/@other.meta")) << point;
        });
}

TEST_F(MetaFaults, ListingIsWholeOrFails) {
    Names names;
    sweep(
        {"QOVAShareSnapList", 0, listing(0, 0)}, twoSections,
        [&] {
            QLIBCSzListRemoveAll(names.get());
            return QOVAShareSnapList(docs(), names.address(), nullptr);
        },
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
    sweep({"SnapFileGetNextSection", 1, borne(1, {"getdelim", "QLIBCStrSepPair"})}, twoSections, [&] {
        FILE *stream = nullptr;
        {
            const testkit::Bypass quiet;
            stream = std::fopen(metaPath, "re");
        }
        const int result = SnapFileGetNextSection(stream, name, sizeof(name), pairs.address());
        std::fclose(stream);
        return result == 0 ? 1 : result; // a read error gives what was gathered
    });
}

TEST_F(MetaFaults, FindingTheLatest) {
    char name[64] = "";
    sweep({"QOVAShareSnapGetLatest", 1, with(listing(1, 0), {{"malloc 1", {-1, 0x0200}}})}, twoSections, [&] {
        name[0] = '\0';
        return QOVAShareSnapGetLatest(docs(), name, sizeof(name));
    });
}

// A name that can't be looked for is passed over; what then isn't found leaves the code of the last look.
TEST_F(MetaFaults, FindingByTime) {
    const Outcomes names = borne(0, {"localtime_r", "gmtime_r", "QLIBShareIsEncryptionGet", "QOVAShareVolPathGet",
                                     "QOVAGetFSType", "QOVABtrfsIsSubVol"});
    const Outcomes outcomes = with(with(listing(0, 0), names), {{"malloc 1", {-1, 0x0200}},
                                                                {"QOVAShareVolPathGet 5", {-1, 0x0700}},
                                                                {"QLIBShareIsEncryptionGet 5", {-1, 0x0700}},
                                                                {"stat", {-1, 0x2A00}},
                                                                {"getdelim 1", {-1, 0x2A00}},
                                                                {"getdelim 2", {-1, 0x2A00}},
                                                                {"QLIBCStrSepPair 1", {-1, 0x0200}}});
    char name[64] = "";
    const std::string other = "GMT+0530-2026.01.02-08.34.05"; // the name in another time zone
    sweep(
        {"QOVAShareSnapNameGetByTime", 0, outcomes}, "[" + other + "]\nhide=false\n",
        [&] {
            name[0] = '\0';
            return QOVAShareSnapNameGetByTime(docs(), name, sizeof(name), 1767323045);
        },
        [&](const FaultPoint &, int result) { EXPECT_EQ(result == 0 ? other : "", name); });
}

} // namespace
