// Notifications, and the host name that goes with them.
#include "sdk_journal_socket.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/process.hpp"
#include "support/sandbox.hpp"

#include <cerrno>
#include <cstring>
#include <sched.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/hostname.h>
#include <sharesnap/platform/notification.h>
#include <sharesnap/platform/szhash.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const std::string &scratch() {
    return testkit::Sandbox::scratch();
}

class Notification : public testkit::SandboxTest {
protected:
    void SetUp() override {
        testkit::SandboxTest::SetUp();
        hash = QLIBCSzHashAlloc(512);
        ASSERT_NE(nullptr, hash);
    }
    void TearDown() override { QLIBCSzHashFree(hash); }

    void set(const char *key, const char *value) { ASSERT_EQ(0, QLIBCSzHashSetValue(&hash, key, value)); }

    static bool install(const std::string &directory, const std::string &name, const std::string &script,
                        mode_t mode = 0755) {
        const std::string path = directory + "/notify.d/" + name;
        return testkit::makeDirectories(directory + "/notify.d") && testkit::writeFile(path, "#!/bin/sh\n" + script) &&
               chmod(path.c_str(), mode) == 0;
    }

    // A program that leaves what it was given in a file of that name, all at once.
    static std::string tellScript(const std::string &name) {
        const std::string out = scratch() + "/" + name;
        return "echo \"$#/$1/$NOTIFY_HOSTNAME/$NOTIFY_SHARE/$NOTIFY_DESKTOP_NOTIFY_TITLE/$SHARE\" >" + out +
               ".part\nmv " + out + ".part " + out + "\n";
    }

    static std::string told(const std::string &name) {
        const std::string out = scratch() + "/" + name;
        for (int round = 0; round < 3000 && !testkit::exists(out); ++round) {
            (void)usleep(10000);
        }
        return testkit::readFile(out);
    }

    QLIBCSZHASH *hash = nullptr;
};

class HostName : public testkit::SandboxTest {};

} // namespace

TEST_F(Notification, ProgramsOfBothDirectoriesGetTagAndVariables) {
    ASSERT_TRUE(install("/etc/sharesnap", "mail", tellScript("mail")));
    ASSERT_TRUE(install("/usr/lib/sharesnap", "desktop", tellScript("desktop")));
    set("%HOSTNAME%", "filer");
    set("%SHARE%", "my docs");
    set("DESKTOP_NOTIFY_TITLE", "snapmgr:app_title");
    ASSERT_EQ(0, QOVASysNotifySendNotifiction("SnapshotFailed", &hash));
    EXPECT_EQ("1/SnapshotFailed/filer/my docs/snapmgr:app_title/\n", told("mail"));
    EXPECT_EQ("1/SnapshotFailed/filer/my docs/snapmgr:app_title/\n", told("desktop"));
    EXPECT_EQ(3, hash->nPair);
}

TEST_F(Notification, IsNotWaitedFor) {
    const std::string gate = scratch() + "/gate";
    ASSERT_EQ(0, mkfifo(gate.c_str(), 0600));
    ASSERT_TRUE(install("/etc/sharesnap", "slow", "read word <" + gate + "\n" + tellScript("slow")));
    ASSERT_EQ(0, QOVASysNotifySendNotifiction("Tag", &hash));
    EXPECT_FALSE(testkit::exists(scratch() + "/slow"));
    ASSERT_TRUE(testkit::writeFile(gate, "go\n"));
    EXPECT_EQ("1/Tag////\n", told("slow"));
}

TEST_F(Notification, JournalGetsATrace) {
    const testkit::JournalSocket journal;
    set("%SHARE%", "docs");
    set("odd key-1", "value");
    ASSERT_EQ(0, QOVASysNotifySendNotifiction("SnapshotFailed", &hash));
    auto entries = journal.entries();
    ASSERT_EQ(1U, entries.size());
    EXPECT_EQ("Notification SnapshotFailed for shared folder docs.", entries[0]["MESSAGE"]);
    EXPECT_EQ("SnapshotFailed", entries[0]["SHARESNAP_NOTIFICATION"]);
    EXPECT_EQ("docs", entries[0]["SHARESNAP_NOTIFY_SHARE"]);
    EXPECT_EQ("value", entries[0]["SHARESNAP_NOTIFY_ODD_KEY_1"]);
    EXPECT_EQ("6", entries[0]["PRIORITY"]);
}

TEST_F(Notification, VariablesCannotSteerTheProgram) {
    ASSERT_TRUE(install("/etc/sharesnap", "a",
                        "echo \"$PATH/${LD_PRELOAD-unset}\" >" + scratch() + "/part\nmv " + scratch() + "/part " +
                            scratch() + "/steered\n"));
    set("PATH", "/evil");
    set("LD_PRELOAD", "/evil.so");
    ASSERT_EQ(0, QOVASysNotifySendNotifiction("Tag", &hash));
    EXPECT_EQ("/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin/unset\n", told("steered"));
}

TEST_F(Notification, UnsafeProgramsAreNotRun) {
    ASSERT_TRUE(install("/etc/sharesnap", "unsafe", tellScript("unsafe"), 0777));
    ASSERT_TRUE(install("/usr/lib/sharesnap", "unsafe", tellScript("unsafe"))); // hidden by the one above
    ASSERT_TRUE(install("/usr/lib/sharesnap", "zafe", tellScript("zafe")));     // started after it
    ASSERT_EQ(0, QOVASysNotifySendNotifiction("Tag", &hash));
    EXPECT_EQ("1/Tag////\n", told("zafe"));
    EXPECT_FALSE(testkit::exists(scratch() + "/unsafe"));
}

TEST_F(Notification, WithoutProgramsOrJournalItSucceeds) {
    EXPECT_EQ(0, QOVASysNotifySendNotifiction("Tag", &hash));
}

TEST_F(Notification, UnusableArgumentsAreRefused) {
    QLIBCSZHASH *none = nullptr;
    EXPECT_EQ(-1, QOVASysNotifySendNotifiction(nullptr, &hash));
    EXPECT_EQ(-1, QOVASysNotifySendNotifiction("", &hash));
    EXPECT_EQ(-1, QOVASysNotifySendNotifiction("Tag", nullptr));
    EXPECT_EQ(-1, QOVASysNotifySendNotifiction("Tag", &none));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
}

TEST_F(HostName, IsTheMachinesAndCutToTheBuffer) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const std::string longest(64, 'h');
        if (unshare(CLONE_NEWUTS) != 0 || sethostname(longest.c_str(), longest.size()) != 0) {
            _exit(2);
        }
        char whole[65] = {};
        char cut[64] = {};
        const bool wholeRight = QOVALnxGetHostname(whole, sizeof(whole)) == 0 && longest == whole;
        const bool cutRight = QOVALnxGetHostname(cut, sizeof(cut)) == 0 && longest.substr(0, 63) == cut;
        _exit(wholeRight && cutRight ? 0 : 1);
    }
    const int status = testkit::waitForChild(child);
    if (status == 2 << 8) {
        GTEST_SKIP() << "the host name can't be changed here";
    }
    EXPECT_EQ(0, status);
}

TEST_F(HostName, NeedsABuffer) {
    char buffer[64] = {};
    errno = 0;
    EXPECT_EQ(-1, QOVALnxGetHostname(nullptr, 64));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, QOVALnxGetHostname(buffer, 0));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
}
