// sandbox_run [--simulated] [--no-volume] [--size MiB] [--] command [argument ...]
//
// Runs a command in a sandbox of its own, with an empty volume at /vol1: a real Btrfs, or with --simulated a directory
// in memory on the simulated storage core, which needs no root. What the command does to /vol1, /run, /usr/qova and
// /etc is gone with its last process. The exit status is the command's; 77 with a message where a sandbox can't be had,
// 127 where the command can't be started, 2 for wrong arguments.
#include "support/sandbox.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

constexpr int exitUsage = 2;
constexpr int exitSkipped = 77;
constexpr int exitNoCommand = 127;

struct Options {
    bool simulated = false;
    bool volume = true;
    unsigned int size = 256;
    char **command = nullptr;
};

bool parse(char **argument, Options &options) {
    for (++argument; *argument != nullptr && (*argument)[0] == '-'; ++argument) {
        const std::string text = *argument;
        if (text == "--") {
            ++argument;
            break;
        }
        if (text == "--simulated") {
            options.simulated = true;
        } else if (text == "--no-volume") {
            options.volume = false;
        } else if (text == "--size" && argument[1] != nullptr) {
            char *end = nullptr;
            options.size = static_cast<unsigned int>(std::strtoul(*++argument, &end, 10));
            if (*end != '\0' || options.size < 110 || options.size > 65536) {
                std::fprintf(stderr, "sandbox_run: --size takes 110 to 65536 MiB\n");
                return false;
            }
        } else {
            std::fprintf(stderr, "sandbox_run: unknown option %s\n", text.c_str());
            return false;
        }
    }
    options.command = argument;
    return *argument != nullptr;
}

// Empty, or why there is no such sandbox.
std::string prepare(const Options &options) {
    using testkit::Sandbox;
    if (!Sandbox::enter()) {
        return Sandbox::reason();
    }
    if (!options.simulated) {
        return options.volume ? Sandbox::mountVolume("/vol1", "btrfs", options.size) : "";
    }
    std::string failure = Sandbox::useSimulatedTool();
    if (failure.empty() && options.volume) {
        failure = Sandbox::mountSimulatedVolume("/vol1");
    }
    setenv("LD_LIBRARY_PATH", SHARESNAP_SIMULATED_DIR, 1);
    return failure;
}

} // namespace

int main(int, char **argv) {
    Options options;
    if (!parse(argv, options)) {
        std::fprintf(stderr,
                     "usage: sandbox_run [--simulated] [--no-volume] [--size MiB] [--] command [argument ...]\n");
        return exitUsage;
    }
    const std::string failure = prepare(options);
    if (!failure.empty()) {
        std::fprintf(stderr, "sandbox_run: skipped: %s\n", failure.c_str());
        return exitSkipped;
    }
    execvp(options.command[0], options.command);
    std::perror(options.command[0]);
    return exitNoCommand;
}
