// A task in a child process under a time limit. The child signals its parent when the task is done; the handler writes
// to a pipe, and the parent's select on that pipe ends by that byte or by the limit.
#include <fcntl.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/file_lock.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <memory>
#include <new>

#include "frame/log.h"
#include "frame/owners.h"

using namespace sharesnap;

namespace {

// Read end, write end; -1 outside a call. The signal handler gets no argument, so it stands here.
int gPipeFd[2] = {-1, -1};

void ForkedChildNotify(int) {
    const ErrnoKeeper keeper;
    // A full pipe already says what this byte would say; outside a call there is nobody to tell.
    if (write(gPipeFd[1], "", 1) < 0) {
        return;
    }
}

class NotifyPipe {
public:
    NotifyPipe() = default;
    NotifyPipe(const NotifyPipe &) = delete;
    NotifyPipe &operator=(const NotifyPipe &) = delete;
    ~NotifyPipe() {
        const ErrnoKeeper keeper;
        for (int &nFd : gPipeFd) {
            const int nClosing = nFd;
            nFd = -1; // first, so that a late signal doesn't write to what opens next
            if (nClosing >= 0) {
                (void)close(nClosing); // a pipe: nothing can be lost
            }
        }
    }

    [[nodiscard]] static bool open() {
        if (pipe2(gPipeFd, O_CLOEXEC) == -1) {
            return false;
        }
        for (const int nFd : gPipeFd) {
            const int nFlags = fcntl(nFd, F_GETFL);
            if (nFlags < 0 || fcntl(nFd, F_SETFL, nFlags | O_NONBLOCK) < 0) {
                SNAP_LOG(LOG_ERR, "Set flag on pipe fd failed (%d)", errno);
                return false;
            }
        }
        return true;
    }

    static void drain() {
        char buffer[4096];
        while (read(gPipeFd[0], buffer, sizeof(buffer)) > 0) {}
    }
};

int ForkedChildKill(pid_t pid, int nSignal) {
    if (pid < 1) {
        return SNAP_BAD_ARGUMENT("0 < pid");
    }
    SNAP_LOG(LOG_DEBUG, "kill PID (%d) with the signal (%d)", pid, nSignal);
    if (kill(pid, 0) < 0) {
        return 0; // gone
    }
    return kill(pid, nSignal);
}

// Waits for the child whatever signals arrive, so that none is left as a zombie.
pid_t Reap(pid_t pid, int *pnStatus) {
    pid_t reaped = 0;
    do {
        reaped = waitpid(pid, pnStatus, 0);
    } while (reaped == -1 && errno == EINTR);
    return reaped;
}

// select on descriptors of any number: an fd_set holds those below FD_SETSIZE only, a row of them holds more. Few
// processes have so many files open that the row is needed.
class ReadySet {
public:
    explicit ReadySet(int nHighest) : nHighest_(nHighest) {
        FD_ZERO(&single_);
        if (nHighest >= FD_SETSIZE) {
            // All bits are 0, which is what FD_ZERO does.
            row_.reset(new (std::nothrow) fd_set[static_cast<size_t>(nHighest / FD_SETSIZE) + 1]());
        }
    }
    // False when there is no memory for the row.
    [[nodiscard]] bool hasRoom() const { return nHighest_ < FD_SETSIZE || row_ != nullptr; }
    void add(int nFd) { FD_SET(nFd % FD_SETSIZE, first() + nFd / FD_SETSIZE); }
    [[nodiscard]] int wait(unsigned long ulSeconds) {
        struct timeval left = {static_cast<time_t>(ulSeconds), 0};
        return select(nHighest_ + 1, first(), nullptr, nullptr, &left);
    }

private:
    fd_set *first() { return row_ == nullptr ? &single_ : row_.get(); }

    fd_set single_;
    std::unique_ptr<fd_set[]> row_;
    int nHighest_;
};

// Tells of the child's end, whatever ended it: the child holds the write end of a pipe, and the read end is ready when it
// is gone. (A process that the child leaves behind may hold it, too; programs that it starts don't.)
class ChildLife {
public:
    ChildLife() {
        if (pipe2(fds_, O_CLOEXEC) == -1) {
            fds_[0] = fds_[1] = -1; // then a child that something else kills is noticed at the limit
        }
    }
    ~ChildLife() {
        closeEnd(fds_[1]);
        closeEnd(fds_[0]);
    }
    ChildLife(const ChildLife &) = delete;
    ChildLife &operator=(const ChildLife &) = delete;

    // In the parent, as soon as there is a child.
    void letGo() { closeEnd(fds_[1]); }
    [[nodiscard]] int descriptor() const { return fds_[0]; }

private:
    static void closeEnd(int &nFd) {
        const ErrnoKeeper keeper;
        if (nFd >= 0) {
            (void)close(nFd); // a pipe: nothing can be lost
        }
        nFd = -1;
    }

    int fds_[2] = {-1, -1};
};

// The limit has passed: SIGTERM, and SIGKILL only when that can't be sent.
int EndOverrun(pid_t pid) {
    if (ForkedChildKill(pid, SIGTERM) < 0) {
        SNAP_LOG(LOG_ERR, "Failed to kill PID(%d) with signal(%d), errno: %d", pid, SIGTERM, errno);
        if (ForkedChildKill(pid, SIGKILL) < 0) {
            SNAP_LOG(LOG_ERR, "Failed to kill PID(%d) with signal(%d), errno: %d", pid, SIGKILL, errno);
        }
    }
    SNAP_SET_ERR(SNAP_ERR_TIME_LIMIT);
    int nStatus = 0;
    if (Reap(pid, &nStatus) == -1) {
        SNAP_LOG(LOG_ERR, "Failed to waid PID[%d], errno: %d", pid, errno);
    }
    return -1;
}

// The set becomes ready by the child's byte or by the child's end.
int ForkedChildWait(unsigned long ulSecTimeout, pid_t pid, ReadySet &ready, int *pRetChild) {
    if (ulSecTimeout == 0) {
        return SNAP_BAD_ARGUMENT("0 < ulSecTimeout");
    }
    if (pid < 1) {
        return SNAP_BAD_ARGUMENT("0 < pid");
    }
    if (pRetChild == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != retChild");
    }
    const int nReady = ready.wait(ulSecTimeout);
    if (nReady == 0) {
        return EndOverrun(pid);
    }
    if (nReady > 0) {
        NotifyPipe::drain();
    }
    int nStatus = 0;
    if (Reap(pid, &nStatus) == -1) {
        SNAP_LOG(LOG_ERR, "Failed to waid PID[%d], errno: %d", pid, errno);
        return -1;
    }
    if (WIFEXITED(nStatus)) {
        *pRetChild = WEXITSTATUS(nStatus);
    }
    return 0;
}

void StandardStreamsToNull() {
    const int nFd = open("/dev/null", O_RDWR);
    if (nFd < 0) {
        return; // the task runs with what there is
    }
    for (const int nTarget : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        (void)dup2(nFd, nTarget); // likewise
    }
    if (nFd > STDERR_FILENO) {
        (void)close(nFd);
    }
}

[[noreturn]] void RunChild(pid_t parent, const TimeLimitTask *pTask) {
    StandardStreamsToNull();
    QLIBCFileCloseLock(); // the parent's locks must not live as long as the child
    (void)setsid();       // a new child never leads a group, so this can't fail
    const int nResult = pTask->pfnTask(pTask->pArg);
    // A parent that is gone has left its number to anybody.
    if (getppid() == parent && ForkedChildKill(parent, SIGUSR1) < 0) {
        SNAP_LOG(LOG_ERR, "Failed to kill PID(%d) with signal(%d), errno: %d", parent, SIGUSR1, errno);
    }
    _exit(nResult);
}

int RunForked(unsigned long ulSecTimeout, const TimeLimitTask *pTask, int *pFuncRet) {
    const pid_t parent = getpid();
    const NotifyPipe pipe;
    if (!NotifyPipe::open()) {
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED); // a code of an earlier overrun would tell of another one
        return -1;
    }
    struct sigaction action = {};
    action.sa_handler = ForkedChildNotify;
    sigemptyset(&action.sa_mask);
    if (sigaction(SIGUSR1, &action, nullptr) < 0) {
        SNAP_LOG(LOG_ERR, "Failed to sigaction(), errno:%d", errno);
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return -1;
    }
    ChildLife life;
    // Before there is a child, so that what fails here leaves none.
    ReadySet ready(std::max(gPipeFd[0], life.descriptor()));
    if (!ready.hasRoom()) {
        SNAP_SET_ERR(SNAP_ERR_OUT_OF_MEMORY);
        return -1;
    }
    ready.add(gPipeFd[0]);
    if (life.descriptor() >= 0) {
        ready.add(life.descriptor());
    }
    const pid_t child = fork();
    if (child == 0) {
        RunChild(parent, pTask);
    }
    if (child == -1) {
        SNAP_LOG(LOG_ERR, "Failed to fork the new process, errno: %d", errno);
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return -1;
    }
    life.letGo();
    if (ForkedChildWait(ulSecTimeout, child, ready, pFuncRet) < 0) {
        if (QLIBCErrGet() != SNAP_ERR_TIME_LIMIT) {
            SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        }
        return -1;
    }
    return 0;
}

} // namespace

int ShareSnapTimeLimitFork(unsigned long ulSecTimeout, const TimeLimitTask *pTimeLimitTask, int *pFuncRet) {
    if (ulSecTimeout == 0) {
        return SNAP_BAD_ARGUMENT("0 < ulSecTimeout");
    }
    if (pTimeLimitTask == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pTimeLimitTask");
    }
    if (pFuncRet == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != pFuncRet");
    }
    return RunForked(ulSecTimeout, pTimeLimitTask, pFuncRet);
}
