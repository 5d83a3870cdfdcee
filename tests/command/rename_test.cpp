// A share's rename that was interrupted is finished or undone; a share that goes with all it has.
#include "command.hpp"

#include <sharesnap/config.h>
#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/share_admin.h>

#include <sys/stat.h>
#include <unistd.h>

#include "support/crash.hpp"
#include "waiting.hpp"

namespace {

using namespace commandtest;

constexpr char kNote[] = "/etc/sharesnap/renames/docs";

std::string holdsOf(const std::string &share) {
    return "/run/sharesnap/sys_lock/" + share + ".sharesnap_sys_lock";
}

class InterruptedRename : public CommandTest {
protected:
    void SetUp() override {
        CommandTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "kept"));
        snapshot_ = take();
        ASSERT_TRUE(ends(sharesnap({"conf", "set", "docs", "keep", "7"}), done));
        ASSERT_TRUE(ends(sharesnap({"hold", "add", "docs", snapshot_, "backup"}), done));
    }

    // What the command notes first, and nothing else of the rename.
    static void note() {
        ASSERT_TRUE(testkit::makeDirectories("/etc/sharesnap/renames"));
        ASSERT_TRUE(testkit::writeFile(
            kNote, "[rename]\nold_name=docs\nnew_name=papers\nold_path=/vol1/docs\nnew_path=/vol1/papers\n"));
    }

    // The share has its new name, and what else is its own still has the old one.
    static void moveTheRecordAlone() {
        note();
        ASSERT_EQ(0, QOVAShareRecordRename("docs", "papers"));
    }

    // Asking for the holds of a share makes the file that they would stand in.
    void askForHolds(const char *share) const {
        const auto record = testkit::getShare(share);
        ASSERT_NE(nullptr, record);
        uint32_t holds = 0;
        EXPECT_EQ(1, QOVAShareSnapSysLockGet(record.get(), snapshot_.c_str(), "backup", &holds));
        EXPECT_EQ(0U, holds);
    }

    // All that belongs to a share stands under this name, and nothing of it under the other.
    void expectAllUnder(const std::string &name, const std::string &other) const {
        EXPECT_EQ("kept", testkit::readFile("/vol1/" + name + "/letter"));
        EXPECT_FALSE(testkit::exists("/vol1/" + other));
        EXPECT_TRUE(testkit::exists("/vol1/@sharesnap/" + name + "/" + snapshot_ + "/letter"));
        EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/" + other));
        EXPECT_EQ(std::vector<std::string>{snapshot_}, listed({}, name));
        char value[16] = "";
        EXPECT_EQ(1, QOVAShareSnapConfGet(name.c_str(), "keep", value, sizeof(value)));
        EXPECT_EQ(0, QOVAShareSnapConfGet(other.c_str(), "keep", value, sizeof(value)));
        const auto record = testkit::getShare(name);
        ASSERT_NE(nullptr, record);
        EXPECT_EQ("/vol1/" + name, record->szPath);
        EXPECT_EQ(nullptr, testkit::getShare(other));
        uint32_t holds = 0;
        EXPECT_EQ(1, QOVAShareSnapSysLockGet(record.get(), snapshot_.c_str(), "backup", &holds));
        EXPECT_EQ(1U, holds);
        EXPECT_FALSE(testkit::exists(kNote));
        const auto tree = sharesnap({"tree", "/vol1"});
        EXPECT_NE(std::string::npos, tree.output.find("object/" + name)) << tree.output;
        EXPECT_EQ(std::string::npos, tree.output.find("object/" + other)) << tree.output;
    }

    std::string snapshot_;
};

TEST_F(InterruptedRename, IsRefusedUntilItIsSettled) {
    note();
    const auto result = sharesnap({"share", "rename", "docs", "notes"});
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {"papers", "--finish", "--undo"}));
}

TEST_F(InterruptedRename, IsFinishedFromTheStart) {
    note();
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "--finish"}), done));
    expectAllUnder("papers", "docs");
}

TEST_F(InterruptedRename, IsUndoneFromTheMiddle) {
    note();
    ASSERT_EQ(0, QOVAShareRecordRename("docs", "papers"));
    ASSERT_EQ(0, QOVAShareSnapConfUpdate("docs", "papers", nullptr));
    ASSERT_EQ(0, rename("/vol1/@sharesnap/@docs.meta", "/vol1/@sharesnap/@papers.meta"));
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "--undo"}), done));
    expectAllUnder("docs", "papers");
}

TEST_F(InterruptedRename, KeepsTheHoldsWhenSomebodyAsksUnderTheOtherName) {
    moveTheRecordAlone();
    askForHolds("papers");
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "--undo"}), done));
    expectAllUnder("docs", "papers");
    EXPECT_FALSE(testkit::exists(holdsOf("papers")));

    note();
    ASSERT_EQ(0, rename(holdsOf("docs").c_str(), holdsOf("papers").c_str()));
    askForHolds("docs");
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "--finish"}), done));
    expectAllUnder("papers", "docs");
    EXPECT_FALSE(testkit::exists(holdsOf("docs")));
}

TEST_F(InterruptedRename, HoldsUnderBothNamesAreRefused) {
    moveTheRecordAlone();
    const std::string text = testkit::readFile(holdsOf("docs"));
    ASSERT_TRUE(testkit::writeFile(holdsOf("papers"), "[" + snapshot_ + "]\nother=1\n"));
    for (const char *option : {"--finish", "--undo"}) {
        const auto result = sharesnap({"share", "rename", "docs", option});
        EXPECT_TRUE(ends(result, refused));
        EXPECT_TRUE(says(result, {holdsOf("docs"), holdsOf("papers")}));
        EXPECT_TRUE(testkit::exists(kNote));
        EXPECT_EQ(text, testkit::readFile(holdsOf("docs")));
    }
    ASSERT_EQ(0, unlink(holdsOf("papers").c_str()));
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "--undo"}), done));
    expectAllUnder("docs", "papers");
}

// A rename doesn't begin where it couldn't be ended.
TEST_F(InterruptedRename, IsNoneWhenHoldsStandUnderTheNewName) {
    ASSERT_TRUE(testkit::writeFile(holdsOf("papers"), "[" + snapshot_ + "]\nother=1\n"));
    const auto result = sharesnap({"share", "rename", "docs", "papers"});
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {holdsOf("papers")}));
    EXPECT_TRUE(testkit::exists(holdsOf("papers")));
    ASSERT_EQ(0, unlink(holdsOf("papers").c_str()));
    expectAllUnder("docs", "papers");
}

TEST_F(InterruptedRename, HalfANoteIsNoRename) {
    ASSERT_TRUE(testkit::makeDirectories("/etc/sharesnap/renames"));
    ASSERT_TRUE(testkit::writeFile(kNote, "[rename]\nold_name=docs\n"));
    EXPECT_TRUE(ends(sharesnap({"share", "rename", "docs", "--undo"}), notFound));
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "papers"}), done));
    expectAllUnder("papers", "docs");
}

TEST_F(InterruptedRename, NothingToSettleIsSaid) {
    EXPECT_TRUE(ends(sharesnap({"share", "rename", "docs", "--finish"}), notFound));
    EXPECT_TRUE(ends(sharesnap({"share", "rename", "docs", "--finish", "--undo"}), usage));
}

class RemoveWithData : public CommandTest {};

TEST_F(RemoveWithData, SaysWhatGoesAndAsks) {
    const std::string snapshot = take();
    ASSERT_TRUE(ends(sharesnap({"hold", "add", "docs", snapshot, "backup"}), done));
    const auto asked = sharesnap({"share", "remove", "docs", "--data"});
    EXPECT_TRUE(ends(asked, refused));
    EXPECT_TRUE(says(asked, {"/vol1/docs", "1 snapshot", "backup", "--yes"}));
    EXPECT_EQ(1U, listed().size());
}

TEST_F(RemoveWithData, TakesEverything) {
    const std::string snapshot = take();
    ASSERT_TRUE(ends(sharesnap({"conf", "set", "docs", "keep", "7"}), done));
    ASSERT_TRUE(ends(sharesnap({"hold", "add", "docs", snapshot, "backup"}), done));
    ASSERT_EQ(0, sharesnap({"share", "remove", "docs", "--data", "--yes"}).exitStatus);
    EXPECT_FALSE(testkit::exists("/vol1/docs"));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/docs"));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/@docs.meta"));
    EXPECT_FALSE(testkit::exists("/run/sharesnap/sys_lock/docs.sharesnap_sys_lock"));
    char value[16] = "";
    EXPECT_EQ(0, QOVAShareSnapConfGet("docs", "keep", value, sizeof(value)));
    EXPECT_EQ(nullptr, testkit::getShare("docs"));
    EXPECT_EQ("root\n", sharesnap({"tree", "/vol1"}).output);
}

TEST_F(RemoveWithData, RecordIsGoneWhenTheTreeIsTold) {
    (void)take();
    testkit::LockHolder holder(treeLock("/vol1"), testkit::LockHolder::exclusive);
    ASSERT_TRUE(holder.holds());
    Running running = begin({"share", "remove", "docs", "--data", "--yes"});
    EXPECT_TRUE(comesToWait(running, holder, treeLock("/vol1")));
    EXPECT_EQ(nullptr, testkit::getShare("docs"));
    EXPECT_FALSE(testkit::exists("/vol1/docs"));
    holder.release();
    EXPECT_EQ(done, running.get().exitStatus);
    EXPECT_EQ("root\n", sharesnap({"tree", "/vol1"}).output);
}

} // namespace
