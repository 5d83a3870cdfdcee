// sharesnap share.
#include "command/command.hpp"

#include <sharesnap/platform/subvolume.h>

#include <sys/stat.h>

namespace {

using namespace commandtest;
using testing::ElementsAre;

class ShareVerb : public CommandTest {};

TEST_F(ShareVerb, AddMakesSubvolumeAndRecord) {
    ASSERT_TRUE(ends(sharesnap({"share", "add", "music", "/vol1/music/", "--desc", "Music, all of it"}), done));
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/music"));
    const auto record = testkit::getShare("music");
    ASSERT_NE(nullptr, record);
    EXPECT_STREQ("/vol1/music", record->szPath);
    EXPECT_STREQ("Music, all of it", record->szDesc);
}

TEST_F(ShareVerb, AddExistingTakesAStandingSubvolumeAsItIs) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/old"));
    ASSERT_TRUE(testkit::writeFile("/vol1/old/file", "kept"));
    ASSERT_TRUE(ends(sharesnap({"share", "add", "old", "/vol1/old", "--existing"}), done));
    EXPECT_EQ("kept", testkit::readFile("/vol1/old/file"));
    EXPECT_NE(nullptr, testkit::getShare("old"));
}

TEST_F(ShareVerb, AddRefusesWhatStandsInItsWay) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/old"));
    const auto result = sharesnap({"share", "add", "old", "/vol1/old"});
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {"\"old\"", "/vol1/old", "--existing"}));
    EXPECT_EQ(nullptr, testkit::getShare("old"));
}

TEST_F(ShareVerb, AddExistingRefusesAPlainDirectory) {
    ASSERT_EQ(0, mkdir("/vol1/plain", 0755));
    const auto result = sharesnap({"share", "add", "plain", "/vol1/plain", "--existing"});
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {"plain", "no Btrfs subvolume", "SNAP_ERR_UNSUPPORTED"}));
    EXPECT_EQ(nullptr, testkit::getShare("plain"));
}

TEST_F(ShareVerb, AddExistingSaysWhenNothingStandsThere) {
    const auto result = sharesnap({"share", "add", "none", "/vol1/none", "--existing"});
    EXPECT_TRUE(ends(result, notFound));
    EXPECT_TRUE(says(result, {"\"none\"", "/vol1/none"}));
    EXPECT_EQ(nullptr, testkit::getShare("none"));
}

TEST_F(ShareVerb, AddRefusesATakenName) {
    const auto result = sharesnap({"share", "add", "docs", "/vol1/docs", "--existing"});
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {"\"docs\"", "SNAP_ERR_ALREADY_EXISTS"}));
}

TEST_F(ShareVerb, AddRefusesAPathBelowTheTopOfTheVolume) {
    ASSERT_EQ(0, mkdir("/vol1/deep", 0755));
    const auto result = sharesnap({"share", "add", "inner", "/vol1/deep/inner"});
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {"\"inner\"", "/vol1/deep/inner", "top of its volume"}));
    EXPECT_FALSE(testkit::exists("/vol1/deep/inner"));
    EXPECT_EQ(nullptr, testkit::getShare("inner"));
}

TEST_F(ShareVerb, AddSaysThatNoVolumeIsMounted) {
    const auto result = sharesnap({"share", "add", "far", "/vol7/far"});
    EXPECT_TRUE(ends(result, notFound));
    EXPECT_TRUE(says(result, {"\"far\"", "/vol7"}));
    EXPECT_EQ(nullptr, testkit::getShare("far"));
}

TEST_F(ShareVerb, AddRefusesBadNamesAndPaths) {
    for (const Arguments &arguments : {Arguments{"", "/vol1/x"},
                                       {"..", "/vol1/.."},
                                       {"a/b", "/vol1/a/b"},
                                       {"a\nb", "/vol1/a"},
                                       {"@docs@", "/vol1/@docs@"},
                                       {"[x]", "/vol1/[x]"},
                                       {"x", "vol1/x"},
                                       {"x", "/vol1/y"},
                                       {std::string(201, 'n'), "/vol1/n"}}) {
        const auto result = sharesnap({"share", "add", arguments[0], arguments[1]});
        EXPECT_TRUE(ends(result, usage)) << arguments[0] << " at " << arguments[1];
    }
    EXPECT_EQ(1U, document({"share", "list"})["shares"].size());
}

TEST_F(ShareVerb, ListShowsAlignedColumns) {
    ASSERT_TRUE(ends(sharesnap({"share", "add", "m", "/vol1/m", "--desc", "short name"}), done));
    EXPECT_THAT(lines(sharesnap({"share", "list"}).output),
                ElementsAre("SHARE  PATH        ENCRYPTED  DESCRIPTION", "docs   /vol1/docs  no",
                            "m      /vol1/m     no         short name"));
    EXPECT_THAT(lines(sharesnap({"share", "ls", "--no-headers"}).output),
                ElementsAre("docs  /vol1/docs  no", "m     /vol1/m     no  short name"));
}

TEST_F(ShareVerb, ListAsJsonHasASchema) {
    const auto shares = document({"share", "list"});
    EXPECT_EQ(1, shares["schema"]);
    ASSERT_EQ(1U, shares["shares"].size());
    EXPECT_EQ("docs", shares["shares"][0]["name"]);
    EXPECT_EQ("/vol1/docs", shares["shares"][0]["path"]);
    EXPECT_EQ(false, shares["shares"][0]["encrypted"]);
}

TEST_F(ShareVerb, ShowTellsHowManySnapshotsThereAre) {
    (void)take();
    const auto shown = document({"share", "show", "docs"});
    EXPECT_EQ(true, shown["supported"]);
    EXPECT_EQ(1, shown["snapshots"]);
    EXPECT_EQ(1024, shown["limit"]);
}

TEST_F(ShareVerb, ShowTellsWhyThereCanBeNone) {
    ASSERT_EQ(0, mkdir("/vol1/plain", 0755));
    ASSERT_EQ("", testkit::addShare("plain", "/vol1/plain"));
    const auto shown = document({"share", "show", "plain"});
    EXPECT_EQ(false, shown["supported"]);
    EXPECT_THAT(std::string(shown["reason"]), testing::HasSubstr("no Btrfs subvolume"));
}

TEST_F(ShareVerb, RemoveTakesRecordAndSettingsAndLeavesTheFiles) {
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/file", "kept"));
    ASSERT_TRUE(ends(sharesnap({"conf", "set", "docs", "local_time_format", "true"}), done));
    ASSERT_TRUE(ends(sharesnap({"share", "remove", "docs"}), done));
    EXPECT_EQ(nullptr, testkit::getShare("docs"));
    EXPECT_EQ("kept", testkit::readFile("/vol1/docs/file"));
    ASSERT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol1/docs", "--existing"}), done));
    EXPECT_TRUE(ends(sharesnap({"conf", "get", "docs", "local_time_format"}), notFound));
}

TEST_F(ShareVerb, RemoveRefusesWhileSnapshotsExist) {
    const std::string name = take({"--hide"});
    for (const Arguments &arguments : {Arguments{"share", "remove", "docs"}, {"share", "remove", "docs", "--clean"}}) {
        const auto result = sharesnap(arguments);
        EXPECT_TRUE(ends(result, refused));
        EXPECT_TRUE(says(result, {"\"docs\"", "1 snapshot"}));
    }
    EXPECT_NE(nullptr, testkit::getShare("docs"));
    EXPECT_TRUE(testkit::isDirectory(snapshotPath(name)));
}

TEST_F(ShareVerb, RemoveRefusesWhileAListOfSnapshotsStands) {
    const std::string name = take();
    ASSERT_TRUE(ends(sharesnap({"delete", "docs", name}), done));
    const auto result = sharesnap({"share", "remove", "docs"});
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {"/vol1/@sharesnap/@docs.meta", "--clean"}));
    EXPECT_NE(nullptr, testkit::getShare("docs"));
    ASSERT_TRUE(ends(sharesnap({"share", "remove", "docs", "--clean"}), done));
    EXPECT_EQ(nullptr, testkit::getShare("docs"));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/@docs.meta"));
}

// Only where nothing stands an earlier removal took the data.
TEST_F(ShareVerb, RemoveWithDataRefusesWhatIsNoSubvolume) {
    const std::string name = take();
    ASSERT_EQ(0, rename("/vol1/docs", "/vol1/away"));
    ASSERT_EQ(0, mkdir("/vol1/docs", 0755));
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/file", "kept"));
    const auto result = sharesnap({"share", "remove", "docs", "--data", "--yes"});
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {"\"docs\"", "/vol1/docs", "no Btrfs subvolume", "next: "}));
    EXPECT_NE(nullptr, testkit::getShare("docs"));
    EXPECT_EQ("kept", testkit::readFile("/vol1/docs/file"));
    EXPECT_TRUE(testkit::isDirectory(snapshotPath(name)));
    EXPECT_THAT(testkit::readFile("/vol1/@sharesnap/@docs.meta"), testing::HasSubstr(name));
}

TEST_F(ShareVerb, RemoveWithDataRefusesToLeaveSnapshotsBehind) {
    const std::string name = take();
    ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/docs"));
    const auto result = sharesnap({"share", "remove", "docs", "--data", "--yes"});
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {"\"docs\"", "nothing stands at /vol1/docs", "next: "}));
    EXPECT_NE(nullptr, testkit::getShare("docs"));
    EXPECT_TRUE(testkit::isDirectory(snapshotPath(name)));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs"));
    ASSERT_EQ(0, sharesnap({"share", "remove", "docs", "--data", "--yes"}).exitStatus);
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/docs"));
    EXPECT_EQ(nullptr, testkit::getShare("docs"));
}

TEST_F(ShareVerb, RemoveWithDataSaysWhatToDoAboutAStandInThatStays) {
    ASSERT_EQ(0, mkdir("/vol1/@restore-docs", 0755)); // no subvolume
    const auto result = sharesnap({"share", "remove", "docs", "--data", "--yes"});
    EXPECT_NE(done, result.exitStatus);
    EXPECT_TRUE(says(result, {"can't remove", "next: the next restore", "move it away"})) << result.errors;
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/docs"));
    EXPECT_NE(nullptr, testkit::getShare("docs"));
}

TEST_F(ShareVerb, RemoveWithDataGoesOnWhereAnEarlierOneEnded) {
    ASSERT_TRUE(ends(sharesnap({"delete", "docs", take()}), done));
    ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/docs"));
    ASSERT_EQ(0, sharesnap({"share", "remove", "docs", "--data", "--yes"}).exitStatus);
    EXPECT_EQ(nullptr, testkit::getShare("docs"));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/@docs.meta"));
}

TEST_F(ShareVerb, RenameTakesEverythingAlong) {
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/file", "kept"));
    ASSERT_TRUE(ends(sharesnap({"conf", "set", "docs", "schedule_task_id", "17"}), done));
    const std::string name = take({"--desc", "from before"});
    ASSERT_TRUE(ends(sharesnap({"hold", "add", "docs", name, "backup"}), done));
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "papers"}), done));
    EXPECT_EQ(nullptr, testkit::getShare("docs"));
    EXPECT_STREQ("/vol1/papers", testkit::getShare("papers")->szPath);
    EXPECT_EQ("kept", testkit::readFile("/vol1/papers/file"));
    EXPECT_EQ("from before\n", sharesnap({"attr", "get", "papers", name, "desc"}).output);
    EXPECT_EQ("kept", testkit::readFile(snapshotPath(name, "papers") + "/file"));
    EXPECT_EQ("17\n", sharesnap({"conf", "get", "papers", "schedule_task_id"}).output);
    EXPECT_EQ(1, document({"count", "papers"})["shares"]["papers"]);
    EXPECT_TRUE(ends(sharesnap({"delete", "papers", name}), refused)) << "it is still held";
    EXPECT_FALSE(testkit::exists("/vol1/docs"));
}

TEST_F(ShareVerb, RenameRefusesWhatIsTaken) {
    ASSERT_TRUE(ends(sharesnap({"share", "add", "music", "/vol1/music"}), done));
    ASSERT_EQ(0, mkdir("/vol1/blocked", 0755));
    EXPECT_TRUE(ends(sharesnap({"share", "rename", "docs", "music"}), refused));
    EXPECT_TRUE(ends(sharesnap({"share", "rename", "docs", "blocked"}), refused));
    EXPECT_TRUE(ends(sharesnap({"share", "rename", "docs", "a/b"}), usage));
    EXPECT_STREQ("/vol1/docs", testkit::getShare("docs")->szPath);
}

TEST_F(ShareVerb, RenameRefusesANameThatHasSnapshots) {
    const std::string name = take();
    writeList("[GMT-2015.01.01-00.00.00]\nhide=false\n", "papers");
    const auto result = sharesnap({"share", "rename", "docs", "papers"});
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {"\"docs\"", "\"papers\"", "SNAP_ERR_ALREADY_EXISTS"}));
    EXPECT_EQ(nullptr, testkit::getShare("papers"));
    EXPECT_STREQ("/vol1/docs", testkit::getShare("docs")->szPath);
    EXPECT_THAT(listed(), ElementsAre(name));
}

TEST_F(ShareVerb, UnknownShareIsNamed) {
    for (const Arguments &arguments :
         {Arguments{"share", "show", "nope"}, {"share", "remove", "nope"}, {"share", "rename", "nope", "other"}}) {
        const auto result = sharesnap(arguments);
        EXPECT_TRUE(ends(result, notFound));
        EXPECT_TRUE(says(result, {"no share \"nope\"", "sharesnap share list"}));
    }
}

} // namespace
