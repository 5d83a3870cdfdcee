// The estimate of what a snapshot holds, against the real stream of `btrfs send` with its bytes counted: how long both
// take, and how far the estimate is off.
#include "common/bench.hpp"
#include "common/share.hpp"
#include "support/files.hpp"
#include "support/process.hpp"

#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/szlist.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <random>
#include <spawn.h>
#include <string>
#include <unistd.h>
#include <vector>

extern "C" char **environ;

namespace {

using namespace bench;

uint64_t estimate(const std::string &path, const std::string &parent) {
    QLIBCSZLIST *paths = QLIBCSzListAlloc(1024);
    must(QLIBCSzListPush(&paths, path.c_str()) >= 0, "a path");
    uint64_t size = 0;
    must(QOVAShareSnapCalculateTotalSize(paths, nullptr, parent.empty() ? nullptr : parent.c_str(), &size, nullptr) ==
             0,
         "QOVAShareSnapCalculateTotalSize");
    QLIBCSzListFree(paths);
    return size;
}

uint64_t countBytes(int file) {
    std::vector<char> buffer(1U << 20);
    uint64_t size = 0;
    ssize_t bytes = 0;
    while ((bytes = read(file, buffer.data(), buffer.size())) > 0) {
        size += static_cast<uint64_t>(bytes);
    }
    must(bytes == 0, "reading the stream");
    return size;
}

// What `btrfs send ... | wc -c` gives.
uint64_t streamed(const std::string &path, const std::string &parent) {
    std::vector<std::string> command = {"btrfs", "send", "-q"};
    if (!parent.empty()) {
        command.insert(command.end(), {"-p", parent});
    }
    command.push_back(path);
    std::vector<char *> arguments;
    for (std::string &argument : command) {
        arguments.push_back(argument.data());
    }
    arguments.push_back(nullptr);
    int ends[2] = {-1, -1};
    must(pipe2(ends, O_CLOEXEC) == 0, "a pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    pid_t pid = -1;
    must(posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ) == 0, "btrfs send");
    posix_spawn_file_actions_destroy(&actions);
    (void)close(ends[1]); // the program has its own
    const uint64_t size = countBytes(ends[0]);
    (void)close(ends[0]); // it was only read
    must(testkit::waitForChild(pid) == 0, "btrfs send");
    return size;
}

void compare(const std::string &title, const std::string &path, const std::string &parent) {
    uint64_t estimated = 0;
    uint64_t sent = 0;
    race(title, {{"btrfs send, bytes counted", [&] { return timed([&] { sent = streamed(path, parent); }); }},
                 {"library, estimate", [&] { return timed([&] { estimated = estimate(path, parent); }); }}});
    std::printf("    estimated %" PRIu64 " of %" PRIu64 " bytes sent, ratio %.4f\n", estimated, sent,
                static_cast<double>(estimated) / static_cast<double>(sent));
}

// A file of bytes that no file system can make smaller.
void writeLarge(const std::string &path, unsigned int seed) {
    std::mt19937 random(seed);
    std::string text(1U << 20, '\0');
    for (char &byte : text) {
        byte = static_cast<char>(random());
    }
    must(testkit::writeFile(path, text), "a large file");
}

} // namespace

int main() {
    enterSandbox(1024);
    const QOVASHARE &share = makeShare("docs", 2000);
    for (unsigned int i = 0; i < 100; ++i) {
        writeLarge("/vol1/docs/large" + std::to_string(i), i);
    }
    plantSnapshots(share, 0, 0);
    for (unsigned int i = 0; i < 10; ++i) {
        writeLarge("/vol1/docs/large" + std::to_string(i), 1000 + i);
        must(testkit::writeFile("/vol1/docs/folder0/new" + std::to_string(i), std::string(3000, 'y')), "a file");
    }
    plantSnapshots(share, 1, 1);
    const std::string first = snapshotPath(share, snapshotName(0));
    const std::string second = snapshotPath(share, snapshotName(1));
    compare("2000 small files and 100 of 1 MiB", first, "");
    compare("10 small files more and 10 of 1 MiB written anew, against the snapshot before", second, first);
    return 0;
}
