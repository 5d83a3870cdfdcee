// What goes wrong reaches the notification programs, with the share and the reason.
#include "command.hpp"

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
        for (int round = 0; round < 3000 && !testkit::exists(out()); ++round) {
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

} // namespace
