#include "faults/export_sweep.hpp"
#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/metadata_fixture.hpp"

#include <sharesnap/frame.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/platform/subvolume.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using testkit::FaultPoint;
using testkit::Names;
using testkit::Pairs;

using faults::borne;
using faults::Outcomes;
using faults::with;

// What only dresses a share's directory fails nothing, but leaves a code.
const Outcomes kDressing = with(borne(1, {"ioctl", "open", "close", "fprintf", "fclose", "chmod"}),
                                {{"QOVASmbAttributeSet", {1, 0x2A00}}, {"fopen", {1, 0x0900}}});

class FrameFaults : public testkit::MetadataTest {
protected:
    void SetUp() override {
        if (testkit::Sandbox::simulated()) {
            GTEST_SKIP() << "needs the real storage core";
        }
        MetadataTest::SetUp();
    }

    // Takes away what the library made, so that it makes all of it again.
    static void removeDirectories() {
        (void)QOVABtrfsDeleteSubvolFaultTolerant("/vol1/@sharesnap/docs");
        (void)QOVABtrfsDeleteSubvolFaultTolerant("/vol1/@sharesnap");
        std::filesystem::remove_all("/vol1/plain");
    }

    char path[4096] = "";
};

TEST_F(FrameFaults, MakingASharesDirectory) {
    const Outcomes outcomes = with(kDressing, {{"QOVABtrfsIsSubVol 2", {1}},
                                               {"QOVABtrfsIsSubVol 3", {1}},
                                               {"QOVABtrfsCreateSubVol 1", {-1, 0x0C00}},
                                               {"QOVABtrfsCreateSubVol 2", {0, 0x0C00}}});
    faults::sweep(
        {"QOVAShareSnapGetOrCreateSnapDir", 1, outcomes, {"/vol1/@sharesnap"}}, [&] { removeDirectories(); },
        [&] { return QOVAShareSnapGetOrCreateSnapDir(docs(), path, sizeof(path), 1); },
        [](const FaultPoint &point, int result) {
            if (result == 1) {
                EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/@sharesnap/docs")) << point;
            }
        });
}

TEST_F(FrameFaults, MakingASharesDirectoryWithSomethingInTheWay) {
    const Outcomes outcomes = {{"lstat", {1}},
                               {"rename", {0, 0x0C00}},
                               {"QOVABtrfsIsSubVol", {0, 0x0C00}}, // it isn't moved then
                               {"QOVABtrfsCreateSubVol", {0, 0x0C00}}};
    faults::sweep(
        {"SnapGetOrCreateSubvolume", 1, outcomes, {"/vol1/@sharesnap"}},
        [&] {
            removeDirectories();
            std::filesystem::remove_all("/vol1/@sharesnap");
            for (const auto &entry : std::filesystem::directory_iterator("/vol1")) {
                if (entry.path().filename().string().rfind("@sharesnap.", 0) == 0) {
                    std::filesystem::remove_all(entry.path());
                }
            }
            ASSERT_TRUE(testkit::writeFile("/vol1/@sharesnap", "precious"));
        },
        [&] { return SnapGetOrCreateSubvolume(docs(), "@sharesnap", path, sizeof(path), 1); },
        [](const FaultPoint &point, int) {
            size_t kept = 0;
            for (const std::string &name : testkit::directoryNames("/vol1")) {
                kept += testkit::readFile("/vol1/" + name) == "precious" ? 1 : 0;
            }
            EXPECT_EQ(1u, kept) << point;
        });
}

TEST_F(FrameFaults, MakingPlainDirectories) {
    faults::sweep(
        {"SnapGetOrCreateDirWithShare",
         1,
         {{"stat", {1}}, {"mkdir 1", {-1, 0x0C00}}, {"mkdir 2", {0, 0x0C00}}},
         {"/vol1/plain"}},
        [&] { removeDirectories(); },
        [&] { return SnapGetOrCreateDirWithShare(docs(), "plain", path, sizeof(path), 1); },
        [](const FaultPoint &point, int result) {
            if (result == 1) {
                EXPECT_TRUE(testkit::isDirectory("/vol1/plain/docs")) << point;
            }
        });
}

TEST_F(FrameFaults, DirectoriesOneByOne) {
    faults::sweep(
        {"QOVAShareSnapGetOrCreateDir", 1, {{"stat", {1}}, {"mkdir", {0, 0x0C00}}}, {"/vol1/plain"}},
        [&] { removeDirectories(); },
        [&] { return QOVAShareSnapGetOrCreateDir(docs(), "plain", path, sizeof(path), 1); },
        [](const FaultPoint &, int result) { EXPECT_EQ(result == 1, testkit::isDirectory("/vol1/plain")); });
    const Outcomes outcomes = with(kDressing, {{"QOVABtrfsIsSubVol", {1}},
                                               {"QOVABtrfsCreateSubVol 1", {-1, 0x0C00}},
                                               {"QOVABtrfsCreateSubVol 2", {0, 0x0C00}}});
    faults::sweep(
        {"SnapGetOrCreateSubvolumeWithShare", 1, outcomes, {"/vol1/@sharesnap"}}, [&] { removeDirectories(); },
        [&] { return SnapGetOrCreateSubvolumeWithShare(docs(), "@sharesnap", path, sizeof(path), 1); },
        [](const FaultPoint &, int result) {
            EXPECT_EQ(result == 1, QOVABtrfsIsSubVol("/vol1/@sharesnap/docs") == 1);
        });
}

TEST_F(FrameFaults, LookingAtAPath) {
    faults::sweep({"ShareSnapCheckDirExist", 1, {{"stat", {0, 0}}}}, {},
                  [] { return ShareSnapCheckDirExist("/vol1"); });
    ASSERT_TRUE(testkit::writeFile("/vol1/file", "x"));
    faults::sweep({"ShareSnapCheckFileExist", 1, {{"stat", {0, 0}}}}, {},
                  [] { return ShareSnapCheckFileExist("/vol1/file"); });
}

TEST_F(FrameFaults, NamingByTheClock) {
    for (const unsigned int local : {0U, 1U}) {
        faults::sweep({"SnapNameGenerateByTime", 0, {{"gmtime_r", {-1, 0x2A00}}, {"localtime_r", {-1, 0x2A00}}}}, {},
                      [&] { return SnapNameGenerateByTime(path, sizeof(path), 1767323045, local); });
    }
}

// A path that can't be looked at counts as absent.
TEST_F(FrameFaults, LookingForASnapshot) {
    takeSubvolume("a");
    faults::sweep(
        {"QOVAShareSnapGetSnapPath",
         1,
         {{"QOVABtrfsIsSubVol 2", {1}}, {"QOVABtrfsIsSubVol 3", {0}}, {"QOVABtrfsIsSubVol 4", {0}}}},
        [] {}, [&] { return QOVAShareSnapGetSnapPath(docs(), "a", path, sizeof(path)); });
}

TEST_F(FrameFaults, CheckingTheSupport) {
    int type = 0;
    faults::sweep(
        {"QOVAShareSnapCheckSupport", 0}, [] {}, [&] { return QOVAShareSnapCheckSupport(docs(), &type, SNAP_CREATE); });
}

TEST_F(FrameFaults, MovingASharesDirectory) {
    const Outcomes outcomes = with(borne(0, {"QOVABtrfsIsSubVol 1", "QOVABtrfsIsSubVol 2", "QOVABtrfsIsSubVol 4"}),
                                   {{"QOVABtrfsIsSubVol 5", {-1, 0x0C00}}, {"rename", {-1, 0x2A00}}});
    ASSERT_EQ("", testkit::makeShare("other"));
    const testkit::SharePointer other = testkit::getShare("other");
    takeSubvolume("a");
    faults::sweep(
        {"SnapshotDirRename", 0, outcomes, {"/vol1/@sharesnap/other"}},
        [] {
            if (testkit::exists("/vol1/@sharesnap/other/a")) {
                ASSERT_EQ(0, rename("/vol1/@sharesnap/other", "/vol1/@sharesnap/docs"));
            }
        },
        [&] { return SnapshotDirRename(docs(), other.get()); },
        [](const FaultPoint &point, int result) {
            EXPECT_EQ(result == 0, testkit::exists("/vol1/@sharesnap/other/a")) << point;
            EXPECT_EQ(result != 0, testkit::exists("/vol1/@sharesnap/docs/a")) << point;
        });
}

TEST_F(FrameFaults, ListingTheVolume) {
    takeSubvolume("a");
    takeSubvolume("b");
    std::optional<Names> names;
    faults::sweep(
        {"BtrfsListSnaps", 0, {{"fgets", {-1, 0x2A00}}, {"QLIBCPclose", {0}}}}, [&] { names.emplace(); },
        [&] { return BtrfsListSnaps(docs(), names->address()); },
        [&](const FaultPoint &point, int result) {
            if (result == 0) {
                EXPECT_EQ((std::vector<std::string>{"a", "b"}), names->all()) << point;
            }
        });
}

TEST_F(FrameFaults, ReadingFacts) {
    takeSubvolume("a");
    std::optional<Pairs> facts;
    faults::sweep(
        {"SnapFillSubvolInfo", 0, {{"QOVABtrfsIsSubVol 2", {0}}}}, [&] { facts.emplace(); },
        [&] { return SnapFillSubvolInfo(docs(), "a", facts->address()); });
}

TEST_F(FrameFaults, FindingTheDataPath) {
    faults::sweep(
        {"ShareSubvolumePathGet", 0}, [] {}, [&] { return ShareSubvolumePathGet(docs(), path, sizeof(path)); });
}

TEST_F(FrameFaults, MakingTheDirectoriesBelowRun) {
    const faults::Outcomes outcomes = {{"lstat", {1}}, {"mkdir", {0, 0x0C00}}};
    faults::sweep(
        {"QOVAShareSnapCreateRunLockShareSnapDir", 1, outcomes},
        [] { std::filesystem::remove_all("/run/lock/sharesnap"); },
        [] { return QOVAShareSnapCreateRunLockShareSnapDir(); });
    faults::sweep(
        {"QOVAShareSnapCreateTmpShareSnapDir", 1, outcomes}, [] { std::filesystem::remove_all("/run/sharesnap"); },
        [] { return QOVAShareSnapCreateTmpShareSnapDir(nullptr); });
}

TEST_F(FrameFaults, TakingTheMetadataLock) {
    int lock = -1;
    faults::sweep(
        {"QOVAShareSnapLockMetaFile", 0, {{"lstat", {0}}, {"mkdir", {-1, 0x0C00}}}},
        [] { std::filesystem::remove_all("/run/lock/sharesnap"); },
        [&] {
            lock = QOVAShareSnapLockMetaFile(docs(), 1);
            if (lock < 0) {
                return -1;
            }
            (void)QLIBCFileUnlockByFile(lock);
            return 0;
        });
}

TEST_F(FrameFaults, WritingSections) {
    const Pairs pairs = {{"k", "v"}};
    const auto sweepWith = [&](int error, const Outcomes &outcomes) {
        faults::sweep(
            {"SnapFileSectionAdd", 1, outcomes, {}, error}, [&] { writeMeta(""); },
            [&] { return SnapFileSectionAdd(metaPath, "a", pairs.get(), "%s=%s\n"); });
        faults::sweep(
            {"SnapFileSectionSet", 1, outcomes, {}, error}, [&] { writeMeta("[a]\nk=w\n"); },
            [&] { return SnapFileSectionSet(metaPath, "a", nullptr, pairs.get(), nullptr); });
        faults::sweep(
            {"SnapFileSectionRemove", 1, outcomes, {}, error}, [&] { writeMeta("[a]\nk=w\n"); },
            [&] { return SnapFileSectionRemove(metaPath, "a"); });
    };
    sweepWith(EIO, {});
    // A full volume is told as such.
    const faults::Outcome full = {-1, 0x2900};
    sweepWith(ENOSPC, {{"QLIBCFileAddSection", full}, {"QLIBCFileSetSection", full}, {"QLIBCFileRemoveSection", full}});
}

TEST_F(FrameFaults, SettingTheQuotaFlag) {
    // A kernel that knows the flag.
    uint64_t word = 0;
    using Control = int(int, unsigned long, void *);
    faults::sweep(
        {"BtrfsSubvolNoLoadUsrQuotaAttrSet", 0, {{"open", {-1, 0x0900}}, {"close", {0}}}}, [] {},
        [&] {
            const testkit::Replacement<Control> kernel("ioctl", [&](int, unsigned long, void *) {
                ++word;
                return 0;
            });
            return BtrfsSubvolNoLoadUsrQuotaAttrSet("/vol1/docs", 1);
        });
    EXPECT_GT(word, 0u);
    // Every kernel can clear it.
    faults::sweep(
        {"BtrfsSubvolNoLoadUsrQuotaAttrSet", 0, {{"open", {-1, 0x0900}}, {"ioctl", {-1, 0x2A00}}, {"close", {0}}}},
        [] {}, [] { return BtrfsSubvolNoLoadUsrQuotaAttrSet("/vol1/docs", 0); });
}

// Parent and child run side by side, so the number of a call among all calls differs from run to run: each function fails
// by its name.
TEST_F(FrameFaults, TheTimedChild) {
    const struct {
        const char *symbol;
        size_t nth; // 0 for all
        int result;
        int task; // what the task's result becomes
    } faults[] = {
        {"pipe2", 1, -1, -7},   {"pipe2", 2, 0, 3},     {"fcntl64", 1, -1, -7},   {"fcntl64", 2, -1, -7},
        {"fcntl64", 3, -1, -7}, {"fcntl64", 4, -1, -7}, {"sigaction", 1, -1, -7}, {"fork", 1, -1, -7},
        {"select", 0, 0, 3},    {"read", 0, 0, 3},      {"write", 0, 0, 3},       {"close", 0, 0, 3},
        {"open64", 0, 0, 3},    {"dup2", 0, 0, 3},      {"setsid", 0, 0, 3},      {"kill", 0, 0, 3},
    };
    const std::vector<std::string> known = testkit::faultSymbols();
    for (const auto &one : faults) {
        SCOPED_TRACE(std::string(one.symbol) + " " + std::to_string(one.nth));
        ASSERT_NE(known.end(), std::find(known.begin(), known.end(), one.symbol));
        QLIBCErrSetEx(0, "", 0);
        const testkit::Leftovers before;
        int task = -7;
        const TimeLimitTask work = {[](void *) { return 3; }, nullptr};
        {
            const testkit::Fault fault(one.symbol, one.nth);
            EXPECT_EQ(one.result, ShareSnapTimeLimitFork(120, &work, &task));
            if (one.result != 0) {
                EXPECT_TRUE(fault.met());
                EXPECT_EQ(0x2A00u, QLIBCErrGet());
            }
        }
        EXPECT_EQ(one.task, task);
        EXPECT_EQ("", before.compare());
    }
}

TEST_F(FrameFaults, ATimedChildThatCannotBeWaitedFor) {
    int task = -7;
    const TimeLimitTask work = {[](void *) { return 3; }, nullptr};
    const testkit::Fault fault("waitpid", 0, ECHILD);
    EXPECT_EQ(-1, ShareSnapTimeLimitFork(120, &work, &task));
    EXPECT_EQ(0x2A00u, QLIBCErrGet());
    EXPECT_EQ(-7, task);
    EXPECT_GT(waitpid(-1, nullptr, 0), 0); // left behind, as nothing else can be done
}

} // namespace
