// sharesnap attr, conf and count.
#include "command/command.hpp"

#include <sharesnap/counters.h>

#include <sys/xattr.h>

namespace {

using namespace commandtest;
using testing::HasSubstr;

class AttrVerbs : public CommandTest {
protected:
    void SetUp() override {
        CommandTest::SetUp();
        if (!IsSkipped()) {
            snapshot_ = take();
        }
    }

    [[nodiscard]] Arguments attr(const std::string &verb, const Arguments &rest) const {
        Arguments arguments = {"attr", verb, "docs", snapshot_};
        arguments.insert(arguments.end(), rest.begin(), rest.end());
        return arguments;
    }

    std::string snapshot_;
};

TEST_F(AttrVerbs, SetGetAndUnset) {
    ASSERT_TRUE(ends(sharesnap(attr("set", {"ticket", "#17 = done"})), done));
    EXPECT_EQ("#17 = done\n", sharesnap(attr("get", {"ticket"})).output);
    EXPECT_EQ("#17 = done", document(attr("get", {"ticket"}))["attributes"]["ticket"]);
    EXPECT_EQ("#17 = done", document(attr("list", {}))["attributes"]["ticket"]);
    EXPECT_THAT(sharesnap(attr("list", {})).output, HasSubstr("ticket"));
    ASSERT_TRUE(ends(sharesnap(attr("unset", {"ticket"})), done));
    const auto gone = sharesnap(attr("get", {"ticket"}));
    EXPECT_TRUE(ends(gone, notFound));
    EXPECT_TRUE(says(gone, {"\"ticket\"", snapshot_, "\"docs\"", "SNAP_ERR_NO_SUCH_KEY"}));
}

TEST_F(AttrVerbs, ValuesComeBackByteForByte) {
    const std::string value = "caf\xE9\t\x1B[0m \xC3\xA4";
    ASSERT_TRUE(ends(sharesnap(attr("set", {"odd", value})), done));
    EXPECT_EQ(value + "\n", sharesnap(attr("get", {"odd"})).output);
    ASSERT_TRUE(ends(sharesnap(attr("set", {"odd", ""})), done));
    EXPECT_EQ("\n", sharesnap(attr("get", {"odd"})).output);
}

TEST_F(AttrVerbs, LimitsAreExact) {
    const std::string key(63, 'k');
    const std::string value(511, 'v');
    ASSERT_TRUE(ends(sharesnap(attr("set", {key, value})), done));
    EXPECT_EQ(value + "\n", sharesnap(attr("get", {key})).output);
    EXPECT_TRUE(ends(sharesnap(attr("set", {key + "k", value})), usage));
    EXPECT_TRUE(ends(sharesnap(attr("set", {key, value + "v"})), usage));
    EXPECT_EQ(value + "\n", sharesnap(attr("get", {key})).output);
}

TEST_F(AttrVerbs, BadKeysAndValuesAreUsageAndChangeNothing) {
    const auto before = document(attr("list", {}));
    for (const Arguments &bad : {Arguments{"", "v"},
                                 {"a=b", "v"},
                                 {"[a", "v"},
                                 {";a", "v"},
                                 {"#a", "v"},
                                 {"a\nb", "v"},
                                 {"a", "v\n[GMT-2015.01.01-00.00.00]"},
                                 {"hide", "TRUE"},
                                 {"hide", ""}}) {
        EXPECT_TRUE(ends(sharesnap(attr("set", bad)), usage)) << bad[0];
    }
    EXPECT_EQ(before, document(attr("list", {})));
}

TEST_F(AttrVerbs, ThereIsRoomForSixtyFour) {
    size_t count = document(attr("list", {}))["attributes"].size();
    for (; count < 64; ++count) {
        ASSERT_TRUE(ends(sharesnap(attr("set", {"key" + std::to_string(count), "v"})), done));
    }
    const auto result = sharesnap(attr("set", {"one-more", "v"}));
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {"\"one-more\"", snapshot_, "SNAP_ERR_TOO_MANY_ATTRIBUTES"}));
    EXPECT_TRUE(ends(sharesnap(attr("set", {"desc", "still changes"})), done));
}

TEST_F(AttrVerbs, HidingKeepsTheCounterTrue) {
    EXPECT_EQ(1, document({"count", "docs"})["shares"]["docs"]);
    ASSERT_TRUE(ends(sharesnap(attr("set", {"hide", "true"})), done));
    EXPECT_EQ(0, document({"count", "docs"})["shares"]["docs"]);
    EXPECT_THAT(listed(), testing::IsEmpty());
    ASSERT_TRUE(ends(sharesnap(attr("set", {"hide", "false"})), done));
    EXPECT_EQ(1, document({"count", "docs"})["shares"]["docs"]);
}

TEST_F(AttrVerbs, WhatTheListNeedsCantBeTakenAway) {
    EXPECT_TRUE(ends(sharesnap(attr("unset", {"hide"})), refused));
    writeList("[" + snapshot_ + "]\ndesc=only one\n[GMT-2015.01.01-00.00.00]\nhide=false\n");
    const auto result = sharesnap(attr("unset", {"desc"}));
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {"\"desc\"", snapshot_, "last one"}));
    EXPECT_EQ(2U, listed().size());
}

TEST_F(AttrVerbs, UnknownSnapshotsAreNamed) {
    for (const Arguments &arguments : {Arguments{"attr", "list", "docs", "GMT-2015.01.01-00.00.00"},
                                       {"attr", "get", "docs", "GMT-2015.01.01-00.00.00", "desc"},
                                       {"attr", "set", "docs", "GMT-2015.01.01-00.00.00", "desc", "x"},
                                       {"attr", "unset", "docs", "GMT-2015.01.01-00.00.00", "desc"}}) {
        const auto result = sharesnap(arguments);
        EXPECT_TRUE(ends(result, notFound));
        EXPECT_TRUE(says(result, {"\"docs\"", "\"GMT-2015.01.01-00.00.00\""}));
    }
    EXPECT_EQ(1U, listed().size());
}

class ConfVerbs : public CommandTest {};

TEST_F(ConfVerbs, SetGetListAndUnset) {
    EXPECT_EQ("SHARE  KEY  VALUE\n", sharesnap({"conf", "list"}).output);
    ASSERT_TRUE(ends(sharesnap({"conf", "set", "docs", "schedule_task_id", "17"}), done));
    EXPECT_EQ("17\n", sharesnap({"conf", "get", "docs", "schedule_task_id"}).output);
    EXPECT_EQ("17", document({"conf", "get", "docs", "schedule_task_id"})["settings"]["schedule_task_id"]);
    EXPECT_EQ((nlohmann::json{{"docs", {{"schedule_task_id", "17"}}}}), document({"conf", "list"})["shares"]);
    EXPECT_THAT(lines(sharesnap({"conf", "list", "docs", "--no-headers"}).output),
                testing::ElementsAre("docs  schedule_task_id  17"));
    ASSERT_TRUE(ends(sharesnap({"conf", "unset", "docs", "schedule_task_id"}), done));
    EXPECT_TRUE(ends(sharesnap({"conf", "get", "docs", "schedule_task_id"}), notFound));
    EXPECT_TRUE(ends(sharesnap({"conf", "unset", "docs", "schedule_task_id"}), notFound));
}

TEST_F(ConfVerbs, LocalTimeNamesTheNextSnapshot) {
    setenv("TZ", "XYZ-05:30", 1); // of the command
    ASSERT_TRUE(ends(sharesnap({"conf", "set", "docs", "local_time_format", "true"}), done));
    const std::string name = take();
    setenv("TZ", "UTC0", 1);
    EXPECT_THAT(name, testing::StartsWith("GMT+0530-"));
    EXPECT_EQ(28U, name.size());
    EXPECT_TRUE(document({"show", "docs", name})["time"].is_string());
}

TEST_F(ConfVerbs, BadInputIsRefused) {
    EXPECT_TRUE(ends(sharesnap({"conf", "set", "docs", "a=b", "v"}), usage));
    EXPECT_TRUE(ends(sharesnap({"conf", "set", "docs", "a", "v\nw"}), usage));
    EXPECT_TRUE(ends(sharesnap({"conf", "set", "docs", "[a", "v"}), usage));
    EXPECT_TRUE(ends(sharesnap({"conf", "set", "nope", "a", "v"}), notFound));
    EXPECT_TRUE(ends(sharesnap({"conf", "list", "nope"}), notFound));
    EXPECT_FALSE(testkit::exists("/usr/qova/etc/sharesnap/sharesnap.conf"));
}

class CountVerb : public CommandTest {};

TEST_F(CountVerb, CountsOneShareAndAll) {
    ASSERT_TRUE(ends(sharesnap({"share", "add", "music", "/vol1/music"}), done));
    (void)take();
    (void)take({}, "music");
    EXPECT_THAT(lines(sharesnap({"count", "docs"}).output),
                testing::ElementsAre("SHARE  SNAPSHOTS  LIMIT", "docs           1   1024"));
    const auto all = document({"count"});
    EXPECT_EQ((nlohmann::json{{"docs", 1}, {"music", 1}}), all["shares"]);
    EXPECT_EQ(2, all["total"]);
    EXPECT_EQ(65536, all["limit_total"]);
}

TEST_F(CountVerb, SyncCorrectsACounterThatDrifted) {
    (void)take();
    ASSERT_EQ(0, setxattr("/vol1/@sharesnap/docs", "user.snapcount", "9", 1, 0));
    EXPECT_EQ(9, document({"count", "docs"})["shares"]["docs"]);
    EXPECT_EQ(1, document({"count", "docs", "--sync"})["shares"]["docs"]);
    EXPECT_EQ(1, document({"count"})["shares"]["docs"]);
}

TEST_F(CountVerb, AShareThatCantBeCountedDoesntHideTheOthers) {
    (void)take();
    ASSERT_EQ("", testkit::addShare("gone", "/vol1/gone"));
    const auto result = sharesnap({"count", "--json"});
    EXPECT_TRUE(ends(result, inPart));
    EXPECT_TRUE(says(result, {"\"gone\"", "/vol1/gone"}));
    EXPECT_EQ(1, nlohmann::json::parse(result.output)["shares"]["docs"]);
    EXPECT_TRUE(ends(sharesnap({"count", "nope"}), notFound));
}

} // namespace
