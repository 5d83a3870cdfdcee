// A process is killed at every system call of an operation. Afterwards one quiet reconciliation makes everything true:
// the metadata names the subvolumes that exist, the counter is exact, and no older snapshot has lost anything.
#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/mresult.h>
#include <sharesnap/platform/subvolume.h>

#include <cstdlib>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

#include "support/crash.hpp"
#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"

namespace {

constexpr char kOlder[] = "GMT-2020.01.01-00.00.00";
constexpr time_t kFirstTime = 1767225600; // 2026-01-01: each run has a second of its own

using Names = std::set<std::string>;

// Points left out between two; the campaign takes every one of the long sweeps as well.
size_t longStep() {
    return std::getenv("SHARESNAP_CRASH_ALL") != nullptr ? 1 : 5;
}

class Crash : public testkit::VolumeTest {
protected:
    void SetUp() override {
        VolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_EQ("", testkit::makeShare("docs"));
        share_ = testkit::getShare("docs");
        take(kOlder);
        ASSERT_EQ(0, QOVAShareSnapAttrSet(share(), kOlder, "note", "keep me"));
        ASSERT_EQ(1, QOVAShareSnapSyncSnapCount(share()));
    }

    [[nodiscard]] const QOVASHARE *share() const { return share_.get(); }

    // A snapshot of that very name, with its section.
    void take(const std::string &name) {
        char path[4096];
        ASSERT_EQ(1, QOVAShareSnapGetOrCreateSnapDir(share(), path, sizeof(path), 1));
        ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", (std::string(path) + "/" + name).c_str()));
        QLIBCSZHASH *hash = QLIBCSzHashAlloc(256);
        ASSERT_LE(0, QOVAShareSnapDefaultAttr(&hash));
        ASSERT_EQ(0, QOVAShareSnapMetaSectionAdd(share(), name.c_str(), hash));
        QLIBCSzHashFree(hash);
    }

    static std::vector<std::string> eight() {
        std::vector<std::string> names;
        for (int i = 0; i < 8; ++i) {
            names.push_back("GMT-2021.01.01-00.00.0" + std::to_string(i));
        }
        return names;
    }

    // Only the older snapshot, and these, stand with their sections; the counter is exact.
    void reset(const std::vector<std::string> &names) {
        for (const std::string &name : onVolume()) {
            if (name != kOlder) {
                ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant(("/vol1/@sharesnap/docs/" + name).c_str()));
            }
        }
        ASSERT_EQ(0, QOVAShareSnapMetaSync(share()));
        for (const std::string &name : names) {
            take(name);
        }
        ASSERT_EQ(0, QOVAShareSnapMetaSync(share()));
    }

    static void remove(const QOVASHARE *share, const std::vector<std::string> &names) {
        QLIBCSZLIST *list = QLIBCSzListAlloc(1024);
        for (const std::string &name : names) {
            (void)QLIBCSzListPush(&list, name.c_str());
        }
        QLIBCMRESULT *results = QLIBCMResultAlloc();
        (void)QOVAShareSnapDelete(share, list, &results);
        QLIBCMResultFree(results);
        QLIBCSzListFree(list);
    }

    static Names onVolume() {
        Names names;
        for (const std::string &name : testkit::directoryNames("/vol1/@sharesnap/docs")) {
            if (QOVABtrfsIsSubVol(("/vol1/@sharesnap/docs/" + name).c_str()) == 1) {
                names.insert(name);
            }
        }
        return names;
    }

    [[nodiscard]] Names listed(bool visibleOnly = false) const {
        QLIBCSZLIST *list = QLIBCSzListAlloc(1024);
        char visible[] = "hide=false";
        QOVAShareSnapEnum *chain = nullptr;
        if (visibleOnly) {
            EXPECT_EQ(0, QOVAShareSnapSelectorAdd(&chain, QOVAShareSnapAttrSelector, visible));
        }
        EXPECT_EQ(0, QOVAShareSnapList(share(), &list, chain));
        Names names;
        for (int i = 0; i < list->nItem; ++i) {
            names.insert(QLIBCSzListGet(list, i));
        }
        QOVAShareSnapEnumFree(chain);
        QLIBCSzListFree(list);
        return names;
    }

    // One pass, and everything is true.
    void expectTruth() {
        ASSERT_EQ(0, QOVAShareSnapMetaSync(share()));
        EXPECT_EQ(onVolume(), listed());
        int count = -1;
        EXPECT_EQ(0, QOVAShareSnapGetSnapCount(share(), &count, 0));
        EXPECT_EQ(listed(true).size(), static_cast<size_t>(count));
        EXPECT_EQ(1u, onVolume().count(kOlder));
        char note[64] = "";
        EXPECT_EQ(0, QOVAShareSnapAttrGet(share(), kOlder, "note", note, sizeof(note)));
        EXPECT_STREQ("keep me", note);
    }

    testkit::SharePointer share_;
};

TEST_F(Crash, InACreation) {
    testkit::FixedTime clock(kFirstTime);
    time_t now = kFirstTime;
    testkit::CrashSweep sweep;
    sweep.prepare = [&] {
        clock.set(++now);
        if (now % 20 == 0) {
            reset({});
        }
    };
    sweep.operation = [&] { (void)QOVAShareSnapCreate(share(), nullptr, 0, nullptr); };
    sweep.check = [&](size_t) { expectTruth(); };
    EXPECT_LT(40u, sweep.run());
}

TEST_F(Crash, InADeletionOfOne) {
    testkit::CrashSweep sweep;
    sweep.prepare = [&] { reset({eight()[0]}); };
    sweep.operation = [&] { remove(share(), {eight()[0]}); };
    sweep.check = [&](size_t) { expectTruth(); };
    EXPECT_LT(40u, sweep.run());
}

TEST_F(Crash, InADeletionOfEight) {
    testkit::CrashSweep sweep;
    sweep.step = longStep();
    sweep.prepare = [&] { reset(eight()); };
    sweep.operation = [&] { remove(share(), eight()); };
    sweep.check = [&](size_t) { expectTruth(); };
    EXPECT_LT(20u, sweep.run());
}

TEST_F(Crash, InAChangeOfAnAttribute) {
    testkit::CrashSweep sweep;
    sweep.prepare = [&] { ASSERT_EQ(0, QOVAShareSnapAttrSet(share(), kOlder, "color", "blue")); };
    sweep.operation = [&] { (void)QOVAShareSnapAttrSet(share(), kOlder, "color", "red"); };
    sweep.check = [&](size_t) {
        char color[16] = "";
        EXPECT_EQ(0, QOVAShareSnapAttrGet(share(), kOlder, "color", color, sizeof(color)));
        EXPECT_TRUE(std::string(color) == "blue" || std::string(color) == "red") << color;
        expectTruth();
    };
    EXPECT_LT(20u, sweep.run());
}

TEST_F(Crash, InAChangeOfTheHiddenMark) {
    testkit::CrashSweep sweep;
    sweep.prepare = [&] { ASSERT_EQ(0, QOVAShareSnapAttrSet(share(), kOlder, "hide", "false")); };
    sweep.operation = [&] { (void)QOVAShareSnapAttrSet(share(), kOlder, "hide", "true"); };
    sweep.check = [&](size_t) { expectTruth(); };
    EXPECT_LT(20u, sweep.run());
}

// Leaves a stale section, a subvolume without a section and a wrong counter behind: work for a reconciliation.
class CrashInSync : public Crash {
protected:
    void disturb() {
        reset({});
        take(eight()[0]);
        ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant(("/vol1/@sharesnap/docs/" + eight()[0]).c_str()));
        ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", ("/vol1/@sharesnap/docs/" + eight()[1]).c_str()));
        ASSERT_LT(0, QOVAShareSnapUpdateSnapCountEx(share(), 7, 1));
    }
};

TEST_F(CrashInSync, OnePassMakesItTrue) {
    testkit::CrashSweep sweep;
    sweep.step = longStep();
    sweep.prepare = [&] { disturb(); };
    sweep.operation = [&] { (void)QOVAShareSnapMetaSync(share()); };
    sweep.check = [&](size_t) { expectTruth(); };
    EXPECT_LT(10u, sweep.run());
}

TEST_F(CrashInSync, SecondKillNeedsTwoPassesAtMost) {
    size_t second = 1;
    testkit::CrashSweep sweep;
    sweep.step = longStep() * 3;
    sweep.prepare = [&] { disturb(); };
    sweep.operation = [&] { (void)QOVAShareSnapMetaSync(share()); };
    sweep.check = [&](size_t) {
        second += 37; // another place each time
        (void)testkit::killAtCall(1 + second % 200, [&] { (void)QOVAShareSnapMetaSync(share()); });
        ASSERT_EQ(0, QOVAShareSnapMetaSync(share()));
        expectTruth();
    };
    EXPECT_LT(3u, sweep.run());
}

} // namespace
