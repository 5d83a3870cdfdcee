#include "storm.hpp"

#include "process.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace testkit {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t failureSize = 1024;

struct Shared {
    std::array<uint64_t, stormCounters> counters;
    uint64_t rounds;
    bool over; // the time is up
};

// Memory of all processes, given back at the end of the run.
class SharedPages {
public:
    explicit SharedPages(size_t size) : size_(size) {
        pages_ = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (pages_ == MAP_FAILED) {
            std::perror("no shared memory");
            std::abort();
        }
    }
    SharedPages(const SharedPages &) = delete;
    SharedPages &operator=(const SharedPages &) = delete;
    ~SharedPages() { munmap(pages_, size_); }

    [[nodiscard]] Shared &shared() const { return *static_cast<Shared *>(pages_); }
    [[nodiscard]] char *failures(unsigned int worker) const {
        return static_cast<char *>(pages_) + sizeof(Shared) + worker * failureSize;
    }

private:
    size_t size_;
    void *pages_;
};

// The state of one run.
class Run {
public:
    explicit Run(const Storm &storm)
        : storm_(storm), pages_(sizeof(Shared) + storm.workers * failureSize), pids_(storm.workers, -1),
          starts_(storm.workers, 0), random_(storm.seed) {}

    StormResult operator()() {
        const Clock::time_point end = Clock::now() + storm_.duration;
        for (unsigned int i = 0; i < storm_.workers; ++i) {
            begin(i);
        }
        if (storm_.killEvery.count() > 0) {
            killUntil(end);
        } else {
            waitUntil(end);
        }
        __atomic_store_n(&pages_.shared().over, true, __ATOMIC_SEQ_CST);
        for (unsigned int i = 0; i < storm_.workers; ++i) {
            finish(i);
        }
        collect();
        return result_;
    }

private:
    void begin(unsigned int number) {
        const pid_t parent = getpid();
        const pid_t pid = fork();
        if (pid < 0) {
            result_.failures +=
                "worker " + std::to_string(number) + " can't be started: " + std::strerror(errno) + "\n";
        }
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) {
                _exit(0);
            }
            workOn(number);
        }
        pids_[number] = pid;
        ++starts_[number];
    }

    [[noreturn]] void workOn(unsigned int number) {
        Shared &shared = pages_.shared();
        Worker worker(number, starts_[number], shared.counters.data(), pages_.failures(number), storm_.seed);
        unsigned int round = 0;
        // One round at least, however late a loaded machine gets here.
        do {
            storm_.work(worker);
            __atomic_fetch_add(&shared.rounds, 1, __ATOMIC_SEQ_CST);
            ++round;
        } while (!__atomic_load_n(&shared.over, __ATOMIC_SEQ_CST) && round != storm_.rounds);
        // Not exit: destructors and leak checks are the parent's business.
        _exit(0);
    }

    // The time is up, or all have done their rounds.
    void waitUntil(Clock::time_point end) {
        while (Clock::now() < end && anyRuns()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    [[nodiscard]] bool anyRuns() const {
        return std::any_of(pids_.begin(), pids_.end(), [](pid_t pid) {
            siginfo_t info = {};
            return pid > 0 && waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                   info.si_pid == 0;
        });
    }

    void killUntil(Clock::time_point end) {
        while (Clock::now() < end) {
            std::uniform_int_distribution<long> wait(0, 2 * storm_.killEvery.count());
            std::this_thread::sleep_for(std::chrono::milliseconds(wait(random_)));
            std::uniform_int_distribution<unsigned int> choice(0, storm_.workers - 1);
            const unsigned int number = choice(random_);
            if (Clock::now() < end && killOne(number)) {
                begin(number);
            }
        }
    }

    // False when it has come to its end, or can't have been started.
    bool killOne(unsigned int number) {
        if (pids_[number] <= 0) {
            return false;
        }
        kill(pids_[number], SIGKILL);
        const int status = waitForChild(pids_[number]);
        const bool killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
        result_.killed += killed ? 1U : 0U;
        if (!killed) {
            judge(number, status);
        }
        pids_[number] = -1;
        return killed;
    }

    void finish(unsigned int number) {
        if (pids_[number] > 0) {
            judge(number, waitForChild(pids_[number]));
            pids_[number] = -1;
        }
    }

    void judge(unsigned int number, int status) {
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
            return;
        }
        std::string why = pages_.failures(number);
        if (why.empty()) {
            why = WIFSIGNALED(status) ? "died by signal " + std::to_string(WTERMSIG(status))
                                      : "exit status " + std::to_string(WEXITSTATUS(status));
        }
        result_.failures += "worker " + std::to_string(number) + ": " + why + "\n";
    }

    void collect() {
        const Shared &shared = pages_.shared();
        result_.counters.assign(shared.counters.begin(), shared.counters.end());
        result_.rounds = static_cast<unsigned int>(shared.rounds);
    }

    const Storm &storm_;
    SharedPages pages_;
    std::vector<pid_t> pids_;
    std::vector<unsigned int> starts_;
    std::mt19937_64 random_;
    StormResult result_;
};

} // namespace

Worker::Worker(unsigned int number, unsigned int start, uint64_t *counters, char *failures, uint64_t seed)
    : number_(number), start_(start), counters_(counters), failures_(failures),
      random_(seed * 1000003U + number * 1009U + start) {}

uint64_t Worker::random(uint64_t below) {
    return std::uniform_int_distribution<uint64_t>(0, below - 1)(random_);
}

void Worker::count(size_t counter, uint64_t by) {
    if (counter >= stormCounters) {
        fail("no such counter");
    }
    __atomic_fetch_add(&counters_[counter], by, __ATOMIC_SEQ_CST);
}

void Worker::fail(const std::string &why) {
    std::snprintf(failures_, failureSize, "%s", why.c_str());
    _exit(1);
}

StormResult Storm::run() {
    std::fflush(nullptr); // else each child would print what stands in the buffers, too
    return Run(*this)();
}

} // namespace testkit
