// The command that restores a share is killed at every system call. The share stands whole at each of them, as it was or
// as its snapshot has it; what it was is lost at none; and the next restore works.
#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/subvolume.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "become_command.hpp"
#include "command/command.hpp"
#include "support/crash.hpp"

namespace {

using namespace commandtest;

constexpr char kLetter[] = "/vol1/docs/letter";
constexpr char kSnapshots[] = "/vol1/@sharesnap/docs/";

class RestoreCrash : public CommandOnVolumeTest {
protected:
    void SetUp() override {
        CommandOnVolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_TRUE(testkit::writeFile(kLetter, "first"));
        snapshot_ = take();
    }

    // All snapshots but the one to go back to are gone, and with them their names; the share has other data.
    void reset() {
        const testkit::SharePointer share = testkit::getShare("docs");
        ASSERT_NE(nullptr, share);
        for (const std::string &name : keptNow()) {
            ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant((kSnapshots + name).c_str()));
        }
        ASSERT_EQ(0, QOVAShareSnapMetaSync(share.get()));
        ASSERT_TRUE(testkit::writeFile(kLetter, "second"));
    }

    [[nodiscard]] std::vector<std::string> keptNow() const {
        std::vector<std::string> names;
        for (const std::string &name : testkit::directoryNames(kSnapshots)) {
            if (name != snapshot_ && QOVABtrfsIsSubVol((kSnapshots + name).c_str()) == 1) {
                names.push_back(name);
            }
        }
        return names;
    }

    // What the kill left behind: the share with its first or its second letter, and in the one case the other one kept.
    void expectWhole() {
        EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/docs"));
        EXPECT_EQ("first", testkit::readFile(kSnapshots + snapshot_ + "/letter"));
        const std::string letter = testkit::readFile(kLetter);
        if (letter == "second") {
            ++before_;
            return;
        }
        ++after_;
        EXPECT_EQ("first", letter);
        const std::string list = testkit::readFile("/vol1/@sharesnap/@docs.meta");
        const std::vector<std::string> kept = keptNow();
        EXPECT_TRUE(std::any_of(kept.begin(), kept.end(), [&](const std::string &name) {
            return testkit::readFile(kSnapshots + name + "/letter") == "second" &&
                   list.find("[" + name + "]") != std::string::npos;
        }));
    }

    // A restore after the reconciliation, whatever stands beside the share.
    void expectNextWorks() const {
        ASSERT_TRUE(ends(sharesnap({"sync", "--all"}), done));
        const auto result = sharesnap({"restore", "docs", snapshot_});
        ASSERT_TRUE(ends(result, done));
        EXPECT_EQ("first", testkit::readFile(kLetter));
        EXPECT_FALSE(testkit::exists("/vol1/@restore-docs"));
        const auto tree = sharesnap({"tree", "/vol1"});
        EXPECT_NE(std::string::npos, tree.output.find("snap/docs/" + snapshot_)) << tree.output;
        for (const std::string &name : keptNow()) {
            EXPECT_NE(std::string::npos, tree.output.find("snap/docs/" + name)) << tree.output;
        }
    }

    std::string snapshot_;
    size_t points_ = 0;
    size_t before_ = 0;
    size_t after_ = 0;
};

// Before each call of the command, so that no two of them have a moment without the share between them.
TEST_F(RestoreCrash, ShareIsNeverMissing) {
    reset();
    size_t misses = 0;
    size_t others = 0;
    std::string seen = "second";
    const size_t calls = testkit::countCalls(
        [&] {
            crashtest::becomeCommand({"restore", "docs", snapshot_});
        },
        [&] {
            const std::string letter = testkit::readFile(kLetter);
            misses += letter.empty() ? 1 : 0;
            others += letter != seen ? 1 : 0;
            seen = letter;
        });
    EXPECT_LT(crashtest::callsOfTheStart(), calls);
    EXPECT_EQ(0U, misses);
    EXPECT_EQ(1U, others) << "it changes once";
    EXPECT_EQ("first", seen);
}

TEST_F(RestoreCrash, ShareIsWholeAtEveryPoint) {
    testkit::CrashSweep sweep;
    sweep.first = crashtest::callsOfTheStart();
    sweep.step = crashtest::takesEveryCall() ? 1 : 11;
    sweep.prepare = [&] { reset(); };
    sweep.operation = [&] { crashtest::becomeCommand({"restore", "docs", snapshot_}); };
    sweep.check = [&](size_t) {
        expectWhole();
        if (++points_ % 3 == 0) {
            reset(); // the name of the second is free again: no waiting for another
            expectNextWorks();
        }
    };
    EXPECT_LT(20U, sweep.run());
    std::printf("[  RESTORE ] from call %zu on: %zu before the exchange, %zu after it\n", sweep.first, before_, after_);
    EXPECT_LT(0U, before_);
    EXPECT_LT(0U, after_);
}

} // namespace
