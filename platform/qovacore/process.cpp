// Child programs. A child starts without a shell, with a fixed environment, default signals, /dev/null for its standard
// input and error output, and no descriptor of ours but the pipe that is its standard output.

#include "support.h"
#include <algorithm>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <sharesnap/platform/process.h>
#include <spawn.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <vector>

using qovacore::ErrnoKeeper;
using qovacore::UniqueFd;

namespace {

// The platform's name for the Btrfs tool, which stands for a program of our own.
constexpr const char *BTRFS_NAME = "/sbin/btrfs";
constexpr const char *BTRFS_TOOL = SHARESNAP_BTRFS_TOOL;

// The line that our tool ends a listing with. A listing without it is not a whole one.
constexpr std::string_view LIST_END = "# end of list\n";
constexpr long long LIST_LIMIT_MS = 60000;

// A stream that was handed out: the child that writes it, or the exit status of one that has ended.
struct Stream {
    FILE *pFile;
    pid_t pid; // 0: the child has ended
    int nStatus;
};

class Streams {
public:
    Streams() { (void)pthread_atfork(lockAll, unlockAll, unlockAll); } // only a fork during an open or close is at risk

    std::mutex mutex;
    std::vector<Stream> list;

private:
    static void lockAll();
    static void unlockAll();
};

// Never destroyed: streams may be closed while the process is ending.
Streams &streams() {
    static Streams *const pStreams = new Streams;
    return *pStreams;
}

void Streams::lockAll() {
    streams().mutex.lock();
}

void Streams::unlockAll() {
    streams().mutex.unlock();
}

// What posix_spawn is to do between fork and exec.
class SpawnSettings {
public:
    SpawnSettings() {
        m_error = posix_spawn_file_actions_init(&m_actions);
        if (m_error == 0) {
            m_error = posix_spawnattr_init(&m_attributes);
            m_blAttributes = m_error == 0;
        }
    }
    SpawnSettings(const SpawnSettings &) = delete;
    SpawnSettings &operator=(const SpawnSettings &) = delete;
    ~SpawnSettings() {
        if (m_blAttributes) {
            (void)posix_spawnattr_destroy(&m_attributes);
            (void)posix_spawn_file_actions_destroy(&m_actions);
        }
    }

    // fdOutput becomes the standard output, /dev/null with -1. 0 or an error number.
    [[nodiscard]] int prepare(int fdOutput) {
        sigset_t all;
        sigset_t none;
        (void)sigfillset(&all);
        (void)sigemptyset(&none);
        step(posix_spawnattr_setsigdefault(&m_attributes, &all));
        step(posix_spawnattr_setsigmask(&m_attributes, &none));
        step(posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK));
        // The output first: where the caller has closed its own standard descriptors the pipe may have their numbers.
        step(fdOutput >= 0 ? posix_spawn_file_actions_adddup2(&m_actions, fdOutput, STDOUT_FILENO)
                           : posix_spawn_file_actions_addopen(&m_actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0));
        step(posix_spawn_file_actions_addopen(&m_actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0));
        step(posix_spawn_file_actions_addopen(&m_actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0));
        step(posix_spawn_file_actions_addclosefrom_np(&m_actions, STDERR_FILENO + 1));
        return m_error;
    }

    [[nodiscard]] int error() const { return m_error; }
    [[nodiscard]] const posix_spawn_file_actions_t *actions() const { return &m_actions; }
    [[nodiscard]] const posix_spawnattr_t *attributes() const { return &m_attributes; }

private:
    void step(int nError) { m_error = m_error != 0 ? m_error : nError; }

    posix_spawn_file_actions_t m_actions{};
    posix_spawnattr_t m_attributes{};
    int m_error = 0;
    bool m_blAttributes = false;
};

// Starts a program; its process id, or -1 with errno and a code.
pid_t start(const char *szProgram, char *const rgszArg[], int fdOutput) {
    static char szPath[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    static char szLocale[] = "LC_ALL=C";
    char *const rgszEnvironment[] = {szPath, szLocale, nullptr};
    const char *szFile = strcmp(szProgram, BTRFS_NAME) == 0 ? BTRFS_TOOL : szProgram;
    struct stat status;
    if (stat(szFile, &status) != 0 || faccessat(AT_FDCWD, szFile, X_OK, AT_EACCESS) != 0) {
        QOVACORE_SET_CODE(SNAP_ERR_OPERATION_FAILED); // no need of a child to find that out
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OPERATION_FAILED, EACCES);
        return -1;
    }
    SpawnSettings settings;
    pid_t pid = -1;
    int nError = settings.error() != 0 ? settings.error() : settings.prepare(fdOutput);
    if (nError == 0) {
        nError = posix_spawn(&pid, szFile, settings.actions(), settings.attributes(), rgszArg, rgszEnvironment);
    }
    if (nError != 0) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OPERATION_FAILED, nError);
        return -1;
    }
    return pid;
}

// The exit status of a child, waited for; -1 when a signal ended it or nobody knows it any more.
int waitFor(pid_t pid) {
    int nStatus = 0;
    while (waitpid(pid, &nStatus, 0) != pid) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}

void killAndWait(pid_t pid) {
    const ErrnoKeeper keeper;
    (void)kill(pid, SIGKILL); // it may have ended by itself
    (void)waitFor(pid);
}

long long nowMs() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // can't fail for this clock
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Waits until the descriptor can be read, or its process has ended. False with errno when the time is up or poll
// failed.
bool waitReadable(int fd, long long endMs) {
    for (;;) {
        const long long leftMs = endMs - nowMs();
        if (leftMs <= 0) {
            errno = ETIMEDOUT;
            return false;
        }
        pollfd entry{fd, POLLIN, 0};
        const int nReady = poll(&entry, 1, static_cast<int>(leftMs));
        if (nReady > 0) {
            return true;
        }
        if (nReady < 0 && errno != EINTR) {
            return false;
        }
    }
}

bool writeAll(int fd, const char *pData, size_t cbData) {
    while (cbData > 0) {
        const ssize_t nWritten = write(fd, pData, cbData);
        if (nWritten < 0 && errno != EINTR) {
            return false;
        }
        if (nWritten > 0) {
            pData += nWritten;
            cbData -= static_cast<size_t>(nWritten);
        }
    }
    return true;
}

// Copies all that the child writes.
bool takeOutput(int fdFrom, int fdTo, long long endMs) {
    char rgBuf[65536];
    while (waitReadable(fdFrom, endMs)) {
        const ssize_t nRead = read(fdFrom, rgBuf, sizeof(rgBuf));
        if (nRead == 0) {
            return true;
        }
        if (nRead < 0 && errno != EINTR) {
            return false;
        }
        if (nRead > 0 && !writeAll(fdTo, rgBuf, static_cast<size_t>(nRead))) {
            return false;
        }
    }
    return false;
}

// The exit status of the child, -1 when it hasn't ended in time or a signal ended it. The child is gone in any case.
int waitUntil(pid_t pid, long long endMs) {
    // It has closed its output, so it is about to end: looking again and again costs less than a way to be told.
    for (long pauseNs = 20000;; pauseNs = std::min(pauseNs * 2, 10000000L)) {
        int nStatus = 0;
        const pid_t ended = waitpid(pid, &nStatus, WNOHANG);
        if (ended == pid) {
            return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
        }
        if (ended < 0 && errno != EINTR) {
            return -1;
        }
        if (nowMs() >= endMs) {
            killAndWait(pid);
            return -1;
        }
        const timespec pause{0, pauseNs};
        (void)nanosleep(&pause, nullptr); // cut short by a signal: the next look comes earlier
    }
}

// Takes the mark off the end of a listing. False when it isn't there as a line of its own.
bool takeEndOff(int fd) {
    constexpr auto cbEnd = static_cast<off_t>(LIST_END.size());
    char rgTail[LIST_END.size() + 1];
    const off_t cbAll = lseek(fd, 0, SEEK_END);
    const off_t cbTail = std::min<off_t>(cbAll, cbEnd + 1);
    if (cbAll < cbEnd || pread(fd, rgTail, static_cast<size_t>(cbTail), cbAll - cbTail) != cbTail) {
        return false;
    }
    if (std::string_view(rgTail + (cbTail - cbEnd), LIST_END.size()) != LIST_END ||
        (cbTail > cbEnd && rgTail[0] != '\n')) {
        return false;
    }
    return ftruncate(fd, cbAll - cbEnd) == 0 && lseek(fd, 0, SEEK_SET) == 0;
}

// A stream for the descriptor, entered among those that are handed out.
FILE *handOut(UniqueFd fd, pid_t pid, int nStatus) {
    Streams &all = streams();
    const std::lock_guard<std::mutex> guard(all.mutex);
    all.list.reserve(all.list.size() + 1);
    FILE *pFile = fdopen(fd.get(), "r");
    if (pFile == nullptr) {
        QOVACORE_SET_CODE(SNAP_ERR_OPERATION_FAILED);
        return nullptr;
    }
    (void)fd.release(); // the stream's now
    all.list.push_back({pFile, pid, nStatus});
    return pFile;
}

struct Pipe {
    UniqueFd in;
    UniqueFd out;
};

bool openPipe(Pipe &ends) {
    int rgfd[2];
    if (pipe2(rgfd, O_CLOEXEC) != 0) {
        QOVACORE_SET_CODE(SNAP_ERR_OPERATION_FAILED);
        return false;
    }
    ends.out.reset(rgfd[0]);
    ends.in.reset(rgfd[1]);
    return true;
}

// The whole of a listing first: who reads it can't tell one that broke off from one that ended, and would take the
// snapshots that it doesn't name for gone.
FILE *openListing(const char *szProgram, char *const rgszArg[]) {
    Pipe ends;
    UniqueFd file(memfd_create("listing", MFD_CLOEXEC));
    if (!file.valid()) {
        QOVACORE_SET_CODE(SNAP_ERR_OPERATION_FAILED);
        return nullptr;
    }
    if (!openPipe(ends)) {
        return nullptr;
    }
    const long long endMs = nowMs() + LIST_LIMIT_MS;
    const pid_t pid = start(szProgram, rgszArg, ends.in.get());
    if (pid < 0) {
        return nullptr;
    }
    ends.in.reset();
    if (!takeOutput(ends.out.get(), file.get(), endMs)) {
        killAndWait(pid);
        QOVACORE_SET_CODE(SNAP_ERR_READ_FAILED);
        return nullptr;
    }
    if (waitUntil(pid, endMs) != 0 || !takeEndOff(file.get())) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OPERATION_FAILED, EIO);
        return nullptr;
    }
    return handOut(std::move(file), 0, 0);
}

FILE *openOutput(const char *szProgram, char *const rgszArg[]) {
    Pipe ends;
    if (!openPipe(ends)) {
        return nullptr;
    }
    const pid_t pid = start(szProgram, rgszArg, ends.in.get());
    if (pid < 0) {
        return nullptr;
    }
    ends.in.reset();
    FILE *pStream = nullptr;
    try {
        pStream = handOut(std::move(ends.out), pid, -1);
    } catch (const std::bad_alloc &) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OUT_OF_MEMORY, ENOMEM);
    }
    if (pStream == nullptr) {
        killAndWait(pid);
    }
    return pStream;
}

bool isListing(const char *szProgram, char *const rgszArg[]) {
    return strcmp(szProgram, BTRFS_NAME) == 0 && rgszArg[0] != nullptr && rgszArg[1] != nullptr &&
           rgszArg[2] != nullptr && strcmp(rgszArg[1], "subvolume") == 0 && strcmp(rgszArg[2], "list") == 0;
}

FILE *openv(const char *szProgram, const char *szMode, char *const rgszArg[]) {
    if (szProgram == nullptr || szMode == nullptr || strcmp(szMode, "r") != 0 || rgszArg == nullptr ||
        rgszArg[0] == nullptr) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return nullptr;
    }
    try {
        return isListing(szProgram, rgszArg) ? openListing(szProgram, rgszArg) : openOutput(szProgram, rgszArg);
    } catch (const std::bad_alloc &) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OUT_OF_MEMORY, ENOMEM);
        return nullptr;
    }
}

} // namespace

FILE *QLIBCPopen(const char *szProgram, const char *szMode, ...) {
    va_list args;
    va_start(args, szMode);
    FILE *pStream = nullptr;
    try {
        // posix_spawn takes its arguments as char * and doesn't write to them.
        std::vector<char *> argv{const_cast<char *>(szProgram)};
        while (argv.back() != nullptr) {
            argv.push_back(va_arg(args, char *));
        }
        pStream = openv(szProgram, szMode, argv.data());
    } catch (const std::bad_alloc &) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OUT_OF_MEMORY, ENOMEM);
    }
    va_end(args);
    return pStream;
}

FILE *QLIBCPopenv(const char *szProgram, const char *szMode, char *const rgszArg[]) {
    return openv(szProgram, szMode, rgszArg);
}

int QLIBCPclose(FILE *pStream) {
    Stream stream{};
    {
        Streams &all = streams();
        const std::lock_guard<std::mutex> guard(all.mutex);
        const auto entry = std::find_if(all.list.begin(), all.list.end(),
                                        [pStream](const Stream &one) { return one.pFile == pStream; });
        if (pStream == nullptr || entry == all.list.end()) {
            QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
            return -1;
        }
        stream = *entry;
        all.list.erase(entry);
    }
    const bool blClosed = fclose(stream.pFile) == 0;
    const int nStatus = stream.pid > 0 ? waitFor(stream.pid) : stream.nStatus;
    if (!blClosed || nStatus < 0) {
        QOVACORE_SET_CODE(SNAP_ERR_OPERATION_FAILED);
        return -1;
    }
    return nStatus;
}

int QLIBCExecv(const char *szProgram, char *const rgszArg[], int nFlags) {
    if (szProgram == nullptr || rgszArg == nullptr || rgszArg[0] == nullptr || nFlags != 0) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return -1;
    }
    const pid_t pid = start(szProgram, rgszArg, -1);
    if (pid < 0) {
        return -1;
    }
    const int nStatus = waitFor(pid);
    if (nStatus != 0) {
        QOVACORE_SET_CODE(SNAP_ERR_OPERATION_FAILED);
    }
    return nStatus;
}
