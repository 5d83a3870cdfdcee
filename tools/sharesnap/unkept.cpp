#include "unkept.h"

#include "failure.h"
#include "share_lookup.h"
#include "subvolume_state.h"
#include "text.h"

#include <sharesnap/config.h>
#include <sharesnap/frame.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/subvolume.h>

#include <algorithm>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

namespace command {
namespace {

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

// Two snapshots of a second would have one name.
std::string takeSnapshot(const QOVASHARE &share, const std::string &path, const std::string &directory) {
    constexpr int attempts = 20;
    constexpr useconds_t pause = 250000;
    for (int attempt = 1;; ++attempt) {
        const std::string name = nameByClock(share);
        const std::string target = directory + "/" + name;
        struct stat status = {};
        const bool taken = lstat(target.c_str(), &status) == 0 || hasSnapshot(share, name);
        forgetCause();
        if (!taken && QOVABtrfsReadOnlySnapshotTake(path.c_str(), target.c_str()) == 0) {
            return name;
        }
        const Cause cause = causeNow();
        if ((!taken && cause.code != SNAP_ERR_ALREADY_EXISTS) || attempt == attempts) {
            throw libraryFailure(cantKeep(path), share, cause);
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
    const std::string name = takeSnapshot(share, path, directory);
    // It comes into the list like any snapshot that the list lacks.
    forgetCause();
    if (QOVAShareSnapMetaSync(&share) != 0 || !hasSnapshot(share, name)) {
        throw libraryFailure("snapshot " + quoted(name) + " of " + printable(path) + " can't be put into the list",
                             share, causeNow());
    }
    (void)QOVAShareSnapAttrSet(&share, name.c_str(), "desc", description.c_str()); // it has one that says less
    return name;
}

} // namespace command
