// The command that renames a share is killed at every system call, and so is the one that finishes or undoes a rename.
// Afterwards the rename can be finished or undone, and all that the share has stands under one name; where no note of
// the rename stands, that is so already.
#include <sharesnap/config.h>
#include <sharesnap/counters.h>
#include <sharesnap/platform/szlist.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "become_command.hpp"
#include "command/command.hpp"
#include "support/crash.hpp"

namespace {

using namespace commandtest;
using namespace crashtest;

// What the administrator does about an interrupted rename.
enum class Way { finish, undo, inTurn };

class RenameCrash : public CommandOnVolumeTest {
protected:
    void SetUp() override {
        CommandOnVolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "kept"));
        snapshot_ = take();
        ASSERT_TRUE(ends(sharesnap({"conf", "set", "docs", "keep", "7"}), done));
        ASSERT_TRUE(ends(sharesnap({"hold", "add", "docs", snapshot_, "backup"}), done));
    }

    void expectSettings(const std::string &name, const std::string &other) const {
        char value[16] = "";
        EXPECT_EQ(1, QOVAShareSnapConfGet(name.c_str(), "keep", value, sizeof(value)));
        EXPECT_STREQ("7", value);
        EXPECT_EQ(0, QOVAShareSnapConfGet(other.c_str(), "keep", value, sizeof(value)));
    }

    // All that belongs to the share stands under this name, and nothing of it under the other.
    void expectAllUnder(const std::string &name, const std::string &other) const {
        EXPECT_EQ("kept", testkit::readFile("/vol1/" + name + "/letter"));
        EXPECT_FALSE(testkit::exists("/vol1/" + other));
        EXPECT_EQ("kept", testkit::readFile("/vol1/@sharesnap/" + name + "/" + snapshot_ + "/letter"));
        EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/" + other));
        EXPECT_NE(std::string::npos,
                  testkit::readFile("/vol1/@sharesnap/@" + name + ".meta").find("[" + snapshot_ + "]"));
        EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/@" + other + ".meta"));
        expectSettings(name, other);
        const auto record = testkit::getShare(name);
        ASSERT_NE(nullptr, record);
        EXPECT_EQ("/vol1/" + name, record->szPath);
        EXPECT_EQ(nullptr, testkit::getShare(other));
        uint32_t holds = 0;
        EXPECT_EQ(1, QOVAShareSnapSysLockGet(record.get(), snapshot_.c_str(), "backup", &holds));
        EXPECT_EQ(1U, holds);
        EXPECT_FALSE(testkit::exists("/etc/sharesnap/renames/" + name));
        EXPECT_FALSE(testkit::exists("/etc/sharesnap/renames/" + other));
        const auto tree = sharesnap({"tree", "/vol1"});
        EXPECT_NE(std::string::npos, tree.output.find("object/" + name)) << tree.output;
        EXPECT_EQ(std::string::npos, tree.output.find("object/" + other)) << tree.output;
    }

    // The name that the share then has.
    std::string settle(const std::string &from, const std::string &to, Way way) {
        const bool undo = way == Way::inTurn ? ++points_ % 2 == 0 : way == Way::undo;
        const auto result = sharesnap({"share", "rename", from, undo ? "--undo" : "--finish"});
        if (result.exitStatus == notFound) {
            ++untouched_;
            return testkit::exists("/vol1/" + from) ? from : to;
        }
        EXPECT_TRUE(ends(result, done));
        ++(undo ? undone_ : finished_);
        return undo ? from : to;
    }

    static std::string other(const std::string &name) { return name == "docs" ? "papers" : "docs"; }

    void sweepRename(Way way) {
        finished_ = undone_ = untouched_ = 0;
        testkit::CrashSweep sweep;
        sweep.first = callsOfTheStart();
        // An odd step, so that finishing and undoing meet calls of every kind.
        sweep.step = takesEveryCall() ? 1 : 3;
        sweep.prepare = [] {};
        sweep.operation = [&] { becomeCommand({"share", "rename", now_, other(now_)}); };
        sweep.check = [&](size_t) {
            now_ = settle(now_, other(now_), way);
            expectAllUnder(now_, other(now_));
        };
        EXPECT_LT(30U, sweep.run());
        std::printf("[  RENAME  ] from call %zu on: %zu finished, %zu undone, %zu with nothing to settle\n",
                    sweep.first, finished_, undone_, untouched_);
        EXPECT_EQ(way != Way::undo, finished_ > 0);
        EXPECT_EQ(way != Way::finish, undone_ > 0);
        // The last run came to its end.
        now_ = other(now_);
        if (!HasFailure()) {
            expectAllUnder(now_, other(now_));
        }
    }

    // Somewhere in its midst.
    void interruptRename() {
        ASSERT_TRUE(testkit::killAtCall(middle_, [&] { becomeCommand({"share", "rename", now_, other(now_)}); }));
        ASSERT_TRUE(testkit::exists("/etc/sharesnap/renames/" + now_));
    }

    // Kills the command that finishes or undoes at its calls; then that one or the other way ends what is left.
    void sweepSettling(const std::string &option) {
        finished_ = undone_ = untouched_ = 0;
        testkit::CrashSweep sweep;
        sweep.first = callsOfTheStart();
        sweep.step = takesEveryCall() ? 1 : 5;
        sweep.prepare = [&] { interruptRename(); };
        sweep.operation = [&] { becomeCommand({"share", "rename", now_, option}); };
        sweep.check = [&](size_t) {
            now_ = settle(now_, other(now_), Way::inTurn);
            expectAllUnder(now_, other(now_));
        };
        EXPECT_LT(5U, sweep.run());
        std::printf("[  RENAME  ] killed %s: %zu finished, %zu undone, %zu with nothing to settle\n", option.c_str(),
                    finished_, undone_, untouched_);
        EXPECT_LT(0U, finished_);
        EXPECT_LT(0U, undone_);
        now_ = option == "--finish" ? other(now_) : now_; // the last run came to its end
        if (!HasFailure()) {
            expectAllUnder(now_, other(now_));
        }
    }

    std::string now_ = "docs"; // the share's name
    size_t middle_ = 0;        // a call of the rename's
    std::string snapshot_;
    size_t points_ = 0;
    size_t finished_ = 0;
    size_t undone_ = 0;
    size_t untouched_ = 0;
};

TEST_F(RenameCrash, IsFinishedOrUndoneFromEveryPoint) {
    if (!takesEveryCall()) {
        sweepRename(Way::inTurn);
        return;
    }
    sweepRename(Way::finish);
    if (!HasFailure()) {
        sweepRename(Way::undo);
    }
}

// Who finishes or undoes can be killed like who began.
TEST_F(RenameCrash, InterruptedFinishOrUndoIsEndedEitherWay) {
    const size_t calls = testkit::countCalls([] { becomeCommand({"share", "rename", "docs", "papers"}); });
    now_ = "papers";
    middle_ = (callsOfTheStart() + calls) / 2;
    for (const char *option : {"--finish", "--undo"}) {
        SCOPED_TRACE(option);
        ASSERT_NO_FATAL_FAILURE(sweepSettling(option));
        ASSERT_FALSE(HasFailure());
    }
}

} // namespace
