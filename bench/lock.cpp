// Locks: taken when nobody has it, and handed over from one process to another that waits.
#include "common/bench.hpp"
#include "support/files.hpp"
#include "support/process.hpp"
#include "support/sandbox.hpp"

#include <sharesnap/platform/file_lock.h>

#include <atomic>
#include <fcntl.h>
#include <functional>
#include <new>
#include <string>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using namespace bench;

constexpr int repeats = 2000;
constexpr useconds_t holding = 20000; // long enough for the other side to be waiting

struct Way {
    std::function<int()> lock;
    std::function<void(int)> unlock;
};

Way platformWay(const std::string &path) {
    return {[path] {
                int fd = -1;
                must(QLIBCFileLockTimeByFile(path.c_str(), 1, 10, &fd) != 0, "the lock");
                return fd;
            },
            [](int fd) { must(QLIBCFileUnlockByFile(fd) != 0, "the unlock"); }};
}

Way plainWay(const std::string &path) {
    return {[path] {
                const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
                must(fd >= 0 && flock(fd, LOCK_EX) == 0, "flock");
                return fd;
            },
            [](int fd) { (void)close(fd); }}; // that is what releases it
}

double alone(const Way &way) {
    return timed([&way] {
               for (int i = 0; i < repeats; ++i) {
                   way.unlock(way.lock());
               }
           }) /
           repeats;
}

struct Meeting {
    std::atomic<int> held{0};
    std::atomic<double> released{0};
};

// Another process holds the lock and lets it go; measured is how much later this one has it.
double handOver(const Way &way, Meeting &meeting) {
    meeting.held = 0;
    const pid_t other = fork();
    must(other >= 0, "fork");
    if (other == 0) {
        const int fd = way.lock();
        meeting.held = 1;
        usleep(holding);
        meeting.released = now();
        way.unlock(fd);
        _exit(0);
    }
    while (meeting.held == 0) {
        usleep(100);
    }
    const int fd = way.lock();
    const double seconds = now() - meeting.released;
    way.unlock(fd);
    must(testkit::waitForChild(other) == 0, "the other process");
    return seconds;
}

} // namespace

int main() {
    enterSandbox(256);
    void *memory = mmap(nullptr, sizeof(Meeting), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    must(memory != MAP_FAILED, "shared memory");
    auto &meeting = *new (memory) Meeting;
    must(testkit::makeDirectories("/run/lock/sharesnap"), "the lock directory");
    const Way plain = plainWay("/run/lock/sharesnap/plain.lock");
    const Way platform = platformWay("/run/lock/sharesnap/platform.lock");
    race("nobody else has it", {{"open, flock, close", [&] { return alone(plain); }},
                                {"lock and unlock of the platform", [&] { return alone(platform); }}});
    race("handed over to a process that waits",
         {{"flock, which sleeps in the kernel", [&] { return handOver(plain, meeting); }},
          {"lock of the platform, which waits with a time limit", [&] { return handOver(platform, meeting); }}},
         25);
    return 0;
}
