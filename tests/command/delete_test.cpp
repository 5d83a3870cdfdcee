// sharesnap delete and hold.
#include "command/command.hpp"

#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/subvolume.h>

#include <chrono>
#include <fcntl.h>
#include <future>
#include <linux/btrfs.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

using namespace commandtest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class DeleteVerb : public CommandTest {
protected:
    // A snapshot of that name with a section of its own, without waiting for the clock.
    static void plant(const std::string &name, const std::string &attributes = "hide=false\n") {
        ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", snapshotPath(name).c_str()));
        const std::string list = "/vol1/@sharesnap/@docs.meta";
        ASSERT_TRUE(testkit::writeFile(list, testkit::readFile(list) + "[" + name + "]\n" + attributes));
        ASSERT_TRUE(ends(sharesnap({"count", "docs", "--sync"}), done));
    }

    static constexpr char old1[] = "GMT-2015.01.01-00.00.00";
    static constexpr char old2[] = "GMT-2015.01.02-00.00.00";
    static constexpr char old3[] = "GMT-2015.01.03-00.00.00";

    void SetUp() override {
        CommandTest::SetUp();
        if (!IsSkipped()) {
            now_ = take();
            plant(old1);
            plant(old2, "hide=true\n");
            plant(old3, "hide=false\ntask=nightly\n");
        }
    }

    std::string now_;
};

TEST_F(DeleteVerb, DeletesTheNamedOnes) {
    Arguments arguments = {"delete", "docs", old1, old2};
    if (!testkit::Sandbox::simulated()) { // the simulated core never cleans up
        arguments.emplace_back("--wait");
    }
    const auto result = sharesnap(arguments);
    EXPECT_TRUE(ends(result, done));
    EXPECT_THAT(lines(result.output), ElementsAre("SNAPSHOT                 RESULT", std::string(old1) + "  deleted",
                                                  std::string(old2) + "  deleted"));
    EXPECT_EQ("", result.errors);
    EXPECT_THAT(listed({"--hidden"}), ElementsAre(old3, now_));
    EXPECT_FALSE(testkit::exists(snapshotPath(old1)));
    EXPECT_EQ(2, document({"count", "docs"})["shares"]["docs"]);
}

TEST_F(DeleteVerb, ChoosesByAgeAndAttribute) {
    EXPECT_TRUE(ends(sharesnap({"rm", "docs", "--older-than", "1d", "--attr", "task"}), done));
    EXPECT_THAT(listed({"--hidden"}), ElementsAre(old1, old2, now_));
    EXPECT_TRUE(ends(sharesnap({"rm", "docs", "--older-than", "1d"}), done));
    EXPECT_THAT(listed({"--hidden"}), ElementsAre(old2, now_)) << "a hidden one goes only when asked for";
    EXPECT_TRUE(ends(sharesnap({"rm", "docs", "--older-than", "1d", "--hidden"}), done));
    EXPECT_THAT(listed({"--hidden"}), ElementsAre(now_));
    const auto nothing = sharesnap({"rm", "docs", "--older-than", "1d"});
    EXPECT_EQ(done, nothing.exitStatus);
    EXPECT_THAT(listed(), ElementsAre(now_));
}

TEST_F(DeleteVerb, ADryRunDeletesNothing) {
    const auto result = sharesnap({"delete", "docs", old1, "nope", "--dry-run"});
    EXPECT_TRUE(ends(result, inPart));
    EXPECT_THAT(result.output, HasSubstr(std::string(old1) + "  deleted"));
    EXPECT_TRUE(says(result, {"dry run", "nope"}));
    EXPECT_EQ(4U, listed({"--hidden"}).size());
    EXPECT_TRUE(testkit::isDirectory(snapshotPath(old1)));
}

TEST_F(DeleteVerb, UnknownNamesAreNotFoundAndTheOthersGo) {
    const auto result = sharesnap({"delete", "docs", "nope", old1, "--json"});
    EXPECT_TRUE(ends(result, inPart));
    EXPECT_TRUE(says(result, {"\"nope\"", "\"docs\"", "SNAP_RESULT_NOT_FOUND"}));
    const auto results = nlohmann::json::parse(result.output)["results"];
    EXPECT_EQ((nlohmann::json{{{"name", "nope"}, {"result", "not found"}}, {{"name", old1}, {"result", "deleted"}}}),
              results);
    EXPECT_TRUE(ends(sharesnap({"delete", "docs", "nope", "neither"}), notFound));
    EXPECT_EQ(3U, listed({"--hidden"}).size());
}

TEST_F(DeleteVerb, ANameIsNotFoundInAShareThatNeverHadASnapshot) {
    ASSERT_TRUE(ends(sharesnap({"share", "add", "fresh", "/vol1/fresh"}), done));
    const auto result = sharesnap({"delete", "fresh", "nope", old1});
    EXPECT_TRUE(ends(result, notFound));
    EXPECT_TRUE(says(result, {"\"nope\"", "SNAP_RESULT_NOT_FOUND"}));
    // One that stands on the volume without a list isn't unknown.
    ASSERT_EQ(0, unlink("/vol1/@sharesnap/@docs.meta"));
    const auto unlisted = sharesnap({"delete", "docs", old1, "nope"});
    EXPECT_TRUE(ends(unlisted, failed));
    EXPECT_TRUE(says(unlisted, {"sharesnap sync docs"}));
    EXPECT_TRUE(testkit::exists(snapshotPath(old1)));
}

TEST_F(DeleteVerb, AHeldOneStaysAndItsHolderIsNamed) {
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(ends(sharesnap({"hold", "add", "docs", old1, "backup"}), done));
    }
    ASSERT_TRUE(ends(sharesnap({"hold", "add", "docs", old1, "replication"}), done));
    const auto held = sharesnap({"delete", "docs", old1});
    EXPECT_TRUE(ends(held, refused));
    EXPECT_TRUE(says(held, {old1, "backup (3 times)", "replication (once)", "SNAP_RESULT_LOCKED", "hold release"}));
    EXPECT_TRUE(testkit::isDirectory(snapshotPath(old1)));
    const auto mixed = sharesnap({"delete", "docs", old1, old3, "--json"});
    EXPECT_TRUE(ends(mixed, inPart));
    const auto results = nlohmann::json::parse(mixed.output)["results"];
    EXPECT_EQ("held", results[0]["result"]);
    EXPECT_EQ((nlohmann::json{{{"holder", "backup"}, {"count", 3}}, {{"holder", "replication"}, {"count", 1}}}),
              results[0]["holds"]);
    EXPECT_EQ("deleted", results[1]["result"]);
}

TEST_F(DeleteVerb, TheSameNameTwiceIsOneDelete) {
    const auto result = sharesnap({"delete", "docs", old1, old1, "--no-headers"});
    EXPECT_TRUE(ends(result, done));
    EXPECT_THAT(lines(result.output), ElementsAre(std::string(old1) + "  deleted"));
    EXPECT_EQ(2, document({"count", "docs"})["shares"]["docs"]);
}

TEST_F(DeleteVerb, WithoutAChoiceItIsUsage) {
    for (const Arguments &rest : {Arguments{},
                                  {old1, "--older-than", "1d"},
                                  {old1, "--attr", "task"},
                                  {"--older-than", "soon"},
                                  {"--older-than", "5"},
                                  {"--attr", "!"}}) {
        Arguments arguments = {"delete", "docs"};
        arguments.insert(arguments.end(), rest.begin(), rest.end());
        EXPECT_TRUE(ends(sharesnap(arguments), usage));
    }
    EXPECT_TRUE(ends(sharesnap({"delete", "nope", old1}), notFound));
    EXPECT_EQ(4U, listed({"--hidden"}).size());
}

// What the file system can't clean up at once: an open file keeps its subvolume, though the snapshot is gone for all.
class SlowCleaning : public CommandTest {
protected:
    void SetUp() override {
        CommandTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        if (testkit::Sandbox::simulated()) {
            GTEST_SKIP() << "needs the real storage core";
        }
        ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "read by somebody"));
        snapshot_ = take();
        reader_ = open((snapshotPath(snapshot_) + "/letter").c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(reader_, 0);
    }

    void TearDown() override { stopReading(); }

    void stopReading() {
        if (reader_ >= 0) {
            (void)close(reader_); // it was only read
            reader_ = -1;
        }
    }

    static uint32_t beingCleaned() {
        uint32_t count = 0;
        EXPECT_LE(0, QOVAShareSnapDeletingCountGet("/vol1/docs", &count));
        return count;
    }

    // The file system goes on cleaning at its next commit.
    static void commitVolume() {
        const int volume = open("/vol1", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(volume, 0);
        EXPECT_EQ(0, ioctl(volume, BTRFS_IOC_SYNC));
        (void)close(volume); // it was only asked
    }

    // A minute for what takes a moment.
    template <typename Condition>
    static bool eventually(const Condition &holds) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (!holds()) {
            if (std::chrono::steady_clock::now() > end) {
                return false;
            }
            (void)usleep(20000);
        }
        return true;
    }

    std::string snapshot_;
    int reader_ = -1;
};

TEST_F(SlowCleaning, IsWaitedForToItsEnd) {
    const auto run = [this] { return sharesnap({"delete", "docs", snapshot_, "--wait"}); };
    std::future<testkit::ProcessResult> deletion = std::async(std::launch::async, run);
    EXPECT_TRUE(eventually([this] { return !testkit::exists(snapshotPath(snapshot_)); }));
    EXPECT_EQ(std::future_status::timeout, deletion.wait_for(std::chrono::seconds(1)));
    EXPECT_EQ(1U, beingCleaned());
    stopReading();
    const bool ended = eventually([&deletion] {
        commitVolume();
        return deletion.wait_for(std::chrono::milliseconds(100)) == std::future_status::ready;
    });
    EXPECT_TRUE(ended);
    const testkit::ProcessResult result = deletion.get(); // it gives up by itself
    EXPECT_TRUE(ends(result, done));
    EXPECT_THAT(result.output, HasSubstr(snapshot_ + "  deleted"));
    EXPECT_EQ(0U, beingCleaned());
}

TEST_F(SlowCleaning, IsNotWaitedForUnasked) {
    EXPECT_TRUE(ends(sharesnap({"delete", "docs", snapshot_}), done));
    EXPECT_FALSE(testkit::exists(snapshotPath(snapshot_)));
    EXPECT_EQ(1U, beingCleaned());
}

using HoldVerbs = DeleteVerb;

TEST_F(HoldVerbs, AddReleaseAndList) {
    ASSERT_TRUE(ends(sharesnap({"hold", "add", "docs", old1, "backup"}), done));
    ASSERT_TRUE(ends(sharesnap({"hold", "add", "docs", old1, "backup"}), done));
    ASSERT_TRUE(ends(sharesnap({"hold", "add", "docs", old2, "copy"}), done));
    EXPECT_THAT(lines(sharesnap({"hold", "list", "docs"}).output),
                ElementsAre("SNAPSHOT                 HELD BY  COUNT", std::string(old1) + "  backup       2",
                            std::string(old2) + "  copy         1"));
    EXPECT_EQ(1U, document({"hold", "list", "docs", old2})["snapshots"].size());
    EXPECT_EQ(2, document({"show", "docs", old1})["holds"][0]["count"]);
    ASSERT_TRUE(ends(sharesnap({"hold", "release", "docs", old1, "backup"}), done));
    EXPECT_EQ(1, document({"hold", "list", "docs", old1})["snapshots"][0]["holds"][0]["count"]);
    ASSERT_TRUE(ends(sharesnap({"hold", "release", "docs", old1, "backup"}), done));
    EXPECT_THAT(document({"hold", "list", "docs", old1})["snapshots"], IsEmpty());
    EXPECT_TRUE(ends(sharesnap({"delete", "docs", old1}), done));
}

TEST_F(HoldVerbs, ReleaseAllDropsTheWholeClaim) {
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(ends(sharesnap({"hold", "add", "docs", old1, "backup"}), done));
    }
    ASSERT_TRUE(ends(sharesnap({"hold", "release", "docs", old1, "backup", "--all"}), done));
    EXPECT_THAT(document({"hold", "list", "docs"})["snapshots"], IsEmpty());
}

TEST_F(HoldVerbs, WhoHoldsNothingCantRelease) {
    const auto result = sharesnap({"hold", "release", "docs", old1, "backup"});
    EXPECT_TRUE(ends(result, notFound));
    EXPECT_TRUE(says(result, {"\"backup\"", old1, "\"docs\""}));
    EXPECT_TRUE(ends(sharesnap({"hold", "add", "docs", "nope", "backup"}), notFound));
    EXPECT_TRUE(ends(sharesnap({"hold", "list", "docs", "nope"}), notFound));
    EXPECT_TRUE(ends(sharesnap({"hold", "add", "nope", old1, "backup"}), notFound));
}

TEST_F(HoldVerbs, BadHoldersAreUsage) {
    for (const std::string &holder : {std::string(), std::string("a=b"), std::string("[x"), std::string(";x"),
                                      std::string("#x"), std::string("a\nb"), std::string(256, 'h')}) {
        EXPECT_TRUE(ends(sharesnap({"hold", "add", "docs", old1, holder}), usage)) << holder;
    }
    EXPECT_THAT(document({"hold", "list", "docs"})["snapshots"], IsEmpty());
}

} // namespace
