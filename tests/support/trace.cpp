#include "trace.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iterator>
#include <linux/btrfs.h>
#include <map>
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

// The calls that processes are in the middle of.
using Calls = std::map<pid_t, unsigned long long>;

bool waitsForDisk(unsigned long long call, const unsigned long long *arguments) {
    if (call == SYS_ioctl) {
        return arguments[1] == BTRFS_IOC_SYNC || arguments[1] == BTRFS_IOC_WAIT_SYNC;
    }
    return call == SYS_fsync || call == SYS_fdatasync || call == SYS_syncfs || call == SYS_sync;
}

bool reads(unsigned long long call) {
    return call == SYS_read || call == SYS_pread64 || call == SYS_readv || call == SYS_preadv || call == SYS_preadv2;
}

bool writes(unsigned long long call) {
    return call == SYS_write || call == SYS_pwrite64 || call == SYS_writev || call == SYS_pwritev ||
           call == SYS_pwritev2;
}

void lookAtCall(pid_t pid, Calls &inside, Cost &cost) {
    __ptrace_syscall_info info{};
    if (request(PTRACE_GET_SYSCALL_INFO, pid, sizeof(info), &info) <= 0) {
        return;
    }
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
        inside[pid] = info.entry.nr;
        unsigned long long arguments[6];
        std::copy(std::begin(info.entry.args), std::end(info.entry.args), arguments);
        ++cost.calls;
        cost.syncs += waitsForDisk(info.entry.nr, arguments) ? 1 : 0;
    } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && info.exit.is_error == 0) {
        const auto call = inside.find(pid);
        if (call != inside.end()) {
            const auto bytes = static_cast<size_t>(info.exit.rval);
            cost.bytesRead += reads(call->second) ? bytes : 0;
            cost.bytesWritten += writes(call->second) ? bytes : 0;
        }
    }
}

// The signal to hand on to a child that stopped, and what its stop tells.
int look(pid_t pid, int status, Calls &inside, Cost &cost) {
    const int signal = WSTOPSIG(status);
    const int event = status >> 16;
    if (signal == systemCallStop) {
        lookAtCall(pid, inside, cost);
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
    Calls inside;
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
            const long signal = look(pid, status, inside, cost);
            (void)request(PTRACE_SYSCALL, pid, 0, reinterpret_cast<void *>(signal));
        } else if (pid == child) {
            cost.whole = WIFEXITED(status) && WEXITSTATUS(status) == 0;
        }
    }
}

} // namespace testkit
