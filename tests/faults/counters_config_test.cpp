// Every call that the counters, the system locks, the settings and the frozen configuration make to the platform or to
// the C library fails once. After each: a documented result, nothing left over, and the next call works.
#include <sharesnap/config.h>
#include <sharesnap/counters.h>
#include <sharesnap/frame.h>

#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <string>

#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"

namespace {

constexpr char kMetaFile[] = "/vol1/@sharesnap/@docs.meta";
constexpr char kConfFile[] = "/usr/qova/etc/sharesnap/sharesnap.conf";
constexpr char kSnap[] = "GMT-2026.01.02-03.04.05";
const std::string kSections = std::string("[") + kSnap + "]\nhide=false\n[b]\nhide=true\n";

class FailingCalls : public testkit::VolumeTest {
protected:
    void SetUp() override {
        VolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_EQ("", testkit::makeShare("docs"));
        share_ = testkit::getShare("docs");
        char path[4096];
        ASSERT_EQ(1, QOVAShareSnapGetOrCreateSnapDir(share_.get(), path, sizeof(path), 1));
        ASSERT_TRUE(testkit::writeFile(kMetaFile, kSections));
    }

    // Runs the sweep. Each result must be one of those documented; `truth` looks at what stands afterwards.
    void sweep(const std::set<int> &documented, const std::function<void()> &prepare,
               const std::function<int()> &operation,
               const std::function<void(const testkit::FaultPoint &, int)> &truth) {
        int result = -99;
        std::unique_ptr<testkit::Leftovers> before;
        testkit::Sweep sweep;
        sweep.prepare = [&] {
            prepare();
            before = std::make_unique<testkit::Leftovers>(
                std::vector<std::string>{"/vol1/@sharesnap", "/usr/qova/etc/sharesnap", "/run/sharesnap/sys_lock"});
        };
        sweep.operation = [&] { result = operation(); };
        sweep.check = [&](const testkit::FaultPoint &point) {
            EXPECT_EQ(1u, documented.count(result)) << point << " gave " << result;
            truth(point, result);
            EXPECT_EQ(kSections, testkit::readFile(kMetaFile)) << point;
        };
        EXPECT_LT(3u, sweep.run());
    }

    [[nodiscard]] const QOVASHARE *share() const { return share_.get(); }

    testkit::SharePointer share_;
};

std::string leftovers(const testkit::FaultPoint &point, const testkit::Leftovers &before) {
    return point.leavesBehind() ? "" : before.compare();
}

TEST_F(FailingCalls, OfACounterUpdate) {
    const testkit::Leftovers before({"/vol1/@sharesnap"});
    sweep(
        {-1, 4, 2, 1}, [&] { ASSERT_EQ(1, QOVAShareSnapSyncSnapCount(share())); },
        [&] { return QOVAShareSnapUpdateSnapCountEx(share(), 1, 1); },
        [&](const testkit::FaultPoint &point, int result) {
            int count = -1;
            ASSERT_EQ(0, QOVAShareSnapGetSnapCount(share(), &count, 0)) << point;
            // A directory that can't be read counts as absent: the update then begins at zero.
            EXPECT_EQ(result < 0 ? 1 : result, count) << point;
            EXPECT_EQ("", leftovers(point, before)) << point;
        });
}

TEST_F(FailingCalls, OfACounterSync) {
    const testkit::Leftovers before({"/vol1/@sharesnap"});
    sweep(
        {-1, 0, 1}, [&] { (void)QOVAShareSnapUpdateSnapCountEx(share(), 7, 1); },
        [&] { return QOVAShareSnapSyncSnapCount(share()); },
        [&](const testkit::FaultPoint &point, int /*result*/) {
            EXPECT_EQ("", leftovers(point, before)) << point;
            EXPECT_EQ(1, QOVAShareSnapSyncSnapCount(share())) << point;
        });
}

TEST_F(FailingCalls, OfTheGlobalSum) {
    const testkit::NoSleep naps;
    const testkit::Leftovers before({"/vol1/@sharesnap"});
    sweep(
        {-1, 0, 1}, [&] { ASSERT_EQ(1, QOVAShareSnapSyncSnapCount(share())); },
        [&] { return QOVAShareSnapGetGlobalSnapCount(); },
        [&](const testkit::FaultPoint &point, int /*result*/) {
            EXPECT_EQ("", leftovers(point, before)) << point;
            EXPECT_EQ(1, QOVAShareSnapGetGlobalSnapCount()) << point;
        });
}

TEST_F(FailingCalls, OfAClaim) {
    uint32_t count = 0;
    ASSERT_EQ(1, QOVAShareSnapSysLockIncrement(share(), kSnap, "other"));
    const testkit::Leftovers before({"/run/sharesnap/sys_lock"});
    sweep(
        {-1, 1}, [&] { ASSERT_EQ(1, QOVAShareSnapSysLockRemove(share(), kSnap, "backup")); },
        [&] { return QOVAShareSnapSysLockIncrement(share(), kSnap, "backup"); },
        [&](const testkit::FaultPoint &point, int result) {
            ASSERT_EQ(1, QOVAShareSnapSysLockGet(share(), kSnap, "backup", &count)) << point;
            EXPECT_EQ(result == 1 ? 1u : 0u, count) << point;
            ASSERT_EQ(1, QOVAShareSnapSysLockGet(share(), kSnap, "other", &count)) << point;
            EXPECT_EQ(1u, count) << point;
            EXPECT_EQ("", leftovers(point, before)) << point;
        });
}

TEST_F(FailingCalls, OfADroppedClaim) {
    uint32_t count = 0;
    sweep(
        {-1, 1},
        [&] {
            ASSERT_EQ(1, QOVAShareSnapSysLockRemove(share(), kSnap, "backup"));
            ASSERT_EQ(1, QOVAShareSnapSysLockIncrement(share(), kSnap, "backup"));
        },
        [&] { return QOVAShareSnapSysLockDecrement(share(), kSnap, "backup"); },
        [&](const testkit::FaultPoint &point, int result) {
            ASSERT_EQ(1, QOVAShareSnapSysLockGet(share(), kSnap, "backup", &count)) << point;
            EXPECT_EQ(result == 1 ? 0u : 1u, count) << point;
        });
}

TEST_F(FailingCalls, OfAListOfInitiators) {
    ASSERT_EQ(1, QOVAShareSnapSysLockIncrement(share(), kSnap, "backup"));
    QLIBCSZLIST *list = QLIBCSzListAlloc(512);
    sweep(
        {-1, 1}, [&] { QLIBCSzListRemoveAll(list); },
        [&] { return QOVAShareSnapSysLockInitiatorList(share(), kSnap, &list); },
        [&](const testkit::FaultPoint &point, int result) {
            // A claim that can't be read must not look like none.
            EXPECT_EQ(result == 1 ? 1 : 0, list->nItem) << point;
        });
    QLIBCSzListFree(list);
}

TEST_F(FailingCalls, OfTheLockHooks) {
    sweep(
        {-1, 0},
        [&] {
            (void)ShareSnapSysLockShareDeleteHook("papers");
            (void)ShareSnapSysLockShareDeleteHook("docs");
            ASSERT_EQ(1, QOVAShareSnapSysLockIncrement(share(), kSnap, "backup"));
        },
        [] { return ShareSnapSysLockShareRenameHook("docs", "papers"); },
        [](const testkit::FaultPoint &point, int /*result*/) {
            const bool old = testkit::exists("/run/sharesnap/sys_lock/docs.sharesnap_sys_lock");
            const bool renamed = testkit::exists("/run/sharesnap/sys_lock/papers.sharesnap_sys_lock");
            EXPECT_NE(old, renamed) << point; // the claims are under one of the names
        });
}

TEST_F(FailingCalls, OfASettingThatIsSet) {
    const std::string others = "[other]\nkeep=1\n";
    const testkit::Leftovers before({"/usr/qova/etc/sharesnap"});
    ASSERT_TRUE(testkit::makeDirectories("/usr/qova/etc/sharesnap"));
    for (const std::string &start : {others, others + "[docs]\na=1\n"}) {
        sweep(
            {-1, 0}, [&] { ASSERT_TRUE(testkit::writeFile(kConfFile, start)); },
            [] { return QOVAShareSnapConfSet("docs", "a", "2"); },
            [&](const testkit::FaultPoint &point, int result) {
                EXPECT_EQ(result == 0 ? others + "[docs]\na=2\n" : start, testkit::readFile(kConfFile)) << point;
            });
    }
}

TEST_F(FailingCalls, OfAShareRenamedInTheSettings) {
    ASSERT_TRUE(testkit::makeDirectories("/usr/qova/etc/sharesnap"));
    const std::string start = "[other]\nkeep=1\n[docs]\na=1\n";
    QLIBCSZHASH *hash = QLIBCSzHashAlloc(64);
    ASSERT_EQ(0, QLIBCSzHashSetValue(&hash, "b", "2"));
    sweep(
        {-1, 0}, [&] { ASSERT_TRUE(testkit::writeFile(kConfFile, start)); },
        [&] { return QOVAShareSnapConfUpdate("docs", "papers", hash); },
        [&](const testkit::FaultPoint &point, int result) {
            const std::string text = testkit::readFile(kConfFile);
            // Single pairs of the merge may be lost to a lack of memory; no section ever is.
            if (result == 0) {
                EXPECT_EQ(0u, text.find("[other]\nkeep=1\n[papers]\na=1\n")) << point;
            } else {
                EXPECT_EQ(start, text) << point;
            }
        });
    QLIBCSzHashFree(hash);
}

TEST_F(FailingCalls, OfReadSettings) {
    ASSERT_TRUE(testkit::makeDirectories("/usr/qova/etc/sharesnap"));
    ASSERT_TRUE(testkit::writeFile(kConfFile, "[docs]\nschedule_task_id=42\n"));
    char value[64];
    sweep(
        {-1, 0, 1}, [&] { value[0] = '\0'; },
        [&] { return QOVAShareSnapConfGet("docs", "schedule_task_id", value, sizeof(value)); },
        [&](const testkit::FaultPoint &point, int result) {
            if (result == 1) {
                EXPECT_STREQ("42", value) << point;
            }
        });
    sweep(
        {-1, 0, 1}, [] {}, [&] { return QOVAShareSnapGetShareNameByTaskId("42", value, sizeof(value)); },
        [&](const testkit::FaultPoint &point, int result) {
            if (result == 1) {
                EXPECT_STREQ("docs", value) << point;
            }
        });
}

TEST_F(FailingCalls, OfACapture) {
    const testkit::Leftovers before({"/vol1/docs/@eaDir/sharesnap_share_configuration"});
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(share()));
    const std::string path = "/vol1/docs/@eaDir/sharesnap_share_configuration/share_configuration";
    const std::string whole = testkit::readFile(path);
    sweep(
        {-1, 0}, [&] { ASSERT_TRUE(testkit::writeFile(path, "[share_info]\ndesc=old\n")); },
        [&] { return QOVAShareSnapShareInfoSet(share()); },
        [&](const testkit::FaultPoint &point, int result) {
            const std::string text = testkit::readFile(path);
            if (result == 0 && point.symbol.find("QLIBFS") == std::string::npos) {
                EXPECT_EQ(whole, text) << point;
            }
            EXPECT_TRUE(text.empty() || text.find("[share_info]\n") == 0) << point;
        });
}

TEST_F(FailingCalls, OfAReadCapture) {
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(share()));
    QOVAShareSnapShareInfo *info = nullptr;
    const testkit::Leftovers before({"/vol1/docs/@eaDir/sharesnap_share_configuration"});
    sweep(
        {-1, 0},
        [&] {
            std::free(info);
            info = nullptr;
        },
        [&] { return QOVAShareSnapShareInfoGet(share(), &info); },
        [&](const testkit::FaultPoint &point, int result) {
            EXPECT_EQ(result == 0, info != nullptr) << point;
            EXPECT_EQ("", leftovers(point, before)) << point;
        });
    std::free(info);
}

} // namespace
