// What the command can't read it says, and it doesn't take it for nothing.
#include "command.hpp"

#include <sharesnap/platform/subvolume.h>

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "support/lock_holder.hpp"
#include "waiting.hpp"

namespace {

using namespace commandtest;
using testing::HasSubstr;
using testing::Not;

// A directory in the place of a file can't be read as one, by nobody.
void putDirectory(const std::string &path) {
    ASSERT_EQ(0, unlink(path.c_str()));
    ASSERT_EQ(0, mkdir(path.c_str(), 0755));
}

class Unreadable : public CommandTest {};

TEST_F(Unreadable, CountIsNoNumber) {
    (void)take();
    EXPECT_EQ(1, document({"share", "show", "docs"})["snapshots"]);
    ASSERT_EQ(0, removexattr("/vol1/@sharesnap/docs", "user.snapcount"));
    putDirectory("/vol1/@sharesnap/@docs.meta");
    const auto result = sharesnap({"share", "show", "docs"});
    EXPECT_TRUE(ends(result, inPart));
    EXPECT_TRUE(says(result, {"can't count", "\"docs\"", "SNAP_ERR"}));
    EXPECT_THAT(result.output, HasSubstr("/vol1/docs"));
    EXPECT_THAT(result.output, HasSubstr("unknown of 1024"));
    EXPECT_THAT(result.output, Not(HasSubstr("-1")));
    const auto json = sharesnap({"share", "show", "docs", "--json"});
    EXPECT_TRUE(ends(json, inPart));
    EXPECT_TRUE(nlohmann::json::parse(json.output)["snapshots"].is_null());
}

// No file of the command can grow, so the text of the tree doesn't come about. What it says goes through a pipe.
TEST_F(Unreadable, TreeIsNotPrintedInPart) {
    (void)take();
    const auto result = testkit::runProcess(
        {"sh", "-c", "trap '' XFSZ; (ulimit -f 0; exec \"$@\" 2>&1) | cat", "sh", SHARESNAP_COMMAND, "tree", "/vol1"});
    EXPECT_THAT(result.output, testing::StartsWith("sharesnap: can't print the tree"));
    EXPECT_THAT(result.output, Not(HasSubstr("root")));
}

// The snapshots that are held turn out first; while the others wait for the list, the claims become unreadable.
TEST_F(Unreadable, HoldersDontKeepADeleteFromBeingTold) {
    const std::string held = take();
    const std::string old = "GMT-2015.01.01-00.00.00";
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", snapshotPath(old).c_str()));
    ASSERT_TRUE(ends(sharesnap({"sync", "docs"}), done));
    ASSERT_TRUE(ends(sharesnap({"hold", "add", "docs", held, "backup"}), done));
    ASSERT_THAT(sharesnap({"tree", "/vol1"}).output, HasSubstr(old));

    const std::string lock = listLock("docs");
    testkit::LockHolder holder(lock, testkit::LockHolder::exclusive);
    ASSERT_TRUE(holder.holds());
    Running running = begin({"delete", "docs", held, old});
    ASSERT_TRUE(comesToWait(running, holder, lock));
    putDirectory("/run/sharesnap/sys_lock/docs.sharesnap_sys_lock");
    holder.release();
    const auto result = running.get();
    EXPECT_TRUE(ends(result, inPart));
    EXPECT_THAT(result.output, HasSubstr(old + "  deleted"));
    EXPECT_THAT(result.output, HasSubstr(held + "  held\n"));
    EXPECT_TRUE(says(result, {"\"" + held + "\"", "SNAP_RESULT_LOCKED", "can't read who holds"}));
    EXPECT_EQ(std::vector<std::string>{held}, listed());
    EXPECT_THAT(sharesnap({"tree", "/vol1"}).output, Not(HasSubstr(old)));
}

} // namespace
