// File locks: between threads, between processes, over forks, and against planted files.
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/file_lock.h>

#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/process.hpp"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int SHARED = 0;
constexpr int EXCLUSIVE = 1;
constexpr int LONG_WAIT = 60; // far longer than any wait that ends

class FileLock : public testkit::SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        m_directory = testkit::Sandbox::scratch() + "/locks";
        ASSERT_TRUE(testkit::makeDirectories(m_directory));
        m_path = m_directory + "/share.lock";
        QLIBCErrSetEx(0, "", 0);
    }

    void TearDown() override { QLIBCFileCloseLock(); }

    [[nodiscard]] const char *path() const { return m_path.c_str(); }

    [[nodiscard]] int lock(int nMode, int nSeconds = LONG_WAIT) const {
        int fd = -1;
        return QLIBCFileLockTimeByFile(path(), nMode, nSeconds, &fd) != 0 ? fd : -1;
    }

    std::string m_directory;
    std::string m_path;
};

// A process that takes a lock and holds it until it is told otherwise.
class Holder {
public:
    Holder(const std::string &path, int nMode, int nSeconds = LONG_WAIT) {
        int rgReady[2];
        int rgStay[2];
        EXPECT_EQ(0, pipe2(rgReady, O_CLOEXEC));
        EXPECT_EQ(0, pipe2(rgStay, O_CLOEXEC));
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            QLIBCFileCloseLock();
            int fd = -1;
            const char cLocked = QLIBCFileLockTimeByFile(path.c_str(), nMode, nSeconds, &fd) != 0 ? 'y' : 'n';
            (void)!write(rgReady[1], &cLocked, 1);
            char cStay = 0;
            (void)!read(rgStay[0], &cStay, 1);
            _exit(cLocked == 'y' && QLIBCFileUnlockByFile(fd) == 0 ? 1 : 0);
        }
        close(rgReady[1]);
        m_fdOwnEnd = rgStay[0]; // kept, so that writing to a killed holder does no harm
        m_fdReady = rgReady[0];
        m_fdStay = rgStay[1];
    }
    Holder(const Holder &) = delete;
    Holder &operator=(const Holder &) = delete;
    ~Holder() {
        EXPECT_EQ(0, end());
        close(m_fdReady);
        close(m_fdOwnEnd);
    }

    // Waits until it has the lock, or has given up.
    [[nodiscard]] bool locked() const {
        char cLocked = 0;
        return read(m_fdReady, &cLocked, 1) == 1 && cLocked == 'y';
    }

    int end() {
        if (m_pid > 0) {
            EXPECT_EQ(1, write(m_fdStay, "x", 1));
            close(m_fdStay);
            m_status = testkit::waitForChild(m_pid);
            m_pid = -1;
        }
        return m_status;
    }

    void kill() const { ASSERT_EQ(0, ::kill(m_pid, SIGKILL)); }

    int endKilled() {
        const int nStatus = end();
        m_status = 0;
        return nStatus;
    }

private:
    pid_t m_pid = -1;
    int m_fdReady = -1;
    int m_fdStay = -1;
    int m_fdOwnEnd = -1;
    int m_status = 0;
};

template <class Function>
int inChild(Function function) {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(function());
    }
    const int nStatus = testkit::waitForChild(pid);
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}

// Whether another process could have the lock now.
bool free(const std::string &path, int nMode) {
    return inChild([&] {
               QLIBCFileCloseLock();
               int fd = -1;
               return QLIBCFileLockTimeByFile(path.c_str(), nMode, 0, &fd) != 0 ? 0 : 1;
           }) == 0;
}

double now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

} // namespace

TEST_F(FileLock, MakesAPrivateFile) {
    const mode_t before = umask(0);
    const int fd = lock(EXCLUSIVE);
    (void)umask(before);
    ASSERT_GE(fd, 3);
    EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
    struct stat status;
    ASSERT_EQ(0, lstat(path(), &status));
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(0600U, status.st_mode & 07777);
    EXPECT_NE(0, QLIBCFileUnlockByFile(fd));
    EXPECT_TRUE(testkit::exists(m_path));
    EXPECT_LT(fcntl(fd, F_GETFD), 0);
}

TEST_F(FileLock, AnExclusiveLockKeepsEverybodyOut) {
    const int fd = lock(EXCLUSIVE);
    ASSERT_GE(fd, 3);
    EXPECT_FALSE(free(m_path, SHARED));
    EXPECT_FALSE(free(m_path, EXCLUSIVE));
    EXPECT_NE(0, QLIBCFileUnlockByFile(fd));
    EXPECT_TRUE(free(m_path, EXCLUSIVE));
}

TEST_F(FileLock, SharedLocksGoTogether) {
    const int fd = lock(SHARED);
    ASSERT_GE(fd, 3);
    EXPECT_TRUE(free(m_path, SHARED));
    EXPECT_FALSE(free(m_path, EXCLUSIVE));
    EXPECT_NE(0, QLIBCFileUnlockByFile(fd));
    EXPECT_TRUE(free(m_path, EXCLUSIVE));
}

TEST_F(FileLock, TimeOutIsBusy) {
    Holder holder(m_path, EXCLUSIVE);
    ASSERT_TRUE(holder.locked());
    int fd = 77;
    EXPECT_EQ(0, QLIBCFileLockTimeByFile(path(), EXCLUSIVE, 0, &fd));
    EXPECT_EQ(0x0400U, QLIBCErrGet());
    QLIBCErrSetEx(0, "", 0);
    const double start = now();
    EXPECT_EQ(0, QLIBCFileLockTimeByFile(path(), SHARED, 1, &fd));
    EXPECT_GE(now() - start, 0.99);
    EXPECT_EQ(0x0400U, QLIBCErrGet());
    EXPECT_EQ(77, fd);
}

TEST_F(FileLock, WaitsUntilTheHolderGivesItBack) {
    Holder holder(m_path, EXCLUSIVE);
    ASSERT_TRUE(holder.locked());
    Holder waiter(m_path, EXCLUSIVE);
    usleep(20000);
    EXPECT_EQ(0, holder.end());
    EXPECT_TRUE(waiter.locked());
}

TEST_F(FileLock, AKilledHolderGivesItBack) {
    Holder holder(m_path, EXCLUSIVE);
    ASSERT_TRUE(holder.locked());
    holder.kill();
    EXPECT_EQ(SIGKILL, WTERMSIG(holder.endKilled()));
    EXPECT_TRUE(free(m_path, EXCLUSIVE));
}

TEST_F(FileLock, AThreadGetsItsOwnLockAgain) {
    const int fd = lock(EXCLUSIVE);
    ASSERT_GE(fd, 3);
    EXPECT_EQ(fd, lock(EXCLUSIVE, 0));
    EXPECT_EQ(fd, lock(SHARED, 0));
    EXPECT_NE(0, QLIBCFileUnlockByFile(fd));
    EXPECT_NE(0, QLIBCFileUnlockByFile(fd));
    EXPECT_FALSE(free(m_path, SHARED));
    EXPECT_NE(0, QLIBCFileUnlockByFile(fd));
    EXPECT_TRUE(free(m_path, EXCLUSIVE));
    errno = ENOSPC;
    EXPECT_EQ(0, QLIBCFileUnlockByFile(fd));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
}

TEST_F(FileLock, AThreadGetsItsOwnLockAgainOnAnotherWayToIt) {
    const int fd = lock(EXCLUSIVE);
    ASSERT_GE(fd, 3);
    int fdAgain = -1;
    EXPECT_NE(0, QLIBCFileLockTimeByFile((m_directory + "/../locks//share.lock").c_str(), EXCLUSIVE, 0, &fdAgain));
    EXPECT_EQ(fd, fdAgain);
    int fdOther = -1;
    EXPECT_NE(0, QLIBCFileLockTimeByFile((m_directory + "/other.lock").c_str(), EXCLUSIVE, 0, &fdOther));
    EXPECT_NE(fd, fdOther);
}

TEST_F(FileLock, ASharedHoldIsNotRaised) {
    const int fd = lock(SHARED);
    ASSERT_GE(fd, 3);
    EXPECT_EQ(-1, lock(EXCLUSIVE));
    EXPECT_EQ(0x0400U, QLIBCErrGet());
    EXPECT_EQ(fd, lock(SHARED, 0));
    EXPECT_NE(0, QLIBCFileUnlockByFile(fd));
    EXPECT_NE(0, QLIBCFileUnlockByFile(fd));
    EXPECT_TRUE(free(m_path, EXCLUSIVE));
}

TEST_F(FileLock, AnotherThreadWaitsLikeAnotherProcess) {
    const int fd = lock(EXCLUSIVE);
    ASSERT_GE(fd, 3);
    std::thread([this] {
        EXPECT_EQ(-1, lock(SHARED, 0));
        EXPECT_EQ(0x0400U, QLIBCErrGet());
    }).join();
    std::atomic<bool> blGiven{false};
    std::thread waiter([this, &blGiven] {
        const int fdWaiter = lock(EXCLUSIVE);
        EXPECT_TRUE(blGiven);
        EXPECT_NE(0, QLIBCFileUnlockByFile(fdWaiter));
    });
    usleep(20000);
    blGiven = true;
    EXPECT_NE(0, QLIBCFileUnlockByFile(fd));
    waiter.join();
}

TEST_F(FileLock, AnyThreadMayGiveItBack) {
    const int fd = lock(EXCLUSIVE);
    ASSERT_GE(fd, 3);
    std::thread([fd] { EXPECT_NE(0, QLIBCFileUnlockByFile(fd)); }).join();
    EXPECT_TRUE(free(m_path, EXCLUSIVE));
}

TEST_F(FileLock, ANewThreadHasNothingOfAnOldOnesHolds) {
    std::thread([this] { EXPECT_GE(lock(EXCLUSIVE), 3); }).join();
    for (int i = 0; i < 8; ++i) {
        std::thread([this] { EXPECT_EQ(-1, lock(EXCLUSIVE, 0)); }).join();
    }
}

TEST_F(FileLock, ClosingInAChildLeavesTheParentsLock) {
    const int fd = lock(EXCLUSIVE);
    ASSERT_GE(fd, 3);
    EXPECT_EQ(0, inChild([this, fd] {
                  errno = ENOSPC;
                  QLIBCFileCloseLock();
                  if (errno != ENOSPC || fcntl(fd, F_GETFD) >= 0) {
                      return 1;
                  }
                  return lock(SHARED, 0) < 0 && QLIBCErrGet() == 0x0400 ? 0 : 2;
              }));
    EXPECT_FALSE(free(m_path, SHARED));
    EXPECT_NE(0, QLIBCFileUnlockByFile(fd));
    EXPECT_TRUE(free(m_path, EXCLUSIVE));
}

TEST_F(FileLock, UnlockFreesItThoughAChildStillHasTheFile) {
    const int fd = lock(EXCLUSIVE);
    ASSERT_GE(fd, 3);
    int rgStay[2];
    ASSERT_EQ(0, pipe2(rgStay, O_CLOEXEC));
    const pid_t pid = fork();
    if (pid == 0) {
        close(rgStay[1]);
        char cStay = 0;
        _exit(read(rgStay[0], &cStay, 1) == 0 ? 0 : 1);
    }
    EXPECT_NE(0, QLIBCFileUnlockByFile(fd));
    EXPECT_TRUE(free(m_path, EXCLUSIVE));
    close(rgStay[0]);
    close(rgStay[1]);
    EXPECT_EQ(0, testkit::waitForChild(pid));
}

TEST_F(FileLock, ForkingWhileOthersLockIsSafe) {
    std::atomic<bool> blStop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([this, i, &blStop] {
            const std::string own = m_directory + "/" + std::to_string(i);
            while (!blStop) {
                int fd = -1;
                EXPECT_NE(0, QLIBCFileLockTimeByFile(own.c_str(), EXCLUSIVE, LONG_WAIT, &fd));
                EXPECT_NE(0, QLIBCFileUnlockByFile(fd));
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(0, inChild([] {
                      QLIBCFileCloseLock();
                      return 0;
                  }));
    }
    blStop = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
}

TEST_F(FileLock, StartsAgainWhenTheFileWasUnlinked) {
    Holder holder(m_path, EXCLUSIVE);
    ASSERT_TRUE(holder.locked());
    Holder waiter(m_path, EXCLUSIVE); // waits on the old file
    usleep(20000);
    ASSERT_EQ(0, unlink(path()));
    const int fd = lock(EXCLUSIVE); // a new file, free
    ASSERT_GE(fd, 3);
    EXPECT_EQ(0, holder.end());
    // The waiter has the old file now, and must not be content with it.
    usleep(20000);
    EXPECT_NE(0, QLIBCFileUnlockByFile(fd));
    EXPECT_TRUE(waiter.locked());
    EXPECT_FALSE(free(m_path, SHARED));
}

TEST_F(FileLock, RefusesPlantedFiles) {
    const std::string victim = testkit::Sandbox::scratch() + "/victim";
    const auto refused = [this] {
        QLIBCErrSetEx(0, "", 0);
        return lock(EXCLUSIVE, 0) == -1 && QLIBCErrGet() == 0x0900;
    };
    ASSERT_EQ(0, symlink(victim.c_str(), path()));
    EXPECT_TRUE(refused());
    EXPECT_FALSE(testkit::exists(victim));
    ASSERT_EQ(0, unlink(path()));
    ASSERT_TRUE(testkit::writeFile(victim, "precious"));
    ASSERT_EQ(0, chmod(victim.c_str(), 0644));
    ASSERT_EQ(0, link(victim.c_str(), path()));
    EXPECT_TRUE(refused());
    struct stat status;
    ASSERT_EQ(0, stat(victim.c_str(), &status));
    EXPECT_EQ(0644U, status.st_mode & 07777);
    ASSERT_EQ(0, unlink(path()));
    ASSERT_EQ(0, mkfifo(path(), 0600));
    EXPECT_TRUE(refused());
    ASSERT_EQ(0, unlink(path()));
    ASSERT_EQ(0, mkdir(path(), 0700));
    EXPECT_TRUE(refused());
}

TEST_F(FileLock, RefusesPathsThatLeadNowhere) {
    int fd = -1;
    for (const std::string &bad :
         {m_directory + "/absent/share.lock", m_directory + "/", m_directory, std::string("/")}) {
        QLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(0, QLIBCFileLockTimeByFile(bad.c_str(), EXCLUSIVE, 0, &fd)) << bad;
        EXPECT_EQ(0x0900U, QLIBCErrGet()) << bad;
    }
    EXPECT_EQ(0, QLIBCFileLockTimeByFile((m_path + "/below").c_str(), EXCLUSIVE, 0, &fd));
}

TEST_F(FileLock, MakesAnOpenFilePrivate) {
    ASSERT_TRUE(testkit::writeFile(m_path, ""));
    ASSERT_EQ(0, chmod(path(), 0666));
    EXPECT_GE(lock(SHARED, 0), 3);
    struct stat status;
    ASSERT_EQ(0, stat(path(), &status));
    EXPECT_EQ(0600U, status.st_mode & 07777);
}

TEST_F(FileLock, RefusesWhatAnotherUserOwns) {
    if (testkit::Sandbox::kind() != testkit::Sandbox::Kind::root) {
        GTEST_SKIP() << "needs several user ids";
    }
    ASSERT_EQ(0, chmod(m_directory.c_str(), 01777));
    EXPECT_GE(lock(SHARED, 0), 3); // a directory for everybody, but root's and sticky
    QLIBCFileCloseLock();
    ASSERT_EQ(0, chown(path(), 1234, 1234));
    EXPECT_EQ(-1, lock(SHARED, 0));
    EXPECT_EQ(0x0900U, QLIBCErrGet());
    ASSERT_EQ(0, unlink(path()));
    ASSERT_EQ(0, chown(m_directory.c_str(), 1234, 1234));
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, lock(SHARED, 0));
    EXPECT_EQ(0x0900U, QLIBCErrGet());
    EXPECT_FALSE(testkit::exists(m_path));
    // Further up the way, too.
    const std::string below = m_directory + "/below";
    ASSERT_EQ(0, mkdir(below.c_str(), 0755));
    int fd = -1;
    EXPECT_EQ(0, QLIBCFileLockTimeByFile((below + "/share.lock").c_str(), EXCLUSIVE, 0, &fd));
    EXPECT_EQ(EPERM, errno);
}

TEST_F(FileLock, TellsLinksOnTheWayByTheirOwner) {
    const std::string link = testkit::Sandbox::scratch() + "/link";
    ASSERT_EQ(0, symlink(m_directory.c_str(), link.c_str()));
    int fd = -1;
    EXPECT_NE(0, QLIBCFileLockTimeByFile((link + "/share.lock").c_str(), EXCLUSIVE, 0, &fd));
    EXPECT_TRUE(testkit::exists(m_path));
    QLIBCFileCloseLock();
    if (testkit::Sandbox::kind() != testkit::Sandbox::Kind::root) {
        GTEST_SKIP() << "needs several user ids";
    }
    ASSERT_EQ(0, lchown(link.c_str(), 1234, 1234));
    EXPECT_EQ(0, QLIBCFileLockTimeByFile((link + "/share.lock").c_str(), EXCLUSIVE, 0, &fd));
    EXPECT_EQ(0x0900U, QLIBCErrGet());
}

TEST_F(FileLock, AnOrdinaryUserHasLocksOfHisOwn) {
    if (testkit::Sandbox::kind() != testkit::Sandbox::Kind::root) {
        GTEST_SKIP() << "needs several user ids";
    }
    const std::string own = m_directory + "/own";
    ASSERT_EQ(0, mkdir(own.c_str(), 0700));
    ASSERT_EQ(0, chown(own.c_str(), 1234, 1234));
    ASSERT_EQ(0, chmod(m_directory.c_str(), 0755));
    EXPECT_GE(lock(SHARED, 0), 3); // root's
    QLIBCFileCloseLock();
    EXPECT_EQ(0, inChild([this, &own] {
                  if (setgid(1234) != 0 || setuid(1234) != 0) {
                      return 1;
                  }
                  int fd = -1;
                  const bool blRoots = QLIBCFileLockTimeByFile(path(), SHARED, 0, &fd) != 0;
                  const bool blOwn = QLIBCFileLockTimeByFile((own + "/a.lock").c_str(), EXCLUSIVE, 0, &fd) != 0;
                  return blRoots ? 2 : (blOwn ? 0 : 3);
              }));
}

TEST_F(FileLock, DescriptorsStayAboveTheStandardOnes) {
    EXPECT_EQ(0, inChild([this] {
                  close(STDIN_FILENO);
                  close(STDOUT_FILENO);
                  const int fd = lock(EXCLUSIVE, 0);
                  if (fd < 3 || (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) {
                      return 1;
                  }
                  return fcntl(STDIN_FILENO, F_GETFD) < 0 && QLIBCFileUnlockByFile(fd) != 0 ? 0 : 2;
              }));
}

TEST_F(FileLock, SignalsDontEndTheWait) {
    Holder holder(m_path, EXCLUSIVE);
    ASSERT_TRUE(holder.locked());
    const pid_t pid = fork();
    if (pid == 0) {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        const itimerval timer{{0, 1000}, {0, 1000}};
        setitimer(ITIMER_REAL, &timer, nullptr);
        _exit(lock(EXCLUSIVE) >= 3 ? 0 : 1);
    }
    usleep(50000);
    EXPECT_EQ(0, holder.end());
    EXPECT_EQ(0, testkit::waitForChild(pid));
}

TEST_F(FileLock, RefusesBadArguments) {
    int fd = -1;
    EXPECT_EQ(0, QLIBCFileLockTimeByFile(nullptr, SHARED, 0, &fd));
    EXPECT_EQ(0, QLIBCFileLockTimeByFile("", SHARED, 0, &fd));
    EXPECT_EQ(0, QLIBCFileLockTimeByFile(path(), SHARED, 0, nullptr));
    EXPECT_EQ(0, QLIBCFileLockTimeByFile(path(), 2, 0, &fd));
    EXPECT_EQ(0, QLIBCFileLockTimeByFile(path(), SHARED, -1, &fd));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    EXPECT_FALSE(testkit::exists(m_path));
    EXPECT_EQ(0, QLIBCFileUnlockByFile(-1));
    EXPECT_EQ(0, QLIBCFileUnlockByFile(0));
}

TEST_F(FileLock, NothingIsLeftOpenByFailures) {
    Holder holder(m_path, EXCLUSIVE);
    ASSERT_TRUE(holder.locked());
    const int fdBefore = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, close(fdBefore));
    EXPECT_EQ(-1, lock(SHARED, 0));
    EXPECT_EQ(-1, lock(EXCLUSIVE, 0));
    int fd = -1;
    EXPECT_EQ(0, QLIBCFileLockTimeByFile(m_directory.c_str(), EXCLUSIVE, 0, &fd));
    const int fdAfter = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(fdBefore, fdAfter);
    close(fdAfter);
}

TEST_F(FileLock, WithoutDescriptorsItFailsWithACode) {
    const char *const szPath = path();
    EXPECT_EQ(0, inChild([szPath] {
                  const rlimit limit{3, 3};
                  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
                      return 1;
                  }
                  int fd = -1;
                  const int nResult = QLIBCFileLockTimeByFile(szPath, EXCLUSIVE, 0, &fd);
                  return nResult == 0 && QLIBCErrGet() == 0x0900 && errno == EMFILE ? 0 : 2;
              }));
}

TEST_F(FileLock, NoStepOfManyProcessesGetsLost) {
    // Each reads a number and writes it raised by one; whoever holds the lock may unlink it, too.
    const std::string counter = m_directory + "/counter";
    ASSERT_TRUE(testkit::writeFile(counter, "0"));
    constexpr int PROCESSES = 6;
    constexpr int STEPS = 100;
    std::vector<pid_t> children;
    for (int i = 0; i < PROCESSES; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            for (int nStep = 0; nStep < STEPS; ++nStep) {
                const int fd = lock(EXCLUSIVE);
                if (fd < 3 || !testkit::writeFile(counter, std::to_string(std::stoi(testkit::readFile(counter)) + 1)) ||
                    (nStep % 10 == 0 && unlink(path()) != 0) || QLIBCFileUnlockByFile(fd) == 0) {
                    _exit(1);
                }
            }
            _exit(0);
        }
        children.push_back(pid);
    }
    for (const pid_t pid : children) {
        EXPECT_EQ(0, testkit::waitForChild(pid));
    }
    EXPECT_EQ(PROCESSES * STEPS, std::stoi(testkit::readFile(counter)));
}

TEST_F(FileLock, ReadersThatOverlapDontStarveAWriter) {
    // Between them the readers hold the lock at every moment, but for what the gate of the lock makes them wait.
    constexpr int READERS = 4;
    std::vector<pid_t> children;
    for (int i = 0; i < READERS; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;) {
                const int fd = lock(SHARED);
                usleep(3000);
                if (fd < 3 || QLIBCFileUnlockByFile(fd) == 0) {
                    _exit(1);
                }
            }
        }
        children.push_back(pid);
    }
    usleep(30000);
    for (int i = 0; i < 20; ++i) {
        const int fd = lock(EXCLUSIVE, 20);
        ASSERT_GE(fd, 3);
        EXPECT_NE(0, QLIBCFileUnlockByFile(fd));
    }
    for (const pid_t pid : children) {
        EXPECT_EQ(0, kill(pid, SIGKILL));
        EXPECT_EQ(SIGKILL, testkit::waitForChild(pid));
    }
}
