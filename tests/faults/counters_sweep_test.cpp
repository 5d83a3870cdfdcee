// Every call that the counters and the system locks make to the platform or to the C library fails once. After each: the
// result and the code that are due, nothing left over, and the truth where it was.
#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/szlist.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <sys/xattr.h>

#include "faults/export_sweep.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"

namespace {

using faults::borne;
using faults::Outcomes;
using faults::sweep;
using faults::with;
using testkit::FaultPoint;

constexpr char kMetaFile[] = "/vol1/@sharesnap/@docs.meta";
constexpr char kSnapDir[] = "/vol1/@sharesnap/docs";
constexpr char kSnap[] = "GMT-2026.01.02-03.04.05";
constexpr char kClaims[] = "/run/sharesnap/sys_lock/docs.sharesnap_sys_lock";
constexpr char kRenamedClaims[] = "/run/sharesnap/sys_lock/papers.sharesnap_sys_lock";
const std::string kSections = std::string("[") + kSnap + "]\nhide=false\n[b]\nhide=true\n";

// A count of the visible sections: what can't be looked at counts as absent, a read error as the end of the file.
Outcomes recount(int done, int none) {
    return with(borne(done, {"lstat", "malloc", "getdelim", "QLIBCStrSepPair", "fclose", "QLIBCFileUnlockByFile",
                             "QOVABtrfsIsSubVol 2", "QOVABtrfsIsSubVol 4"}),
                with(borne(none, {"stat", "getdelim 1", "getdelim 2", "QLIBCStrSepPair 1"}),
                     {{"QOVABtrfsIsSubVol 3", {0}},
                      {"malloc 1", {-1, 0x0200}},
                      {"QLIBShareIsEncryptionGet 3", {-1, 0x0700}},
                      {"fopen", {-1, 0x0900}}}));
}

// One visible and one hidden section.
class FailingCounter : public testkit::DocsVolumeTest {
protected:
    void SetUp() override {
        DocsVolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        char path[4096];
        ASSERT_EQ(1, QOVAShareSnapGetOrCreateSnapDir(share_.get(), path, sizeof(path), 1));
        ASSERT_TRUE(testkit::writeFile(kMetaFile, kSections));
    }

    void TearDown() override {
        if (!IsSkipped()) {
            EXPECT_EQ(kSections, testkit::readFile(kMetaFile));
        }
    }

    static void store(const std::string &text) {
        ASSERT_EQ(0, setxattr(kSnapDir, "user.snapcount", text.c_str(), text.size(), 0));
    }

    static std::string stored() {
        char text[2048] = "";
        return getxattr(kSnapDir, "user.snapcount", text, sizeof(text) - 1) > 0 ? text : "(none)";
    }

    [[nodiscard]] const QOVASHARE *share() const { return share_.get(); }

private:
};

// A directory that can't be looked at counts as none, and a counter that can't be read is recounted.
TEST_F(FailingCounter, IsRead) {
    int count = -1;
    sweep(
        {"QOVAShareSnapGetSnapCount",
         0,
         {{"QOVABtrfsIsSubVol 2", {0}}, {"QOVABtrfsIsSubVol 3", {0}}, {"getxattr", {1}}}},
        [] { store("3"); }, [&] { return QOVAShareSnapGetSnapCount(share(), &count, 0); },
        [&](const FaultPoint &point, int result) {
            const bool absent = point.symbol == "QOVABtrfsIsSubVol" && point.index == 3;
            EXPECT_EQ(result == 1 ? 1 : result == 0 && !absent ? 3 : 0, count);
        });
    sweep(
        {"ShareSnapSnapCountGet", 3, {{"QOVABtrfsIsSubVol 2", {3}}, {"QOVABtrfsIsSubVol 3", {0}}, {"getxattr", {1}}}},
        [] { store("3"); }, [&] { return ShareSnapSnapCountGet(share(), 0); });
}

TEST_F(FailingCounter, IsRecounted) {
    int count = -1;
    sweep(
        {"QOVAShareSnapGetSnapCount", 1, with(recount(1, 1), {{"QOVAShareVolPathGet 3", {-1, 0x0700}}})},
        [] { store("7"); }, [&] { return QOVAShareSnapGetSnapCount(share(), &count, 1); },
        [&](const FaultPoint &point, int result) {
            const int none = faults::outcomeOf({"", 1, recount(1, 0)}, point).result;
            EXPECT_EQ(result == 1 ? none : 0, count);
            EXPECT_EQ("7", stored());
        });
}

TEST_F(FailingCounter, IsUpdated) {
    const auto truth = [](const FaultPoint &, int result) {
        EXPECT_EQ(result < 0 ? "1" : std::to_string(result), stored());
    };
    // Where there is no directory to be seen the update begins at zero. What isn't stored is told by a line with errno.
    const Outcomes outcomes =
        with(borne(2, {"lstat", "QOVABtrfsIsSubVol 2", "QOVABtrfsIsSubVol 5", "QLIBCFileUnlockByFile"}),
             {{"QOVABtrfsIsSubVol 3", {1}}, {"setxattr", {-1, 0}}});
    sweep(
        {"QOVAShareSnapUpdateSnapCountEx", 2,
         with(outcomes, {{"QOVABtrfsIsSubVol 6", {-1, 0x0C00}}, {"getxattr", {2}}})},
        [] { store("1"); }, [&] { return QOVAShareSnapUpdateSnapCountEx(share(), 1, 1); }, truth);
    // Without the right to make anything the metadata is taken to hold the change already.
    sweep(
        {"QOVAShareSnapUpdateSnapCount", 2, with(outcomes, {{"getxattr", {1}}})}, [] { store("1"); },
        [&] { return QOVAShareSnapUpdateSnapCount(share(), 1); }, truth);
}

TEST_F(FailingCounter, IsSynced) {
    const auto truth = [this](const FaultPoint &, int result) {
        EXPECT_EQ(result < 0 ? "7" : std::to_string(result), stored());
        EXPECT_EQ(1, QOVAShareSnapSyncSnapCount(share()));
    };
    const Outcomes outcomes = with(
        recount(1, 0), {{"QOVABtrfsIsSubVol 6", {1}}, {"QOVAShareVolPathGet 3", {-1, 0x0700}}, {"setxattr", {-1, 0}}});
    sweep(
        {"QOVAShareSnapSyncSnapCount", 1, outcomes}, [] { store("7"); },
        [&] { return QOVAShareSnapSyncSnapCount(share()); }, truth);
    sweep(
        {"ShareSnapSnapCountGet", 1, outcomes}, [] { store("7"); }, [&] { return ShareSnapSnapCountGet(share(), 1); },
        truth);
}

// With the directories of the locks missing, as after a start of the machine.
TEST_F(FailingCounter, IsSyncedForTheFirstTime) {
    const Outcomes outcomes = with(recount(1, 0), {{"mkdir", {-1, 0x0C00}},
                                                   {"QOVABtrfsIsSubVol 6", {1}},
                                                   {"QOVAShareVolPathGet 3", {-1, 0x0700}},
                                                   {"setxattr", {-1, 0}}});
    sweep(
        {"QOVAShareSnapSyncSnapCount", 1, outcomes},
        [] {
            store("7");
            std::filesystem::remove_all("/run/lock/sharesnap");
        },
        [&] { return QOVAShareSnapSyncSnapCount(share()); });
}

// A share that can't be fetched adds nothing.
TEST_F(FailingCounter, IsSummed) {
    const testkit::NoSleep naps;
    const auto truth = [](const FaultPoint &, int) { EXPECT_EQ("3", stored()); };
    const Outcomes outcomes = {
        {"QOVAShareGet", {0}}, {"QOVABtrfsIsSubVol 2", {3}}, {"QOVABtrfsIsSubVol 3", {0}}, {"getxattr", {1}}};
    sweep(
        {"QOVAShareSnapGetGlobalSnapCount", 3, outcomes}, [] { store("3"); },
        [] { return QOVAShareSnapGetGlobalSnapCount(); }, truth);
    sweep(
        {"ShareSnapGlobalSnapCountGet", 3, outcomes}, [] { store("3"); }, [] { return ShareSnapGlobalSnapCountGet(0); },
        truth);
}

TEST_F(FailingCounter, IsSummedAndSynced) {
    const testkit::NoSleep naps;
    const Outcomes outcomes = with(recount(1, 0), {{"QOVAShareGet", {0}},
                                                   {"QOVABtrfsIsSubVol 6", {1}},
                                                   {"QOVAShareVolPathGet 4", {-1, 0x0700}},
                                                   {"setxattr", {-1, 0}}});
    sweep(
        {"QOVAShareSnapSyncGlobalSnapCount", 1, outcomes}, [] { store("3"); },
        [] { return QOVAShareSnapSyncGlobalSnapCount(); },
        [](const FaultPoint &point, int result) {
            EXPECT_EQ(result < 0 || point.symbol == "QOVAShareGet" ? "3" : std::to_string(result), stored());
        });
}

// A data file that can't be made is a failure, one that stands is opened and closed for nothing.
const Outcomes kClaimOutcomes = {
    {"lstat", {1}}, {"open", {-1, 0x0900}}, {"close", {1}}, {"QLIBCFileUnlockByFile", {1}}};

class FailingClaim : public FailingCounter {
protected:
    // The count of an initiator; -1 when it can't be read.
    long claims(const char *who, const char *share = nullptr) {
        uint32_t count = 77;
        QOVASHARE named{};
        char name[16] = "";
        (void)std::snprintf(name, sizeof(name), "%s", share != nullptr ? share : "docs");
        named.szName = name;
        return QOVAShareSnapSysLockGet(&named, kSnap, who, &count) == 1 ? static_cast<long>(count) : -1;
    }

    // Two claims of backup and one of another.
    void hold() {
        (void)ShareSnapSysLockShareDeleteHook("papers");
        (void)ShareSnapSysLockShareDeleteHook("docs");
        for (const char *who : {"backup", "other", "backup"}) {
            ASSERT_EQ(1, QOVAShareSnapSysLockIncrement(share(), kSnap, who));
        }
    }

    // The change is made or not; the claim of the other one stays in any case.
    void sweepChange(const faults::Export &exported, int (*change)(const QOVASHARE *, const char *, const char *),
                     long changed) {
        sweep(
            exported, [&] { hold(); }, [&] { return change(share(), kSnap, "backup"); },
            [&](const FaultPoint &, int result) {
                EXPECT_EQ(result == 1 ? changed : 2, claims("backup"));
                EXPECT_EQ(1, claims("other"));
            });
    }
};

TEST_F(FailingClaim, IsTaken) {
    sweepChange({"QOVAShareSnapSysLockIncrement", 1, kClaimOutcomes}, QOVAShareSnapSysLockIncrement, 3);
}

TEST_F(FailingClaim, IsGivenBack) {
    sweepChange({"QOVAShareSnapSysLockDecrement", 1, kClaimOutcomes}, QOVAShareSnapSysLockDecrement, 1);
}

TEST_F(FailingClaim, IsDropped) {
    sweepChange({"QOVAShareSnapSysLockRemove", 1, kClaimOutcomes}, QOVAShareSnapSysLockRemove, 0);
}

TEST_F(FailingClaim, IsTheFirstAndTheLast) {
    hold();
    const std::string others = "[b]\nother=1\n";
    sweep(
        {"QOVAShareSnapSysLockIncrement", 1, kClaimOutcomes}, [&] { ASSERT_TRUE(testkit::writeFile(kClaims, others)); },
        [&] { return QOVAShareSnapSysLockIncrement(share(), kSnap, "backup"); },
        [&](const FaultPoint &, int result) {
            EXPECT_EQ(result == 1 ? others + "[" + kSnap + "]\nbackup=1\n" : others, testkit::readFile(kClaims));
        });
    const std::string held = others + "[" + kSnap + "]\nbackup=1\n";
    sweep(
        {"QOVAShareSnapSysLockDecrement", 1, kClaimOutcomes}, [&] { ASSERT_TRUE(testkit::writeFile(kClaims, held)); },
        [&] { return QOVAShareSnapSysLockDecrement(share(), kSnap, "backup"); },
        [&](const FaultPoint &, int result) { EXPECT_EQ(result == 1 ? others : held, testkit::readFile(kClaims)); });
}

// With all directories below /run missing, as after a start of the machine. One that can't be made shows in the file that
// can't be opened below it.
TEST_F(FailingClaim, IsTheFirstAfterAStart) {
    sweep(
        {"QOVAShareSnapSysLockIncrement", 1, with(kClaimOutcomes, {{"mkdir", {-1, 0x0900}}})},
        [] {
            std::filesystem::remove_all("/run/lock/sharesnap");
            std::filesystem::remove_all("/run/sharesnap");
        },
        [&] { return QOVAShareSnapSysLockIncrement(share(), kSnap, "backup"); },
        [&](const FaultPoint &, int result) { EXPECT_EQ(result == 1 ? 1 : 0, claims("backup")); });
}

TEST_F(FailingClaim, IsRead) {
    uint32_t count = 0;
    hold();
    const std::string before = testkit::readFile(kClaims);
    sweep(
        {"QOVAShareSnapSysLockGet", 1, kClaimOutcomes}, [&] { count = 77; },
        [&] { return QOVAShareSnapSysLockGet(share(), kSnap, "backup", &count); },
        [&](const FaultPoint &, int result) {
            // A claim that can't be read must not be told.
            EXPECT_TRUE(result == 1 ? count == 2 : (count == 0 || count == 77)) << count;
            EXPECT_EQ(before, testkit::readFile(kClaims));
        });
}

TEST_F(FailingClaim, IsListed) {
    hold();
    QLIBCSZLIST *list = QLIBCSzListAlloc(512);
    sweep(
        {"QOVAShareSnapSysLockInitiatorList", 1, kClaimOutcomes}, [&] { QLIBCSzListRemoveAll(list); },
        [&] { return QOVAShareSnapSysLockInitiatorList(share(), kSnap, &list); },
        // A claim that can't be read must not look like none.
        [&](const FaultPoint &, int result) { EXPECT_EQ(result == 1 ? 2 : 0, list->nItem); });
    QLIBCSzListFree(list);
}

TEST_F(FailingClaim, FollowsTheShareUnderItsNewName) {
    sweep(
        {"ShareSnapSysLockShareRenameHook", 0, borne(0, {"lstat", "unlink", "rename"})}, [&] { hold(); },
        [] { return ShareSnapSysLockShareRenameHook("docs", "papers"); },
        [&](const FaultPoint &point, int result) {
            const bool moved = result == 0 && point.symbol != "rename";
            EXPECT_EQ(moved, testkit::exists(kRenamedClaims));
            EXPECT_EQ(!moved, testkit::exists(kClaims));
            EXPECT_EQ(2, claims("backup", moved ? "papers" : "docs"));
        });
}

TEST_F(FailingClaim, GoesWithTheShare) {
    sweep(
        {"ShareSnapSysLockShareDeleteHook", 0, borne(0, {"lstat", "unlink"})}, [&] { hold(); },
        [] { return ShareSnapSysLockShareDeleteHook("docs"); },
        [&](const FaultPoint &point, int result) {
            const bool stays = result != 0 || (point.symbol == "unlink" && point.index == 2);
            EXPECT_EQ(stays ? 2 : 0, claims("backup"));
        });
}

} // namespace
