// sync beside others who take and delete snapshots: the volume as the listing tool shows it changes under its hands.
#include "command.hpp"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace commandtest;

class SyncBesideOthers : public CommandOnVolumeTest {
protected:
    static constexpr char passing[] = "GMT-2015.01.01-00.00.00";

    void SetUp() override {
        CommandOnVolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        (void)take();
        const std::string tool = testkit::Sandbox::scratch() + "/real";
        ASSERT_EQ(0, testkit::runProcess({"cp", SHARESNAP_BTRFS_TOOL, tool}).exitStatus);
        const std::string script = testkit::Sandbox::scratch() + "/tool";
        ASSERT_TRUE(testkit::writeFile(script, "#!/bin/sh\nn=$(($(cat " + file("calls") + ") + 1))\necho $n > " +
                                                   file("calls") + "\nif [ $n -ge $(cat " + file("first") +
                                                   ") ] && [ $n -le $(cat " + file("last") +
                                                   ") ]; then\n  echo 'ID 999 gen 7 top level 5 path @sharesnap/docs/" +
                                                   passing + "'\nfi\nexec " + tool + " \"$@\"\n"));
        ASSERT_EQ(0, chmod(script.c_str(), 0755));
        ASSERT_EQ(0, mount(script.c_str(), SHARESNAP_BTRFS_TOOL, "none", MS_BIND, nullptr));
        placed_ = true;
        // The last listing of a sync is the look whether list and volume agree.
        ASSERT_TRUE(ends(syncWhileShown(1000, 1000), done));
        calls_ = std::stoi(testkit::readFile(file("calls")));
        ASSERT_LE(3, calls_);
    }

    void TearDown() override {
        if (placed_) {
            EXPECT_EQ(0, umount2(SHARESNAP_BTRFS_TOOL, MNT_DETACH));
        }
        CommandTest::TearDown();
    }

    static std::string file(const std::string &name) { return testkit::Sandbox::scratch() + "/" + name; }

    // The listings with these numbers show a snapshot that isn't there.
    static testkit::ProcessResult syncWhileShown(int first, int last) {
        EXPECT_TRUE(testkit::writeFile(file("calls"), "0\n"));
        EXPECT_TRUE(testkit::writeFile(file("first"), std::to_string(first) + "\n"));
        EXPECT_TRUE(testkit::writeFile(file("last"), std::to_string(last) + "\n"));
        return sharesnap({"sync", "docs"});
    }

    bool placed_ = false;
    int calls_ = 0;
};

TEST_F(SyncBesideOthers, ADifferenceThatPassesIsNone) {
    EXPECT_TRUE(ends(syncWhileShown(calls_, calls_), done));
    EXPECT_EQ(1U, listed().size());
}

TEST_F(SyncBesideOthers, ADifferenceThatLastsIsTold) {
    const auto result = syncWhileShown(calls_, 1000);
    EXPECT_TRUE(ends(result, failed));
    EXPECT_TRUE(says(result, {"list and volume still differ", passing}));
}

} // namespace
