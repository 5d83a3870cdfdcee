#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/log_capture.hpp"
#include "support/metadata_fixture.hpp"

#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/subvolume.h>
#include <sharesnap/platform/volume.h>

#include <set>
#include <sys/stat.h>

namespace {

using testkit::Names;
using testkit::Pairs;
using Values = std::map<std::string, std::string>;

constexpr const char *orphanText = "orphan snapshot created by unknown application";

class MetaSync : public testkit::MetadataTest {
protected:
    void SetUp() override {
        if (testkit::Sandbox::simulated()) {
            GTEST_SKIP() << "needs the real storage core";
        }
        MetadataTest::SetUp();
    }

    int sync() {
        QLIBCErrSetEx(0, "", 0);
        return QOVAShareSnapMetaSync(docs());
    }
    [[nodiscard]] Values section(const std::string &name) const {
        Pairs pairs;
        EXPECT_EQ(0, QOVAShareSnapAttrList(docs(), name.c_str(), pairs.address()));
        return pairs.all();
    }
    [[nodiscard]] static Values facts(const std::string &name) {
        Pairs pairs;
        EXPECT_EQ(0, QOVASnapFillSubvolInfoWithPath(subvolume(name).c_str(), pairs.address()));
        return pairs.all();
    }
    // The section that the volume's facts make of a snapshot, with the defaults of this process.
    [[nodiscard]] static Values expected(const std::string &name) {
        Pairs pairs;
        EXPECT_EQ(0, QOVASnapFillSubvolInfoWithPath(subvolume(name).c_str(), pairs.address()));
        EXPECT_GE(QOVAShareSnapDefaultAttr(pairs.address()), 0);
        return pairs.all();
    }
    int counted() {
        int count = -1;
        EXPECT_EQ(0, QOVAShareSnapGetSnapCount(docs(), &count, 0));
        return count;
    }
};

TEST_F(MetaSync, DropsASectionWhoseSubvolumeIsGone) {
    takeSubvolume("a");
    writeMeta("[gone]\nhide=false\n");
    EXPECT_EQ(0, sync());
    EXPECT_EQ((std::vector<std::string>{"a"}), listed());
    EXPECT_TRUE(testkit::loggedMatch(LOG_WARNING, "^snapshot_meta_sync\\.cpp:[0-9]+ Success to delete share\\(docs\\) "
                                                  "nonexist snapshot\\(gone\\) meta section\\.\\[0x"));
}

TEST_F(MetaSync, AddsASectionWithFactsAndDefaults) {
    takeSubvolume("a");
    EXPECT_EQ(0, sync());
    EXPECT_EQ(expected("a"), section("a"));
    EXPECT_EQ("", section("a")["desc"]);
    EXPECT_EQ("false", section("a")["hide"]);
    EXPECT_TRUE(testkit::logged(LOG_WARNING, "Success to add share(docs) missing snapshot(a) meta section.["));
}

TEST_F(MetaSync, BringsAnOrphanIntoTheOpen) {
    takeSubvolume("a", true);
    ASSERT_EQ("true", markOf("a"));
    EXPECT_EQ(0, sync());
    EXPECT_EQ(orphanText, section("a")["desc"]);
    EXPECT_EQ("false", section("a")["hide"]);
    EXPECT_EQ("false", markOf("a"));
    EXPECT_EQ(1, counted());
}

TEST_F(MetaSync, AHiddenSnapshotWithASectionStaysHidden) {
    takeSubvolume("a", true);
    Pairs pairs = {{"hide", "true"}};
    ASSERT_EQ(0, QOVAShareSnapMetaSectionAdd(docs(), "a", pairs.get()));
    EXPECT_EQ(0, sync());
    EXPECT_EQ("true", section("a")["hide"]);
    EXPECT_EQ("true", markOf("a"));
    EXPECT_EQ("", section("a")["desc"]);
    EXPECT_EQ(0, counted());
}

TEST_F(MetaSync, KeepsWhatAUserChanged) {
    takeSubvolume("a");
    ASSERT_EQ(0, sync());
    ASSERT_EQ(0, QOVAShareSnapAttrSet(docs(), "a", "desc", "mine"));
    ASSERT_EQ(0, QOVAShareSnapAttrSet(docs(), "a", "lock", "false"));
    ASSERT_EQ(0, QOVAShareSnapAttrSet(docs(), "a", "own", "key"));
    ASSERT_EQ(0, QOVAShareSnapAttrSet(docs(), "a", "ruuid", "wrong"));
    EXPECT_EQ(0, sync());
    EXPECT_EQ("mine", section("a")["desc"]);
    EXPECT_EQ("false", section("a")["lock"]);
    EXPECT_EQ("key", section("a")["own"]);
    EXPECT_EQ(facts("a")["ruuid"], section("a")["ruuid"]);
}

TEST_F(MetaSync, WritesNothingWhenAllAgrees) {
    takeSubvolume("a");
    takeSubvolume("b", true);
    ASSERT_EQ(0, sync());
    const std::string before = meta();
    testkit::logClear();
    const testkit::CallCount sets("QLIBCFileSetSection");
    const testkit::CallCount marks("QOVABtrfsSubvolHideAttrSet");
    EXPECT_EQ(0, sync());
    EXPECT_EQ(before, meta());
    EXPECT_EQ(0u, sets.calls());
    EXPECT_EQ(0u, marks.calls());
    EXPECT_EQ(0u, testkit::logCount(LOG_WARNING, "")) << testkit::logText();
    EXPECT_TRUE(testkit::nothingFailed());
}

TEST_F(MetaSync, AValueThatBeginsWithTheFactCountsAsEqual) {
    takeSubvolume("a");
    ASSERT_EQ(0, sync());
    const std::string fact = facts("a")["ruuid"];
    ASSERT_EQ(0, QOVAShareSnapAttrSet(docs(), "a", "ruuid", (fact + "d").c_str()));
    EXPECT_EQ(0, sync());
    EXPECT_EQ(fact + "d", section("a")["ruuid"]);
    // The reverse doesn't.
    ASSERT_EQ(0, QOVAShareSnapAttrSet(docs(), "a", "ruuid", fact.substr(0, 3).c_str()));
    EXPECT_EQ(0, sync());
    EXPECT_EQ(fact, section("a")["ruuid"]);
}

TEST_F(MetaSync, AnEmptyFactEqualsEveryValue) {
    takeSubvolume("a");
    ASSERT_EQ(0, sync());
    ASSERT_EQ(0, QOVAShareSnapAttrSet(docs(), "a", "parent_uuid", "anything"));
    using Fill = int(const char *, QLIBCSZHASH **);
    const testkit::Replacement<Fill> empty("QOVASnapFillSubvolInfoWithPath", [](const char *path, QLIBCSZHASH **hash) {
        const int result = testkit::real<Fill>("QOVASnapFillSubvolInfoWithPath")(path, hash);
        return QLIBCSzHashSetValue(hash, "parent_uuid", "") < 0 ? -1 : result;
    });
    EXPECT_EQ(0, sync());
    EXPECT_EQ("anything", section("a")["parent_uuid"]);
}

TEST_F(MetaSync, FillsInWhoTookASnapshotThatSaysNothing) {
    takeSubvolume("a");
    ASSERT_EQ(0, sync());
    ASSERT_EQ(0, QOVAShareSnapAttrDelete(docs(), "a", "take-by"));
    EXPECT_EQ(0, sync());
    EXPECT_EQ(expected("a")["take-by"], section("a")["take-by"]);
    EXPECT_TRUE(testkit::logged(LOG_WARNING, "Success to update share(docs) snapshot(a) meta section.["));
}

TEST_F(MetaSync, TheVolumesHideWins) {
    takeSubvolume("a", true);
    takeSubvolume("b", false);
    const Pairs shown = {{"hide", "false"}};
    const Pairs hidden = {{"hide", "true"}};
    ASSERT_EQ(0, QOVAShareSnapMetaSectionAdd(docs(), "a", shown.get()));
    ASSERT_EQ(0, QOVAShareSnapMetaSectionAdd(docs(), "b", hidden.get()));
    EXPECT_EQ(0, sync());
    EXPECT_EQ("true", section("a")["hide"]);
    EXPECT_EQ("true", markOf("a"));
    EXPECT_EQ("false", section("b")["hide"]);
    EXPECT_EQ("false", markOf("b"));
    EXPECT_EQ(1, counted());
}

TEST_F(MetaSync, PassesHideOnWithEveryUpdate) {
    takeSubvolume("a", true);
    const Pairs hidden = {{"hide", "true"}};
    ASSERT_EQ(0, QOVAShareSnapMetaSectionAdd(docs(), "a", hidden.get()));
    const testkit::CallCount marks("QOVABtrfsSubvolHideAttrSet");
    EXPECT_EQ(0, sync()); // the facts are missing
    EXPECT_EQ(1u, marks.calls());
    EXPECT_EQ("true", markOf("a"));
}

TEST_F(MetaSync, AnInvalidHideIsReportedAndStays) {
    takeSubvolume("a");
    writeMeta("[a]\nhide=maybe\n");
    // A platform that tells no hide: the section's own value is looked at.
    const testkit::Replacement<int(const char *, QLIBCSZHASH **)> few(
        "QOVASnapFillSubvolInfoWithPath",
        [](const char *, QLIBCSZHASH **hash) { return QLIBCSzHashSetValue(hash, "uuid", "u"); });
    EXPECT_EQ(0, sync());
    EXPECT_EQ("[a]\nhide=maybe\n", meta());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to QOVAShareSnapDefaultAttr().[0x0D00 "));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to change share(docs) snapshot(a) meta section.[0x0D00 "));
}

TEST_F(MetaSync, ThreeSubvolumesWithoutAFileEndAsThreeSections) {
    takeSubvolume("a");
    takeSubvolume("b");
    takeSubvolume("c", true); // shown by the way
    ASSERT_FALSE(testkit::exists(metaPath));
    EXPECT_EQ(0, sync());
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), listed());
    EXPECT_EQ(3, counted());
}

TEST_F(MetaSync, TakesNoNameFromSharesThatAreCalledAlike) {
    takeSubvolume("a");
    for (const char *name : {"docs2", "doc"}) {
        ASSERT_EQ("", testkit::makeShare(name));
        const testkit::SharePointer other = testkit::getShare(name);
        char path[4096];
        ASSERT_EQ(1, QOVAShareSnapGetOrCreateSnapDir(other.get(), path, sizeof(path), 1));
        ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", (std::string(path) + "/x").c_str()));
    }
    EXPECT_EQ(0, sync());
    EXPECT_EQ((std::vector<std::string>{"a"}), listed());
}

TEST_F(MetaSync, WhatIsNestedGetsASectionUnderItsPath) {
    char path[4096];
    ASSERT_EQ(1, QOVAShareSnapGetOrCreateSnapDir(docs(), path, sizeof(path), 1));
    ASSERT_EQ(0, QOVABtrfsSnapshotTake("/vol1/docs", subvolume("a").c_str()));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol(subvolume("a/inner").c_str()));
    EXPECT_EQ(0, sync());
    EXPECT_EQ((std::vector<std::string>{"a", "a/inner"}), listed());
}

TEST_F(MetaSync, OneBadSnapshotStopsNeitherTheOthersNorTheResult) {
    takeSubvolume("a");
    takeSubvolume("b");
    using Fill = int(const char *, QLIBCSZHASH **);
    const testkit::Replacement<Fill> bad("QOVASnapFillSubvolInfoWithPath", [](const char *path, QLIBCSZHASH **hash) {
        return std::string(path) == subvolume("a") ? -1
                                                   : testkit::real<Fill>("QOVASnapFillSubvolInfoWithPath")(path, hash);
    });
    EXPECT_EQ(0, sync());
    EXPECT_EQ((std::vector<std::string>{"b"}), listed());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get share(docs) snapshot(a) info.["));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to add share(docs) snapshot(a) meta section.["));
}

TEST_F(MetaSync, ASectionAddedForAnOrphanStaysWhenItCannotBeShown) {
    takeSubvolume("a", true);
    const testkit::Fault stuck("QOVABtrfsSubvolHideAttrSet", 0, EIO, -1, 0x2A00);
    EXPECT_EQ(0, sync());
    EXPECT_EQ("true", section("a")["hide"]);
    EXPECT_EQ(orphanText, section("a")["desc"]);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to set share(docs) snapshot(a) hide as false.["));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to add share(docs) snapshot(a) meta section.["));
}

TEST_F(MetaSync, AToolThatCannotBeStartedLosesNothing) {
    takeSubvolume("a");
    ASSERT_EQ(0, sync());
    const std::string before = meta();
    const testkit::Fault fault("QLIBCPopen", 0, ENOENT);
    EXPECT_EQ(-1, sync());
    EXPECT_EQ(before, meta());
    EXPECT_TRUE(
        testkit::logged(LOG_ERR, "Failed to do [/sbin/btrfs subvolume list /vol1], err=No such file or directory"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get volume(/vol1) subvolume list form btrfs.["));
}

TEST_F(MetaSync, ASetThatCannotBeMadeLosesNothing) {
    takeSubvolume("a");
    ASSERT_EQ(0, sync());
    const std::string before = meta();
    for (const char *symbol : {"QLIBCSzListAnd", "QLIBCSzListSub"}) {
        const testkit::Fault fault(symbol, 1);
        EXPECT_EQ(-1, sync()) << symbol;
        EXPECT_EQ(before, meta());
    }
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to sync share(docs) meta.["));
}

TEST_F(MetaSync, ToolOutputIsTrusted) {
    takeSubvolume("a");
    ASSERT_EQ(0, sync());
    const testkit::Replacement<FILE *(const char *, const char *, char *const *)> empty(
        "QLIBCPopen", [](const char *, const char *, char *const *) { return std::tmpfile(); });
    const testkit::Replacement<int(FILE *)> failed("QLIBCPclose", [](FILE *stream) {
        std::fclose(stream);
        return 1;
    });
    EXPECT_EQ(0, sync());
    EXPECT_TRUE(listed().empty());
}

TEST_F(MetaSync, AVolumeThatCannotBeTold) {
    const testkit::Fault fault("QOVAMountVolInfoGet");
    EXPECT_EQ(-1, sync());
    EXPECT_EQ(0x8300u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get volume info = /vol1/docs, qovaerr=[0x"));
    EXPECT_EQ(-1, QOVAShareSnapMetaSync(nullptr));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
}

TEST_F(MetaSync, AFailedRecountFails) {
    takeSubvolume("a");
    const testkit::Fault fault("setxattr", 0, EIO);
    EXPECT_EQ(-1, sync());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to sync share(docs)'s snapshot count.["));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to sync share(docs) meta.["));
    EXPECT_EQ((std::vector<std::string>{"a"}), listed());
}

TEST_F(MetaSync, AnotherFileSystemIsUnsupportedAndPassedOver) {
    ASSERT_EQ("", testkit::Sandbox::mountVolume("/vol2", "ext4", 32));
    ASSERT_EQ(0, mkdir("/vol2/plain", 0755));
    ASSERT_EQ("", testkit::addShare("plain", "/vol2/plain"));
    const testkit::SharePointer plain = testkit::getShare("plain");
    testkit::logClear();
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, QOVAShareSnapMetaSync(plain.get()));
    EXPECT_EQ(0xD900u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logLines().empty()) << testkit::logText();
    std::vector<std::string> asked;
    using Get = int(const char *, QOVASHARE **);
    const testkit::Replacement<Get> get("QOVAShareGet", [&](const char *name, QOVASHARE **share) {
        asked.emplace_back(name);
        return testkit::real<Get>("QOVAShareGet")(name, share);
    });
    EXPECT_EQ(0, QOVAShareSnapMetaSyncAll());
    EXPECT_EQ((std::vector<std::string>{"docs"}), asked);
}

TEST_F(MetaSync, AllSharesOfAllVolumes) {
    takeSubvolume("a");
    ASSERT_EQ("", testkit::Sandbox::mountVolume("/vol2"));
    ASSERT_EQ("", testkit::makeShare("far", "/vol2"));
    const testkit::SharePointer far = testkit::getShare("far");
    char path[4096];
    ASSERT_EQ(1, QOVAShareSnapGetOrCreateSnapDir(far.get(), path, sizeof(path), 1));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol2/far", "/vol2/@sharesnap/far/b"));
    std::multiset<std::string> asked;
    using Get = int(const char *, QOVASHARE **);
    const testkit::Replacement<Get> get("QOVAShareGet", [&](const char *name, QOVASHARE **share) {
        asked.insert(name);
        return testkit::real<Get>("QOVAShareGet")(name, share);
    });
    EXPECT_EQ(0, QOVAShareSnapMetaSyncAll());
    EXPECT_EQ((std::multiset<std::string>{"docs", "far"}), asked); // each once
    EXPECT_EQ((std::vector<std::string>{"a"}), listed());
    Names names;
    EXPECT_EQ(0, QOVAShareSnapList(far.get(), names.address(), nullptr));
    EXPECT_EQ((std::vector<std::string>{"b"}), names.all());
}

TEST_F(MetaSync, AShareThatCannotBeFetchedIsSkipped) {
    ASSERT_EQ("", testkit::makeShare("other"));
    takeSubvolume("a");
    using Get = int(const char *, QOVASHARE **);
    const testkit::Replacement<Get> get("QOVAShareGet", [](const char *name, QOVASHARE **share) {
        if (std::string(name) == "other") {
            QLIBCErrSetEx(0x2200, "test", 1);
            return -1;
        }
        return testkit::real<Get>("QOVAShareGet")(name, share);
    });
    EXPECT_EQ(0, QOVAShareSnapMetaSyncAll());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get share (other)[0x2200 "));
    EXPECT_EQ((std::vector<std::string>{"a"}), listed());
}

TEST_F(MetaSync, AllGivesMinusOneForItsFirstAllocationAlone) {
    {
        const testkit::Fault fault("QLIBCSzListAlloc");
        EXPECT_EQ(-1, QOVAShareSnapMetaSyncAll());
        EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to QLIBCSzListAlloc().[0x0200 "));
    }
    {
        const testkit::Fault fault("QOVAMountVolAllEnum");
        EXPECT_EQ(0, QOVAShareSnapMetaSyncAll());
    }
    const testkit::Fault fault("QOVAShareEnumByMntPathAndEnumType");
    EXPECT_EQ(0, QOVAShareSnapMetaSyncAll());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get volume(/vol1) share list.["));
}

TEST_F(MetaSync, FindsTheNamesOfOneShareAmongTheVolumesPaths) {
    const Names paths = {"docs",
                         "@sharesnap",
                         "@sharesnap/docs",
                         "@sharesnap/docs/a",
                         "@sharesnap/docs2/b",
                         "@sharesnap/@docs@/c",
                         "x/@sharesnap/docs/d",
                         "@sharesnap/docs/e f/g"};
    Names names;
    EXPECT_EQ(0, SnapMetaSyncFindShareSnapList(docs(), paths.get(), names.address()));
    EXPECT_EQ((std::vector<std::string>{"a", "e f/g"}), names.all());
    ASSERT_EQ("", testkit::addShare("safe", "/vol1/docs", 0x02));
    const testkit::SharePointer safe = testkit::getShare("safe");
    safe->uStatus = 0x02;
    const Names locked = {"@sharesnap/@safe@/c", "@sharesnap/safe/d"};
    Names found;
    EXPECT_EQ(0, SnapMetaSyncFindShareSnapList(safe.get(), locked.get(), found.address()));
    EXPECT_EQ((std::vector<std::string>{"c"}), found.all());
    EXPECT_EQ(-1, SnapMetaSyncFindShareSnapList(nullptr, paths.get(), names.address()));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
}

TEST_F(MetaSync, ListsAllSubvolumesOfAVolume) {
    takeSubvolume("a");
    Names names;
    EXPECT_EQ(0, SnapMetaSyncBtrfsListVol("/vol1", names.address()));
    EXPECT_EQ((std::vector<std::string>{"docs", "@sharesnap", "@sharesnap/docs", "@sharesnap/docs/a"}), names.all());
}

} // namespace
