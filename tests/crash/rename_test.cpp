// The command that renames a share is killed at every system call. Afterwards the rename can be finished or undone, and
// all that the share has stands under one name; where no note of the rename stands, that is so already.
#include <sharesnap/config.h>
#include <sharesnap/counters.h>
#include <sharesnap/platform/szlist.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

#include "command/command.hpp"
#include "support/crash.hpp"

namespace {

using namespace commandtest;

void becomeCommand(const Arguments &arguments) {
    std::vector<std::string> texts = {SHARESNAP_COMMAND};
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    std::vector<char *> argv;
    for (std::string &text : texts) {
        argv.push_back(text.data());
    }
    argv.push_back(nullptr);
    if (std::freopen("/dev/null", "r", stdin) == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) {
        _exit(98);
    }
    (void)execv(argv[0], argv.data());
    _exit(97);
}

// How many calls a run makes that does nothing: those of the start.
size_t callsOfTheStart() {
    const auto reaches = [](size_t nth) { return testkit::killAtCall(nth, [] { becomeCommand({"--version"}); }); };
    size_t reached = 1;
    size_t beyond = 2;
    while (reaches(beyond)) {
        reached = beyond;
        beyond *= 2;
    }
    while (beyond - reached > 1) {
        const size_t middle = (reached + beyond) / 2;
        (reaches(middle) ? reached : beyond) = middle;
    }
    return reached;
}

class RenameCrash : public CommandTest {
protected:
    void SetUp() override {
        if (testkit::Sandbox::simulated()) {
            GTEST_SKIP() << "needs the real storage core";
        }
        CommandTest::SetUp();
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

    // What the administrator does: finish, or at every second point undo. The name that the share then has.
    std::string settle(const std::string &from, const std::string &to) {
        const bool undo = ++points_ % 2 == 0;
        const auto result = sharesnap({"share", "rename", from, undo ? "--undo" : "--finish"});
        if (result.exitStatus == notFound) {
            ++untouched_;
            return testkit::exists("/vol1/" + from) ? from : to;
        }
        EXPECT_TRUE(ends(result, done));
        ++(undo ? undone_ : finished_);
        return undo ? from : to;
    }

    std::string snapshot_;
    size_t points_ = 0;
    size_t finished_ = 0;
    size_t undone_ = 0;
    size_t untouched_ = 0;
};

TEST_F(RenameCrash, IsFinishedOrUndoneFromEveryPoint) {
    std::string now = "docs";
    const auto other = [&] { return std::string(now == "docs" ? "papers" : "docs"); };
    testkit::CrashSweep sweep;
    sweep.first = callsOfTheStart();
    // An odd step, so that finishing and undoing meet calls of every kind.
    sweep.step = std::getenv("SHARESNAP_CRASH_ALL") != nullptr ? 1 : 3;
    sweep.prepare = [] {};
    sweep.operation = [&] { becomeCommand({"share", "rename", now, other()}); };
    sweep.check = [&](size_t) {
        const std::string name = settle(now, other());
        expectAllUnder(name, name == "docs" ? "papers" : "docs");
        now = name;
    };
    EXPECT_LT(30U, sweep.run());
    std::printf("[  RENAME  ] from call %zu on: %zu finished, %zu undone, %zu with nothing to settle\n", sweep.first,
                finished_, undone_, untouched_);
    EXPECT_LT(0U, finished_);
    EXPECT_LT(0U, undone_);
    // The last run came to its end.
    if (!HasFailure()) {
        expectAllUnder(other(), now);
    }
}

} // namespace
