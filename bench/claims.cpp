// A claim on a snapshot, taken and dropped, with nobody else at it: against the least that keeps a counted claim in a
// file, and asking who holds one.
#include "common/bench.hpp"
#include "common/share.hpp"
#include "support/files.hpp"

#include <sharesnap/counters.h>
#include <sharesnap/platform/szlist.h>

#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/file.h>
#include <unistd.h>

namespace {

using namespace bench;

constexpr int repeats = 200;
constexpr char plainFile[] = "/run/plain.claims";
constexpr char initiator[] = "replication";

double each(const std::function<void()> &work) {
    return timed([&work] {
               for (int i = 0; i < repeats; ++i) {
                   work();
               }
           }) /
           repeats;
}

// The whole file read, written anew and renamed over the old one, under a lock.
void plainChange(const std::string &text) {
    const int lock = open("/run/plain.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    must(lock >= 0 && flock(lock, LOCK_EX) == 0, "flock");
    const std::string before = testkit::readFile(plainFile);
    const std::string temporary = std::string(plainFile) + ".new";
    const int file = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    must(file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "writing");
    must(fsync(file) == 0 && close(file) == 0 && rename(temporary.c_str(), plainFile) == 0, "replacing");
    must(before != text && close(lock) == 0, "a change");
}

void takeAndDrop(const QOVASHARE &share, const std::string &snapshot) {
    must(QOVAShareSnapSysLockIncrement(&share, snapshot.c_str(), initiator) == 1, "taking a claim");
    must(QOVAShareSnapSysLockDecrement(&share, snapshot.c_str(), initiator) == 1, "dropping a claim");
}

void ask(const QOVASHARE &share, const std::string &snapshot, int holders) {
    QLIBCSZLIST *names = QLIBCSzListAlloc(1024);
    must(QOVAShareSnapSysLockInitiatorList(&share, snapshot.c_str(), &names) == 1, "asking");
    must(names->nItem == holders, "who holds the snapshot");
    QLIBCSzListFree(names);
}

} // namespace

int main() {
    enterSandbox(256);
    const QOVASHARE &share = makeShare("docs", 0);
    const std::string snapshot = snapshotName(5000);
    std::string others;
    for (const int count : {0, 100, 1000}) {
        others.clear();
        for (int i = 0; i < count; ++i) {
            others += "[" + snapshotName(i) + "]\nbackup=1\n";
        }
        must(testkit::writeFile(plainFile, others), "the plain claims");
        takeAndDrop(share, snapshot); // makes the directories
        must(testkit::writeFile("/run/sharesnap/sys_lock/docs.sharesnap_sys_lock", others), "the claims");
        const std::string claimed = others + "[" + snapshot + "]\n" + initiator + "=1\n";
        race(std::to_string(count) + " other snapshots are claimed",
             {{"lock, file read and replaced, unlock; twice",
               [&] {
                   return each([&] {
                       plainChange(claimed);
                       plainChange(others);
                   });
               }},
              {"library, a claim taken and dropped", [&] { return each([&] { takeAndDrop(share, snapshot); }); }},
              {"library, asking for holders", [&] { return each([&] { ask(share, snapshot, 0); }); }}});
        must(testkit::readFile("/run/sharesnap/sys_lock/docs.sharesnap_sys_lock") == others, "the other claims");
    }
    return 0;
}
