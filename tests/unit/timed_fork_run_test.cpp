#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

#include <sharesnap/frame.h>
#include <sharesnap/platform/file_lock.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Far longer than any task that is to come to its end takes.
constexpr unsigned long plenty = 120;

class TimedFork : public testkit::SandboxTest {
protected:
    // Runs a task that captures nothing. `ret` starts as -7.
    int run(int (*task)(void *), unsigned long seconds = plenty, void *argument = nullptr) {
        const TimeLimitTask record = {task, argument};
        ret = -7;
        QLIBCErrSetEx(0, "", 0);
        return ShareSnapTimeLimitFork(seconds, &record, &ret);
    }

    static bool hasChildren() { return waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD; }

    int ret = 0;
};

TEST_F(TimedFork, GivesTheTasksResult) {
    EXPECT_EQ(0, run([](void *) { return 0; }));
    EXPECT_EQ(0, ret);
    EXPECT_EQ(0, run([](void *) { return 77; }));
    EXPECT_EQ(77, ret);
    EXPECT_FALSE(hasChildren());
}

TEST_F(TimedFork, ANegativeResultArrivesAsAByte) {
    EXPECT_EQ(0, run([](void *) { return -1; }));
    EXPECT_EQ(255, ret);
}

TEST_F(TimedFork, TheTaskReadsTheParentsMemory) {
    int value = 33;
    EXPECT_EQ(0, run([](void *argument) { return *static_cast<int *>(argument); }, plenty, &value));
    EXPECT_EQ(33, ret);
}

TEST_F(TimedFork, ATaskThatSleepsPastTheLimitIsEndedAndReaped) {
    EXPECT_EQ(-1, run(
                      [](void *) {
                          pause();
                          return 0;
                      },
                      1));
    EXPECT_EQ(0x2E00u, QLIBCErrGet());
    EXPECT_EQ(-7, ret);
    EXPECT_FALSE(hasChildren());
    EXPECT_TRUE(
        testkit::loggedMatch(LOG_DEBUG, "^timed_fork\\.cpp:[0-9]+ kill PID \\([0-9]+\\) with the signal \\(15\\)$"));
    EXPECT_EQ(0u, testkit::logCount(LOG_DEBUG, "with the signal (9)"));
}

TEST_F(TimedFork, ATaskThatIgnoresTheSignalIsWaitedForWithoutALimit) {
    EXPECT_EQ(-1, run(
                      [](void *) {
                          std::signal(SIGTERM, SIG_IGN);
                          for (unsigned int left = 6; left > 0;) {
                              left = sleep(left);
                          }
                          const int done = open("/run/done", O_WRONLY | O_CREAT, 0600);
                          return done < 0 ? 1 : 0;
                      },
                      3));
    EXPECT_EQ(0x2E00u, QLIBCErrGet());
    EXPECT_TRUE(testkit::exists("/run/done"));
    EXPECT_EQ(0u, testkit::logCount(LOG_DEBUG, "with the signal (9)"));
    EXPECT_FALSE(hasChildren());
}

TEST_F(TimedFork, ATaskThatSomethingElseKillsIsNoticedAtOnceAndLeavesTheResultAlone) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, run([](void *) {
                  const pid_t task = getpid();
                  if (fork() == 0) {
                      kill(task, SIGKILL);
                      _exit(0);
                  }
                  for (;;) {
                      pause();
                  }
                  return 0;
              }));
    EXPECT_EQ(-7, ret);
    EXPECT_NE(0x2E00u, QLIBCErrGet());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(plenty / 2));
    EXPECT_FALSE(hasChildren());
}

TEST_F(TimedFork, TheTasksEndIsToldEvenWhenItLeavesAProcessBehind) {
    // What it leaves behind ends with this test.
    int life[2] = {-1, -1};
    ASSERT_EQ(0, pipe2(life, O_CLOEXEC));
    EXPECT_EQ(0, run(
                     [](void *argument) {
                         const int *ends = static_cast<int *>(argument);
                         if (fork() == 0) {
                             close(ends[1]);
                             char byte = 0;
                             _exit(read(ends[0], &byte, 1) < 0 ? 1 : 0);
                         }
                         close(ends[1]);
                         return 4;
                     },
                     60, life));
    EXPECT_EQ(4, ret);
    close(life[0]);
    close(life[1]);
}

TEST_F(TimedFork, AStraySignalEndsTheLimit) {
    EXPECT_EQ(0, run(
                     [](void *) {
                         kill(getppid(), SIGUSR1);
                         for (unsigned int left = 6; left > 0;) {
                             left = sleep(left);
                         }
                         return 5;
                     },
                     4));
    EXPECT_EQ(5, ret);
}

TEST_F(TimedFork, RefusesBadArgumentsBeforeAnyProcessExists) {
    const testkit::CallCount forks("fork");
    const TimeLimitTask task = {[](void *) { return 0; }, nullptr};
    int result = 0;
    EXPECT_EQ(-1, ShareSnapTimeLimitFork(0, &task, &result));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
    EXPECT_TRUE(
        testkit::loggedMatch(LOG_ERR, "^timed_fork\\.cpp:[0-9]+ Invaild Argument \\(0 < ulSecTimeout\\)=\\[0\\]$"));
    EXPECT_EQ(-1, ShareSnapTimeLimitFork(1, nullptr, &result));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != pTimeLimitTask)=[0]"));
    EXPECT_EQ(-1, ShareSnapTimeLimitFork(1, &task, nullptr));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (NULL != pFuncRet)=[0]"));
    EXPECT_EQ(0u, forks.calls());
}

TEST_F(TimedFork, StandardStreamsOfTheTaskLeadToNull) {
    EXPECT_EQ(0, run([](void *) {
                  for (const char *stream : {"/proc/self/fd/0", "/proc/self/fd/1", "/proc/self/fd/2"}) {
                      if (testkit::readLink(stream) != "/dev/null") {
                          return 1;
                      }
                  }
                  return 0;
              }));
    EXPECT_EQ(0, ret);
}

TEST_F(TimedFork, TheTaskKeepsNoLockOfTheParent) {
    int lock = -1;
    ASSERT_NE(0, QLIBCFileLockTimeByFile("/run/lock/held.lock", 1, 10, &lock));
    EXPECT_EQ(0, run([](void *) {
                  int held = 0;
                  for (const std::string &number : testkit::directoryNames("/proc/self/fd")) {
                      held += testkit::readLink("/proc/self/fd/" + number) == "/run/lock/held.lock" ? 1 : 0;
                  }
                  return held;
              }));
    EXPECT_EQ(0, ret);
    EXPECT_NE(0, QLIBCFileUnlockByFile(lock)); // the parent's own is untouched
}

TEST_F(TimedFork, TheTaskHasASessionOfItsOwn) {
    EXPECT_EQ(0, run([](void *) { return getsid(0) == getpid() ? 0 : 1; }));
    EXPECT_EQ(0, ret);
}

TEST_F(TimedFork, ProgramsThatTheTaskStartsInheritNoPipe) {
    EXPECT_EQ(0, run([](void *) {
                  int open = 0;
                  for (const std::string &number : testkit::directoryNames("/proc/self/fd")) {
                      const int fd = std::stoi(number);
                      const int flags = fcntl(fd, F_GETFD);
                      open += fd > 2 && flags >= 0 && (flags & FD_CLOEXEC) == 0 ? 1 : 0;
                  }
                  return open;
              }));
    EXPECT_EQ(0, ret);
}

TEST_F(TimedFork, LeavesNoDescriptorAndNoProcess) {
    const testkit::Leftovers before;
    EXPECT_EQ(0, run([](void *) { return 0; }));
    EXPECT_EQ("", before.compare());
}

// All descriptors below FD_SETSIZE are taken while it lives.
class FarDescriptors {
public:
    FarDescriptors() {
        struct rlimit limit = {};
        if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
            return;
        }
        if (limit.rlim_cur < 2048) {
            limit.rlim_cur = 2048;
            if (limit.rlim_max < limit.rlim_cur || setrlimit(RLIMIT_NOFILE, &limit) != 0) {
                return;
            }
        }
        while (filled_.empty() || filled_.back() < FD_SETSIZE + 10) {
            filled_.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
            if (filled_.back() < 0) {
                return;
            }
        }
        ready_ = true;
    }
    FarDescriptors(const FarDescriptors &) = delete;
    FarDescriptors &operator=(const FarDescriptors &) = delete;
    ~FarDescriptors() {
        for (const int fd : filled_) {
            close(fd);
        }
    }
    [[nodiscard]] bool ready() const { return ready_; }

private:
    std::vector<int> filled_;
    bool ready_ = false;
};

TEST_F(TimedFork, WorksWhereDescriptorsAreBeyondTheReachOfASet) {
    const FarDescriptors far;
    if (!far.ready()) {
        GTEST_SKIP() << "needs 2048 descriptors";
    }
    EXPECT_EQ(0, run([](void *) { return 9; }));
    EXPECT_EQ(9, ret);
    EXPECT_EQ(-1, run(
                      [](void *) {
                          pause();
                          return 0;
                      },
                      1));
    EXPECT_EQ(0x2E00u, QLIBCErrGet());
}

// False under a sanitizer or a memory checker, whose own allocator gets every call.
bool allocatorCanFail(const std::function<void()> &allocating) {
    const std::vector<std::string> symbols = testkit::faultSymbols();
    if (std::find(symbols.begin(), symbols.end(), "malloc") == symbols.end()) {
        return false;
    }
    const testkit::CallCount calls("malloc");
    allocating();
    return calls.calls() > 0;
}

TEST_F(TimedFork, WithoutMemoryToWaitForAChildNoneIsStarted) {
    const FarDescriptors far;
    if (!far.ready()) {
        GTEST_SKIP() << "needs 2048 descriptors";
    }
    if (!allocatorCanFail([this] { EXPECT_EQ(0, run([](void *) { return 9; })); })) {
        GTEST_SKIP() << "the allocator is a sanitizer's or a memory checker's";
    }
    const testkit::Leftovers before;
    const testkit::Fault empty("malloc", 0);
    const testkit::CallCount forks("fork");
    EXPECT_EQ(-1, run([](void *) { return 9; }));
    EXPECT_TRUE(empty.met());
    EXPECT_EQ(0u, forks.calls());
    EXPECT_EQ(0x0200u, QLIBCErrGet());
    EXPECT_EQ(-7, ret);
    EXPECT_FALSE(hasChildren());
    EXPECT_EQ("", before.compare());
}

} // namespace
