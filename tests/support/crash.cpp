#include "crash.hpp"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testkit {
namespace {

constexpr int systemCallStop = SIGTRAP | 0x80;

pid_t startTraced(const std::function<void()> &operation) {
    (void)fflush(nullptr); // or the child prints it once more
    const pid_t child = fork();
    if (child == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
            _exit(99);
        }
        (void)raise(SIGSTOP);
        operation();
        _exit(0);
    }
    return child;
}

int waitFor(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {}
    return status;
}

// Children of the killed child have become ours: they end before anything is looked at.
void reapOrphans() {
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {}
}

void killTraced(pid_t child) {
    (void)kill(child, SIGKILL);
    int status = 0;
    do {
        status = waitFor(child);
    } while (WIFSTOPPED(status));
}

// Lets the child run to the entry of its nth call, or to its end; gives how many calls it has entered. `look` is called
// while the child stands at the entry of each.
size_t runTo(pid_t child, size_t nth, const std::function<void()> &look) {
    size_t entered = 0;
    bool inside = false;
    int signal = 0;
    for (;;) {
        if (ptrace(PTRACE_SYSCALL, child, nullptr, reinterpret_cast<void *>(static_cast<long>(signal))) != 0) {
            return entered;
        }
        const int status = waitFor(child);
        signal = 0;
        if (!WIFSTOPPED(status)) {
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the operation ended by itself: " << status;
            return entered;
        }
        if (WSTOPSIG(status) != systemCallStop) {
            signal = WSTOPSIG(status) == SIGTRAP ? 0 : WSTOPSIG(status);
            continue;
        }
        inside = !inside;
        if (inside && look) {
            look();
        }
        if (inside && ++entered == nth) {
            return entered;
        }
    }
}

// The calls that the operation made until its nth one, where it is killed, or until its end.
size_t runAndKill(size_t nth, const std::function<void()> &operation, const std::function<void()> &look) {
    (void)prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t child = startTraced(operation);
    if (child < 0) {
        ADD_FAILURE() << "no child to kill";
        return 0;
    }
    (void)waitFor(child);
    if (ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) != 0) {
        ADD_FAILURE() << "can't trace a child";
        killTraced(child);
        return 0;
    }
    const size_t entered = runTo(child, nth, look);
    if (entered == nth) {
        killTraced(child);
    }
    reapOrphans();
    return entered;
}

} // namespace

bool killAtCall(size_t nth, const std::function<void()> &operation) {
    return runAndKill(nth, operation, nullptr) == nth;
}

size_t countCalls(const std::function<void()> &operation, const std::function<void()> &look) {
    return runAndKill(SIZE_MAX, operation, look);
}

size_t CrashSweep::run() const {
    size_t points = 0;
    for (size_t nth = first; nth <= most; nth += step) {
        prepare();
        if (testing::Test::HasFatalFailure() || !killAtCall(nth, operation)) {
            break;
        }
        ++points;
        const testing::ScopedTrace trace(__FILE__, __LINE__, "killed at system call " + std::to_string(nth));
        check(nth);
        if (testing::Test::HasFailure()) {
            break;
        }
    }
    std::printf("[  POINTS  ] killed at %zu system calls\n", points);
    return points;
}

} // namespace testkit
