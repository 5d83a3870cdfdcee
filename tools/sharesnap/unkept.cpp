#include "unkept.h"

#include "failure.h"
#include "share_lookup.h"
#include "subvolume_state.h"
#include "text.h"

#include <sharesnap/config.h>
#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/subvolume.h>

#include <algorithm>
#include <ctime>
#include <unistd.h>

namespace command {
namespace {

struct Unkept {
    std::string path;
    std::string directory; // of the share's snapshots
    std::string description;
};

std::string cantKeep(const std::string &path) {
    return "can't take a snapshot of " + printable(path);
}

std::string snapshotDirectory(const QOVASHARE &share, const std::string &what) {
    char path[pathSize] = "";
    forgetCause();
    if (QOVAShareSnapGetOrCreateSnapDir(&share, path, sizeof(path), 1) != 1) {
        throw libraryFailure(what + ": no directory for it", share, causeNow());
    }
    return path;
}

// True when a snapshot of the list was taken of this subvolume after its last change. The youngest stand at the end.
bool hasSnapshotOf(const SubvolumeState &state, const QOVASHARE &share, const std::string &directory) {
    List names = newList();
    forgetCause();
    if (QOVAShareSnapList(&share, names.address(), nullptr) != 0) {
        throw libraryFailure("can't list the snapshots of " + named(share), share, causeNow());
    }
    const std::vector<std::string> items = itemsOf(names);
    return std::any_of(items.rbegin(), items.rend(), [&](const std::string &name) {
        const std::string path = directory + "/" + name;
        if (QOVABtrfsIsSubVol(path.c_str()) != 1) {
            return false;
        }
        const auto snapshot = stateOf(path);
        return snapshot && snapshot->parent == state.uuid && snapshot->madeIn >= state.generation;
    });
}

// As a snapshot that is taken now is called.
std::string nameByClock(const QOVASHARE &share) {
    char value[64] = "";
    const bool local = QOVAShareSnapConfGet(share.szName, "local_time_format", value, sizeof(value)) == 1 &&
                       std::string(value) == "true";
    char name[64] = "";
    if (SnapNameGenerateByTime(name, sizeof(name), ::time(nullptr), local ? 1U : 0U) != 0) {
        throw Failure(exitFailed, "the clock tells no time by which a snapshot could be named");
    }
    return name;
}

// Takes the snapshot under that name, or tells why not. The section comes first, as when any snapshot is taken: nobody
// else gets the name then.
bool takeAs(const std::string &name, const QOVASHARE &share, const Unkept &unkept, Cause &cause) {
    Hash attributes = newHash();
    setValue(attributes, "desc", unkept.description);
    forgetCause();
    if (QOVAShareSnapDefaultAttr(attributes.address()) < 0 ||
        QOVAShareSnapMetaSectionAdd(&share, name.c_str(), attributes.get()) != 0) {
        cause = causeNow();
        return false;
    }
    forgetCause();
    if (QOVABtrfsReadOnlySnapshotTake(unkept.path.c_str(), (unkept.directory + "/" + name).c_str()) != 0) {
        cause = causeNow();
        (void)SnapMetaSectionDel(&share, name.c_str(), 1); // the next sync takes it away
        return false;
    }
    return true;
}

// What the volume tells of the snapshot goes into its section, and it is counted. What fails here the next sync does.
void complete(const QOVASHARE &share, const std::string &name) {
    Hash facts = newHash();
    if (SnapFillSubvolInfo(&share, name.c_str(), facts.address()) == 0) {
        (void)QOVAShareSnapAttrMultiSet(&share, name.c_str(), facts.get());
    }
    (void)QOVAShareSnapUpdateSnapCountEx(&share, 1, 0);
}

// Two snapshots of a second would have one name.
std::string takeSnapshot(const QOVASHARE &share, const Unkept &unkept) {
    constexpr int attempts = 20;
    constexpr useconds_t pause = 250000;
    for (int attempt = 1;; ++attempt) {
        const std::string name = nameByClock(share);
        Cause cause = {};
        if (takeAs(name, share, unkept, cause)) {
            complete(share, name);
            return name;
        }
        const bool nameIsTaken = cause.code == SNAP_ERR_SECTION_EXISTS || cause.code == SNAP_ERR_ALREADY_EXISTS;
        if (!nameIsTaken || attempt == attempts) {
            throw libraryFailure(cantKeep(unkept.path), share, cause);
        }
        usleep(pause);
    }
}

} // namespace

std::string keepUnkept(const QOVASHARE &share, const std::string &path, std::uint64_t known,
                       const std::string &description) {
    writeOut(path);
    const auto state = stateOf(path);
    if (!state || state->generation <= known || state->generation <= state->madeIn) {
        return "";
    }
    const std::string directory = snapshotDirectory(share, cantKeep(path));
    if (hasSnapshotOf(*state, share, directory)) {
        return "";
    }
    const std::string name = takeSnapshot(share, {path, directory, description});
    // A sync that looked at the volume before takes the new section for one without a snapshot.
    forgetCause();
    if (!hasSnapshot(share, name)) {
        throw libraryFailure("snapshot " + quoted(name) + " of " + printable(path) + " is not in the list any more",
                             share, causeNow());
    }
    return name;
}

} // namespace command
