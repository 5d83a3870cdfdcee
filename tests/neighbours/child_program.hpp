// A server that a test runs for itself: it is our child, dies with us, and is gone when its owner is.
#pragma once

#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "support/process.hpp"

namespace testkit {

class ChildProgram {
public:
    ChildProgram() = default;
    ~ChildProgram() { end(SIGKILL); }
    ChildProgram(const ChildProgram &) = delete;
    ChildProgram &operator=(const ChildProgram &) = delete;

    // Output and errors go to the file.
    [[nodiscard]] bool start(const std::vector<std::string> &command, const std::string &output) {
        std::vector<char *> arguments;
        for (const std::string &argument : command) {
            arguments.push_back(const_cast<char *>(argument.c_str()));
        }
        arguments.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
            const int in = open("/dev/null", O_RDONLY);
            const int out = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (in < 0 || out < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(out, 2) < 0) {
                _exit(126);
            }
            closefrom(3);
            execvp(arguments[0], arguments.data());
            _exit(127);
        }
        return pid_ > 0;
    }

    [[nodiscard]] bool running() {
        if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
        }
        return pid_ > 0;
    }

    void signal(int number) const {
        if (pid_ > 0) {
            (void)kill(pid_, number);
        }
    }

    // Sends a signal that ends it and waits until it is gone.
    void end(int number) {
        if (pid_ > 0) {
            signal(number);
            signal(SIGCONT);
            (void)waitForChild(pid_);
            pid_ = -1;
        }
    }

private:
    pid_t pid_ = -1;
};

// Asks every 20 ms, for a minute at most.
template <typename Condition>
[[nodiscard]] bool comesTrue(Condition condition) {
    for (int round = 0; round < 3000; ++round) {
        if (condition()) {
            return true;
        }
        (void)usleep(20000);
    }
    return false;
}

} // namespace testkit
