// Kills of the administrator's command.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include "support/argument_vector.hpp"
#include "support/crash.hpp"

namespace crashtest {

// Turns the process, a child that is to be killed, into the command.
[[noreturn]] inline void becomeCommand(const std::vector<std::string> &arguments) {
    testkit::ArgumentVector argv(SHARESNAP_COMMAND, arguments);
    if (std::freopen("/dev/null", "r", stdin) == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) {
        _exit(98);
    }
    (void)execv(SHARESNAP_COMMAND, argv.data());
    _exit(97);
}

// The campaign leaves no call out.
[[nodiscard]] inline bool takesEveryCall() {
    return std::getenv("SHARESNAP_CRASH_ALL") != nullptr;
}

// How many calls a run makes that does nothing: those of the start.
[[nodiscard]] inline size_t callsOfTheStart() {
    return testkit::countCalls([] { becomeCommand({"--version"}); });
}

} // namespace crashtest
