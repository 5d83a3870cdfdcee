// Copying of a regular file.
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

using testkit::readFile;
using testkit::writeFile;

namespace {

// The options with which the quota database is copied.
constexpr QOVAFILECOPYOPTIONS KEEP_ALL = {{1, 0, 1, 1}};
constexpr QOVAFILECOPYOPTIONS NOTHING = {};

class FileCopy : public testkit::SandboxTest {
protected:
    void SetUp() override {
        testkit::SandboxTest::SetUp();
        m_directory = testkit::Sandbox::scratch();
        ASSERT_TRUE(writeFile(source(), "content"));
    }
    [[nodiscard]] std::string source() const { return m_directory + "/source"; }
    [[nodiscard]] std::string target() const { return m_directory + "/target"; }
    [[nodiscard]] int copy(const QOVAFILECOPYOPTIONS &options) const {
        return QOVAFileCopy(source().c_str(), target().c_str(), &options);
    }
    [[nodiscard]] std::vector<std::string> names() const { return testkit::directoryNames(m_directory); }

    std::string m_directory;
};

mode_t modeOf(const std::string &path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

TEST_F(FileCopy, OptionsAreTwentyWords) {
    EXPECT_EQ(80U, sizeof(QOVAFILECOPYOPTIONS));
}

TEST_F(FileCopy, HoldsTheContentAndLeavesNothingElse) {
    ASSERT_EQ(0, copy(KEEP_ALL));
    EXPECT_EQ("content", readFile(target()));
    EXPECT_EQ((std::vector<std::string>{"source", "target"}), names());
    ASSERT_TRUE(writeFile(source(), ""));
    ASSERT_EQ(0, copy(KEEP_ALL));
    EXPECT_EQ("", readFile(target()));
}

TEST_F(FileCopy, KeepsModeAndTimesWhenAskedTo) {
    ASSERT_EQ(0, chmod(source().c_str(), 0640));
    const struct timespec times[2] = {{1000000000, 1}, {1100000000, 123456789}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, source().c_str(), times, 0));
    ASSERT_EQ(0, copy(KEEP_ALL));
    struct stat status = {};
    ASSERT_EQ(0, stat(target().c_str(), &status));
    EXPECT_EQ(mode_t(S_IFREG | 0640), status.st_mode);
    EXPECT_EQ(1100000000, status.st_mtim.tv_sec);
    EXPECT_EQ(123456789, status.st_mtim.tv_nsec);
    ASSERT_EQ(0, unlink(target().c_str()));
    ASSERT_EQ(0, copy(NOTHING));
    ASSERT_EQ(0, stat(target().c_str(), &status));
    EXPECT_EQ(mode_t(S_IFREG | 0644), status.st_mode);
    EXPECT_LT(1100000000, status.st_mtim.tv_sec);
}

TEST_F(FileCopy, KeepsTheOwnerWhenAskedTo) {
    if (chown(source().c_str(), 1234, 1235) != 0) {
        GTEST_SKIP() << "files of other users can't be made here";
    }
    ASSERT_EQ(0, copy(KEEP_ALL));
    struct stat status = {};
    ASSERT_EQ(0, stat(target().c_str(), &status));
    EXPECT_EQ(1234U, status.st_uid);
    EXPECT_EQ(1235U, status.st_gid);
    ASSERT_EQ(0, unlink(target().c_str()));
    ASSERT_EQ(0, copy(NOTHING));
    ASSERT_EQ(0, stat(target().c_str(), &status));
    EXPECT_EQ(geteuid(), status.st_uid);
}

TEST_F(FileCopy, OverwritesOnlyWhenAskedTo) {
    ASSERT_TRUE(writeFile(target(), "old"));
    EXPECT_EQ(-1, copy(NOTHING));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ(unsigned(SNAP_ERR_ALREADY_EXISTS), QLIBCErrGet());
    EXPECT_EQ("old", readFile(target()));
    EXPECT_EQ((std::vector<std::string>{"source", "target"}), names());
    EXPECT_EQ(0, copy(KEEP_ALL));
    EXPECT_EQ("content", readFile(target()));
}

TEST_F(FileCopy, ReplacesALinkAtTheTargetAndNeverWritesThroughIt) {
    const std::string victim = m_directory + "/victim";
    ASSERT_TRUE(writeFile(victim, "precious"));
    ASSERT_EQ(0, symlink(victim.c_str(), target().c_str()));
    ASSERT_EQ(0, copy(KEEP_ALL));
    EXPECT_EQ("precious", readFile(victim));
    EXPECT_TRUE(S_ISREG(modeOf(target())));
    EXPECT_EQ("content", readFile(target()));
}

TEST_F(FileCopy, TakesNothingButARegularFile) {
    const std::string secret = m_directory + "/secret";
    ASSERT_TRUE(writeFile(secret, "secret"));
    ASSERT_EQ(0, unlink(source().c_str()));
    ASSERT_EQ(0, symlink(secret.c_str(), source().c_str()));
    EXPECT_EQ(-1, copy(KEEP_ALL));
    EXPECT_EQ(ELOOP, errno);
    ASSERT_EQ(0, unlink(source().c_str()));
    ASSERT_EQ(0, mkfifo(source().c_str(), 0600));
    EXPECT_EQ(-1, copy(KEEP_ALL));
    ASSERT_EQ(0, unlink(source().c_str()));
    ASSERT_EQ(0, mkdir(source().c_str(), 0700));
    EXPECT_EQ(-1, copy(KEEP_ALL));
    EXPECT_EQ(EISDIR, errno);
    ASSERT_EQ(0, rmdir(source().c_str()));
    EXPECT_EQ(-1, copy(KEEP_ALL));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ((std::vector<std::string>{"secret"}), names());
}

TEST_F(FileCopy, ThatCantTakeItsNameLeavesNothing) {
    ASSERT_EQ(0, mkdir(target().c_str(), 0700));
    EXPECT_EQ(-1, copy(KEEP_ALL));
    EXPECT_EQ(EISDIR, errno);
    EXPECT_EQ((std::vector<std::string>{"source", "target"}), names());
    EXPECT_EQ(-1, QOVAFileCopy(source().c_str(), (m_directory + "/no directory/target").c_str(), &KEEP_ALL));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(FileCopy, TakesNamesAsLongAsAFileSystemHasThem) {
    const std::string longest = m_directory + "/" + std::string(255, 'n');
    EXPECT_EQ(0, QOVAFileCopy(source().c_str(), longest.c_str(), &KEEP_ALL));
    EXPECT_EQ("content", readFile(longest));
}

TEST_F(FileCopy, ReadsFilesThatTellNoSize) {
    EXPECT_EQ(0, QOVAFileCopy("/proc/self/status", target().c_str(), &KEEP_ALL));
    EXPECT_NE(std::string::npos, readFile(target()).find("Pid:"));
}

TEST_F(FileCopy, RefusesMissingArguments) {
    EXPECT_EQ(-1, QOVAFileCopy(nullptr, target().c_str(), &KEEP_ALL));
    EXPECT_EQ(unsigned(SNAP_ERR_BAD_PARAMETER), QLIBCErrGet());
    EXPECT_EQ(-1, QOVAFileCopy(source().c_str(), nullptr, &KEEP_ALL));
    EXPECT_EQ(0, QOVAFileCopy(source().c_str(), target().c_str(), nullptr));
    EXPECT_EQ(-1, QOVAFileCopy(source().c_str(), target().c_str(), nullptr));
}

} // namespace
