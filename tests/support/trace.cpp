#include "trace.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testkit {
namespace {

constexpr int systemCallStop = SIGTRAP | 0x80;

long request(int what, pid_t pid, unsigned long address, void *data) {
    return syscall(SYS_ptrace, what, pid, address, data);
}

bool waitsForDisk(unsigned long long call) {
    return call == SYS_fsync || call == SYS_fdatasync || call == SYS_syncfs || call == SYS_sync;
}

// The signal to hand on to a child that stopped, and what its stop tells.
int look(pid_t pid, int status, Cost &cost) {
    const int signal = WSTOPSIG(status);
    const int event = status >> 16;
    if (signal == systemCallStop) {
        __ptrace_syscall_info info{};
        if (request(PTRACE_GET_SYSCALL_INFO, pid, sizeof(info), &info) > 0 && info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            ++cost.calls;
            cost.syncs += waitsForDisk(info.entry.nr) ? 1 : 0;
        }
        return 0;
    }
    if (event == PTRACE_EVENT_EXEC) {
        ++cost.programs;
    }
    // A new child of the operation stops once by itself.
    return event != 0 || signal == SIGTRAP || signal == SIGSTOP ? 0 : signal;
}

} // namespace

Cost traceCost(const std::function<bool()> &operation) {
    Cost cost;
    (void)fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        return cost;
    }
    if (child == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (request(PTRACE_TRACEME, 0, 0, nullptr) != 0) {
            _exit(99);
        }
        (void)raise(SIGSTOP);
        _exit(operation() ? 0 : 1);
    }
    int status = 0;
    (void)waitpid(child, &status, 0);
    const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                         PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC;
    (void)request(PTRACE_SETOPTIONS, child, 0, reinterpret_cast<void *>(options));
    (void)request(PTRACE_SYSCALL, child, 0, nullptr);
    for (;;) {
        const pid_t pid = waitpid(-1, &status, __WALL);
        if (pid < 0 && errno == EINTR) {
            continue;
        }
        if (pid < 0) {
            return cost; // none is left
        }
        if (WIFSTOPPED(status)) {
            const long signal = look(pid, status, cost);
            (void)request(PTRACE_SYSCALL, pid, 0, reinterpret_cast<void *>(signal));
        } else if (pid == child) {
            cost.whole = WIFEXITED(status) && WEXITSTATUS(status) == 0;
        }
    }
}

} // namespace testkit
