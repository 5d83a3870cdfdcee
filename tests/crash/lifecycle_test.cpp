// A process is killed at every system call of an operation. Afterwards one quiet reconciliation makes everything true:
// the metadata names the subvolumes that exist, the counter is exact, and no older snapshot has lost anything.
#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/mresult.h>
#include <sharesnap/platform/subvolume.h>

#include <cstdio>
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

class Crash : public testkit::DocsVolumeTest {
protected:
    void SetUp() override {
        DocsVolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
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

// Leaves behind what a reconciliation has to do: a stale section, a visible subvolume and a hidden one without a section,
// a section with a wrong fact, a wrong counter.
class CrashInSync : public Crash {
protected:
    const std::string orphan_ = eight()[2];
    const std::string refreshed_ = eight()[3];

    void disturb() {
        reset({});
        take(eight()[0]);
        ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant(subvolume(eight()[0]).c_str()));
        ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", subvolume(eight()[1]).c_str()));
        ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", subvolume(orphan_).c_str()));
        ASSERT_EQ(0, QOVABtrfsSubvolHideAttrSet(subvolume(orphan_).c_str(), 1));
        take(refreshed_);
        ASSERT_EQ(0, QOVAShareSnapAttrSet(share(), refreshed_.c_str(), "uuid", "wrong"));
        ASSERT_EQ(0, QOVAShareSnapAttrSet(share(), refreshed_.c_str(), "desc", "mine"));
        ASSERT_LT(0, QOVAShareSnapUpdateSnapCountEx(share(), 7, 1));
    }

    static std::string subvolume(const std::string &name) { return "/vol1/@sharesnap/docs/" + name; }

    [[nodiscard]] std::string attribute(const std::string &name, const std::string &key) const {
        char value[1024] = "";
        return QOVAShareSnapAttrGet(share(), name.c_str(), key.c_str(), value, sizeof(value)) == 0 ? value : "absent";
    }

    static std::string factOf(const std::string &name, const std::string &key) {
        QLIBCSZHASH *facts = QLIBCSzHashAlloc(1024);
        EXPECT_EQ(0, QOVASnapFillSubvolInfoWithPath(subvolume(name).c_str(), &facts));
        const char *value = QLIBCSzHashGetValue(facts, key.c_str());
        const std::string text = value != nullptr ? value : "absent";
        QLIBCSzHashFree(facts);
        return text;
    }

    void expectSettled() {
        expectTruth();
        EXPECT_EQ(0U, onVolume().count(eight()[0]));
        EXPECT_EQ(1U, onVolume().count(eight()[1]));
        EXPECT_EQ("mine", attribute(refreshed_, "desc"));
        EXPECT_EQ(factOf(refreshed_, "uuid"), attribute(refreshed_, "uuid"));
        // One killed between its section and its showing stays hidden, on the volume and in the section alike.
        EXPECT_EQ("orphan snapshot created by unknown application", attribute(orphan_, "desc"));
        EXPECT_EQ(factOf(orphan_, "hide"), attribute(orphan_, "hide"));
        shown_ += attribute(orphan_, "hide") == "false" ? 1 : 0;
    }

    size_t shown_ = 0;
};

TEST_F(CrashInSync, OnePassMakesItTrue) {
    testkit::CrashSweep sweep;
    sweep.step = longStep();
    sweep.prepare = [&] { disturb(); };
    sweep.operation = [&] { (void)QOVAShareSnapMetaSync(share()); };
    sweep.check = [&](size_t) { expectSettled(); };
    const size_t points = sweep.run();
    EXPECT_LT(20u, points);
    EXPECT_LT(points / 2, shown_); // the kill met the one moment for it, or one behind it
}

// What is left to do grows less from kill to kill, so not each of the second ones is met any more.
TEST_F(CrashInSync, SecondKillNeedsTwoPassesAtMost) {
    ASSERT_NO_FATAL_FAILURE(disturb());
    const size_t calls = testkit::countCalls([&] { (void)QOVAShareSnapMetaSync(share()); });
    ASSERT_LT(20u, calls);
    size_t second = 0;
    size_t met = 0;
    testkit::CrashSweep sweep;
    sweep.step = longStep() * 3;
    sweep.prepare = [&] { disturb(); };
    sweep.operation = [&] { (void)QOVAShareSnapMetaSync(share()); };
    sweep.check = [&](size_t first) {
        second += 37; // another place each time
        const size_t place = 1 + second % calls;
        const testing::ScopedTrace trace(__FILE__, __LINE__, "and at call " + std::to_string(place));
        met += testkit::killAtCall(place, [&] { (void)QOVAShareSnapMetaSync(share()); }) ? 1 : 0;
        ASSERT_EQ(0, QOVAShareSnapMetaSync(share())) << first;
        expectSettled();
    };
    const size_t points = sweep.run();
    std::printf("[  SECOND  ] %zu of %zu were killed once more, within %zu calls\n", met, points, calls);
    EXPECT_LT(10u, points);
    EXPECT_LT(points, 2 * met);
}

} // namespace
