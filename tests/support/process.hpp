// Running a program from a test.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace testkit {

struct ProcessResult {
    int exitStatus = -1; // -1 when it didn't start or was killed: `signal` tells
    int signal = 0;
    std::string output; // standard output
    std::string errors; // standard error; with runProcess both are in `output`
};

// Runs a program, found through PATH, to its end with nothing on its standard input. Output and errors together.
[[nodiscard]] ProcessResult runProcess(const std::vector<std::string> &command);

// The same with output and errors kept apart, and a text for its standard input.
[[nodiscard]] ProcessResult runProcessApart(const std::vector<std::string> &command, const std::string &input = "");

// Waits for a child whatever signals arrive; gives its wait status.
int waitForChild(pid_t pid);

} // namespace testkit
