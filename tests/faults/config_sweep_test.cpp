// Every call that the settings and the frozen configuration make to the platform or to the C library fails once. After
// each: the result and the code that are due, nothing left over, and no setting lost.
#include <sharesnap/config.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/account.h>
#include <sharesnap/platform/quota.h>
#include <sharesnap/platform/subvolume.h>

#include <cstdlib>
#include <filesystem>
#include <optional>

#include "faults/export_sweep.hpp"
#include "support/files.hpp"
#include "support/metadata_fixture.hpp"

namespace {

using faults::borne;
using faults::Outcomes;
using faults::sweep;
using faults::with;
using testkit::FaultPoint;
using testkit::Names;
using testkit::Pairs;

constexpr char kConfDirectory[] = "/usr/qova/etc/sharesnap";
constexpr char kConfFile[] = "/usr/qova/etc/sharesnap/sharesnap.conf";
const std::string kOthers = "[other]\nkeep=1\n";

// A file or directory that can't be seen counts as absent.
Outcomes reading(int done) {
    return with(borne(0, {"stat"}), borne(done, {"lstat", "QLIBCFileUnlockByFile"}));
}

// One that can't be seen is made anew, which leaves what stands.
const Outcomes kWriting = with(borne(0, {"stat", "lstat", "close", "QLIBCFileUnlockByFile"}),
                               {{"mkdir", {-1, 0x0C00}}, {"open", {-1, 0x0C00}}});

class FailingSettings : public testkit::SandboxTest {
protected:
    static void write(const std::string &text) {
        ASSERT_TRUE(testkit::makeDirectories(kConfDirectory));
        ASSERT_TRUE(testkit::writeFile(kConfFile, text));
    }
    static std::string read() { return testkit::readFile(kConfFile); }

    // The settings are only read.
    static void sweepRead(const faults::Export &exported, const std::function<int()> &operation,
                          const faults::Truth &truth) {
        const std::string text = kOthers + "[docs]\nschedule_task_id=42\n";
        sweep(
            exported, [&] { write(text); }, operation,
            [&](const FaultPoint &point, int result) {
                truth(point, result);
                EXPECT_EQ(text, read());
            });
    }
};

TEST_F(FailingSettings, AreReadOneByOne) {
    char value[64] = "";
    sweepRead(
        {"QOVAShareSnapConfGet", 1, reading(1)},
        [&] {
            value[0] = '\0';
            return QOVAShareSnapConfGet("docs", "schedule_task_id", value, sizeof(value));
        },
        [&](const FaultPoint &, int result) { EXPECT_STREQ(result == 1 ? "42" : "", value); });
}

TEST_F(FailingSettings, AreReadTogether) {
    std::optional<Pairs> pairs;
    sweepRead(
        {"QOVAShareSnapConfList", 1, reading(1)},
        [&] {
            pairs.emplace();
            return QOVAShareSnapConfList("docs", pairs->address());
        },
        [&](const FaultPoint &, int result) { EXPECT_EQ(result == 1 ? 1U : 0U, pairs->all().size()); });
}

TEST_F(FailingSettings, AreEnumerated) {
    std::optional<Names> names;
    sweepRead(
        {"QOVAShareSnapConfEnumSection", 0, reading(0)},
        [&] {
            names.emplace();
            return QOVAShareSnapConfEnumSection(names->address());
        },
        [&](const FaultPoint &point, int result) {
            const bool read = result == 0 && point.symbol.rfind("stat", 0) != 0;
            EXPECT_EQ(read ? 2U : 0U, names->all().size());
        });
}

// Failures of single sections are passed over: the first section isn't the one that is searched for, the second is.
TEST_F(FailingSettings, AreSearchedForATask) {
    char name[64] = "";
    const Outcomes outcomes = with(
        borne(1, {"lstat", "QLIBCFileUnlockByFile", "stat", "QLIBCFileLockTimeByFile", "QLIBCFileGetSectionValue"}),
        with(borne(0, {"stat 1", "stat 4", "stat 5", "QLIBCFileLockTimeByFile 3", "QLIBCFileGetSectionValue 2"}),
             {{"QLIBCFileLockTimeByFile 1", {-1, 0x0400}}}));
    sweepRead(
        {"QOVAShareSnapGetShareNameByTaskId", 1, outcomes},
        [&] {
            name[0] = '\0';
            return QOVAShareSnapGetShareNameByTaskId("42", name, sizeof(name));
        },
        [&](const FaultPoint &, int result) { EXPECT_STREQ(result == 1 ? "docs" : "", name); });
}

TEST_F(FailingSettings, AreSet) {
    for (const std::string &start : {kOthers, kOthers + "[docs]\na=1\n"}) {
        sweep(
            {"QOVAShareSnapConfSet", 0, kWriting}, [&] { write(start); },
            [] { return QOVAShareSnapConfSet("docs", "a", "2"); },
            [&](const FaultPoint &, int result) {
                EXPECT_EQ(result == 0 ? kOthers + "[docs]\na=2\n" : start, read());
            });
    }
}

TEST_F(FailingSettings, AreSetForTheFirstTime) {
    sweep(
        {"QOVAShareSnapConfSet", 0, kWriting, {kConfDirectory}}, [] { std::filesystem::remove_all(kConfDirectory); },
        [] { return QOVAShareSnapConfSet("docs", "a", "2"); },
        [&](const FaultPoint &, int result) { EXPECT_EQ(result == 0 ? "[docs]\na=2\n" : "", read()); });
}

TEST_F(FailingSettings, FollowTheShareUnderItsNewName) {
    const std::string start = kOthers + "[docs]\na=1\n";
    const Pairs update = {{"b", "2"}};
    sweep(
        {"QOVAShareSnapConfUpdate", 0, with(kWriting, borne(0, {"QLIBCSzHashSetValue"}))}, [&] { write(start); },
        [&] { return QOVAShareSnapConfUpdate("docs", "papers", update.get()); },
        [&](const FaultPoint &point, int result) {
            // Single pairs of the merge may be lost to a lack of memory; no section ever is.
            const bool kept = point.symbol != "QLIBCSzHashSetValue";
            EXPECT_EQ(result == 0 ? kOthers + "[papers]\na=1\n" + (kept ? "b=2\n" : "") : start, read());
        });
    sweep(
        {"QOVAShareSnapConfUpdate", 0, kWriting}, [&] { write(kOthers); },
        [&] { return QOVAShareSnapConfUpdate("docs", nullptr, update.get()); },
        [&](const FaultPoint &, int result) { EXPECT_EQ(result == 0 ? kOthers + "[docs]\nb=2\n" : kOthers, read()); });
    sweep(
        {"QOVAShareSnapConfUpdate", 0, kWriting}, [&] { write(kOthers); },
        [&] { return QOVAShareSnapConfUpdate("docs", "papers", nullptr); },
        [&](const FaultPoint &, int) { EXPECT_EQ(kOthers, read()); });
}

TEST_F(FailingSettings, GoWithTheShare) {
    const std::string start = "[docs]\na=1\n" + kOthers;
    sweep(
        {"QOVAShareSnapConfDeleteShare", 0, reading(0)}, [&] { write(start); },
        [] { return QOVAShareSnapConfDeleteShare("docs"); },
        [&](const FaultPoint &point, int result) {
            EXPECT_EQ(result == 0 && point.symbol.rfind("stat", 0) != 0 ? kOthers : start, read());
        });
}

constexpr char kEaDir[] = "/vol1/docs/@eaDir";
constexpr char kDirectory[] = "/vol1/docs/@eaDir/sharesnap_share_configuration";
constexpr char kFile[] = "/vol1/docs/@eaDir/sharesnap_share_configuration/share_configuration";

// What fails when the share's settings are read; an account that can't be resolved, and a property that can't be told, are
// passed over.
const Outcomes kSettings =
    with(borne(0, {"QOVAUserGet", "QOVAGroupGet", "QLIBFSGetBTRFSNodatacow", "QLIBFSGetBTRFSCompression"}),
         {{"malloc", {-1, 0x0200}}, {"strdup", {-1, 0x0200}}});

// What fails when the directory and the file are looked for and made. What can't be seen is made anew, which leaves what
// stands.
const Outcomes kPlace = with(borne(0, {"lstat", "stat", "lchown", "close", "QLIBCFileUnlockByFile"}),
                             {{"QLIBShareIsEncryptionGet", {-1, 0xA100}},
                              {"QOVAEAMKDir", {-1, 0xA100}},
                              {"mkdir", {-1, 0x0C00}},
                              {"open", {-1, 0x0C00}}});

const Outcomes kCapture = with(with(kSettings, kPlace), {{"QLIBShareIsEncryptionGet 1", {-1, 0x2A00}}});

// A share with users and groups in each of its lists.
class FailingConfiguration : public testkit::MetadataTest {
protected:
    void SetUp() override {
        if (testkit::Sandbox::simulated()) {
            GTEST_SKIP() << "needs the real storage core";
        }
        MetadataTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        share_ = *docs();
        share_.szDenyList = deny_;
        share_.szRWList = readWrite_;
        share_.szROList = readOnly_;
    }

    [[nodiscard]] const QOVASHARE *share() const { return &share_; }

    static void forgetCapture() { std::filesystem::remove_all(kEaDir); }

    // With a quota database, so that it is copied, too.
    static void makeQuotaDatabase() {
        char path[4096] = "";
        ASSERT_EQ(0, QOVAQuotaDbPathGet("/vol1/docs", path, sizeof(path)));
        ASSERT_TRUE(testkit::makeDirectories(std::filesystem::path(path).parent_path()));
        ASSERT_TRUE(testkit::writeFile(path, "quota"));
    }

    QOVASHARE share_{};
    char deny_[16] = "root,@root";
    char readWrite_[16] = "daemon,@daemon";
    char readOnly_[16] = "bin,@bin";
};

TEST_F(FailingConfiguration, IsFrozenForTheFirstTime) {
    makeQuotaDatabase();
    sweep(
        {"QOVAShareSnapShareInfoSet", 0, kCapture, {kEaDir}}, [] { forgetCapture(); },
        [&] { return QOVAShareSnapShareInfoSet(share()); },
        [](const FaultPoint &, int result) { EXPECT_EQ(result == 0, !testkit::readFile(kFile).empty()); });
}

TEST_F(FailingConfiguration, IsFrozenAgain) {
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(share()));
    const std::string whole = testkit::readFile(kFile);
    const std::string old = "[share_info]\ndesc=old\n";
    sweep(
        {"QOVAShareSnapShareInfoSet", 0, kCapture}, [&] { ASSERT_TRUE(testkit::writeFile(kFile, old)); },
        [&] { return QOVAShareSnapShareInfoSet(share()); },
        [&](const FaultPoint &point, int result) {
            // The section is taken out before it is put in anew.
            const std::string kept = point.symbol == "QLIBCFileAddSection" ? "" : old;
            if (point.symbol == "QOVAUserGet" || point.symbol == "QOVAGroupGet") { // one number of one digit less
                EXPECT_EQ(whole.size() - 1, testkit::readFile(kFile).size());
            } else {
                EXPECT_EQ(result == 0 ? whole : kept, testkit::readFile(kFile));
            }
        });
}

TEST_F(FailingConfiguration, IsReadFromTheShare) {
    std::optional<Pairs> pairs;
    for (const QOVASHARE *one : {share(), docs()}) { // with full and with empty lists
        sweep(
            {"QOVAShareSnapShareInfoGetFromShare", 0, kSettings}, [&] { pairs.emplace(); },
            [&] { return QOVAShareSnapShareInfoGetFromShare(one, pairs->address(), SHARE_INFO_ALL); },
            [&](const FaultPoint &, int result) { EXPECT_EQ(result == 0, pairs->all().size() == 13); });
    }
}

TEST_F(FailingConfiguration, TellsWhereTheQuotaDatabaseGoes) {
    char path[4096] = "";
    sweep(
        {"QOVAShareSnapUserQuotaDBPathGet", 0, kPlace, {kEaDir}}, [] { forgetCapture(); },
        [&] { return QOVAShareSnapUserQuotaDBPathGet(share(), path, sizeof(path)); },
        [&](const FaultPoint &, int result) {
            if (result == 0) {
                EXPECT_EQ(0U, std::string(path).find(std::string(kDirectory) + "/"));
                EXPECT_TRUE(testkit::isDirectory(kDirectory));
            }
        });
}

TEST_F(FailingConfiguration, IsLookedForInASnapshot) {
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(share()));
    takeSubvolume("a");
    sweep({"QOVAShareSnapHasShareInfoFile", 1, {{"QOVABtrfsIsSubVol 2", {1}}}}, {},
          [&] { return QOVAShareSnapHasShareInfoFile(share(), "a"); });
}

TEST_F(FailingConfiguration, IsReadBack) {
    QOVAShareSnapShareInfo *info = nullptr;
    const auto prepare = [&] {
        std::free(info);
        info = nullptr;
    };
    const auto truth = [&](const FaultPoint &, int result) {
        ASSERT_EQ(result == 0, info != nullptr);
        if (info != nullptr) {
            EXPECT_EQ(unsigned{SHARE_INFO_ALL & 0xFF}, info->uMask);
        }
    };
    // A file that can't be seen is read all the same, a directory isn't.
    const Outcomes accounts =
        with(borne(0, {"QOVAUserGetByUID", "QOVAGroupGetByGID"}), {{"malloc", {-1, 0x0200}}, {"strdup", {-1, 0x0200}}});
    const Outcomes outcomes =
        with(with(accounts, borne(0, {"lstat", "stat", "QLIBCFileUnlockByFile"})),
             {{"QLIBShareIsEncryptionGet", {-1, 0xA100}}, {"stat 1", {-1, 0xA100}}, {"stat 2", {-1, 0x0900}}});
    for (const QOVASHARE *one : {share(), docs()}) { // with full and with empty lists
        ASSERT_EQ(0, QOVAShareSnapShareInfoSet(one));
        sweep(
            {"QOVAShareSnapShareInfoGet", 0, outcomes}, prepare, [&] { return QOVAShareSnapShareInfoGet(one, &info); },
            truth);
        Pairs pairs;
        ASSERT_EQ(0, QOVAShareSnapShareInfoGetFromShare(one, pairs.address(), SHARE_INFO_ALL));
        sweep(
            {"QOVAShareSnapShareInfoGetByHash", 0, accounts}, prepare,
            [&] { return QOVAShareSnapShareInfoGetByHash(one, pairs.get(), &info); }, truth);
    }
    prepare();
}

// A locked encrypted share: its subvolume is the back end.
TEST_F(FailingConfiguration, GoesFromAnEncryptedShare) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@docs@"));
    share_.uStatus = QOVA_SHARE_STATUS_ENCRYPTED;
    const std::string eaDir = "/vol1/@docs@/@eaDir";
    const Outcomes outcomes = {{"QLIBShareIsEncryptionGet 1", {0, 0x2A00}},
                               {"QLIBShareIsEncryptionGet 2", {0, 0xA100}},
                               {"QLIBShareIsEncryptionGet 3", {0, 0x2A00}},
                               {"QLIBShareEncryptPathGet 1", {0, 0xA100}},
                               {"QLIBShareEncryptPathGet 2", {0, 0x2A00}},
                               {"lstat", {0, 0}},
                               {"stat 1", {0, 0xA100}},
                               {"stat", {0, 0}},
                               {"stat 3", {0, 0x0D00}},
                               {"malloc", {0, 0x0200}},
                               {"QLIBCExecv", {0, 0x3900}},
                               {"rmdir", {0, 0}}};
    sweep(
        {"QOVAShareSnapShareInfoClear", 0, outcomes},
        [&] {
            ASSERT_EQ(0, QOVAShareSnapShareInfoSet(share()));
            ASSERT_TRUE(testkit::exists(eaDir + "/sharesnap_share_configuration/share_configuration"));
        },
        [&] {
            QOVAShareSnapShareInfoClear(share());
            return 0;
        },
        [&](const FaultPoint &, int) {
            // What stays can go with the next one.
            QOVAShareSnapShareInfoClear(share());
            EXPECT_FALSE(testkit::exists(eaDir));
        });
}

} // namespace
