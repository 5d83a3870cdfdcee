// Whole commands, from the start of the program to its end: sharesnap against programs that do something alike.
#include "common/bench.hpp"
#include "common/share.hpp"
#include "support/process.hpp"

#include <cstdio>
#include <string>
#include <unistd.h>

namespace {

using namespace bench;

constexpr int count = 1000;

std::string program(const std::string &command) {
    return command + (isInstalled(command) ? "" : " (not installed)");
}

// 1000 snapshots of a share of its own, made and listed by snapper.
bool prepareSnapper() {
    if (!isInstalled("snapper")) {
        return false;
    }
    (void)makeShare("other", 100); // its record isn't needed
    (void)runProgram({"snapper", "--no-dbus", "-c", "bench", "create-config", "/vol1/other"});
    for (int i = 0; i < count; ++i) {
        (void)runProgram({"snapper", "--no-dbus", "-c", "bench", "create", "-d", "number " + std::to_string(i)});
    }
    return true;
}

} // namespace

int main() {
    enterSandbox(4096);
    const QOVASHARE &share = makeShare("docs", 100);
    plantSnapshots(share, 0, count - 1);
    const bool snapper = prepareSnapper();
    const auto run = [](const std::vector<std::string> &command) { return [command] { return runProgram(command); }; };

    race("start and end",
         {{"/bin/true", run({"/bin/true"})}, {"sharesnap --version", run({SHARESNAP_COMMAND, "--version"})}}, 25);

    std::vector<Contender> listing = {{"sharesnap list", run({SHARESNAP_COMMAND, "list", "docs"})},
                                      {"sharesnap list --json", run({SHARESNAP_COMMAND, "list", "docs", "--json"})},
                                      {"btrfs subvolume list", run({"btrfs", "subvolume", "list", "/vol1"})}};
    if (snapper) {
        listing.push_back({"snapper --no-dbus list", run({"snapper", "--no-dbus", "-c", "bench", "list"})});
    } else {
        std::printf("%s\n", program("snapper").c_str());
    }
    race("list of 1000 snapshots", listing, 11);

    int number = 0;
    std::vector<Contender> creating = {
        {"btrfs subvolume snapshot -r",
         [&number] {
             const std::string target = "/vol1/by-hand" + std::to_string(number++);
             return runProgram({"btrfs", "subvolume", "snapshot", "-r", "/vol1/docs", target});
         }},
        {"sharesnap create", [&] {
             usleep(1100000); // so that the second is free
             return runProgram({SHARESNAP_COMMAND, "create", "docs"});
         }}};
    if (snapper) {
        creating.push_back(
            {"snapper --no-dbus create", run({"snapper", "--no-dbus", "-c", "bench", "create", "-d", "one more"})});
    }
    race("one more snapshot", creating);
    return 0;
}
