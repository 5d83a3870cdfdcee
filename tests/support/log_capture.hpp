// Everything that is said to syslog, kept for the test instead of being sent.
//
// How to use it
//   EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get share (docs)"));   // a line that contains the text
//   EXPECT_TRUE(testkit::loggedMatch(LOG_ERR, "^share_op\\.cpp:[0-9]+ QOVAShareGet failed\\. share \\(docs\\)\\[0x0400
//   .*$")); EXPECT_FALSE(testkit::logged(LOG_DEBUG, "re-try")); for (const auto &line : testkit::logLines()) {
//   line.priority, line.text, line.pid } testkit::logClear();
//
// Lines of forked children arrive, too; those of other programs do not. The lines are forgotten before each test, and
// printed when a test fails. A test that logs more than about 4 MiB ends with an error.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <sys/types.h>
#include <syslog.h>
#include <vector>

namespace testkit {

struct LogLine {
    int priority; // LOG_ERR ... LOG_DEBUG, without a facility
    pid_t pid;
    std::string text; // as formatted, with its line feed where it has one
};

[[nodiscard]] std::vector<LogLine> logLines();
[[nodiscard]] std::string logText(); // all lines, for a message

// How many lines of that priority contain the text.
[[nodiscard]] size_t logCount(int priority, const std::string &part);

// True when such a line was logged. The message of a failure lists all lines.
[[nodiscard]] testing::AssertionResult logged(int priority, const std::string &part);

// The same with an extended regular expression for the whole line, its final line feed left out.
[[nodiscard]] testing::AssertionResult loggedMatch(int priority, const std::string &expression);

// True when nothing was logged at LOG_ERR or worse.
[[nodiscard]] testing::AssertionResult nothingFailed();

void logClear();

} // namespace testkit
