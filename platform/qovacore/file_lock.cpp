// Advisory file locks.
//
// A lock is an open file description lock on byte 0 of a file of its own. Byte 1 is the gate: whoever comes passes
// through it on the way to byte 0, a reader with a shared lock that it drops at once, a writer with an exclusive one
// that it keeps until it has byte 0. So a waiting writer keeps new readers out, and a stream of readers that overlap
// can't starve it.

#include "support.h"
#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <pthread.h>
#include <sharesnap/platform/file_lock.h>
#include <string>
#include <sys/stat.h>
#include <vector>

using qovacore::ErrnoKeeper;
using qovacore::UniqueFd;

namespace {

constexpr int MODE_SHARED = 0;
constexpr int MODE_EXCLUSIVE = 1;
constexpr off_t BYTE_LOCK = 0;
constexpr off_t BYTE_GATE = 1;
constexpr int FIRST_DESCRIPTOR = 3;
constexpr long FIRST_PAUSE_NS = 5000;
constexpr long LONGEST_PAUSE_NS = 500000;

// One lock that this process holds.
struct Hold {
    int fd;
    int nMode;
    int nCount; // how often the owner has taken it
    unsigned long ulOwner;
    dev_t device;
    ino_t inode;
};

// All holds of the process, kept consistent over a fork: a child drops the holds that it inherits.
class Holds {
public:
    Holds() {
        (void)pthread_atfork(lockAll, unlockAll, unlockAll); // without it only a fork during a lock call is at risk
    }

    std::mutex mutex;
    std::vector<Hold> list;

private:
    static void lockAll();
    static void unlockAll();
};

// Never destroyed: locks may be taken and given back while the process is ending.
Holds &holds() {
    static Holds *const pHolds = new Holds;
    return *pHolds;
}

void Holds::lockAll() {
    holds().mutex.lock();
}

void Holds::unlockAll() {
    holds().mutex.unlock();
}

// A number for the calling thread that no later thread gets again, and that a forked child keeps.
unsigned long threadNumber() {
    static std::atomic<unsigned long> ulLast{0};
    thread_local const unsigned long ulNumber = ++ulLast;
    return ulNumber;
}

long long nowNs() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // can't fail for this clock
    return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

// Waits for a lock that others hold: first microseconds, then longer, never so long that a hand-over lags.
class Patience {
public:
    explicit Patience(int nSeconds) : m_end(nowNs() + nSeconds * 1000000000LL) {}

    // False when the time is up.
    [[nodiscard]] bool pause() {
        const long long left = m_end - nowNs();
        if (left <= 0) {
            return false;
        }
        timespec pause{};
        pause.tv_nsec = static_cast<long>(std::min<long long>(left, m_pause));
        (void)nanosleep(&pause, nullptr); // cut short by a signal: the next look comes earlier
        m_pause = std::min(m_pause * 2, LONGEST_PAUSE_NS);
        return true;
    }

private:
    long long m_end;
    long m_pause = FIRST_PAUSE_NS;
};

enum class Try { Done, Busy, Failed };

Try tryByte(int fd, short nType, off_t nByte) {
    struct flock range {};
    range.l_type = nType;
    range.l_whence = SEEK_SET;
    range.l_start = nByte;
    range.l_len = 1;
    while (fcntl(fd, F_OFD_SETLK, &range) != 0) {
        if (errno == EAGAIN || errno == EACCES) {
            return Try::Busy;
        }
        if (errno != EINTR) {
            return Try::Failed;
        }
    }
    return Try::Done;
}

bool isOthers(uid_t owner) {
    return owner != 0 && owner != geteuid();
}

// Opens the next directory on the way to a lock file. One that belongs to another user is refused, and so is a link
// that another user has made: who owns a directory on the way could put a lock file of his own in place of ours.
UniqueFd enterDirectory(int fdParent, const char *szName) {
    struct stat status;
    UniqueFd fd(openat(fdParent, szName, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid() || fstat(fd.get(), &status) != 0) {
        return UniqueFd();
    }
    if (S_ISLNK(status.st_mode) && !isOthers(status.st_uid)) {
        fd.reset(openat(fdParent, szName, O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!fd.valid() || fstat(fd.get(), &status) != 0) {
            return UniqueFd();
        }
    }
    if (!S_ISDIR(status.st_mode) || isOthers(status.st_uid)) {
        errno = S_ISDIR(status.st_mode) ? EPERM : ENOTDIR;
        return UniqueFd();
    }
    return fd;
}

// The directory of the lock file, each component of the way looked at, and the file's name in it.
UniqueFd enterDirectoryOf(const char *szPath, std::string &name) {
    const char *szNext = szPath;
    UniqueFd fd = enterDirectory(AT_FDCWD, szPath[0] == '/' ? "/" : ".");
    while (fd.valid()) {
        szNext += strspn(szNext, "/");
        const size_t cbName = strcspn(szNext, "/");
        name.assign(szNext, cbName);
        szNext += cbName;
        if (szNext[strspn(szNext, "/")] == '\0') {
            break;
        }
        fd = enterDirectory(fd.get(), name.c_str());
    }
    if (fd.valid() && (name.empty() || *szNext == '/')) {
        errno = EISDIR;
        fd.reset();
    }
    return fd;
}

// Opens the lock file, which is made when it is missing. Only a regular file with one name, of root or the caller, will
// do, and only its owner may open it: a reader's shared lock could hold up everybody else.
UniqueFd openLockFile(int fdDirectory, const char *szName, struct stat &status) {
    UniqueFd fd(openat(fdDirectory, szName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY,
                       S_IRUSR | S_IWUSR));
    if (!fd.valid()) {
        return fd;
    }
    if (fd.get() < FIRST_DESCRIPTOR) {
        fd.reset(fcntl(fd.get(), F_DUPFD_CLOEXEC, FIRST_DESCRIPTOR));
        if (!fd.valid()) {
            return fd;
        }
    }
    if (fstat(fd.get(), &status) != 0) {
        return UniqueFd();
    }
    // No name at all is no fault of the file: it was unlinked a moment ago, and the caller starts again.
    if (!S_ISREG(status.st_mode) || status.st_nlink > 1 || isOthers(status.st_uid)) {
        errno = EPERM;
        return UniqueFd();
    }
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0 && fchmod(fd.get(), S_IRUSR | S_IWUSR) != 0) {
        return UniqueFd();
    }
    return fd;
}

// Takes byte 0 through the gate.
Try takeBytes(int fd, int nMode, Patience &patience) {
    const short nType = nMode == MODE_EXCLUSIVE ? F_WRLCK : F_RDLCK;
    bool blGate = false;
    for (;;) {
        Try result = blGate ? Try::Done : tryByte(fd, nType, BYTE_GATE);
        if (result == Try::Done) {
            blGate = true;
            result = tryByte(fd, nType, BYTE_LOCK);
        }
        if (blGate && (result != Try::Busy || nMode == MODE_SHARED)) {
            blGate = false;
            if (tryByte(fd, F_UNLCK, BYTE_GATE) == Try::Failed) {
                return Try::Failed;
            }
        }
        if (result != Try::Busy) {
            return result;
        }
        if (!patience.pause()) {
            return Try::Busy; // the gate goes with the descriptor
        }
    }
}

// Whether the path still leads to the file that was locked.
bool isStillThere(int fdDirectory, const char *szName, const struct stat &locked) {
    struct stat status;
    return fstatat(fdDirectory, szName, &status, AT_SYMLINK_NOFOLLOW) == 0 && status.st_dev == locked.st_dev &&
           status.st_ino == locked.st_ino;
}

// Opens and locks the file; a descriptor, or one that isn't valid, with a code.
UniqueFd lockFile(const char *szPath, int nMode, int nSeconds, struct stat &status) {
    std::string name;
    Patience patience(nSeconds);
    for (;;) {
        const UniqueFd directory = enterDirectoryOf(szPath, name);
        UniqueFd fd = directory.valid() ? openLockFile(directory.get(), name.c_str(), status) : UniqueFd();
        if (!fd.valid()) {
            QOVACORE_SET_CODE(SNAP_ERR_OPEN_FAILED);
            return fd;
        }
        const Try result = takeBytes(fd.get(), nMode, patience);
        if (result == Try::Busy) {
            QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BUSY, ETIMEDOUT);
            return UniqueFd();
        }
        if (result == Try::Failed) {
            QOVACORE_SET_CODE(SNAP_ERR_OPERATION_FAILED);
            return UniqueFd();
        }
        if (isStillThere(directory.get(), name.c_str(), status)) {
            return fd;
        }
        // Unlinked while we waited: the lock is worth nothing, others lock the new file.
        if (!patience.pause()) {
            QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BUSY, ETIMEDOUT);
            return UniqueFd();
        }
    }
}

// What this thread already has of the lock: -1 nothing, 0 too little, else the descriptor, held once more.
int holdAgain(const char *szPath, int nMode) {
    const unsigned long ulOwner = threadNumber();
    Holds &all = holds();
    const std::lock_guard<std::mutex> guard(all.mutex);
    const auto isOwn = [ulOwner](const Hold &hold) { return hold.ulOwner == ulOwner; };
    struct stat status;
    if (std::none_of(all.list.begin(), all.list.end(), isOwn) || lstat(szPath, &status) != 0) {
        return -1;
    }
    for (Hold &hold : all.list) {
        if (isOwn(hold) && hold.device == status.st_dev && hold.inode == status.st_ino) {
            if (hold.nMode < nMode) {
                return 0;
            }
            ++hold.nCount;
            return hold.fd;
        }
    }
    return -1;
}

int lockTimeByFile(const char *szPath, int nMode, int nSeconds, int *pFd) {
    const int fdHeld = holdAgain(szPath, nMode);
    if (fdHeld == 0) {
        // A shared hold isn't raised to an exclusive one, and waiting for oneself has no end.
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BUSY, EDEADLK);
        return 0;
    }
    if (fdHeld > 0) {
        *pFd = fdHeld;
        return 1;
    }
    struct stat status;
    UniqueFd fd = lockFile(szPath, nMode, nSeconds, status);
    if (!fd.valid()) {
        return 0;
    }
    Holds &all = holds();
    const std::lock_guard<std::mutex> guard(all.mutex);
    all.list.push_back({fd.get(), nMode, 1, threadNumber(), status.st_dev, status.st_ino});
    *pFd = fd.release();
    return 1;
}

} // namespace

int QLIBCFileLockTimeByFile(const char *szPath, int nMode, int nSeconds, int *pFd) {
    if (szPath == nullptr || szPath[0] == '\0' || pFd == nullptr || nSeconds < 0 ||
        (nMode != MODE_SHARED && nMode != MODE_EXCLUSIVE)) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return 0;
    }
    try {
        return lockTimeByFile(szPath, nMode, nSeconds, pFd);
    } catch (const std::bad_alloc &) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OUT_OF_MEMORY, ENOMEM);
        return 0;
    }
}

int QLIBCFileUnlockByFile(int nFd) {
    const ErrnoKeeper keeper;
    Holds &all = holds();
    const std::lock_guard<std::mutex> guard(all.mutex);
    const auto hold = std::find_if(all.list.begin(), all.list.end(), [nFd](const Hold &one) { return one.fd == nFd; });
    if (hold == all.list.end()) {
        QOVACORE_SET_CODE(SNAP_ERR_BAD_PARAMETER);
        return 0;
    }
    if (--hold->nCount > 0) {
        return 1;
    }
    all.list.erase(hold);
    // A child that was forked meanwhile may have the same open file: closing alone would leave the lock with it.
    const bool blDone = tryByte(nFd, F_UNLCK, BYTE_LOCK) == Try::Done;
    const bool blClosed = close(nFd) == 0;
    if (!blDone || !blClosed) {
        QOVACORE_SET_CODE(SNAP_ERR_OPERATION_FAILED);
        return 0;
    }
    return 1;
}

void QLIBCFileCloseLock(void) {
    const ErrnoKeeper keeper;
    Holds &all = holds();
    const std::lock_guard<std::mutex> guard(all.mutex);
    for (const Hold &hold : all.list) {
        (void)close(hold.fd); // the lock itself stays with whoever else has the open file
    }
    all.list.clear();
}
