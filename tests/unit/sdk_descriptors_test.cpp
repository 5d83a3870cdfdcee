// A process without a free descriptor: a failure is told as one, and never taken for "there is none".
#include "sdk_journal_socket.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/process.hpp"

#include <fcntl.h>
#include <functional>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/event_log.h>
#include <sharesnap/platform/notification.h>
#include <sharesnap/platform/plugin.h>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/share_admin.h>
#include <sharesnap/platform/szhash.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class OutOfDescriptors : public testkit::SandboxTest {
protected:
    // Runs the check in a child in which no further descriptor can be had. True when the check held.
    static bool holds(const std::function<bool()> &check) {
        const pid_t child = fork();
        if (child == 0) {
            const rlimit few = {64, 64};
            (void)setrlimit(RLIMIT_NOFILE, &few);
            while (open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) {}
            QLIBCErrSetEx(0, "", 0);
            _exit(check() ? 0 : 1);
        }
        return child > 0 && testkit::waitForChild(child) == 0;
    }

    static bool install(const std::string &directory) {
        const std::string path = directory + "/program";
        return testkit::makeDirectories(directory) && testkit::writeFile(path, "#!/bin/sh\nexit 0\n") &&
               chmod(path.c_str(), 0755) == 0;
    }
};

} // namespace

TEST_F(OutOfDescriptors, ShareIsNotTakenForAbsent) {
    ASSERT_EQ("", testkit::addShare("docs", "/vol1/docs"));
    EXPECT_TRUE(holds([] {
        QOVASHARE *share = nullptr;
        const bool failed = QOVAShareGet("docs", &share) != 0 && share == nullptr;
        return failed && QLIBCErrGet() != 0 && QLIBCErrGet() != SNAP_ERR_NO_SUCH_SECTION;
    }));
    EXPECT_TRUE(holds([] {
        int exists = 0;
        return QLIBShareIsExist("docs", &exists) != 0;
    }));
}

TEST_F(OutOfDescriptors, SharesAreNotTakenForNone) {
    ASSERT_EQ("", testkit::addShare("docs", "/vol1/docs"));
    EXPECT_TRUE(holds([] {
        QLIBCSZLIST *list = QLIBCSzListAlloc(512);
        const bool failed = QOVAShareEnum(&list, 0x301) == -1 && QLIBCErrGet() != 0;
        QLIBCSzListFree(list);
        return failed;
    }));
}

TEST_F(OutOfDescriptors, RecordsStayAsTheyAre) {
    ASSERT_EQ("", testkit::addShare("docs", "/vol1/docs"));
    const std::string before = testkit::readFile("/etc/sharesnap/shares.conf");
    EXPECT_TRUE(holds([] { return QOVAShareRecordRemove("docs") == -1 && QLIBCErrGet() != 0; }));
    EXPECT_TRUE(holds([] { return QOVAShareRecordRename("docs", "papers") == -1 && QLIBCErrGet() != 0; }));
    EXPECT_EQ(before, testkit::readFile("/etc/sharesnap/shares.conf"));
}

TEST_F(OutOfDescriptors, PluginsAreNotTakenForNone) {
    ASSERT_TRUE(install("/etc/sharesnap/plugins/demo"));
    EXPECT_TRUE(holds([] {
        QLIBPLUGIN *plugin = nullptr;
        return QLIBPluginSDKInit("demo", "demo", &plugin) == -1 && plugin == nullptr &&
               QLIBCErrGet() == SNAP_ERR_OPERATION_FAILED;
    }));
    QLIBPLUGIN *plugin = nullptr;
    ASSERT_EQ(0, QLIBPluginSDKInit("demo", "demo", &plugin));
    EXPECT_TRUE(holds([plugin] {
        return QLIBPluginAction(QLIB_PLUGIN_PHASE_PRE, plugin) == -1 && QLIBCErrGet() == SNAP_ERR_OPERATION_FAILED;
    }));
    EXPECT_EQ(0, QLIBPluginAction(QLIB_PLUGIN_PHASE_PRE, plugin));
    QLIBPluginExit(plugin);
}

TEST_F(OutOfDescriptors, NotificationsAndEventsSayThatTheyWereLost) {
    ASSERT_TRUE(install("/usr/lib/sharesnap/notify.d"));
    const testkit::JournalSocket journal;
    QLIBCSZHASH *hash = QLIBCSzHashAlloc(512);
    EXPECT_TRUE(holds([&hash] { return QOVASysNotifySendNotifiction("Tag", &hash) == -1; }));
    EXPECT_TRUE(holds(
        [] { return QOVALogSet1(9, 1, 0x13C00001, "alice", "snap", "docs", static_cast<char *>(nullptr)) == -1; }));
    QLIBCSzHashFree(hash);
    EXPECT_TRUE(journal.entries().empty());
}
