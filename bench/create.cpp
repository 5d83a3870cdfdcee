// Taking a snapshot: the library against the bare system call, and against the least that a program of its kind has to
// write. A share of 2000 files, 10, 100 and 1000 snapshots of it existing, eight attributes for each new one.
#include "common/bench.hpp"
#include "common/share.hpp"
#include "support/files.hpp"

#include <sharesnap/counters.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/mresult.h>

#include <btrfsutil.h>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

time_t clockSecond = 1600000000;

using namespace bench;

void bareSnapshot(const QOVASHARE &share, const std::string &path) {
    must(btrfs_util_create_snapshot(share.szPath, path.c_str(), BTRFS_UTIL_CREATE_SNAPSHOT_READ_ONLY, nullptr,
                                    nullptr) == BTRFS_UTIL_OK,
         "the bare snapshot");
}

void removeBare(const std::string &path) {
    must(btrfs_util_delete_subvolume(path.c_str(), 0) == BTRFS_UTIL_OK, "deleting a bare snapshot");
}

double bare(const QOVASHARE &share, const std::string &directory) {
    const std::string path = directory + "/bare";
    const double seconds = timed([&] { bareSnapshot(share, path); });
    removeBare(path);
    return seconds;
}

// A whole new file that is on disk before it takes the old one's place.
void replaceFile(const std::string &path, const std::string &text) {
    const std::string temporary = path + ".new";
    const int file = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    must(file >= 0, temporary);
    must(write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "writing");
    must(fsync(file) == 0 && close(file) == 0 && rename(temporary.c_str(), path.c_str()) == 0, "replacing");
}

// The system call with what has to be around it: the counter, the section, and the section with the facts.
double least(const QOVASHARE &share, const std::string &directory, const std::string &list) {
    const std::string path = directory + "/least";
    const std::string before = testkit::readFile(list);
    const double seconds = timed([&] {
        char counter[1024] = "";
        (void)getxattr(directory.c_str(), "user.snapcount", counter, sizeof(counter)); // its value doesn't matter here
        must(setxattr(directory.c_str(), "user.snapcount", counter, sizeof(counter), 0) == 0, "the counter");
        const std::string text = testkit::readFile(list) + section("least");
        replaceFile(list, text);
        bareSnapshot(share, path);
        replaceFile(list, testkit::readFile(list) + "create_time=2026-01-01T00:00:00Z\n");
    });
    removeBare(path);
    must(testkit::writeFile(list, before), "the list");
    return seconds;
}

QLIBCSZHASH *fourAttributes() {
    QLIBCSZHASH *hash = QLIBCSzHashAlloc(1024);
    must(hash != nullptr, "a hash");
    for (const char *key : {"task", "retention", "host", "owner"}) {
        must(QLIBCSzHashSetValue(&hash, key, "some value") == 0, "an attribute");
    }
    return hash;
}

void removeSnapshot(const QOVASHARE &share, const char *name) {
    QLIBCSZLIST *list = QLIBCSzListAlloc(512);
    QLIBCMRESULT *results = QLIBCMResultAlloc();
    must(QLIBCSzListPush(&list, name) >= 0 && QOVAShareSnapDelete(&share, list, &results) == 0, "deleting");
    QLIBCMResultFree(results);
    QLIBCSzListFree(list);
}

double library(const QOVASHARE &share, bool withConfiguration) {
    ++clockSecond;
    char name[1024] = "";
    QLIBCSZHASH *hash = fourAttributes(); // the defaults make them eight
    const double seconds = timed([&] {
        const int result = withConfiguration ? QOVAShareSnapCreate(&share, name, sizeof(name), &hash)
                                             : QOVAShareSnapCreateNoShareInfo(&share, name, sizeof(name), &hash);
        must(result == 0, "QOVAShareSnapCreate");
    });
    QLIBCSzHashFree(hash);
    removeSnapshot(share, name);
    return seconds;
}

} // namespace

// Names have a resolution of one second. The clock of this program moves on with each snapshot, so that none has to wait.
extern "C" time_t time(time_t *result) noexcept {
    if (result != nullptr) {
        *result = clockSecond;
    }
    return clockSecond;
}

int main() {
    enterSandbox(4096);
    const QOVASHARE &share = makeShare("docs", 2000);
    const std::string directory = snapshotDirectory(share);
    const std::string list = listPath(share);
    int existing = 0;
    for (const int count : {10, 100, 1000}) {
        plantSnapshots(share, existing, count - 1);
        existing = count;
        race(std::to_string(count) + " snapshots exist",
             {{"system call alone", [&] { return bare(share, directory); }},
              {"system call, counter, list written and synced twice", [&] { return least(share, directory, list); }},
              {"library, without configuration", [&] { return library(share, false); }},
              {"library, with configuration", [&] { return library(share, true); }}});
    }
    return 0;
}
