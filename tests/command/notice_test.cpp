// What goes wrong reaches the notification programs, with the share and the reason.
#include "command.hpp"

#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace commandtest;

class Notice : public CommandTest {
protected:
    void SetUp() override {
        CommandTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_TRUE(testkit::makeDirectories("/etc/sharesnap/notify.d"));
        ASSERT_TRUE(testkit::writeFile(program, "#!/bin/sh\necho \"$1|$NOTIFY_SHARE|$NOTIFY_REASON\" >" + out() +
                                                    ".part\nmv " + out() + ".part " + out() + "\n"));
        ASSERT_EQ(0, chmod(program, 0755));
    }

    static std::string out() { return testkit::Sandbox::scratch() + "/notice"; }

    // Notification programs aren't waited for.
    static std::string told() {
        for (int round = 0; round < 6000 && !testkit::exists(out()); ++round) {
            (void)usleep(10000);
        }
        return testkit::readFile(out());
    }

    static constexpr const char *program = "/etc/sharesnap/notify.d/mail";
};

TEST_F(Notice, TellsOfASnapshotThatCouldNotBeTaken) {
    ASSERT_TRUE(testkit::makeDirectories("/etc.defaults"));
    ASSERT_TRUE(testkit::writeFile("/etc.defaults/qovainfo.conf", "max_snapshots_per_share=\"1\"\n"));
    (void)take();
    EXPECT_FALSE(testkit::exists(out())); // nothing to tell of a snapshot that was taken
    ASSERT_TRUE(ends(sharesnap({"create", "docs"}), refused));
    const std::string text = told();
    EXPECT_EQ(0U, text.find("SnapshotCreateFailed|docs|can't take a snapshot of share \"docs\"")) << text;
    EXPECT_NE(std::string::npos, text.find("SNAP_ERR_SNAPSHOT_LIMIT")) << text;
}

TEST_F(Notice, HeldSnapshotsAreNoNews) {
    const std::string snapshot = take();
    ASSERT_TRUE(ends(sharesnap({"hold", "add", "docs", snapshot, "backup"}), done));
    EXPECT_TRUE(ends(sharesnap({"delete", "docs", snapshot}), refused));
    (void)usleep(300000);
    EXPECT_FALSE(testkit::exists(out()));
}

// The kernel refuses to take away the subvolume that is mounted when none is named.
class MountedByDefault {
public:
    explicit MountedByDefault(const std::string &path) : chosen_(choose(idOf(path))) {}
    ~MountedByDefault() { (void)choose(BTRFS_FS_TREE_OBJECTID); } // the volume goes with the test
    MountedByDefault(const MountedByDefault &) = delete;
    MountedByDefault &operator=(const MountedByDefault &) = delete;

    [[nodiscard]] bool chosen() const { return chosen_; }

private:
    static std::uint64_t idOf(const std::string &path) {
        btrfs_ioctl_ino_lookup_args lookup = {};
        lookup.objectid = BTRFS_FIRST_FREE_OBJECTID;
        return request(path, BTRFS_IOC_INO_LOOKUP, &lookup) ? lookup.treeid : 0;
    }
    static bool choose(std::uint64_t subvolume) {
        return subvolume != 0 && request("/vol1", BTRFS_IOC_DEFAULT_SUBVOL, &subvolume);
    }
    static bool request(const std::string &path, unsigned long what, void *argument) {
        const int file = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const bool answered = file >= 0 && ioctl(file, what, argument) == 0;
        (void)close(file); // it was only asked
        return answered;
    }

    bool chosen_;
};

TEST_F(Notice, TellsOfASnapshotThatCouldNotBeDeleted) {
    if (testkit::Sandbox::simulated()) {
        GTEST_SKIP() << "needs the real storage core";
    }
    const std::string stays = take();
    const std::string goes = take();
    const MountedByDefault bar(snapshotPath(stays));
    ASSERT_TRUE(bar.chosen());
    const auto result = sharesnap({"delete", "docs", goes, stays});
    EXPECT_TRUE(ends(result, inPart));
    EXPECT_TRUE(says(result, {"can't delete snapshot \"" + stays + "\" of share \"docs\"", "sharesnap sync docs"}));
    EXPECT_EQ(std::vector<std::string>{stays}, listed());
    EXPECT_TRUE(testkit::isDirectory(snapshotPath(stays)));
    const std::string text = told();
    EXPECT_EQ(0U, text.find("SnapshotDeleteFailed|docs|snapshot " + stays + ": ")) << text;
}

TEST_F(Notice, SnapshotsThatWentAreNoNews) {
    ASSERT_TRUE(ends(sharesnap({"delete", "docs", take(), "nope"}), inPart));
    (void)usleep(300000);
    EXPECT_FALSE(testkit::exists(out()));
}

} // namespace
