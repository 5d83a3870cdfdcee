// sharesnap restore: brings a share's data back to one of its snapshots.
#include "actor.h"
#include "failure.h"
#include "move_lock.h"
#include "rename_guard.h"
#include "share_lookup.h"
#include "stand_in.h"
#include "subvolume_state.h"
#include "text.h"
#include "unkept.h"
#include "verbs.h"
#include "volume_tree.h"

#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/quota.h>
#include <sharesnap/platform/subvolume.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace command {
namespace {

struct RestoreArguments {
    std::string share;
    std::string snapshot;
};

constexpr unsigned int retries = 10;

// Subvolumes within the share are in no snapshot of it: they would be lost.
void requireNothingNested(const QOVASHARE &share, const std::string &volume, const std::string &what) {
    List all = newList();
    forgetCause();
    if (SnapMetaSyncBtrfsListVol(volume.c_str(), all.address()) < 0) {
        throw libraryFailure(what + ": the volume " + printable(volume) + " can't be read", share, causeNow());
    }
    const std::string prefix = dataPath(share).substr(volume.size() + 1) + "/";
    for (const std::string &path : itemsOf(all)) {
        if (path.compare(0, prefix.size(), prefix) == 0) {
            throw Failure(exitRefused, what + ": a subvolume lies in it, which no snapshot holds: " + printable(path),
                          "move it out of the share first");
        }
    }
}

std::string snapshotPath(const QOVASHARE &share, const std::string &snapshot, const std::string &what) {
    (void)requireSnapshot(share, snapshot); // its absence is what is wanted
    char path[pathSize] = "";
    if (QOVAShareSnapGetSnapPath(&share, snapshot.c_str(), path, sizeof(path)) != 1) {
        throw Failure(exitNotFound, what + ": snapshot " + quoted(snapshot) + " is not at " + printable(path),
                      "`sharesnap sync " + printable(share.szName) + "` takes it from the list");
    }
    return path;
}

// A writable copy of the snapshot, beside the share, so that both can change places in one step. Until then it goes with
// its owner; afterwards it is what was in the share before.
class StandIn {
public:
    StandIn(const QOVASHARE &share, const std::string &volume)
        : share_(share), path_(standInPath(volume, share.szName)) {}
    ~StandIn() {
        if (isCopy_) {
            (void)remove(); // the failure that is told is another one
        }
    }
    StandIn(const StandIn &) = delete;
    StandIn &operator=(const StandIn &) = delete;

    [[nodiscard]] const std::string &path() const { return path_; }

    // One that an interrupted restore left goes. If something is in it that no snapshot holds, that is kept: the name of
    // a snapshot, or empty.
    void removeOld(const std::string &what, std::string &kept) {
        if (QOVABtrfsIsSubVol(path_.c_str()) == 1) {
            kept = keepUnkept(share_, path_, 0, "left by an interrupted restore");
        }
        forgetCause();
        if (!remove()) {
            throw libraryFailure(what + ": can't remove " + printable(path_), share_, causeNow());
        }
    }

    // The copy is limited like the share: its qgroup is a new one.
    void make(const std::string &source, const std::string &what) {
        forgetCause();
        if (QOVABtrfsSnapshotTake(source.c_str(), path_.c_str()) != 0) {
            throw libraryFailure(what + ": no copy of the snapshot at " + printable(path_), share_, causeNow());
        }
        isCopy_ = true;
        QOVASHAREQUOTA quota = {};
        forgetCause();
        if (QOVAQuotaShareQuotaGet(&share_, &quota) != 0) {
            throw libraryFailure(what + ": can't read its quota", share_, causeNow());
        }
        if (quota.ullLimit > 0) {
            limitSize(path_, quota.ullLimit);
        }
    }

    // The copy and the share change names in one system call: there is no moment without the share.
    void exchange(const std::string &what) {
        const std::string data = dataPath(share_);
        if (renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, data.c_str(), RENAME_EXCHANGE) != 0) {
            throw Failure(exitFailed, what + ": " + printable(path_) + " and " + printable(data) +
                                          " can't change places: " + std::strerror(errno));
        }
        isCopy_ = false;
    }

    bool remove() {
        isCopy_ = false;
        return QOVABtrfsDeleteSubvolFaultTolerant(path_.c_str()) == 0;
    }

private:
    const QOVASHARE &share_;
    std::string path_;
    bool isCopy_ = false;
};

std::string keepPresent(const QOVASHARE &share, const std::string &snapshot, const std::string &what) {
    Hash attributes = newHash();
    setValue(attributes, "desc", "before the restore to " + snapshot);
    char name[pathSize] = "";
    forgetCause();
    if (ShareSnapCreateNameConflictRetry(&share, name, sizeof(name), attributes.address(), retries) != 0) {
        throw libraryFailure(what + ": its present state can't be kept as a snapshot", share, causeNow());
    }
    return name;
}

// The creation of a snapshot of an encrypted share changes its back end once more when the snapshot has been taken. While
// such a share is locked nobody else does: the generation to begin with is that of the creation's end.
std::uint64_t generationKept(const QOVASHARE &share, const std::string &what) {
    if (!isEncrypted(share)) {
        return 0;
    }
    const std::string data = dataPath(share);
    writeOut(data);
    const auto state = stateOf(data);
    requireLocked(*requireShare(share.szName), what); // who has mounted it meanwhile may have written to it
    return state ? state->generation : 0;
}

// The snapshots that a restore took; empty names are of none.
struct Taken {
    std::string left;    // of what an interrupted restore left
    std::string present; // of the share as it was
    std::string late;    // of what was written to it after that

    [[nodiscard]] std::vector<std::string> later() const { return namesOf({left, late}); }
    [[nodiscard]] std::vector<std::string> all() const { return namesOf({left, late, present}); }

private:
    static std::vector<std::string> namesOf(std::vector<std::string> names) {
        names.erase(std::remove(names.begin(), names.end(), ""), names.end());
        return names;
    }
};

// What was in the share goes, but for what was written to it after its snapshot had been taken: that is kept in another
// one. First nobody is let in any more. False when it stays where it is.
bool putAway(StandIn &standIn, const QOVASHARE &share, std::uint64_t known, Taken &taken) {
    try {
        makeReadOnly(standIn.path());
        taken.late = keepUnkept(share, standIn.path(), known, "written during a restore");
    } catch (const Failure &failure) {
        complain("the share is restored, but what was there before still stands at " + printable(standIn.path()) +
                     ", with what was written to it meanwhile: " + failure.message(),
                 "the next restore of the share tries again to keep it in a snapshot");
        return false;
    }
    if (!standIn.remove()) {
        complain("the share is restored, but what was there before still stands at " + printable(standIn.path()),
                 "remove it with: btrfs subvolume delete " + printable(standIn.path()));
        return false;
    }
    return true;
}

// True when the tree is true afterwards.
bool tellOfTaken(const QOVASHARE &share, const Taken &taken) {
    bool treeIsTrue = true;
    for (const std::string &name : taken.all()) {
        (void)QOVAShareSnapCreateLogSet(&share, name.c_str(), actorName().c_str(),
                                        1); // an event that can't be written changes nothing
        treeIsTrue = treeSnapshotTaken(share, name) && treeIsTrue;
    }
    return treeIsTrue;
}

// The snapshots that were taken stay when the restore fails.
Failure withTaken(const Failure &failure, const Taken &taken) {
    std::string text = failure.message();
    for (const std::string &name : taken.all()) {
        text += "; snapshot " + quoted(name) + " holds " +
                (name == taken.left ? "what an interrupted restore left" : "the share as it is");
    }
    return {failure.exitStatus(), text, failure.next()};
}

void printResult(const RestoreArguments &arguments, const Taken &taken, const OutputForm &form) {
    if (form.json) {
        Json document = newDocument();
        document["share"] = arguments.share;
        document["restored"] = arguments.snapshot;
        document["kept"] = taken.present;
        document["kept_later"] = Json::array();
        for (const std::string &name : taken.later()) {
            document["kept_later"].push_back(name);
        }
        printDocument(document);
        return;
    }
    print("restored to " + printable(arguments.snapshot) + "; what was there is kept as " + printable(taken.present) +
          "\n");
    if (!taken.left.empty()) {
        print("what an interrupted restore left is kept as " + printable(taken.left) + "\n");
    }
    if (!taken.late.empty()) {
        print("what was written during a restore is kept as " + printable(taken.late) + "\n");
    }
}

int restoreShare(const RestoreArguments &arguments, const OutputForm &form) {
    const std::string task = "can't restore";
    requireRoot(task + " share " + quoted(arguments.share));
    const MoveLock lock(MoveLock::alone);
    requireNoInterruptedRename({arguments.share});
    const Share share = requireBtrfsShare(arguments.share, task);
    requireDataSubvolume(*share, task);
    const std::string what = task + " " + named(*share);
    const std::string volume = volumeOf(*share, task);
    const std::string source = snapshotPath(*share, arguments.snapshot, what);
    requireLocked(*share, what);
    requireNothingNested(*share, volume, what);

    StandIn standIn(*share, volume);
    Taken taken;
    std::uint64_t known = 0;
    // The copy comes first, and the tree, which may have to be waited for, last: the less time passes between the
    // snapshot of the present and the exchange, the less is written that this snapshot doesn't hold.
    try {
        standIn.removeOld(what, taken.left);
        standIn.make(source, what);
        taken.present = keepPresent(*share, arguments.snapshot, what);
        known = generationKept(*share, what);
        standIn.exchange(what);
    } catch (const Failure &failure) {
        (void)tellOfTaken(*share, taken); // the failure that is told is the restore's
        throw withTaken(failure, taken);
    }
    const bool putAwayWhole = putAway(standIn, *share, known, taken);
    bool treeIsTrue = tellOfTaken(*share, taken);
    treeIsTrue = treeShareRestored(*share, arguments.snapshot) && treeIsTrue;
    printResult(arguments, taken, form);
    return treeIsTrue && putAwayWhole ? exitDone : exitInPart;
}

} // namespace

void fillRestore(Verb &verb) {
    auto arguments = std::make_shared<RestoreArguments>();
    verb.takes("SHARE", arguments->share, "Name of the share")
        .takes("SNAPSHOT", arguments->snapshot,
               "Name of the snapshot to go back to. The share's quota stays, not its membership in other qgroups")
        .runs([arguments, form = &verb.form()] { return restoreShare(*arguments, *form); });
}

} // namespace command
