// Work on damaged input has to end in bounded time and memory: the bounds, and a child process to be tried in.
#pragma once

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <new>
#include <string>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "files.hpp"

#if defined(__SANITIZE_ADDRESS__)
#define TESTKIT_OWN_MEMORY 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TESTKIT_OWN_MEMORY 0
#endif
#endif
#ifndef TESTKIT_OWN_MEMORY
#define TESTKIT_OWN_MEMORY 1
#endif

namespace testkit {

// There everything takes a hundred times as long.
inline bool underValgrind() {
    return readFile("/proc/self/maps").find("vgpreload") != std::string::npos;
}

// False under a sanitizer and under valgrind, which take memory of their own: there it can be neither bounded nor
// measured.
inline bool hasOwnMemory() {
    return TESTKIT_OWN_MEMORY != 0 && !underValgrind();
}

// From here on the process ends by abort when it asks for more than that beyond what it has now. Not even a request
// that is caught and never touched goes unnoticed.
inline void boundMemory(size_t cbMore) {
    if (!hasOwnMemory()) {
        return;
    }
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit limit{};
    (void)getrlimit(RLIMIT_AS, &limit);
    limit.rlim_cur = std::min(limit.rlim_max, pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + cbMore);
    if (pages == 0 || setrlimit(RLIMIT_AS, &limit) != 0) {
        std::perror("memory can't be bounded");
        std::abort();
    }
    std::set_new_handler([] {
        constexpr char text[] = "more memory was asked for than the bound gives\n";
        if (write(STDERR_FILENO, text, sizeof(text) - 1) < 0) {
            _exit(EXIT_FAILURE);
        }
        std::abort();
    });
}

// From here on the process is ended by SIGPROF after so many seconds of processor time: how long it has to wait for its
// turn on a busy machine doesn't count. Each call begins anew.
inline void boundSeconds(unsigned seconds) {
    itimerval timer{};
    timer.it_value.tv_sec = static_cast<time_t>(seconds);
    (void)setitimer(ITIMER_PROF, &timer, nullptr);
}

// Runs work in a child, which is ended when it takes more memory or more time; work that consists of many steps gives
// each of them the whole time by boundSeconds. Empty when it came to its end and no expectation failed in it.
template <class Work>
std::string endsWithin(unsigned seconds, size_t cbMost, const Work &work) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        return "no child";
    }
    if (child == 0) {
        boundSeconds(seconds);
        boundMemory(cbMost);
        try {
            work();
        } catch (...) {
            std::fputs("an exception came through\n", stderr);
            _exit(2);
        }
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    rusage usage{};
    while (wait4(child, &status, 0, &usage) < 0 && errno == EINTR) {}
    if (WIFSIGNALED(status)) {
        return WTERMSIG(status) == SIGPROF ? "it doesn't end" : "ended by signal " + std::to_string(WTERMSIG(status));
    }
    if (WEXITSTATUS(status) != 0) {
        return "exit status " + std::to_string(WEXITSTATUS(status));
    }
    if (hasOwnMemory() && static_cast<size_t>(usage.ru_maxrss) * 1024 > cbMost) {
        return "it held " + std::to_string(usage.ru_maxrss) + " KiB";
    }
    return "";
}

} // namespace testkit
