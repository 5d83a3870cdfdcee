// sharesnap sync, clone and size.
#include "command/command.hpp"

#include <sharesnap/platform/subvolume.h>

#include <sys/stat.h>

namespace {

using namespace commandtest;
using testing::ElementsAre;
using testing::HasSubstr;

class SyncVerb : public CommandTest {
protected:
    static constexpr char foreign[] = "GMT-2015.01.01-00.00.00";

    // One snapshot that the list doesn't know, and one section whose snapshot is gone.
    void disturb() {
        stale_ = take();
        ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", snapshotPath(foreign).c_str()));
        ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant(snapshotPath(stale_).c_str()));
    }

    std::string stale_;
};

TEST_F(SyncVerb, MakesTheListTrue) {
    disturb();
    EXPECT_THAT(listed(), ElementsAre(stale_));
    const auto result = sharesnap({"sync", "docs"});
    EXPECT_TRUE(ends(result, done));
    EXPECT_THAT(result.output, HasSubstr(stale_ + "  taken from the list"));
    EXPECT_THAT(result.output, HasSubstr(std::string(foreign) + "  added to the list"));
    EXPECT_THAT(listed(), ElementsAre(foreign));
    EXPECT_EQ(1, document({"count", "docs"})["shares"]["docs"]);
    EXPECT_EQ(
        (nlohmann::json{{{"name", "docs"}, {"removed", nlohmann::json::array()}, {"added", nlohmann::json::array()}}}),
        document({"sync", "docs"})["shares"]);
}

TEST_F(SyncVerb, ADryRunOnlyTells) {
    disturb();
    const auto told = document({"sync", "docs", "--dry-run"});
    EXPECT_EQ(true, told["dry_run"]);
    EXPECT_EQ((nlohmann::json{{{"name", "docs"}, {"removed", {stale_}}, {"added", {foreign}}}}), told["shares"]);
    EXPECT_THAT(listed(), ElementsAre(stale_));
}

TEST_F(SyncVerb, AllReportsEveryShareAndGoesOnPastABadOne) {
    disturb();
    ASSERT_EQ("", testkit::addShare("deep", "/vol1/docs/deep"));
    ASSERT_TRUE(ends(sharesnap({"share", "add", "music", "/vol1/music"}), done));
    const auto result = sharesnap({"sync", "--all", "--json"});
    EXPECT_TRUE(ends(result, inPart));
    EXPECT_TRUE(says(result, {"\"deep\""}));
    EXPECT_EQ(2U, nlohmann::json::parse(result.output)["shares"].size());
    EXPECT_THAT(listed(), ElementsAre(foreign));
}

TEST_F(SyncVerb, NeedsAShareOrAll) {
    EXPECT_TRUE(ends(sharesnap({"sync"}), usage));
    EXPECT_TRUE(ends(sharesnap({"sync", "docs", "--all"}), usage));
    EXPECT_TRUE(ends(sharesnap({"sync", "nope"}), notFound));
}

class CloneVerb : public CommandTest {};

TEST_F(CloneVerb, MakesAWritableShareOutOfASnapshot) {
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/plan", "first"));
    const std::string name = take();
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/plan", "second"));
    ASSERT_TRUE(ends(sharesnap({"clone", "docs", "restored", "--snapshot", name}), done));
    EXPECT_EQ("first", testkit::readFile("/vol1/restored/plan"));
    EXPECT_TRUE(testkit::writeFile("/vol1/restored/plan", "third"));
    EXPECT_EQ("second", testkit::readFile("/vol1/docs/plan"));
    ASSERT_TRUE(ends(sharesnap({"clone", "docs", "copy"}), done));
    EXPECT_EQ("second", testkit::readFile("/vol1/copy/plan"));
    EXPECT_EQ(3U, document({"share", "list"})["shares"].size());
    (void)take({}, "restored");
}

TEST_F(CloneVerb, WhatCantBeClonedChangesNothing) {
    ASSERT_EQ(0, mkdir("/vol1/blocked", 0755));
    EXPECT_TRUE(ends(sharesnap({"clone", "docs", "blocked"}), refused));
    EXPECT_TRUE(ends(sharesnap({"clone", "docs", "docs"}), refused));
    EXPECT_TRUE(ends(sharesnap({"clone", "docs", "a/b"}), usage));
    EXPECT_TRUE(ends(sharesnap({"clone", "nope", "new"}), notFound));
    const auto result = sharesnap({"clone", "docs", "new", "--snapshot", "GMT-2015.01.01-00.00.00"});
    EXPECT_TRUE(ends(result, notFound));
    EXPECT_TRUE(says(result, {"\"docs\"", "GMT-2015.01.01-00.00.00"}));
    EXPECT_EQ(1U, document({"share", "list"})["shares"].size());
    EXPECT_FALSE(testkit::exists("/vol1/new"));
}

class SizeVerb : public testkit::VolumeTest {};

TEST_F(SizeVerb, EstimatesAStreamAndADifference) {
    ASSERT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol1/docs"}), done));
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/big", std::string(300000, 'x')));
    const std::string first = lines(sharesnap({"create", "docs"}).output).at(0);
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/small", std::string(20000, 'y')));
    const std::string second = lines(sharesnap({"create", "docs"}).output).at(0);
    const auto whole = document({"size", "docs", second});
    EXPECT_GT(whole["bytes"], 320000);
    const auto difference = document({"size", "docs", second, "--parent", first});
    EXPECT_GT(difference["bytes"], 20000);
    EXPECT_LT(difference["bytes"], 300000);
    EXPECT_TRUE(ends(sharesnap({"size", "docs", "nope"}), notFound));
    EXPECT_TRUE(ends(sharesnap({"size", "docs", second, "--parent", "nope"}), notFound));
}

} // namespace
