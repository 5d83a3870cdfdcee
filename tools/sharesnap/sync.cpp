// sharesnap sync: makes the lists of snapshots true to what the volumes hold.
#include "failure.h"
#include "progress.h"
#include "share_lookup.h"
#include "snapshots.h"
#include "text.h"
#include "tree_strangers.h"
#include "verbs.h"
#include "volume_tree.h"

#include <sharesnap/metadata.h>

#include <algorithm>
#include <memory>
#include <unistd.h>

namespace command {
namespace {

struct SyncArguments {
    std::string share;
    bool all = false;
    bool dryRun = false;
};

struct Difference {
    std::vector<std::string> stale;   // in the list only
    std::vector<std::string> missing; // on the volume only
    [[nodiscard]] bool none() const { return stale.empty() && missing.empty(); }
};

std::vector<std::string> namesOnVolume(const QOVASHARE &share, const std::string &what) {
    const std::string volume = volumeOf(share, what);
    List all = newList();
    List own = newList();
    forgetCause();
    if (SnapMetaSyncBtrfsListVol(volume.c_str(), all.address()) < 0 ||
        SnapMetaSyncFindShareSnapList(&share, all.get(), own.address()) < 0) {
        throw libraryFailure(what + " " + named(share) + ": the volume " + printable(volume) + " can't be read", share,
                             causeNow());
    }
    return itemsOf(own);
}

std::vector<std::string> namesInList(const QOVASHARE &share) {
    List names = newList();
    forgetCause();
    if (QOVAShareSnapList(&share, names.address(), nullptr) != 0) {
        throw libraryFailure("can't list the snapshots of " + named(share), share, causeNow());
    }
    return itemsOf(names);
}

Difference compare(const QOVASHARE &share) {
    std::vector<std::string> list = namesInList(share);
    std::vector<std::string> volume = namesOnVolume(share, "can't compare");
    std::sort(list.begin(), list.end());
    std::sort(volume.begin(), volume.end());
    Difference difference;
    std::set_difference(list.begin(), list.end(), volume.begin(), volume.end(), std::back_inserter(difference.stale));
    std::set_difference(volume.begin(), volume.end(), list.begin(), list.end(), std::back_inserter(difference.missing));
    return difference;
}

std::vector<std::string> inBoth(const std::vector<std::string> &some, const std::vector<std::string> &others) {
    std::vector<std::string> both;
    std::set_intersection(some.begin(), some.end(), others.begin(), others.end(), std::back_inserter(both));
    return both;
}

// List and volume are read one after the other, and a snapshot that is just being taken or deleted is in one of them
// only. What is the same in look after look is no such snapshot.
Difference lastingDifference(const QOVASHARE &share) {
    constexpr int looks = 6;
    constexpr useconds_t pause = 500000;
    Difference lasting = compare(share);
    for (int look = 1; look < looks && !lasting.none(); ++look) {
        usleep(pause);
        const Difference now = compare(share);
        lasting = {inBoth(lasting.stale, now.stale), inBoth(lasting.missing, now.missing)};
    }
    return lasting;
}

struct Report {
    Table table{{"SHARE", "SNAPSHOT", "CHANGE"}};
    Json shares = Json::array();
    Json trees = Json::array();
    int done = 0;
    int failed = 0;
    bool treesAreTrue = true;
};

Json arrayOf(const std::vector<std::string> &items) {
    Json array = Json::array();
    for (const std::string &item : items) {
        array.push_back(item);
    }
    return array;
}

void addToReport(Report &report, const std::string &share, const Difference &difference, bool dryRun) {
    const std::string would = dryRun ? "would be " : "";
    for (const std::string &name : difference.stale) {
        report.table.addRow({share, name, would + "taken from the list: it is not on the volume"});
    }
    for (const std::string &name : difference.missing) {
        report.table.addRow({share, name, would + "added to the list: it stands on the volume"});
    }
    Json entry = Json::object();
    entry["name"] = share;
    entry["removed"] = arrayOf(difference.stale);
    entry["added"] = arrayOf(difference.missing);
    report.shares.push_back(entry);
}

void syncOne(const std::string &name, bool dryRun, Report &report) {
    const Share share = requireBtrfsShare(name, "can't sync");
    const Difference before = compare(*share);
    if (!dryRun) {
        forgetCause();
        if (QOVAShareSnapMetaSync(share.get()) != 0) {
            throw libraryFailure("can't sync " + named(*share), *share, causeNow());
        }
        // Single snapshots that can't be put right don't show in the result.
        const Difference after = lastingDifference(*share);
        if (!after.none()) {
            const std::string first = after.stale.empty() ? after.missing.front() : after.stale.front();
            throw Failure(exitFailed,
                          "can't sync " + named(*share) + ": list and volume still differ in snapshot " + quoted(first),
                          "the system log tells more: journalctl -t sharesnap");
        }
        report.treesAreTrue = treeSynced(*share) && report.treesAreTrue;
    }
    addToReport(report, name, before, dryRun);
}

void syncTree(const std::string &volume, bool dryRun, Report &report) {
    const std::string would = dryRun ? "would be " : "";
    const std::vector<std::string> strangers = dryRun ? treeStrangers(volume) : dropTreeStrangers(volume);
    for (const std::string &name : strangers) {
        report.table.addRow(
            {name, "-", would + "taken from the tree of " + printable(volume) + ": it is no share of this volume"});
    }
    Json entry = Json::object();
    entry["volume"] = volume;
    entry["removed"] = arrayOf(strangers);
    report.trees.push_back(entry);
}

void complainOfTree(const Failure &failure, Report &report) {
    complain(failure.message(), failure.next());
    report.treesAreTrue = false;
}

// What the trees have of shares that were removed or renamed while a tree couldn't be rewritten.
void syncTrees(bool dryRun, Report &report) {
    try {
        for (const std::string &volume : volumesWithTree()) {
            try {
                syncTree(volume, dryRun, report);
            } catch (const Failure &failure) { // one bad tree doesn't hinder the others
                complainOfTree(failure, report);
            }
        }
    } catch (const Failure &failure) {
        complainOfTree(failure, report);
    }
}

void syncAll(const SyncArguments &arguments, Report &report) {
    Progress progress;
    const std::vector<std::string> names = shareNames();
    for (const std::string &name : names) {
        try {
            if (!onBtrfs(*requireShare(name))) {
                continue;
            }
            progress.show("share " + printable(name));
            syncOne(name, arguments.dryRun, report);
            ++report.done;
        } catch (const Failure &failure) {
            progress.clear();
            complain(failure.message(), failure.next());
            ++report.failed;
        }
    }
    progress.clear();
    if (!names.empty()) { // no share at all is rather a list that is out of its place
        syncTrees(arguments.dryRun, report);
    }
}

int syncShares(const SyncArguments &arguments, const OutputForm &form) {
    if (arguments.all == !arguments.share.empty()) {
        throw Failure(exitUsage, "sync needs either a share or --all", "sharesnap sync SHARE");
    }
    requireRoot("can't sync");
    Report report;
    if (arguments.all) {
        syncAll(arguments, report);
    } else {
        syncOne(arguments.share, arguments.dryRun, report);
    }
    if (form.json) {
        Json document = newDocument();
        document["dry_run"] = arguments.dryRun;
        document["shares"] = report.shares;
        document["trees"] = report.trees;
        printDocument(document);
    } else {
        report.table.print(form);
    }
    if (report.failed == 0) {
        return report.treesAreTrue ? exitDone : exitInPart;
    }
    return report.done > 0 ? exitInPart : exitFailed;
}

} // namespace

void fillSync(Verb &verb) {
    auto arguments = std::make_shared<SyncArguments>();
    verb.takesOptional("SHARE", arguments->share, "Name of the share")
        .flag("--all", arguments->all, "All shares on Btrfs volumes, and what their trees have left of others")
        .flag("--dry-run", arguments->dryRun,
              "Only tell what would change. With --all a tree of the old form is still converted when it is read")
        .runs([arguments, form = &verb.form()] { return syncShares(*arguments, *form); });
}

} // namespace command
