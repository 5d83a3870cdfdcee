// What a user could leave below /run/lock and /run before root comes: directories and lock files of his own, links, hard
// links. Every lock is refused, nothing is written behind them, and no wait is begun that a user could make endless.
#include <fcntl.h>
#include <sharesnap/config.h>
#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/platform/share_admin.h>
#include <sharesnap/platform/szlist.h>
#include <sharesnap/snaptree.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"
#include "support/sandbox.hpp"

namespace {

constexpr uid_t kStranger = 1234;
constexpr char kTop[] = "/run/lock/sharesnap";

struct Taker {
    std::string file; // of the lock
    std::function<bool()> take;
};

class HostileRun : public testkit::SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        if (testkit::Sandbox::kind() != testkit::Sandbox::Kind::root) {
            GTEST_SKIP() << "needs several user ids";
        }
        share_.szName = name_;
        share_.szPath = path_;
        share_.szDesc = empty_;
        share_.szDenyList = empty_;
        share_.szRWList = empty_;
        share_.szROList = empty_;
        ASSERT_TRUE(testkit::makeDirectories(elsewhere_));
        ASSERT_TRUE(testkit::makeDirectories("/usr/qova/etc/sharesnap"));
        ASSERT_TRUE(testkit::writeFile(victim_, "precious"));
        ASSERT_EQ(0, chmod(victim_.c_str(), 0644));
    }

    void TearDown() override {
        QLIBCFileCloseLock();
        if (!IsSkipped()) {
            EXPECT_TRUE(testkit::directoryNames(elsewhere_).empty());
            EXPECT_EQ("precious", testkit::readFile(victim_));
            struct stat status {};
            EXPECT_EQ(0, stat(victim_.c_str(), &status));
            EXPECT_EQ(0644U, status.st_mode & 07777);
        }
        SandboxTest::TearDown();
    }

    // One that takes each lock file of the library, and gives true when it had it.
    [[nodiscard]] std::vector<Taker> takers() {
        return {{std::string(kTop) + "/sharesnap_meta_lock/docs.lock",
                 [this] {
                     const int fd = QOVAShareSnapLockMetaFile(&share_, 1);
                     return fd >= 0 && QLIBCFileUnlockByFile(fd) != 0;
                 }},
                {std::string(kTop) + "/sys_lock/docs.sharesnap_sys_lock",
                 [this] { return QOVAShareSnapSysLockIncrement(&share_, "snap", "me") == 1; }},
                {std::string(kTop) + "/sharesnap_conf.lock",
                 [] { return QOVAShareSnapConfSet("docs", "key", "value") == 0; }},
                {std::string(kTop) + "/snaptree_lock/vol1.lock", [] {
                     QovaSnapTree::SnapTree tree;
                     const int fd = tree.lockSnapTreeFile("vol1", true);
                     return fd >= 0 && QLIBCFileUnlockByFile(fd) != 0;
                 }}};
    }

    static std::string directoryOf(const std::string &file) { return file.substr(0, file.rfind('/')); }

    void expectRefused(const Taker &taker, const std::string &what) {
        EXPECT_FALSE(taker.take()) << what << " at " << taker.file;
    }

    char name_[8] = "docs";
    char path_[16] = "/vol1/docs";
    char empty_[1] = "";
    QOVASHARE share_{};
    const std::string elsewhere_ = testkit::Sandbox::scratch() + "/elsewhere";
    const std::string victim_ = "/run/victim"; // on the file system of the lock files, for hard links
};

TEST_F(HostileRun, EachLockIsTakenWhereNobodyWasBefore) {
    for (const Taker &taker : takers()) {
        EXPECT_TRUE(taker.take()) << taker.file << "\n" << testkit::logText();
        EXPECT_TRUE(testkit::exists(taker.file)) << taker.file;
    }
}

TEST(HostileRunAtBoot, DirectoriesAreRootsAlone) {
    const std::string text = testkit::readFile(SHARESNAP_SOURCE_DIR "/packaging/tmpfiles.d/sharesnap.conf");
    EXPECT_NE(std::string::npos, text.find("\nd /run/lock/sharesnap 0755 root root -\n"));
    EXPECT_NE(std::string::npos, text.find("\nd /run/sharesnap 0755 root root -\n"));
}

TEST_F(HostileRun, DirectoryOfAnotherUserIsNotUsed) {
    ASSERT_EQ(0, mkdir(kTop, 0777));
    ASSERT_EQ(0, chown(kTop, kStranger, kStranger));
    for (const Taker &taker : takers()) {
        expectRefused(taker, "a stranger's directory");
        EXPECT_FALSE(testkit::exists(taker.file));
    }
}

TEST_F(HostileRun, DirectoryBelowOfAnotherUserIsNotUsed) {
    ASSERT_EQ(0, mkdir(kTop, 0755));
    for (const Taker &taker : takers()) {
        const std::string directory = directoryOf(taker.file);
        if (directory != kTop) {
            ASSERT_EQ(0, mkdir(directory.c_str(), 0777));
            ASSERT_EQ(0, chown(directory.c_str(), kStranger, kStranger));
            expectRefused(taker, "a stranger's directory");
            EXPECT_FALSE(testkit::exists(taker.file));
        }
    }
}

// Whoever made the link; so a stranger's is refused, too.
TEST_F(HostileRun, LinkInTheDirectorysPlaceIsNotFollowed) {
    ASSERT_EQ(0, symlink(elsewhere_.c_str(), kTop));
    ASSERT_EQ(0, lchown(kTop, kStranger, kStranger));
    for (const Taker &taker : takers()) {
        expectRefused(taker, "a link");
    }
    ASSERT_EQ(0, unlink(kTop));
    ASSERT_EQ(0, mkdir(kTop, 0755));
    for (const Taker &taker : takers()) {
        const std::string directory = directoryOf(taker.file);
        if (directory != kTop) {
            ASSERT_EQ(0, symlink(elsewhere_.c_str(), directory.c_str()));
            ASSERT_EQ(0, lchown(directory.c_str(), kStranger, kStranger));
            expectRefused(taker, "a link below");
        }
    }
}

TEST_F(HostileRun, PlantedLockFilesAreNotOpened) {
    for (const Taker &taker : takers()) {
        const char *file = taker.file.c_str();
        ASSERT_TRUE(testkit::makeDirectories(directoryOf(taker.file)));
        ASSERT_EQ(0, symlink(victim_.c_str(), file));
        expectRefused(taker, "a link");
        ASSERT_EQ(0, unlink(file));
        ASSERT_EQ(0, symlink((elsewhere_ + "/new").c_str(), file));
        expectRefused(taker, "a dangling link");
        ASSERT_EQ(0, unlink(file));
        ASSERT_EQ(0, link(victim_.c_str(), file));
        expectRefused(taker, "a hard link");
        ASSERT_EQ(0, unlink(file));
        ASSERT_EQ(0, mkfifo(file, 0666));
        expectRefused(taker, "a pipe");
        ASSERT_EQ(0, unlink(file));
        ASSERT_EQ(0, mkdir(file, 0777));
        expectRefused(taker, "a directory");
        ASSERT_EQ(0, rmdir(file));
    }
}

TEST_F(HostileRun, LockFileOfAnotherUserIsRefusedAtOnce) {
    for (const Taker &taker : takers()) {
        ASSERT_TRUE(testkit::makeDirectories(directoryOf(taker.file)));
        ASSERT_TRUE(testkit::writeFile(taker.file, ""));
        ASSERT_EQ(0, chown(taker.file.c_str(), kStranger, kStranger));
        // Its owner could hold the lock for ever; nobody waits for him.
        const int fd = open(taker.file.c_str(), O_RDWR | O_CLOEXEC);
        struct flock range {};
        range.l_type = F_WRLCK;
        range.l_whence = SEEK_SET;
        ASSERT_EQ(0, fcntl(fd, F_OFD_SETLK, &range));
        QLIBCErrSetEx(0, "", 0);
        expectRefused(taker, "a stranger's file");
        EXPECT_EQ(0x0900U, QLIBCErrGet()) << taker.file; // not the code of a wait
        (void)close(fd);
    }
}

TEST_F(HostileRun, ClaimsBehindALinkAreNobodysClaims) {
    ASSERT_EQ(1, QOVAShareSnapSysLockIncrement(&share_, "snap", "me"));
    const char *data = "/run/sharesnap/sys_lock/docs.sharesnap_sys_lock";
    ASSERT_EQ(0, unlink(data));
    ASSERT_EQ(0, symlink(victim_.c_str(), data));
    uint32_t count = 0;
    EXPECT_EQ(-1, QOVAShareSnapSysLockGet(&share_, "snap", "me", &count));
    EXPECT_EQ(-1, QOVAShareSnapSysLockIncrement(&share_, "snap", "me"));
    ASSERT_EQ(0, unlink(data));
    ASSERT_EQ(0, symlink((elsewhere_ + "/new").c_str(), data));
    EXPECT_EQ(-1, QOVAShareSnapSysLockIncrement(&share_, "snap", "me"));
    ASSERT_EQ(0, unlink(data));
    ASSERT_EQ(0, mkfifo(data, 0666));
    EXPECT_EQ(-1, QOVAShareSnapSysLockIncrement(&share_, "snap", "me"));
    EXPECT_EQ(-1, QOVAShareSnapSysLockGet(&share_, "snap", "me", &count));
}

} // namespace
