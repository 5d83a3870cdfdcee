// @eaDir directories.
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/file_operation.h>

#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/sandbox.hpp"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using testkit::exists;
using testkit::writeFile;

namespace {

class EaDirectory : public testkit::SandboxTest {
protected:
    void SetUp() override {
        testkit::SandboxTest::SetUp();
        m_share = testkit::Sandbox::scratch() + "/docs";
        m_ea = m_share + "/@eaDir";
        ASSERT_EQ(0, mkdir(m_share.c_str(), 0755));
    }
    [[nodiscard]] int remove() const {
        int64_t flag = 1;
        return QOVAEARemove(m_share.c_str(), 3, &flag);
    }

    std::string m_share;
    std::string m_ea;
};

TEST_F(EaDirectory, IsMadeWithItsModeWhateverTheUmask) {
    const mode_t old = umask(077);
    const int result = QOVAEAMKDir(0, m_ea.c_str());
    umask(old);
    ASSERT_EQ(0, result);
    struct stat status = {};
    ASSERT_EQ(0, stat(m_ea.c_str(), &status));
    EXPECT_EQ(mode_t(S_IFDIR | 0755), status.st_mode);
    EXPECT_EQ(geteuid(), status.st_uid);
}

TEST_F(EaDirectory, ThatStandsIsLeftAsItIs) {
    ASSERT_EQ(0, mkdir(m_ea.c_str(), 0700));
    ASSERT_TRUE(writeFile(m_ea + "/file", "x"));
    EXPECT_EQ(0, QOVAEAMKDir(0, m_ea.c_str()));
    struct stat status = {};
    ASSERT_EQ(0, stat(m_ea.c_str(), &status));
    EXPECT_EQ(mode_t(S_IFDIR | 0700), status.st_mode);
    EXPECT_TRUE(exists(m_ea + "/file"));
}

TEST_F(EaDirectory, IsntMadeOfALinkOrAFile) {
    const std::string elsewhere = testkit::Sandbox::scratch() + "/elsewhere";
    ASSERT_EQ(0, mkdir(elsewhere.c_str(), 0755));
    ASSERT_EQ(0, symlink(elsewhere.c_str(), m_ea.c_str()));
    EXPECT_EQ(-1, QOVAEAMKDir(0, m_ea.c_str()));
    EXPECT_EQ(unsigned(SNAP_ERR_OPERATION_FAILED), QLIBCErrGet());
    ASSERT_EQ(0, unlink(m_ea.c_str()));
    ASSERT_TRUE(writeFile(m_ea, "x"));
    EXPECT_EQ(-1, QOVAEAMKDir(0, m_ea.c_str()));
    EXPECT_EQ(-1, QOVAEAMKDir(0, (m_share + "/no directory/@eaDir").c_str()));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, QOVAEAMKDir(0, nullptr));
}

TEST_F(EaDirectory, IsRemovedWithAllItHolds) {
    ASSERT_TRUE(testkit::makeDirectories(m_ea + "/a/b c/d"));
    ASSERT_TRUE(testkit::makeDirectories(m_ea + "/empty"));
    ASSERT_TRUE(writeFile(m_ea + "/file", "x"));
    ASSERT_TRUE(writeFile(m_ea + "/a/b c/d/" + std::string(255, 'f'), "x"));
    ASSERT_EQ(0, mkfifo((m_ea + "/a/pipe").c_str(), 0600));
    ASSERT_TRUE(writeFile(m_share + "/kept", "x"));
    EXPECT_EQ(0, remove());
    EXPECT_EQ((std::vector<std::string>{"kept"}), testkit::directoryNames(m_share));
}

TEST_F(EaDirectory, ThatIsAbsentIsRemovedAlready) {
    EXPECT_EQ(0, remove());
    ASSERT_EQ(0, rmdir(m_share.c_str()));
    EXPECT_EQ(0, remove());
}

TEST_F(EaDirectory, RemovalFollowsNoLink) {
    const std::string elsewhere = testkit::Sandbox::scratch() + "/elsewhere";
    ASSERT_EQ(0, mkdir(elsewhere.c_str(), 0755));
    ASSERT_TRUE(writeFile(elsewhere + "/precious", "x"));
    ASSERT_EQ(0, mkdir(m_ea.c_str(), 0755));
    ASSERT_EQ(0, symlink(elsewhere.c_str(), (m_ea + "/link").c_str()));
    EXPECT_EQ(0, remove());
    EXPECT_TRUE(exists(elsewhere + "/precious"));
    EXPECT_FALSE(exists(m_ea));
    // A link in the place of the directory goes itself.
    ASSERT_EQ(0, symlink(elsewhere.c_str(), m_ea.c_str()));
    EXPECT_EQ(0, remove());
    EXPECT_TRUE(exists(elsewhere + "/precious"));
    EXPECT_FALSE(exists(m_ea));
    // A share's path that leads through a link isn't the share.
    ASSERT_EQ(0, rmdir(m_share.c_str()));
    ASSERT_EQ(0, mkdir((elsewhere + "/@eaDir").c_str(), 0755));
    ASSERT_EQ(0, symlink(elsewhere.c_str(), m_share.c_str()));
    EXPECT_EQ(-1, remove());
    EXPECT_TRUE(exists(elsewhere + "/@eaDir"));
}

// A row of directories, each in the one before, below the given one.
void makeDeep(const std::string &top, int depth) {
    int at = open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int i = 0; i < depth; ++i) {
        ASSERT_EQ(0, mkdirat(at, "deeper and deeper", 0755));
        const int next = openat(at, "deeper and deeper", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_LE(0, next);
        close(at);
        at = next;
    }
    close(at);
}

TEST_F(EaDirectory, IsRemovedHoweverDeepItIs) {
    ASSERT_EQ(0, mkdir(m_ea.c_str(), 0755));
    makeDeep(m_ea, 3000);
    EXPECT_EQ(0, remove());
    EXPECT_FALSE(exists(m_ea));
}

TEST_F(EaDirectory, WhoseRemovalWasInterruptedIsRemovedByTheNextOne) {
    // What a removal moves up to empty it later stands under such names. Whichever of them is entered first, another one
    // of them is in the way of what has to be moved up.
    ASSERT_EQ(0, mkdir(m_ea.c_str(), 0755));
    for (const char *left : {"/.removed.1", "/.removed.2"}) {
        ASSERT_EQ(0, mkdir((m_ea + left).c_str(), 0755));
        makeDeep(m_ea + left, 300);
    }
    ASSERT_EQ(0, close(creat((m_ea + "/.removed.3").c_str(), 0644)));
    EXPECT_EQ(0, remove());
    EXPECT_FALSE(exists(m_ea));
}

} // namespace
