// File checks.
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/file.h>

#include "support/files.hpp"
#include "support/fixtures.hpp"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

class FileCheck : public testkit::SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        m_directory = testkit::Sandbox::scratch() + "/room";
        m_file = m_directory + "/file";
        m_absent = m_directory + "/absent";
        m_link = m_directory + "/link";
        ASSERT_TRUE(testkit::makeDirectories(m_directory));
        ASSERT_TRUE(testkit::writeFile(m_file, "text"));
        QLIBCErrSetEx(0, "", 0);
    }

    std::string m_directory;
    std::string m_file;
    std::string m_absent;
    std::string m_link;
};

} // namespace

TEST_F(FileCheck, TellsWhatStandsAtAPath) {
    EXPECT_EQ(1, QLIBCFileExist(m_file.c_str()));
    EXPECT_EQ(1, QLIBCFileExist(m_directory.c_str()));
    EXPECT_EQ(0, QLIBCFileExist(m_absent.c_str()));
    EXPECT_EQ(0, QLIBCFileExist((m_file + "/below").c_str()));
    EXPECT_EQ(0, QLIBCFileExist(nullptr));
    EXPECT_EQ(1, QLIBCFileCheckDir(m_directory.c_str()));
    EXPECT_EQ(0, QLIBCFileCheckDir(m_file.c_str()));
    EXPECT_EQ(0, QLIBCFileCheckDir(m_absent.c_str()));
    EXPECT_EQ(0, QLIBCFileCheckDir(nullptr));
}

TEST_F(FileCheck, ALinkStandsForItself) {
    ASSERT_EQ(0, symlink(m_absent.c_str(), m_link.c_str()));
    EXPECT_EQ(1, QLIBCFileExist(m_link.c_str()));
    ASSERT_EQ(0, unlink(m_link.c_str()));
    ASSERT_EQ(0, symlink(m_directory.c_str(), m_link.c_str()));
    EXPECT_EQ(0, QLIBCFileCheckDir(m_link.c_str()));
}

TEST_F(FileCheck, TouchMakesAFile) {
    const mode_t before = umask(022);
    EXPECT_EQ(0, QLIBCFileTouch(m_absent.c_str()));
    (void)umask(before);
    struct stat status;
    ASSERT_EQ(0, lstat(m_absent.c_str(), &status));
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(0644U, status.st_mode & 07777);
    EXPECT_EQ(0, status.st_size);
}

TEST_F(FileCheck, TouchRenewsTheTimesAndKeepsTheContent) {
    const timespec rgTimes[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, m_file.c_str(), rgTimes, 0));
    EXPECT_EQ(0, QLIBCFileTouch(m_file.c_str()));
    struct stat status;
    ASSERT_EQ(0, stat(m_file.c_str(), &status));
    EXPECT_GT(status.st_mtime, 1000000000);
    EXPECT_EQ("text", testkit::readFile(m_file));
}

TEST_F(FileCheck, TouchFollowsNoLinkAndTakesNothingButFiles) {
    ASSERT_EQ(0, symlink(m_absent.c_str(), m_link.c_str()));
    EXPECT_EQ(-1, QLIBCFileTouch(m_link.c_str()));
    EXPECT_EQ(ELOOP, errno);
    EXPECT_EQ(0x0C00U, QLIBCErrGet());
    EXPECT_FALSE(testkit::exists(m_absent));
    EXPECT_EQ(-1, QLIBCFileTouch(m_directory.c_str()));
    EXPECT_EQ(-1, QLIBCFileTouch((m_absent + "/below").c_str()));
    EXPECT_EQ(ENOENT, errno);
    ASSERT_EQ(0, mkfifo(m_absent.c_str(), 0600));
    EXPECT_EQ(-1, QLIBCFileTouch(m_absent.c_str()));
    EXPECT_EQ(-1, QLIBCFileTouch(nullptr));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
}

TEST_F(FileCheck, StatFollowsLinksOnDemand) {
    ASSERT_EQ(0, symlink(m_file.c_str(), m_link.c_str()));
    struct stat status;
    EXPECT_EQ(0, QLIBCFileStat(m_link.c_str(), 1, &status));
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(4, status.st_size);
    EXPECT_EQ(0, QLIBCFileStat(m_link.c_str(), 0, &status));
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    EXPECT_EQ(-1, QLIBCFileStat(m_absent.c_str(), 1, &status));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(0x2A00U, QLIBCErrGet());
    EXPECT_EQ(-1, QLIBCFileStat(m_file.c_str(), 1, nullptr));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
}
