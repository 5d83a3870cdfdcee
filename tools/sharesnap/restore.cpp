// sharesnap restore: brings a share's data back to one of its snapshots.
#include "actor.h"
#include "failure.h"
#include "move_lock.h"
#include "share_lookup.h"
#include "text.h"
#include "verbs.h"
#include "volume_tree.h"

#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/subvolume.h>

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
    char path[4096] = "";
    if (QOVAShareSnapGetSnapPath(&share, snapshot.c_str(), path, sizeof(path)) != 1) {
        throw Failure(exitNotFound, what + ": snapshot " + quoted(snapshot) + " is not at " + printable(path),
                      "`sharesnap sync " + printable(share.szName) + "` takes it from the list");
    }
    return path;
}

// A writable copy of the snapshot, beside the share, so that both can change places in one step. It goes with its owner;
// one that an interrupted restore left goes before a new one is made.
class StandIn {
public:
    StandIn(const QOVASHARE &share, const std::string &volume)
        : share_(share), path_(volume + "/@restore-" + share.szName) {}
    ~StandIn() {
        if (stands_) {
            (void)remove(); // a copy of a snapshot: the failure that is told is another one
        }
    }
    StandIn(const StandIn &) = delete;
    StandIn &operator=(const StandIn &) = delete;

    [[nodiscard]] const std::string &path() const { return path_; }

    void make(const std::string &source, const std::string &what) {
        forgetCause();
        if (!remove()) {
            throw libraryFailure(what + ": can't remove " + printable(path_), share_, causeNow());
        }
        forgetCause();
        if (QOVABtrfsSnapshotTake(source.c_str(), path_.c_str()) != 0) {
            throw libraryFailure(what + ": no copy of the snapshot at " + printable(path_), share_, causeNow());
        }
        stands_ = true;
    }

    // The copy and the share change names in one system call: there is no moment without the share. 0, or errno.
    [[nodiscard]] int exchange() {
        const std::string data = dataPath(share_);
        const bool done = renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, data.c_str(), RENAME_EXCHANGE) == 0;
        return done ? 0 : errno;
    }

    bool remove() {
        stands_ = false;
        return QOVABtrfsDeleteSubvolFaultTolerant(path_.c_str()) == 0;
    }

private:
    const QOVASHARE &share_;
    std::string path_;
    bool stands_ = false;
};

std::string keepPresent(const QOVASHARE &share, const std::string &snapshot, const std::string &what) {
    Hash attributes = newHash();
    setValue(attributes, "desc", "before the restore to " + snapshot);
    char name[4096] = "";
    forgetCause();
    if (ShareSnapCreateNameConflictRetry(&share, name, sizeof(name), attributes.address(), retries) != 0) {
        throw libraryFailure(what + ": its present state can't be kept as a snapshot", share, causeNow());
    }
    return name;
}

// True when the tree is true afterwards.
bool tellOfKept(const QOVASHARE &share, const std::string &kept) {
    (void)QOVAShareSnapCreateLogSet(&share, kept.c_str(), actorName().c_str(),
                                    1); // an event that can't be written changes nothing
    return treeSnapshotTaken(share, kept);
}

int restoreShare(const RestoreArguments &arguments, const OutputForm &form) {
    const std::string task = "can't restore";
    requireRoot(task + " share " + quoted(arguments.share));
    const MoveLock lock(MoveLock::alone);
    const Share share = requireBtrfsShare(arguments.share, task);
    requireDataSubvolume(*share, task);
    const std::string what = task + " " + named(*share);
    const std::string volume = volumeOf(*share, task);
    const std::string source = snapshotPath(*share, arguments.snapshot, what);
    requireLocked(*share, what);
    requireNothingNested(*share, volume, what);

    // The copy comes first: what is written between the snapshot of the present and the exchange is in no snapshot.
    StandIn standIn(*share, volume);
    standIn.make(source, what);
    const std::string kept = keepPresent(*share, arguments.snapshot, what);
    const int error = standIn.exchange();
    bool treeIsTrue = tellOfKept(*share, kept);
    if (error != 0) {
        throw Failure(exitFailed, what + ": " + printable(standIn.path()) + " and " + printable(dataPath(*share)) +
                                      " can't change places: " + std::strerror(error));
    }
    treeIsTrue = treeShareRestored(*share, arguments.snapshot) && treeIsTrue;
    const bool removed = standIn.remove();
    if (!removed) {
        complain("the share is restored, but what was there before still stands at " + printable(standIn.path()),
                 "remove it with: btrfs subvolume delete " + printable(standIn.path()));
    }
    if (form.json) {
        Json document = newDocument();
        document["share"] = share->szName;
        document["restored"] = arguments.snapshot;
        document["kept"] = kept;
        printDocument(document);
    } else {
        print("restored to " + printable(arguments.snapshot) + "; what was there is kept as " + printable(kept) + "\n");
    }
    return treeIsTrue && removed ? exitDone : exitInPart;
}

} // namespace

void fillRestore(Verb &verb) {
    auto arguments = std::make_shared<RestoreArguments>();
    verb.takes("SHARE", arguments->share, "Name of the share")
        .takes("SNAPSHOT", arguments->snapshot, "Name of the snapshot to go back to")
        .runs([arguments, form = &verb.form()] { return restoreShare(*arguments, *form); });
}

} // namespace command
