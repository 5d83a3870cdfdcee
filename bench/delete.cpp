// Deleting 1000 snapshots in one call, with their sections, against deleting the subvolumes alone.
#include "common/bench.hpp"
#include "common/share.hpp"
#include "support/files.hpp"

#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/mresult.h>

#include <btrfsutil.h>
#include <string>

namespace {

using namespace bench;

constexpr int count = 1000;

void plainDelete(const QOVASHARE &share) {
    const std::string directory = snapshotDirectory(share);
    for (int i = 0; i < count; ++i) {
        must(btrfs_util_delete_subvolume((directory + "/" + snapshotName(i)).c_str(), 0) == BTRFS_UTIL_OK, "deleting");
    }
    must(btrfs_util_sync(directory.c_str()) == BTRFS_UTIL_OK, "the commit");
}

void libraryDelete(const QOVASHARE &share) {
    QLIBCSZLIST *names = QLIBCSzListAlloc(1024);
    QLIBCMRESULT *results = QLIBCMResultAlloc();
    for (int i = 0; i < count; ++i) {
        must(QLIBCSzListPush(&names, snapshotName(i).c_str()) >= 0, "a name");
    }
    must(QOVAShareSnapDelete(&share, names, &results) == 0, "QOVAShareSnapDelete");
    QLIBCMResultFree(results);
    QLIBCSzListFree(names);
}

double measure(const QOVASHARE &share, void (*way)(const QOVASHARE &)) {
    plantSnapshots(share, 0, count - 1);
    const double seconds = timed([&] { way(share); });
    if (way == plainDelete) {
        must(testkit::writeFile(listPath(share), ""), "the list"); // its sections
    }
    return seconds;
}

} // namespace

int main() {
    enterSandbox(2048);
    const QOVASHARE &share = makeShare("docs", 100);
    race("1000 snapshots",
         {{"1000 system calls and one commit", [&] { return measure(share, plainDelete); }},
          {"library, one call", [&] { return measure(share, libraryDelete); }}},
         5);
    return 0;
}
