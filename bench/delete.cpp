// Deleting snapshots in one call of the library, with their sections, against the least that has to be done: as many
// system calls, one sync of the file system and one rewrite of the list. What ten times as many take, what one that can't
// go costs the others, and what sections of 64 long pairs do to it.
#include "common/bench.hpp"
#include "common/share.hpp"
#include "support/files.hpp"

#include <sharesnap/counters.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/mresult.h>

#include <btrfsutil.h>
#include <cstdio>
#include <fcntl.h>
#include <linux/btrfs_tree.h>
#include <string>
#include <unistd.h>

namespace {

using namespace bench;

// Eight pairs, and as many and as long ones as a section of a busy share may have.
using Section = std::string (*)(const std::string &);

std::string longSection(const std::string &snapshot) {
    std::string text = "[" + snapshot + "]\nhide=false\n";
    for (int pair = 1; pair < 64; ++pair) {
        text += "attribute" + std::to_string(pair) + "=" + std::string(500, 'x') + "\n";
    }
    return text;
}

void writeList(const QOVASHARE &share, int count, Section sectionOf) {
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += sectionOf(snapshotName(i));
    }
    must(testkit::writeFile(listPath(share), text), "the list of snapshots");
}

void plant(const QOVASHARE &share, int count, Section sectionOf) {
    plantSnapshots(share, 0, count - 1);
    if (sectionOf != section) {
        writeList(share, count, sectionOf);
    }
}

// Read once, written beside it, synced and put in its place.
void rewriteList(const QOVASHARE &share) {
    const std::string path = listPath(share);
    const std::string beside = path + ".new";
    const std::string text = testkit::readFile(path);
    const int file = open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    must(file >= 0, beside);
    must(write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "writing");
    must(fsync(file) == 0 && close(file) == 0 && rename(beside.c_str(), path.c_str()) == 0, "the rewrite");
}

double plainDelete(const QOVASHARE &share, int count, Section sectionOf) {
    plant(share, count, sectionOf);
    const std::string directory = snapshotDirectory(share);
    const double seconds = timed([&] {
        for (int i = 0; i < count; ++i) {
            const std::string path = directory + "/" + snapshotName(i);
            must(btrfs_util_delete_subvolume(path.c_str(), 0) == BTRFS_UTIL_OK, "deleting");
        }
        const int volume = open("/vol1", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        must(volume >= 0 && syncfs(volume) == 0 && close(volume) == 0, "the sync");
        rewriteList(share);
    });
    must(testkit::writeFile(listPath(share), ""), "the list of snapshots"); // its sections
    return seconds;
}

// All of them in one call, of which so many must go.
double callLibrary(const QOVASHARE &share, int count, int gone) {
    QLIBCSZLIST *names = QLIBCSzListAlloc(1024);
    QLIBCMRESULT *results = QLIBCMResultAlloc();
    for (int i = 0; i < count; ++i) {
        must(QLIBCSzListPush(&names, snapshotName(i).c_str()) >= 0, "a name");
    }
    int result = -1;
    const double seconds = timed([&] { result = QOVAShareSnapDelete(&share, names, &results); });
    must(result == (gone == count ? 0 : -1), "QOVAShareSnapDelete");
    int deleted = 0;
    for (int i = 0; i < count; ++i) {
        int code = -1;
        must(QLIBCMResultGetCoreErrorByIndex(results, i, &code) >= 0, "a result");
        deleted += code == 0 ? 1 : 0;
    }
    must(deleted == gone, "the number of deleted snapshots");
    QLIBCMResultFree(results);
    QLIBCSzListFree(names);
    return seconds;
}

double libraryDelete(const QOVASHARE &share, int count, Section sectionOf) {
    plant(share, count, sectionOf);
    const double seconds = callLibrary(share, count, count);
    must(testkit::readFile(listPath(share)).empty(), "dropping all sections");
    return seconds;
}

// The volume's default subvolume can't be destroyed.
double libraryDeleteButOne(const QOVASHARE &share, int count) {
    plant(share, count, section);
    const std::string path = snapshotPath(share, snapshotName(count / 2));
    must(btrfs_util_set_default_subvolume(path.c_str(), 0) == BTRFS_UTIL_OK, "keeping one");
    const double seconds = callLibrary(share, count, count - 1);
    must(plainList(listPath(share)) == static_cast<size_t>(count - count / 2), "keeping what stands behind it");
    must(btrfs_util_set_default_subvolume("/vol1", BTRFS_FS_TREE_OBJECTID) == BTRFS_UTIL_OK, "letting it go");
    must(btrfs_util_delete_subvolume(path.c_str(), 0) == BTRFS_UTIL_OK, "deleting");
    must(testkit::writeFile(listPath(share), ""), "the list of snapshots");
    return seconds;
}

double raceOf(const QOVASHARE &share, const std::string &title, int count, Section sectionOf, int rounds) {
    const std::string calls = std::to_string(count) + " system calls, one sync, the list rewritten";
    return race(title,
                {{calls, [&] { return plainDelete(share, count, sectionOf); }},
                 {"library, one call", [&] { return libraryDelete(share, count, sectionOf); }}},
                rounds)
        .back();
}

} // namespace

int main() {
    enterSandbox(2048);
    const QOVASHARE &share = makeShare("docs", 100);
    const double hundred = raceOf(share, "100 snapshots", 100, section, 9);
    const double thousand = raceOf(share, "1000 snapshots", 1000, section, 7);
    std::printf("ten times as many snapshots take %.2f times as long\n", thousand / hundred);
    race("1000 snapshots, one of which can't be deleted",
         {{"library, all of them go", [&] { return libraryDelete(share, 1000, section); }},
          {"library, all but one go", [&] { return libraryDeleteButOne(share, 1000); }}},
         5);
    (void)raceOf(share, "1000 snapshots with 64 pairs of 500 bytes each", 1000, longSection, 5);
    return 0;
}
