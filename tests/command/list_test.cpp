// sharesnap list and show.
#include "command/command.hpp"

namespace {

using namespace commandtest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ListVerb : public CommandTest {
protected:
    void SetUp() override {
        CommandTest::SetUp();
        if (!IsSkipped()) {
            (void)take({"--hide"}); // so that the list has its place
            writeList(fiveSections);
        }
    }

    // Two forms of names, out of order in the file; "second" and "offset" are 100 s apart.
    static constexpr char first[] = "GMT-2014.12.31-23.00.00";
    static constexpr char second[] = "GMT-2015.01.01-12.00.00";
    static constexpr char offset[] = "GMT+08-2015.01.01-20.01.40";
    static constexpr char hidden[] = "GMT-2015.01.02-00.00.00";
    static constexpr char foreign[] = "before-upgrade";
    static constexpr char fiveSections[] = "[before-upgrade]\nhide=false\ndesc=by hand\n"
                                           "[GMT+08-2015.01.01-20.01.40]\nhide=false\ndesc=third\ntake-by=cron\n"
                                           "[GMT-2014.12.31-23.00.00]\nhide=false\ndesc=first\ntask=nightly\n"
                                           "[GMT-2015.01.02-00.00.00]\nhide=true\ndesc=\n"
                                           "[GMT-2015.01.01-12.00.00]\nhide=false\ndesc=second\ntask=weekly\n";
};

TEST_F(ListVerb, SortsByTimeAndShowsVisibleOnes) {
    EXPECT_THAT(listed(), ElementsAre(first, second, offset, foreign));
    EXPECT_THAT(listed({"--hidden"}), ElementsAre(first, second, offset, hidden, foreign));
}

TEST_F(ListVerb, AlignsATableForPeople) {
    EXPECT_THAT(lines(sharesnap({"ls", "docs", "--utc"}).output),
                ElementsAre("SNAPSHOT                    TIME                  TAKEN BY  DESCRIPTION",
                            "GMT-2014.12.31-23.00.00     2014-12-31 23:00:00Z            first",
                            "GMT-2015.01.01-12.00.00     2015-01-01 12:00:00Z            second",
                            "GMT+08-2015.01.01-20.01.40  2015-01-01 12:01:40Z  cron      third",
                            "before-upgrade              -                               by hand"));
    const auto bare = lines(sharesnap({"list", "docs", "--no-headers", "--utc"}).output);
    ASSERT_EQ(4U, bare.size());
    EXPECT_THAT(bare[0], HasSubstr(first));
}

TEST_F(ListVerb, ChoosesByTime) {
    EXPECT_THAT(listed({"--since", "2015-01-01", "--utc"}), ElementsAre(second, offset));
    EXPECT_THAT(listed({"--since", "2015-01-01T12:00:01Z"}), ElementsAre(offset));
    EXPECT_THAT(listed({"--until", "2015-01-01 12:00", "--utc"}), ElementsAre(first, second));
    EXPECT_THAT(listed({"--since", first, "--until", first}), ElementsAre(first));
    EXPECT_THAT(listed({"--since", "@1420113700"}), ElementsAre(offset));
    EXPECT_THAT(listed({"--since", "1s"}), IsEmpty());
    EXPECT_THAT(listed({"--until", "1d12h"}), ElementsAre(first, second, offset));
}

TEST_F(ListVerb, ChoosesByAttribute) {
    EXPECT_THAT(listed({"--attr", "task"}), ElementsAre(first, second));
    EXPECT_THAT(listed({"--attr", "task=week"}), ElementsAre(second));
    EXPECT_THAT(listed({"--attr", "task==week"}), IsEmpty());
    EXPECT_THAT(listed({"--attr", "!task", "--attr", "desc=hand"}), ElementsAre(foreign));
}

TEST_F(ListVerb, BadFiltersAreUsage) {
    for (const Arguments &options : {Arguments{"--since", "yesterday"},
                                     {"--until", "2015-13-01"},
                                     {"--since", "5"},
                                     {"--since", "2015-01-01x"},
                                     {"--attr", ""},
                                     {"--attr", "!"},
                                     {"--attr", "=v"}}) {
        Arguments arguments = {"list", "docs"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        EXPECT_TRUE(ends(sharesnap(arguments), usage)) << options[0] << " " << options[1];
    }
}

TEST_F(ListVerb, JsonHasIsoTimesAndAttributesAsObjects) {
    const auto listing = document({"list", "docs", "--hidden"});
    EXPECT_EQ(1, listing["schema"]);
    EXPECT_EQ("docs", listing["share"]);
    const auto &snapshots = listing["snapshots"];
    ASSERT_EQ(5U, snapshots.size());
    EXPECT_EQ("2014-12-31T23:00:00Z", snapshots[0]["time"]);
    EXPECT_EQ(false, snapshots[0]["hidden"]);
    EXPECT_EQ((nlohmann::json{{"hide", "false"}, {"desc", "first"}, {"task", "nightly"}}), snapshots[0]["attributes"]);
    EXPECT_EQ("2015-01-01T12:01:40Z", snapshots[2]["time"]);
    EXPECT_EQ(true, snapshots[3]["hidden"]);
    EXPECT_TRUE(snapshots[4]["time"].is_null());
}

TEST_F(ListVerb, AnyBytesGiveValidJsonAndHarmlessTables) {
    writeList(
        "[GMT-2015.01.01-12.00.00]\nhide=false\ndesc=caf\xE9 \x1B[31mred \xC3\xA4 \"q\" \\ \xC2\x9B\n\xFF=\xFE\n");
    const auto listing = document({"list", "docs"});
    EXPECT_EQ("caf\xEF\xBF\xBD \x1B[31mred \xC3\xA4 \"q\" \\ \xC2\x9B", listing["snapshots"][0]["attributes"]["desc"]);
    EXPECT_EQ("\xEF\xBF\xBD", listing["snapshots"][0]["attributes"]["\xEF\xBF\xBD"]);
    const auto table = sharesnap({"list", "docs"}).output;
    EXPECT_THAT(table, HasSubstr("caf\xEF\xBF\xBD \\x1b[31mred \xC3\xA4 \"q\" \\ \\x9b"));
}

TEST_F(ListVerb, AShareWithoutSnapshotsHasAnEmptyList) {
    ASSERT_TRUE(ends(sharesnap({"share", "add", "music", "/vol1/music"}), done));
    EXPECT_THAT(listed({}, "music"), IsEmpty());
    EXPECT_EQ("SNAPSHOT  TIME  TAKEN BY  DESCRIPTION\n", sharesnap({"list", "music"}).output);
    EXPECT_EQ("", sharesnap({"list", "music", "--no-headers"}).output);
}

TEST_F(ListVerb, WhatCantBeListedIsNamed) {
    const auto unknown = sharesnap({"list", "nope"});
    EXPECT_TRUE(ends(unknown, notFound));
    EXPECT_TRUE(says(unknown, {"no share \"nope\""}));
    EXPECT_EQ("", unknown.output);
    ASSERT_EQ("", testkit::addShare("deep", "/vol1/docs/deep"));
    EXPECT_TRUE(ends(sharesnap({"list", "deep"}), refused));
    ASSERT_EQ("", testkit::addShare("away", "/vol8/away"));
    const auto away = sharesnap({"list", "away"});
    EXPECT_TRUE(ends(away, notFound));
    EXPECT_TRUE(says(away, {"\"away\"", "/vol8"}));
}

TEST_F(ListVerb, ShowTellsOfASectionWhoseSnapshotIsMissing) {
    const auto shown = document({"show", "docs", second});
    EXPECT_EQ("2015-01-01T12:00:00Z", shown["time"]);
    EXPECT_EQ("/vol1/@sharesnap/docs/GMT-2015.01.01-12.00.00", shown["path"]);
    EXPECT_EQ(false, shown["on_volume"]);
    EXPECT_EQ("weekly", shown["attributes"]["task"]);
    EXPECT_THAT(sharesnap({"show", "docs", second}).output, HasSubstr("missing: run sharesnap sync"));
}

TEST_F(ListVerb, ShowNamesAnUnknownSnapshot) {
    const auto result = sharesnap({"show", "docs", "GMT-2020.01.01-00.00.00"});
    EXPECT_TRUE(ends(result, notFound));
    EXPECT_TRUE(says(result, {"\"docs\"", "\"GMT-2020.01.01-00.00.00\"", "SNAP_ERR_NO_SUCH_SECTION"}));
    EXPECT_TRUE(ends(sharesnap({"show", "docs", ""}), notFound));
}

class UsageTest : public CommandTest {};

TEST_F(UsageTest, NoVerbUnknownVerbAndMissingArgumentsAreUsage) {
    for (const Arguments &arguments : {Arguments{},
                                       {"frobnicate"},
                                       {"attr"},
                                       {"attr", "list"},
                                       {"list"},
                                       {"list", "docs", "--frob"},
                                       {"show", "docs"}}) {
        EXPECT_TRUE(ends(sharesnap(arguments), usage));
    }
}

TEST_F(UsageTest, AnUnknownVerbIsNamed) {
    EXPECT_TRUE(says(sharesnap({"frobnicate", "docs"}), {"no verb \"frobnicate\"", "--help"}));
}

TEST_F(UsageTest, HelpAndVersionGoToStandardOutput) {
    for (const Arguments &arguments :
         {Arguments{"--help"}, {"create", "--help"}, {"hold", "add", "--help"}, {"--version"}}) {
        const auto result = sharesnap(arguments);
        EXPECT_TRUE(ends(result, done));
        EXPECT_NE("", result.output);
        EXPECT_EQ("", result.errors);
    }
}

TEST_F(UsageTest, AShareMayBeNamedLikeAVerb) {
    ASSERT_TRUE(ends(sharesnap({"share", "add", "list", "/vol1/list"}), done));
    const std::string name = take({}, "list");
    EXPECT_THAT(listed({}, "list"), ElementsAre(name));
    EXPECT_TRUE(ends(sharesnap({"attr", "get", "list", name, "hide"}), done));
}

TEST_F(UsageTest, OutputThatCantBeWrittenIsAFailure) {
    const auto result =
        testkit::runProcessApart({"/bin/sh", "-c", "exec \"$0\" share list >/dev/full", SHARESNAP_COMMAND});
    EXPECT_TRUE(ends(result, failed));
    EXPECT_TRUE(says(result, {"standard output"}));
}

} // namespace
