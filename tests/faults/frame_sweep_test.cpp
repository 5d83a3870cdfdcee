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
#include <set>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using testkit::FaultPoint;
using testkit::Names;
using testkit::Pairs;

class FrameFaults : public testkit::MetadataTest {
protected:
    void SetUp() override {
        if (testkit::Sandbox::simulated()) {
            GTEST_SKIP() << "needs the real storage core";
        }
        MetadataTest::SetUp();
    }

    // Runs the operation with each of its calls failing once. `mayFail` are the results of a failure; a result of
    // `done` means that the failure was tolerated. A failure leaves a code, and nothing is left over.
    void sweep(const char *function, const std::function<void()> &prepare, const std::function<int()> &operation,
               int done, const std::set<int> &mayFail, const std::function<void(const FaultPoint &, int)> &more = {}) {
        testkit::Sweep run;
        run.function = function;
        int result = 0;
        std::optional<testkit::Leftovers> before;
        run.prepare = [&] {
            prepare();
            QLIBCErrSetEx(0, "", 0);
            before.emplace();
        };
        run.operation = [&] { result = operation(); };
        run.check = [&](const FaultPoint &point) {
            EXPECT_TRUE(result == done || mayFail.count(result) == 1) << point << " gave " << result;
            if (result != done && codes) {
                EXPECT_NE(0u, QLIBCErrGet()) << point;
            }
            if (!point.leavesBehind()) {
                EXPECT_EQ("", before->compare()) << point;
            }
            if (more) {
                more(point, result);
            }
        };
        EXPECT_GT(run.run(), 0u);
        EXPECT_EQ(done, result) << "without a failure";
    }

    // Takes away what the library made, so that it makes all of it again.
    static void removeDirectories() {
        (void)QOVABtrfsDeleteSubvolFaultTolerant("/vol1/@sharesnap/docs");
        (void)QOVABtrfsDeleteSubvolFaultTolerant("/vol1/@sharesnap");
        std::filesystem::remove_all("/vol1/plain");
    }

    char path[4096] = "";
    bool codes = true; // a failure of the operation leaves a code
};

TEST_F(FrameFaults, MakingASharesDirectory) {
    sweep(
        "QOVAShareSnapGetOrCreateSnapDir", [&] { removeDirectories(); },
        [&] { return QOVAShareSnapGetOrCreateSnapDir(docs(), path, sizeof(path), 1); }, 1, {0, -1},
        [](const FaultPoint &point, int result) {
            if (result == 1) {
                EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/@sharesnap/docs")) << point;
            }
        });
}

TEST_F(FrameFaults, MakingASharesDirectoryWithSomethingInTheWay) {
    sweep(
        "SnapGetOrCreateSubvolume",
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
        [&] { return SnapGetOrCreateSubvolume(docs(), "@sharesnap", path, sizeof(path), 1); }, 1, {0, -1},
        [](const FaultPoint &point, int) {
            size_t kept = 0;
            for (const std::string &name : testkit::directoryNames("/vol1")) {
                kept += testkit::readFile("/vol1/" + name) == "precious" ? 1 : 0;
            }
            EXPECT_EQ(1u, kept) << point;
        });
}

TEST_F(FrameFaults, MakingPlainDirectories) {
    sweep(
        "SnapGetOrCreateDirWithShare", [&] { removeDirectories(); },
        [&] { return SnapGetOrCreateDirWithShare(docs(), "plain", path, sizeof(path), 1); }, 1, {0, -1},
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
    // What only dresses the directory fails nothing, but leaves a code.
    const faults::Outcomes outcomes = {{"QOVABtrfsIsSubVol", {1}},
                                       {"QOVABtrfsCreateSubVol 1", {-1, 0x0C00}},
                                       {"QOVABtrfsCreateSubVol 2", {0, 0x0C00}},
                                       {"open", {1}},
                                       {"ioctl", {1}},
                                       {"close", {1}},
                                       {"QOVASmbAttributeSet", {1, 0x2A00}},
                                       {"fopen", {1, 0x0900}},
                                       {"fprintf", {1}},
                                       {"fclose", {1}},
                                       {"chmod", {1}}};
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

TEST_F(FrameFaults, LookingForASnapshot) {
    takeSubvolume("a");
    codes = false; // a path that can't be looked at counts as absent
    sweep(
        "QOVAShareSnapGetSnapPath", [] {}, [&] { return QOVAShareSnapGetSnapPath(docs(), "a", path, sizeof(path)); }, 1,
        {0, -1});
}

TEST_F(FrameFaults, CheckingTheSupport) {
    int type = 0;
    sweep(
        "QOVAShareSnapCheckSupport", [] {}, [&] { return QOVAShareSnapCheckSupport(docs(), &type, SNAP_CREATE); }, 0,
        {-1});
}

TEST_F(FrameFaults, MovingASharesDirectory) {
    ASSERT_EQ("", testkit::makeShare("other"));
    const testkit::SharePointer other = testkit::getShare("other");
    takeSubvolume("a");
    sweep(
        "SnapshotDirRename",
        [] {
            if (testkit::exists("/vol1/@sharesnap/other/a")) {
                ASSERT_EQ(0, rename("/vol1/@sharesnap/other", "/vol1/@sharesnap/docs"));
            }
        },
        [&] { return SnapshotDirRename(docs(), other.get()); }, 0, {-1},
        [](const FaultPoint &point, int result) {
            EXPECT_EQ(result == 0, testkit::exists("/vol1/@sharesnap/other/a")) << point;
            EXPECT_EQ(result != 0, testkit::exists("/vol1/@sharesnap/docs/a")) << point;
        });
}

TEST_F(FrameFaults, ListingTheVolume) {
    takeSubvolume("a");
    takeSubvolume("b");
    std::optional<Names> names;
    sweep(
        "BtrfsListSnaps", [&] { names.emplace(); }, [&] { return BtrfsListSnaps(docs(), names->address()); }, 0, {-1},
        [&](const FaultPoint &point, int result) {
            if (result == 0) {
                EXPECT_EQ((std::vector<std::string>{"a", "b"}), names->all()) << point;
            }
        });
}

TEST_F(FrameFaults, ReadingFacts) {
    takeSubvolume("a");
    std::optional<Pairs> facts;
    sweep(
        "SnapFillSubvolInfo", [&] { facts.emplace(); },
        [&] { return SnapFillSubvolInfo(docs(), "a", facts->address()); }, 0, {-1});
}

TEST_F(FrameFaults, FindingTheDataPath) {
    sweep(
        "ShareSubvolumePathGet", [] {}, [&] { return ShareSubvolumePathGet(docs(), path, sizeof(path)); }, 0, {-1});
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
    sweep(
        "QOVAShareSnapLockMetaFile", [] { std::filesystem::remove_all("/run/lock/sharesnap"); },
        [&] {
            lock = QOVAShareSnapLockMetaFile(docs(), 1);
            if (lock < 0) {
                return -1;
            }
            (void)QLIBCFileUnlockByFile(lock);
            return 0;
        },
        0, {-1});
}

TEST_F(FrameFaults, WritingSections) {
    const Pairs pairs = {{"k", "v"}};
    sweep(
        "SnapFileSectionAdd", [&] { writeMeta(""); },
        [&] { return SnapFileSectionAdd(metaPath, "a", pairs.get(), "%s=%s\n"); }, 1, {-1});
    sweep(
        "SnapFileSectionSet", [&] { writeMeta("[a]\nk=w\n"); },
        [&] { return SnapFileSectionSet(metaPath, "a", nullptr, pairs.get(), nullptr); }, 1, {-1});
    sweep(
        "SnapFileSectionRemove", [&] { writeMeta("[a]\nk=w\n"); }, [&] { return SnapFileSectionRemove(metaPath, "a"); },
        1, {-1});
}

TEST_F(FrameFaults, SettingTheQuotaFlag) {
    // A kernel that knows the flag.
    uint64_t word = 0;
    using Control = int(int, unsigned long, void *);
    sweep(
        "BtrfsSubvolNoLoadUsrQuotaAttrSet", [] {},
        [&] {
            const testkit::Replacement<Control> kernel("ioctl", [&](int, unsigned long, void *) {
                ++word;
                return 0;
            });
            return BtrfsSubvolNoLoadUsrQuotaAttrSet("/vol1/docs", 1);
        },
        0, {-1});
    EXPECT_GT(word, 0u);
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
