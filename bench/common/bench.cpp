#include "common/bench.hpp"

#include "support/files.hpp"
#include "support/process.hpp"
#include "support/sandbox.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

extern "C" char **environ;

namespace bench {
namespace {

constexpr int exitSkipped = 77;

std::string shown(double seconds) {
    char text[64];
    if (seconds < 1e-3) {
        std::snprintf(text, sizeof(text), "%9.2f us", seconds * 1e6);
    } else if (seconds < 1) {
        std::snprintf(text, sizeof(text), "%9.2f ms", seconds * 1e3);
    } else {
        std::snprintf(text, sizeof(text), "%9.2f s ", seconds);
    }
    return text;
}

} // namespace

void enterSandbox(unsigned int sizeMiB) {
    std::string reason;
    if (!testkit::Sandbox::enter()) {
        reason = testkit::Sandbox::reason();
    } else {
        testkit::Sandbox::reset();
        reason = testkit::Sandbox::mountVolume("/vol1", "btrfs", sizeMiB);
    }
    if (!reason.empty()) {
        std::printf("skipped: %s\n", reason.c_str());
        std::exit(exitSkipped);
    }
}

void must(bool done, const std::string &what) {
    if (!done) {
        std::fprintf(stderr, "%s failed: %s\n", what.c_str(), std::strerror(errno));
        std::exit(EXIT_FAILURE);
    }
}

double now() {
    timespec time = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &time); // can't fail with this clock
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double timed(const std::function<void()> &work) {
    const double start = now();
    work();
    return now() - start;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::vector<double> race(const std::string &title, const std::vector<Contender> &contenders, int rounds) {
    std::vector<std::vector<double>> times(contenders.size());
    for (int round = 0; round <= rounds; ++round) {
        for (size_t turn = 0; turn < contenders.size(); ++turn) {
            const size_t who = (turn + static_cast<size_t>(round)) % contenders.size();
            if (contenders[who].once && round != 1) {
                continue;
            }
            const double seconds = contenders[who].measure();
            if (round > 0) {
                times[who].push_back(seconds);
            }
        }
    }
    std::printf("%s (%d rounds)\n", title.c_str(), rounds);
    std::vector<double> medians;
    for (size_t who = 0; who < contenders.size(); ++who) {
        medians.push_back(median(times[who]));
        const double best = *std::min_element(times[who].begin(), times[who].end());
        std::printf("    %-58s median %s   best %s   ratio %7.2f\n", contenders[who].name.c_str(),
                    shown(medians.back()).c_str(), shown(best).c_str(), medians.back() / medians.front());
    }
    std::fflush(stdout);
    return medians;
}

double runProgram(const std::vector<std::string> &command) {
    std::vector<char *> arguments;
    for (const std::string &argument : command) {
        arguments.push_back(const_cast<char *>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const double start = now();
    const int error = posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
    const int status = error == 0 ? testkit::waitForChild(pid) : -1;
    const double seconds = now() - start;
    posix_spawn_file_actions_destroy(&actions);
    must(status == 0, command[0]);
    return seconds;
}

bool isInstalled(const std::string &program) {
    for (const char *folder : {"/usr/bin/", "/usr/sbin/", "/usr/local/bin/"}) {
        if (testkit::exists(folder + program)) {
            return true;
        }
    }
    return false;
}

} // namespace bench
