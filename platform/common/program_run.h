// Running a checked program, without a shell and without anything of ours left in it.
#ifndef SHARESNAP_PLATFORM_COMMON_PROGRAM_RUN_H
#define SHARESNAP_PLATFORM_COMMON_PROGRAM_RUN_H

#include "common/program_directory.h"

#include <string>
#include <utility>
#include <vector>

namespace QovaPlatform {

// Arguments and variables of a program. PATH and LC_ALL=C are always set and nothing else is inherited.
class ProgramCall {
public:
    explicit ProgramCall(std::vector<std::string> arguments);

    // False for a name that isn't one of letters, digits and '_', or that would steer the program's loader, its shell
    // or the fixed variables.
    [[nodiscard]] static bool mayBeSet(const std::string &name);

    // False when the variable may not be set. A value that is longer than the kernel takes is cut behind its last blank
    // that fits, and <name>_CUT=1 says so.
    [[nodiscard]] bool setVariable(const std::string &name, const std::string &value);

    [[nodiscard]] const std::vector<std::string> &arguments() const { return arguments_; }
    [[nodiscard]] std::vector<std::string> environment() const;

private:
    void store(const std::string &name, std::string value);

    std::vector<std::string> arguments_;
    std::vector<std::pair<std::string, std::string>> variables_;
};

// Runs a program to its end. It dies when the calling thread does. True when it exited with 0.
[[nodiscard]] bool runProgram(const Program &program, const ProgramCall &call);

// Starts a program in a session of its own and doesn't wait for it. True when it was started.
[[nodiscard]] bool startProgram(const Program &program, const ProgramCall &call);

} // namespace QovaPlatform

#endif
