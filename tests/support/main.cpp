// The main program of every test program: one known state to start from, the sandbox, and a fresh one for each test.
#include "faults.hpp"
#include "files.hpp"
#include "fixtures.hpp"
#include "log_capture.hpp"
#include "sandbox.hpp"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace {

constexpr int exitSkipped = 77;

// What a test program inherits depends on who starts it; what the tests see doesn't.
void standardProcess() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) != fd) {
            std::abort();
        }
    }
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (null < 0 || dup2(null, STDIN_FILENO) != STDIN_FILENO) {
        std::abort();
    }
    (void)close_range(STDERR_FILENO + 1, ~0U, 0); // without it descriptors that came with us stay: harmless
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int number : {SIGCHLD, SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGALRM, SIGPROF, SIGUSR1, SIGUSR2}) {
        std::signal(number, SIG_DFL);
    }
    setenv("PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", 1);
    setenv("LC_ALL", "C", 1);
    setenv("TZ", "UTC0", 1);
}

class FreshState : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo &) override {
        testkit::Sandbox::reset();
        testkit::logClear();
    }
    // Before OnTestEnd of the printer, which comes first among the listeners only at the start.
    void OnTestEnd(const testing::TestInfo &info) override {
        testkit::forgetFaults();
        if (info.result()->Failed()) {
            std::printf("The log of %s.%s:\n%s", info.test_suite_name(), info.name(), testkit::logText().c_str());
            std::fflush(stdout);
        }
    }
};

// Without root it is the only one.
bool wantsSimulated() {
    return testkitRunsSimulated() || geteuid() != 0;
}

// The dynamic linker reads its path at the start of a program only, so the program starts itself again.
void useSimulatedCore(char **argv) {
    const char *path = getenv("LD_LIBRARY_PATH");
    const bool set =
        path != nullptr && std::strncmp(path, SHARESNAP_SIMULATED_DIR, sizeof(SHARESNAP_SIMULATED_DIR) - 1) == 0;
    if (set || !testkit::exists(SHARESNAP_SIMULATED_DIR)) {
        return;
    }
    const std::string wanted = std::string(SHARESNAP_SIMULATED_DIR) + (path != nullptr ? std::string(":") + path : "");
    setenv("LD_LIBRARY_PATH", wanted.c_str(), 1);
    execv(testkit::readLink("/proc/self/exe").c_str(), argv);
    std::perror("the program can't start itself on the simulated storage core");
}

} // namespace

// A test program that says otherwise has a definition of its own, see fixtures.hpp.
__attribute__((weak)) bool testkitRunsSimulated() {
    return false;
}

int main(int argc, char **argv) {
    standardProcess();
    if (wantsSimulated()) {
        useSimulatedCore(argv);
    }
    testing::InitGoogleTest(&argc, argv);
    if (GTEST_FLAG_GET(list_tests)) {
        return RUN_ALL_TESTS();
    }
    if (!testkit::Sandbox::enter()) {
        // Without the sandbox the fixed paths are the machine's own: nothing may run.
        std::printf("[  SKIPPED ] %s\n", testkit::Sandbox::reason().c_str());
        return exitSkipped;
    }
    const std::string failure = testkit::Sandbox::simulated() ? testkit::Sandbox::useSimulatedTool() : "";
    if (!failure.empty()) {
        std::printf("%s\n", failure.c_str());
        return EXIT_FAILURE;
    }
    testing::UnitTest::GetInstance()->listeners().Append(new FreshState);
    return RUN_ALL_TESTS();
}
