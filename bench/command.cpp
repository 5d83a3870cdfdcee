// Whole commands, from the start of the program to its end: sharesnap against programs that do something alike.
#include "common/bench.hpp"
#include "common/share.hpp"
#include "support/files.hpp"
#include "support/process.hpp"

#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/mresult.h>

#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using namespace bench;
using Command = std::vector<std::string>;

constexpr int few = 10;
constexpr int many = 1000;

std::function<double()> run(const Command &command) {
    return [command] { return runProgram(command); };
}

// A share of its own whose snapshots snapper makes, numbered from 1, and lists.
class Snapper {
public:
    [[nodiscard]] bool isThere() const { return m_there; }

    void prepare() {
        m_there = isInstalled("snapper");
        if (m_there) {
            (void)makeShare("other", 100); // its record isn't needed
            (void)runProgram({"snapper", "--no-dbus", "-c", "bench", "create-config", "/vol1/other"});
        } else {
            std::printf("snapper (not installed)\n");
        }
    }

    void fill(int count) {
        while (m_there && m_count < count) {
            (void)create();
        }
    }

    double create() {
        ++m_count;
        return runProgram(with({"create", "-d", "number " + std::to_string(m_count)}));
    }

    // The newest and the ones before it.
    double remove(int count) {
        std::string range = std::to_string(m_count); // a range of one is refused
        if (count > 1) {
            range = std::to_string(m_count - count + 1) + "-" + range;
        }
        const double seconds = runProgram(with({"delete", range}));
        m_count -= count;
        const size_t left = testkit::directoryNames("/vol1/other/.snapshots").size();
        must(left == static_cast<size_t>(m_count), "deleting with snapper");
        return seconds;
    }

    [[nodiscard]] double list() const { return runProgram(with({"list"})); }

private:
    [[nodiscard]] static Command with(const Command &arguments) {
        Command command = {"snapper", "--no-dbus", "-c", "bench"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return command;
    }

    bool m_there = false;
    int m_count = 0;
};

// Nobody creates snapshots one right after the other, and the file system is still cleaning up what went before.
void waitAMoment() {
    usleep(300000);
}

// One more snapshot, which goes again so that as many exist in the next round.
double createOne(const QOVASHARE &share) {
    const std::string directory = snapshotDirectory(share);
    waitAMoment();
    const double seconds = runProgram({SHARESNAP_COMMAND, "create", share.szName});
    QLIBCSZLIST *names = QLIBCSzListAlloc(1);
    QLIBCMRESULT *results = QLIBCMResultAlloc();
    for (const std::string &name : testkit::directoryNames(directory)) {
        if (name.rfind("GMT-", 0) == 0 && name.rfind("GMT-2001", 0) != 0) {
            must(QLIBCSzListPush(&names, name.c_str()) >= 0, "a name");
        }
    }
    must(names->nItem == 1, "one new snapshot");
    must(QOVAShareSnapDelete(&share, names, &results) == 0, "deleting it");
    QLIBCMResultFree(results);
    QLIBCSzListFree(names);
    return seconds;
}

double createOne(Snapper &snapper) {
    waitAMoment();
    const double seconds = snapper.create();
    (void)snapper.remove(1);
    return seconds;
}

double createByHand(const QOVASHARE &share) {
    const std::string target = "/vol1/by-hand";
    waitAMoment();
    const double seconds = runProgram({"btrfs", "subvolume", "snapshot", "-r", share.szPath, target});
    (void)runProgram({"btrfs", "subvolume", "delete", target});
    return seconds;
}

// With as many snapshots existing on either side.
void raceOfCreations(const QOVASHARE &share, Snapper &snapper, int count) {
    std::vector<Contender> creating = {{"btrfs subvolume snapshot -r", [&] { return createByHand(share); }},
                                       {"sharesnap create", [&] { return createOne(share); }}};
    if (snapper.isThere()) {
        creating.push_back({"snapper --no-dbus create", [&] { return createOne(snapper); }});
    }
    race("one more snapshot, " + std::to_string(count) + " exist", creating);
}

void raceOfLists(const Snapper &snapper) {
    std::vector<Contender> listing = {{"sharesnap list", run({SHARESNAP_COMMAND, "list", "docs"})},
                                      {"sharesnap list --json", run({SHARESNAP_COMMAND, "list", "docs", "--json"})},
                                      {"btrfs subvolume list", run({"btrfs", "subvolume", "list", "/vol1"})}};
    if (snapper.isThere()) {
        listing.push_back({"snapper --no-dbus list", [&] { return snapper.list(); }});
    }
    race("list of 1000 snapshots", listing, 11);
}

// All that exist; they are taken anew when there are none.
double deleteMany(const QOVASHARE &share) {
    if (plainList(listPath(share)) == 0) {
        plantSnapshots(share, 0, many - 1);
    }
    Command command = {SHARESNAP_COMMAND, "delete", share.szName};
    for (int i = 0; i < many; ++i) {
        command.push_back(snapshotName(i));
    }
    const double seconds = runProgram(command);
    must(plainList(listPath(share)) == 0, "deleting all snapshots");
    return seconds;
}

void raceOfDeletions(const QOVASHARE &share, Snapper &snapper) {
    std::vector<Contender> deleting = {{"sharesnap delete", [&] { return deleteMany(share); }}};
    if (snapper.isThere()) {
        deleting.push_back({"snapper --no-dbus delete", [&] { return snapper.remove(many); }, true});
    }
    race("1000 snapshots deleted", deleting, 5);
}

} // namespace

int main() {
    enterSandbox(4096);
    const QOVASHARE &share = makeShare("docs", 100);
    Snapper snapper;
    snapper.prepare();

    race("start and end",
         {{"/bin/true", run({"/bin/true"})}, {"sharesnap --version", run({SHARESNAP_COMMAND, "--version"})}}, 25);

    plantSnapshots(share, 0, few - 1);
    snapper.fill(few);
    raceOfCreations(share, snapper, few);

    plantSnapshots(share, few, many - 1);
    snapper.fill(many);
    raceOfLists(snapper);
    raceOfCreations(share, snapper, many);

    raceOfDeletions(share, snapper);
    return 0;
}
