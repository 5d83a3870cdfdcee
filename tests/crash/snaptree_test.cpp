// A process is killed at every system call of a cycle of load, rewrite and save: the file is the old tree or the new one,
// whole, and the next cycle works.
#include <sharesnap/snaptree.hpp>

#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "support/crash.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/tree_names.hpp"
#include "support/tree_volume.hpp"

namespace {

using namespace QovaSnapTree;
using testkit::objectName;
using testkit::snapName;

constexpr char kFile[] = "/vol1/@eaDir/snaptree.bin";

class TreeCrash : public testkit::TreeVolumeTest {
protected:
    static bool cycle(const std::string &snap) {
        SnapTree tree;
        if (tree.loadByVolume("/vol1", true) != 0) {
            return false;
        }
        (void)tree.insertObject(objectName("a")); // it stands after the first cycle
        (void)tree.insertSnap(objectName("a"), snapName("a", snap));
        return tree.save();
    }
};

TEST_F(TreeCrash, LeavesTheOldTreeOrTheNewOne) {
    ASSERT_TRUE(cycle("s0"));
    const std::string before = testkit::readFile(kFile);
    ASSERT_TRUE(cycle("s1"));
    const std::string after = testkit::readFile(kFile);
    ASSERT_NE(before, after);
    size_t old = 0;
    testkit::CrashSweep sweep;
    sweep.prepare = [&] { ASSERT_TRUE(testkit::writeFile(kFile, before)); };
    sweep.operation = [] { (void)cycle("s1"); };
    sweep.check = [&](size_t) {
        const std::string now = testkit::readFile(kFile);
        EXPECT_TRUE(now == before || now == after) << now.size() << " bytes";
        old += now == before ? 1 : 0;
        EXPECT_FALSE(testkit::exists(std::string(kFile) + ".broken"));
        EXPECT_TRUE(cycle("s2"));
    };
    EXPECT_LT(15u, sweep.run());
    EXPECT_LT(10u, old);
}

} // namespace
