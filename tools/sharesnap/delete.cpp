// sharesnap delete: deletes snapshots, with one result for each.
#include "actor.h"
#include "failure.h"
#include "holds.h"
#include "notice.h"
#include "progress.h"
#include "share_lookup.h"
#include "snapshots.h"
#include "text.h"
#include "times.h"
#include "verbs.h"
#include "volume_tree.h"

#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/error.h>

#include <algorithm>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <memory>
#include <set>
#include <sys/ioctl.h>
#include <unistd.h>

namespace command {
namespace {

struct DeleteArguments {
    std::string share;
    std::vector<std::string> snapshots;
    std::string olderThan;
    std::vector<std::string> attributes;
    bool hidden = false;
    bool dryRun = false;
    bool wait = false;
};

// What became of one snapshot.
struct Outcome {
    std::string snapshot;
    int code = SNAP_ERR_OPERATION_FAILED; // of the multi-result; 0 deleted
    std::vector<Hold> holds;
    std::string reason; // of a failed one; of a held one, why its holders can't be told
};

// Each batch rewrites the share's list once. Between two of them progress can be shown and others get their turn.
constexpr size_t batchSize = 256;
constexpr size_t eventTextMost = 1000;

std::string theShare(const QOVASHARE &share) {
    return "can't delete snapshots of " + named(share);
}

std::vector<std::string> withoutRepeats(const std::vector<std::string> &names) {
    std::set<std::string> seen;
    std::vector<std::string> once;
    std::copy_if(names.begin(), names.end(), std::back_inserter(once),
                 [&seen](const std::string &name) { return seen.insert(name).second; });
    return once;
}

std::vector<std::string> chooseNames(const QOVASHARE &share, const DeleteArguments &arguments) {
    if (!arguments.snapshots.empty()) {
        return withoutRepeats(arguments.snapshots);
    }
    Selection selection;
    selection.keys = {"hide"}; // only the names are wanted
    selection.hidden = arguments.hidden;
    selection.attributes = arguments.attributes;
    if (!arguments.olderThan.empty()) {
        selection.until = ::time(nullptr) - parseDuration("--older-than", arguments.olderThan);
    }
    std::vector<std::string> names;
    for (const Snapshot &snapshot : gatherSnapshots(share, selection)) {
        names.push_back(snapshot.name);
    }
    return names;
}

void checkArguments(const DeleteArguments &arguments) {
    const bool filters = !arguments.olderThan.empty() || !arguments.attributes.empty();
    if (arguments.snapshots.empty() && !filters) {
        throw Failure(exitUsage, "no snapshot of share " + quoted(arguments.share) + " is named",
                      "name snapshots, or choose them with --older-than or --attr");
    }
    if (!arguments.snapshots.empty() && filters) {
        throw Failure(exitUsage, "names don't go together with --older-than and --attr", "give the one or the other");
    }
    if (!arguments.olderThan.empty()) {
        (void)parseDuration("--older-than", arguments.olderThan); // it throws before anything is looked at
    }
    checkAttributeFilters(arguments.attributes);
}

std::string reasonOf(const QOVASHARE &share, Cause cause) {
    const std::string whole = libraryFailure("", share, cause).message();
    return whole.substr(whole.find_first_not_of(": "));
}

// What was deleted is yet to be told, whatever becomes of the holders' names.
void addHolders(const QOVASHARE &share, Outcome &outcome) {
    try {
        outcome.holds = holdsOf(share, outcome.snapshot);
    } catch (const Failure &failure) {
        outcome.reason = failure.message();
    }
}

// A share that never had a snapshot has no list, without which the library deletes nothing: a name that isn't on the
// volume either is unknown then.
bool isUnknown(const QOVASHARE &share, const std::string &snapshot) {
    char path[pathSize] = "";
    return SnapMetaGetOrCreateFile(&share, path, sizeof(path), 0) == 0 &&
           QOVAShareSnapGetSnapPath(&share, snapshot.c_str(), path, sizeof(path)) == 0;
}

std::string heldText(const Outcome &outcome) {
    return outcome.holds.empty() ? "held" : "held by " + holdsText(outcome.holds);
}

std::vector<Outcome> deleteBatch(const QOVASHARE &share, const std::vector<std::string> &names) {
    const List list = listOf(names);
    Results results = newResults();
    forgetCause();
    const int result = QOVAShareSnapDelete(&share, list.get(), results.address());
    const std::string reason = result == 0 ? "" : reasonOf(share, causeNow());
    std::vector<Outcome> outcomes;
    for (size_t i = 0; i < names.size(); ++i) {
        Outcome outcome;
        outcome.snapshot = names[i];
        // An entry that can't be read counts as a failed delete.
        (void)QLIBCMResultGetCoreErrorByIndex(results.get(), static_cast<int>(i), &outcome.code);
        if (outcome.code == SNAP_RESULT_LOCKED) {
            addHolders(share, outcome);
        } else if (outcome.code != 0 && isUnknown(share, outcome.snapshot)) {
            outcome.code = SNAP_RESULT_NOT_FOUND;
        } else if (outcome.code != 0) {
            outcome.reason = reason;
        }
        outcomes.push_back(std::move(outcome));
    }
    return outcomes;
}

// The event names the snapshots as far as there is room.
void writeEvent(const QOVASHARE &share, const std::string &actor, const std::vector<Outcome> &outcomes, bool deleted) {
    std::string names;
    size_t more = 0;
    for (const Outcome &outcome : outcomes) {
        if ((outcome.code == 0) != deleted) {
            continue;
        }
        if (names.size() + outcome.snapshot.size() > eventTextMost) {
            ++more;
        } else {
            names += (names.empty() ? "" : ", ") + outcome.snapshot;
        }
    }
    if (names.empty() && more == 0) {
        return;
    }
    names += more > 0 ? " and " + std::to_string(more) + " more" : "";
    if (QOVAShareSnapDeleteLogSet(&share, actor.c_str(), names.c_str(), deleted ? 1 : 0) != 0) {
        complain("no event could be written for the delete in " + named(share));
    }
}

std::vector<Outcome> deleteAll(const QOVASHARE &share, const std::vector<std::string> &names) {
    const std::string actor = actorName();
    std::vector<Outcome> outcomes;
    Progress progress;
    for (size_t start = 0; start < names.size(); start += batchSize) {
        const size_t end = std::min(names.size(), start + batchSize);
        progress.show("deleting " + std::to_string(start + 1) + " to " + std::to_string(end) + " of " +
                      std::to_string(names.size()) + " snapshots");
        const std::vector<std::string> batch(names.begin() + static_cast<std::ptrdiff_t>(start),
                                             names.begin() + static_cast<std::ptrdiff_t>(end));
        for (Outcome &outcome : deleteBatch(share, batch)) {
            outcomes.push_back(std::move(outcome));
        }
    }
    writeEvent(share, actor, outcomes, true);
    writeEvent(share, actor, outcomes, false);
    return outcomes;
}

const char *resultWord(const Outcome &outcome) {
    switch (outcome.code) {
    case 0:
        return "deleted";
    case SNAP_RESULT_LOCKED:
        return "held";
    case SNAP_RESULT_NOT_FOUND:
        return "not found";
    default:
        return "failed";
    }
}

int statusOf(const std::vector<Outcome> &outcomes) {
    const auto count = [&outcomes](int code) {
        return std::count_if(outcomes.begin(), outcomes.end(), [code](const Outcome &o) { return o.code == code; });
    };
    const auto all = static_cast<std::ptrdiff_t>(outcomes.size());
    if (count(0) == all) {
        return exitDone;
    }
    if (count(0) > 0) {
        return exitInPart;
    }
    if (count(SNAP_RESULT_NOT_FOUND) == all) {
        return exitNotFound;
    }
    return count(SNAP_RESULT_LOCKED) > 0 ? exitRefused : exitFailed;
}

void explain(const QOVASHARE &share, const Outcome &outcome) {
    const std::string what = "can't delete snapshot " + quoted(outcome.snapshot) + " of " + named(share) + ": ";
    const std::string name = printable(share.szName);
    switch (outcome.code) {
    case 0:
        return;
    case SNAP_RESULT_LOCKED: {
        const std::string holder = outcome.holds.empty() ? "HOLDER" : printable(outcome.holds.front().holder);
        complain(what + "it is " + heldText(outcome) + " [SNAP_RESULT_LOCKED]" +
                     (outcome.reason.empty() ? "" : "; " + outcome.reason),
                 "let the holder end, or `sharesnap hold release " + name + " " + printable(outcome.snapshot) + " " +
                     holder + " --all`");
        return;
    }
    case SNAP_RESULT_NOT_FOUND:
        complain(what + "there is no such snapshot [SNAP_RESULT_NOT_FOUND]",
                 "`sharesnap list " + name + " --hidden` shows those there are; if it stands there, `sharesnap sync " +
                     name + "`");
        return;
    default:
        complain(what + outcome.reason, "the system log tells more: journalctl -t sharesnap; `sharesnap sync " + name +
                                            "` puts list and volume together again");
    }
}

Json outcomeDocument(const Outcome &outcome) {
    Json entry = Json::object();
    entry["name"] = outcome.snapshot;
    entry["result"] = resultWord(outcome);
    if (outcome.code == SNAP_RESULT_LOCKED) {
        entry["holds"] = holdsDocument(outcome.holds);
    } else if (outcome.code == SNAP_ERR_OPERATION_FAILED) {
        entry["reason"] = outcome.reason;
    }
    return entry;
}

void printOutcomes(const QOVASHARE &share, const std::vector<Outcome> &outcomes, const OutputForm &form) {
    if (form.json) {
        Json document = newDocument();
        document["share"] = share.szName;
        document["results"] = Json::array();
        for (const Outcome &outcome : outcomes) {
            document["results"].push_back(outcomeDocument(outcome));
        }
        printDocument(document);
    } else {
        Table table({"SNAPSHOT", "RESULT"});
        for (const Outcome &outcome : outcomes) {
            const bool held = outcome.code == SNAP_RESULT_LOCKED;
            table.addRow({outcome.snapshot, held ? heldText(outcome) : resultWord(outcome)});
        }
        table.print(form);
    }
    for (const Outcome &outcome : outcomes) {
        explain(share, outcome);
    }
}

// The file system would begin on its own within half a minute.
void urgeFileSystem(const QOVASHARE &share) {
    const std::string volume = volumeOf(share, "can't wait for");
    const int directory = open(volume.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory >= 0) {
        (void)ioctl(directory, BTRFS_IOC_SYNC); // without it the wait is longer, that's all
        (void)close(directory);                 // it was only read
    }
}

void waitForFileSystem(const QOVASHARE &share) {
    constexpr useconds_t pause = 200000;
    constexpr int patience = 600; // pauses without progress: two minutes
    urgeFileSystem(share);
    Progress progress;
    uint32_t before = 0;
    for (int waited = 0;; ++waited) {
        uint32_t count = 0;
        forgetCause();
        if (QOVAShareSnapDeletingCountGet(share.szPath, &count) < 0) {
            throw libraryFailure("the snapshots are deleted, but how far the file system has come with " +
                                     named(share) + " can't be told",
                                 share, causeNow());
        }
        if (count == 0) {
            return;
        }
        if (count != before) {
            before = count;
            waited = 0;
        } else if (waited >= patience) {
            throw Failure(exitInPart,
                          "the snapshots are deleted, but the file system makes no progress with " +
                              std::to_string(count) + " of " + named(share),
                          "see who has files in them open (lsof), or don't wait");
        }
        progress.show("the file system is cleaning up " + std::to_string(count) +
                      (count == 1 ? " snapshot" : " snapshots"));
        usleep(pause);
    }
}

// The same checks as for a real delete, without one.
std::vector<Outcome> foresee(const QOVASHARE &share, const std::vector<std::string> &names) {
    std::vector<Outcome> outcomes;
    for (const std::string &name : names) {
        Outcome outcome;
        outcome.snapshot = name;
        outcome.code = hasSnapshot(share, name) ? 0 : +SNAP_RESULT_NOT_FOUND;
        outcome.holds = holdsOf(share, name);
        if (!outcome.holds.empty()) {
            outcome.code = SNAP_RESULT_LOCKED;
        }
        outcomes.push_back(std::move(outcome));
    }
    return outcomes;
}

// Snapshots that should have gone and stand are worth a notification; a held or unknown one is the caller's affair.
void notifyOfFailures(const QOVASHARE &share, const std::vector<Outcome> &outcomes) {
    const auto failed = std::find_if(outcomes.begin(), outcomes.end(),
                                     [](const Outcome &outcome) { return outcome.code == SNAP_ERR_OPERATION_FAILED; });
    if (failed != outcomes.end()) {
        sendNotice(noticeDeleteFailed, share, "snapshot " + failed->snapshot + ": " + failed->reason);
    }
}

// The tree loses what was deleted. True when it is true again.
bool forgetInTree(const QOVASHARE &share, const std::vector<Outcome> &outcomes) {
    std::vector<std::string> gone;
    for (const Outcome &outcome : outcomes) {
        if (outcome.code == 0) {
            gone.push_back(outcome.snapshot);
        }
    }
    return gone.empty() || treeSnapshotsDeleted(share, gone);
}

int deleteSnapshots(const DeleteArguments &arguments, const OutputForm &form) {
    checkArguments(arguments);
    requireRoot("can't delete snapshots of share " + quoted(arguments.share));
    const Share share = requireBtrfsShare(arguments.share, "can't delete snapshots of");
    requireDataSubvolume(*share, "can't delete snapshots of");
    const std::vector<std::string> names = chooseNames(*share, arguments);
    if (arguments.dryRun) {
        const std::vector<Outcome> outcomes = foresee(*share, names);
        printOutcomes(*share, outcomes, form);
        if (!form.json) {
            complain("nothing was deleted: this was a dry run");
        }
        return statusOf(outcomes);
    }
    if (arguments.snapshots.empty() && names.empty()) {
        complain(theShare(*share) + ": none is that old or has such attributes");
    }
    const std::vector<Outcome> outcomes = deleteAll(*share, names);
    const bool treeIsTrue = forgetInTree(*share, outcomes);
    notifyOfFailures(*share, outcomes);
    printOutcomes(*share, outcomes, form);
    if (arguments.wait) {
        waitForFileSystem(*share);
    }
    const int status = statusOf(outcomes);
    return status == exitDone && !treeIsTrue ? +exitInPart : status;
}

} // namespace

void fillDelete(Verb &verb) {
    auto arguments = std::make_shared<DeleteArguments>();
    verb.takes("SHARE", arguments->share, "Name of the share")
        .takesMany("SNAPSHOT", arguments->snapshots, "Names of the snapshots")
        .option("--older-than", arguments->olderThan, "DURATION", "Instead of names: all older than 12h, 30d, 2w")
        .options("--attr", arguments->attributes, "FILTER",
                 "Instead of names: all with this attribute (key, key=part, key==value, !FILTER); may be repeated")
        .flag("--hidden", arguments->hidden, "Choose among hidden snapshots, too")
        .flag("--dry-run", arguments->dryRun, "Only tell what would become of each")
        .flag("--wait", arguments->wait, "Wait until the file system has cleaned up")
        .runs([arguments, form = &verb.form()] { return deleteSnapshots(*arguments, *form); });
}

} // namespace command
