// What is said to syslog can be asked for.
#include "support/log_capture.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

__attribute__((format(printf, 2, 3))) void sayWithList(int priority, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
}

TEST(LogCapture, KeepsPriorityAndTextInOrder) {
    syslog(LOG_ERR, "%s:%d first %s\n", "file.cpp", 7, "thing");
    sayWithList(LOG_USER | LOG_DEBUG, "second %d", 2);
    const std::vector<testkit::LogLine> lines = testkit::logLines();
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ(LOG_ERR, lines[0].priority);
    EXPECT_EQ("file.cpp:7 first thing\n", lines[0].text);
    EXPECT_EQ(getpid(), lines[0].pid);
    EXPECT_EQ(LOG_DEBUG, lines[1].priority);
    EXPECT_EQ("second 2", lines[1].text);
}

TEST(LogCapture, MatchesByPriorityAndPart) {
    syslog(LOG_WARNING, "took %d seconds", 3);
    EXPECT_TRUE(testkit::logged(LOG_WARNING, "took 3"));
    EXPECT_FALSE(testkit::logged(LOG_ERR, "took 3"));
    EXPECT_FALSE(testkit::logged(LOG_WARNING, "took 4"));
    EXPECT_EQ(1U, testkit::logCount(LOG_WARNING, "seconds"));
    EXPECT_TRUE(testkit::nothingFailed());
    syslog(LOG_CRIT, "worse");
    EXPECT_FALSE(testkit::nothingFailed());
}

TEST(LogCapture, MatchesWholeLinesByExpression) {
    syslog(LOG_ERR, "a.cpp:12 Failed [0x0900 b.cpp:3]\n");
    EXPECT_TRUE(testkit::loggedMatch(LOG_ERR, "^a\\.cpp:[0-9]+ Failed \\[0x0900 b\\.cpp:[0-9]+\\]$"));
    EXPECT_FALSE(testkit::loggedMatch(LOG_ERR, "^Failed"));
    EXPECT_FALSE(testkit::loggedMatch(LOG_ERR, "(")) << "not an expression";
}

TEST(LogCapture, AFailedMatchShowsTheLog) {
    syslog(LOG_INFO, "what was said");
    const testing::AssertionResult result = testkit::logged(LOG_ERR, "what was not");
    EXPECT_FALSE(result);
    EXPECT_NE(nullptr, std::strstr(result.message(), "<6> what was said"));
}

TEST(LogCapture, KeepsErrnoAndFormatsIt) {
    errno = ENOENT;
    // Told by a variable, since %m is no part of ISO C++.
    const char *format = "errno=%d/%m";
    syslog(LOG_ERR, format, ENOENT);
    EXPECT_EQ(ENOENT, errno);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "errno=2/No such file or directory"));
}

TEST(LogCapture, SeesForkedChildren) {
    const pid_t pid = fork();
    if (pid == 0) {
        syslog(LOG_NOTICE, "from the child");
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(testkit::logged(LOG_NOTICE, "from the child"));
    EXPECT_EQ(pid, testkit::logLines()[0].pid);
}

TEST(LogCapture, CutsALineThatIsTooLong) {
    const std::string longText(20000, 'x');
    syslog(LOG_INFO, "%s", longText.c_str());
    ASSERT_EQ(1U, testkit::logLines().size());
    EXPECT_EQ(16383U, testkit::logLines()[0].text.size());
}

TEST(LogCapture, ForgetsWhenTold) {
    syslog(LOG_INFO, "one");
    testkit::logClear();
    EXPECT_TRUE(testkit::logLines().empty());
    syslog(LOG_INFO, "two");
    ASSERT_EQ(1U, testkit::logLines().size());
    EXPECT_EQ("two", testkit::logLines()[0].text);
}

} // namespace
