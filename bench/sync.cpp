// Reconciliation: with nothing to do, against the two readings that it can't do without; and what it costs to mend.
#include "common/bench.hpp"
#include "common/share.hpp"
#include "support/files.hpp"

#include <sharesnap/metadata.h>

#include <cstdio>
#include <string>

namespace {

using namespace bench;

void reconcile(const QOVASHARE &share) {
    must(QOVAShareSnapMetaSync(&share) == 0, "QOVAShareSnapMetaSync");
}

// The volume's subvolumes as the tool prints them, and the list of snapshots read once.
double twoReadings(const QOVASHARE &share, size_t count) {
    return runProgram({"btrfs", "subvolume", "list", "/vol1"}) +
           timed([&] { must(plainList(listPath(share)) == count, "finding all snapshots"); });
}

double nothingToDo(const QOVASHARE &share) {
    const std::string before = testkit::readFile(listPath(share));
    const double seconds = timed([&] { reconcile(share); });
    must(testkit::readFile(listPath(share)) == before, "leaving the list as it was");
    return seconds;
}

// Sections of snapshots that there are not: all of them go.
double allStale(const QOVASHARE &share, int count) {
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += section(snapshotName(i));
    }
    must(testkit::writeFile(listPath(share), text), "the list of snapshots");
    const double seconds = timed([&] { reconcile(share); });
    must(plainList(listPath(share)) == 0, "dropping all sections");
    return seconds;
}

// Snapshots without a section: all of them get one.
double allMissing(const QOVASHARE &share, size_t count) {
    must(testkit::writeFile(listPath(share), ""), "the list of snapshots");
    const double seconds = timed([&] { reconcile(share); });
    must(plainList(listPath(share)) == count, "adding all sections");
    return seconds;
}

} // namespace

int main() {
    enterSandbox(2048);
    const QOVASHARE &share = makeShare("docs", 100);
    const QOVASHARE &empty = makeShare("empty", 0);
    (void)snapshotDirectory(empty); // its list lies beside it
    int existing = 0;
    double previous = 0;
    for (const int count : {100, 1000}) {
        const auto all = static_cast<size_t>(count);
        plantSnapshots(share, existing, count - 1);
        existing = count;
        reconcile(share); // the planted sections get the facts of their subvolumes
        const double seconds =
            race(std::to_string(count) + " snapshots, nothing to do",
                 {{"btrfs subvolume list, the list read once", [&] { return twoReadings(share, all); }},
                  {"library", [&] { return nothingToDo(share); }}},
                 7)
                .back();
        if (previous > 0) {
            std::printf("ten times as many snapshots take %.2f times as long\n", seconds / previous);
        }
        previous = seconds;
        race(std::to_string(count) + " sections to mend",
             {{"btrfs subvolume list, the list read once", [&] { return twoReadings(share, all); }},
              {"library, all without a snapshot", [&] { return allStale(empty, count); }},
              {"library, all snapshots without a section", [&] { return allMissing(share, all); }}},
             5);
    }
    return 0;
}
