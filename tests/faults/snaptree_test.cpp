// Every call that a cycle of the snapshot tree makes to the platform or to the C library fails once. After each: the file
// is the old tree or the new one, what save and load said is true of it, and the next cycle works.
#include <sharesnap/snaptree.hpp>
#include <unistd.h>

#include <gtest/gtest.h>
#include <memory>
#include <new>
#include <string>

#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"
#include "support/tree_names.hpp"
#include "support/tree_volume.hpp"

namespace {

using namespace QovaSnapTree;
using testkit::objectName;
using testkit::snapName;

constexpr char kFile[] = "/vol1/@eaDir/snaptree.bin";
constexpr char kMark[] = "/vol1/@eaDir/snaptree.bin.broken";

class FailingTreeCalls : public testkit::TreeVolumeTest {
protected:
    void SetUp() override {
        TreeVolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_EQ(0, cycle("s0"));
        before_ = testkit::readFile(kFile);
        ASSERT_EQ(0, cycle("s1"));
        after_ = testkit::readFile(kFile);
        ASSERT_NE(before_, after_);
    }

    // 0 the tree was saved, 1 it couldn't be loaded, 2 it couldn't be saved, 3 memory ran out before.
    static int cycle(const std::string &snap) {
        SnapTree tree;
        bool saving = false;
        try {
            if (tree.loadByVolume("/vol1", true) != 0) {
                tree.freeLock();
                return 1;
            }
            (void)tree.insertObject(objectName("a")); // it stands after the first cycle
            (void)tree.insertSnap(objectName("a"), snapName("a", snap));
            saving = true;
            return tree.save() ? 0 : 2;
        } catch (const std::bad_alloc &) {
            EXPECT_FALSE(saving); // a save never throws, since it has to drop the lock
            tree.freeLock();      // the caller's, as after any exception
            return 3;
        }
    }

    static std::string fixture(const std::string &name) {
        return testkit::readFile(std::string(SHARESNAP_SOURCE_DIR) + "/tests/data/snaptree/" + name + ".bin");
    }

    static void place(const std::string &bytes) {
        (void)unlink(kMark);
        ASSERT_TRUE(testkit::writeFile(kFile, bytes));
    }

    std::string before_;
    std::string after_;
};

TEST_F(FailingTreeCalls, OfACycle) {
    int result = -1;
    std::unique_ptr<testkit::Leftovers> leftovers;
    testkit::Sweep sweep;
    sweep.prepare = [&] {
        place(before_);
        leftovers = std::make_unique<testkit::Leftovers>(std::vector<std::string>{"/vol1/@eaDir"});
    };
    sweep.operation = [&] { result = cycle("s1"); };
    sweep.check = [&](const testkit::FaultPoint &point) {
        const std::string now = testkit::readFile(kFile);
        // A file that isn't seen, or can't be opened the second time, counts as no tree: the cycle begins a new one.
        const bool unseen = point.symbol == "QLIBCFileExist" || (point.symbol == "fopen64" && point.index == 2);
        if (result == 0 && unseen) {
            EXPECT_NE(before_, now) << point;
        } else {
            EXPECT_TRUE(now == (result == 0 ? after_ : before_)) << point << " gave " << result;
        }
        EXPECT_TRUE(result == 1 || !testkit::exists(kMark)) << point;
        (void)unlink(kMark); // a read that failed marks the file
        if (!point.leavesBehind()) {
            EXPECT_EQ("", leftovers->compare()) << point;
        }
        EXPECT_EQ(0, cycle("s2")) << point;
        testkit::logClear();
    };
    EXPECT_LT(8u, sweep.run());
}

TEST_F(FailingTreeCalls, OfAConversion) {
    const std::string old = fixture("old-v11-rich");
    const std::string converted = fixture("old-v11-rich.converted").substr(32);
    bool loaded = false;
    bool thrown = false;
    testkit::Sweep sweep;
    sweep.prepare = [&] {
        place(old);
        thrown = false;
    };
    sweep.operation = [&] {
        SnapTree tree;
        loaded = false;
        try {
            tree.setTreeFile(kFile);
            loaded = tree.load();
        } catch (const std::bad_alloc &) {
            thrown = true;
        }
    };
    sweep.check = [&](const testkit::FaultPoint &point) {
        const std::string now = testkit::readFile(kFile);
        EXPECT_TRUE(now == old || now.substr(32) == converted) << point;
        if (loaded) {
            EXPECT_NE(old, now) << point;
            EXPECT_FALSE(testkit::exists(kMark)) << point;
        } else {
            EXPECT_TRUE(thrown || testkit::exists(kMark)) << point;
        }
        testkit::logClear();
    };
    EXPECT_LT(5u, sweep.run());
}

} // namespace
