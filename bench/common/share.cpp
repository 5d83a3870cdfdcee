#include "common/share.hpp"

#include "common/bench.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"

#include <sharesnap/counters.h>
#include <sharesnap/frame.h>

#include <btrfsutil.h>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <unordered_map>
#include <vector>

namespace bench {
namespace {

constexpr time_t firstSecond = 978307200; // 2001-01-01

} // namespace

const QOVASHARE &makeShare(const std::string &name, int files) {
    const std::string failure = testkit::makeShare(name);
    must(failure.empty(), "making share " + name + ": " + failure);
    for (int i = 0; i < files; ++i) {
        // Forty folders with a few KiB in each file: what a share of documents looks like to the file system.
        const std::string folder = "/vol1/" + name + "/folder" + std::to_string(i % 40);
        must(testkit::makeDirectories(folder), "a folder");
        must(testkit::writeFile(folder + "/file" + std::to_string(i), std::string(3000, 'x')), "a file");
    }
    static std::vector<testkit::SharePointer> shares; // as long as the program runs
    shares.push_back(testkit::getShare(name));
    must(shares.back() != nullptr, "reading share " + name);
    return *shares.back();
}

std::string snapshotName(int number) {
    char name[64] = "";
    must(SnapNameGenerateByTime(name, sizeof(name), firstSecond + number, 0) == 0, "a name");
    return name;
}

std::string section(const std::string &snapshot) {
    return "[" + snapshot +
           "]\ntake-by=/usr/sbin/cron\nlock=true\ndesc=taken every night\nhide=false\n"
           "task=nightly\nretention=30\nhost=fileserver\nruuid=aec06017-7de9-2a4f-80a8-613d04093a9c\n";
}

std::string snapshotDirectory(const QOVASHARE &share) {
    char path[4096] = "";
    must(QOVAShareSnapGetOrCreateSnapDir(&share, path, sizeof(path), 1) == 1, "the snapshot directory");
    return path;
}

std::string snapshotPath(const QOVASHARE &share, const std::string &snapshot) {
    return snapshotDirectory(share) + "/" + snapshot;
}

std::string listPath(const QOVASHARE &share) {
    return std::string("/vol1/@sharesnap/@") + share.szName + ".meta";
}

size_t plainList(const std::string &path) {
    std::vector<std::string> names;
    std::unordered_map<std::string, std::string> pairs;
    FILE *file = std::fopen(path.c_str(), "re");
    must(file != nullptr, path);
    char *line = nullptr;
    size_t capacity = 0;
    ssize_t length = 0;
    while ((length = getdelim(&line, &capacity, '\n', file)) > 0) {
        const std::string text(line, static_cast<size_t>(length - 1));
        const size_t equals = text.find('=');
        if (text[0] == '[') {
            names.push_back(text.substr(1, text.size() - 2));
            pairs.clear();
        } else if (equals != std::string::npos) {
            pairs[text.substr(0, equals)] = text.substr(equals + 1);
        }
    }
    std::free(line);
    (void)std::fclose(file); // it was only read
    return names.size();
}

void plantSnapshots(const QOVASHARE &share, int first, int last) {
    const std::string directory = snapshotDirectory(share);
    std::string text = testkit::readFile(listPath(share));
    for (int number = first; number <= last; ++number) {
        const std::string name = snapshotName(number);
        const btrfs_util_error error = btrfs_util_create_snapshot(
            share.szPath, (directory + "/" + name).c_str(), BTRFS_UTIL_CREATE_SNAPSHOT_READ_ONLY, nullptr, nullptr);
        must(error == BTRFS_UTIL_OK, "a snapshot");
        text += section(name);
    }
    must(testkit::writeFile(listPath(share), text), "the list of snapshots");
    must(QOVAShareSnapSyncSnapCount(&share) >= 0, "counting");
}

} // namespace bench
