// sharesnap create.
#include "command/command.hpp"

#include <sharesnap/platform/subvolume.h>

#include <set>
#include <sys/stat.h>

namespace {

using namespace commandtest;
using testing::MatchesRegex;

class CreateVerb : public CommandTest {};

TEST_F(CreateVerb, TakesASnapshotOfTheFilesAsTheyAre) {
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/plan", "first"));
    const std::string name = take({"--desc", "before the change"});
    EXPECT_THAT(name, MatchesRegex("GMT-[0-9]{4}\\.[0-9]{2}\\.[0-9]{2}-[0-9]{2}\\.[0-9]{2}\\.[0-9]{2}"));
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/plan", "second"));
    EXPECT_EQ("first", testkit::readFile(snapshotPath(name) + "/plan"));
    EXPECT_EQ("before the change\n", sharesnap({"attr", "get", "docs", name, "desc"}).output);
}

TEST_F(CreateVerb, StoresAttributes) {
    const std::string name = take({"--attr", "task=nightly", "--attr", "formula=a=b=c", "--attr", "empty="});
    EXPECT_EQ("nightly\n", sharesnap({"attr", "get", "docs", name, "task"}).output);
    EXPECT_EQ("a=b=c\n", sharesnap({"attr", "get", "docs", name, "formula"}).output);
    EXPECT_EQ("\n", sharesnap({"attr", "get", "docs", name, "empty"}).output);
}

TEST_F(CreateVerb, HiddenOnesAreNotCounted) {
    const std::string hidden = take({"--hide"});
    EXPECT_THAT(listed(), testing::IsEmpty());
    EXPECT_THAT(listed({"--hidden"}), testing::ElementsAre(hidden));
    EXPECT_EQ(0, document({"count", "docs"})["shares"]["docs"]);
}

TEST_F(CreateVerb, FreezesTheConfigurationUnlessToldOtherwise) {
    const std::string with = take();
    EXPECT_EQ(true, document({"show", "docs", with})["frozen_configuration"]);
    ASSERT_TRUE(ends(sharesnap({"share", "add", "music", "/vol1/music"}), done));
    const std::string without = take({"--no-share-info"}, "music");
    EXPECT_EQ(false, document({"show", "music", without})["frozen_configuration"]);
}

TEST_F(CreateVerb, SurvivesNameConflicts) {
    std::set<std::string> names;
    for (int i = 0; i < 3; ++i) { // at most one of them finds its second free
        names.insert(take());
    }
    EXPECT_EQ(3U, names.size());
    EXPECT_EQ(3, document({"count", "docs"})["shares"]["docs"]);
}

TEST_F(CreateVerb, PrintsJson) {
    const auto created = document({"create", "docs", "--wait-hooks"});
    EXPECT_EQ(1, created["schema"]);
    EXPECT_EQ("docs", created["share"]);
    EXPECT_THAT(std::string(created["time"]), MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z"));
    EXPECT_TRUE(testkit::isDirectory(snapshotPath(created["name"])));
}

TEST_F(CreateVerb, TheLimitRefusesAndSaysWhatToDo) {
    ASSERT_TRUE(testkit::writeFile("/etc.defaults/qovainfo.conf", "max_snapshots_per_share=\"1\"\n"));
    (void)take();
    const auto result = sharesnap({"create", "docs"});
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(
        says(result, {"\"docs\"", "/vol1/docs", "SNAP_ERR_SNAPSHOT_LIMIT", "1 a share", "sharesnap delete docs"}));
    EXPECT_EQ(1U, listed().size());
    (void)take({"--hide"}); // the limit counts visible ones
}

TEST_F(CreateVerb, BadAttributesAreRefusedBeforeAnythingChanges) {
    for (const std::string &bad :
         {std::string("novalue"), std::string("=v"), std::string("[k=v"), std::string(";k=v"), std::string("#k=v"),
          std::string("k\nx=v"), std::string("k=v\nx"), std::string("hide=TRUE"), std::string(64, 'k') + "=v",
          "k=" + std::string(512, 'v')}) {
        EXPECT_TRUE(ends(sharesnap({"create", "docs", "--attr", bad}), usage)) << bad;
    }
    EXPECT_TRUE(ends(sharesnap({"create", "docs", "--desc", "two\nlines"}), usage));
    EXPECT_TRUE(ends(sharesnap({"create", "docs", "--no-share-info", "--wait-hooks"}), usage));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap"));
}

TEST_F(CreateVerb, TooManyAttributesAreRefused) {
    Arguments arguments = {"create", "docs"};
    for (int i = 0; i < 60; ++i) {
        arguments.insert(arguments.end(), {"--attr", "key" + std::to_string(i) + "=v"});
    }
    const auto result = sharesnap(arguments);
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {"SNAP_ERR_TOO_MANY_ATTRIBUTES", "64"}));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap"));
    arguments.resize(2 + 2 * 56); // together with its own eight these are 64
    EXPECT_TRUE(ends(sharesnap(arguments), done));
}

TEST_F(CreateVerb, SharesThatCantHaveSnapshotsAreRefusedByName) {
    ASSERT_EQ(0, mkdir("/vol1/plain", 0755));
    ASSERT_EQ("", testkit::addShare("plain", "/vol1/plain"));
    const auto plain = sharesnap({"create", "plain"});
    EXPECT_TRUE(ends(plain, refused));
    EXPECT_TRUE(says(plain, {"\"plain\"", "/vol1/plain", "SNAP_ERR_UNSUPPORTED"}));

    ASSERT_EQ("", testkit::addShare("deep", "/vol1/docs/deep"));
    const auto deep = sharesnap({"create", "deep"});
    EXPECT_TRUE(ends(deep, refused));
    EXPECT_TRUE(says(deep, {"\"deep\"", "/vol1/docs/deep", "top of its volume"}));

    ASSERT_EQ("", testkit::addShare("gone", "/vol1/gone"));
    const auto gone = sharesnap({"create", "gone"});
    EXPECT_TRUE(ends(gone, notFound));
    EXPECT_TRUE(says(gone, {"\"gone\"", "/vol1/gone"}));

    const auto unknown = sharesnap({"create", "nope"});
    EXPECT_TRUE(ends(unknown, notFound));
    EXPECT_TRUE(says(unknown, {"\"nope\""}));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap"));
}

TEST_F(CreateVerb, AVolumeThatIsntMountedIsNamed) {
    ASSERT_TRUE(testkit::Sandbox::unmountVolume("/vol1"));
    const auto result = sharesnap({"create", "docs"});
    EXPECT_TRUE(ends(result, notFound));
    EXPECT_TRUE(says(result, {"\"docs\"", "/vol1", "mount"}));
}

TEST_F(CreateVerb, WhatItMakesIsClosedToOthersWhateverTheUmask) {
    const mode_t before = umask(0);
    (void)take();
    umask(before);
    struct stat status = {};
    ASSERT_EQ(0, stat("/run/lock/sharesnap", &status));
    EXPECT_EQ(0755U, status.st_mode & 07777U);
}

} // namespace
