// sharesnap share remove --data: a share goes with its files and all its snapshots.
#include "failure.h"
#include "holds.h"
#include "rename_guard.h"
#include "share_admin.h"
#include "share_lookup.h"
#include "stand_in.h"
#include "subvolume_state.h"
#include "text.h"
#include "volume_tree.h"

#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/share_admin.h>
#include <sharesnap/platform/subvolume.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace command {
namespace {

std::vector<std::string> snapshotsOnVolume(const QOVASHARE &share, const std::string &what) {
    List names = newList();
    forgetCause();
    if (BtrfsListSnaps(&share, names.address()) < 0) {
        throw libraryFailure(what + ": its volume can't be read", share, causeNow());
    }
    return itemsOf(names);
}

// What goes.
struct Doomed {
    Share share;
    std::string what;
    std::string volume;
    std::string data;
    bool dataStand; // or an earlier attempt took them
    std::optional<SubvolumeState> state;
    std::vector<std::string> snapshots;
    bool standIn; // what a restore left, too
};

// Snapshots go before the data. So an earlier attempt took the data only where nothing stands, and no snapshot is left.
bool takenBefore(const Doomed &doomed) {
    struct stat status = {};
    if (lstat(doomed.data.c_str(), &status) == 0 || errno != ENOENT) {
        return false;
    }
    if (!doomed.snapshots.empty()) {
        throw Failure(exitRefused,
                      doomed.what + ": nothing stands at " + printable(doomed.data) + ", but its snapshots are there",
                      "put the data back, or make a subvolume there, which goes with the snapshots then");
    }
    return true;
}

Doomed lookAt(const std::string &name) {
    Doomed doomed = {requireBtrfsShare(name, "can't remove"), {}, {}, {}, false, {}, {}, false};
    const QOVASHARE &share = *doomed.share;
    doomed.what = "can't remove " + named(share);
    requireLocked(share, doomed.what);
    doomed.volume = volumeOf(share, "can't remove");
    doomed.data = dataPath(share);
    doomed.snapshots = snapshotsOnVolume(share, doomed.what);
    std::sort(doomed.snapshots.begin(), doomed.snapshots.end());
    if (!takenBefore(doomed)) {
        requireDataSubvolume(share, "can't remove");
        doomed.dataStand = true;
        doomed.state = stateOf(doomed.data);
    }
    doomed.standIn = standInIsLeft(doomed.volume, share.szName);
    return doomed;
}

// Said before anything goes.
void announce(const Doomed &doomed) {
    const QOVASHARE &share = *doomed.share;
    const size_t count = doomed.snapshots.size();
    complain(named(share) + " goes: all its files at " + printable(doomed.data) + ", " + std::to_string(count) +
             (count == 1 ? " snapshot" : " snapshots") + ", its settings, its record");
    if (doomed.standIn) {
        complain(standInText(doomed.volume, share.szName) + ", and goes, too");
    }
    for (const std::string &snapshot : doomed.snapshots) {
        const std::vector<Hold> holds = holdsOf(share, snapshot);
        if (!holds.empty()) {
            complain("snapshot " + quoted(snapshot) + " is held by " + holdsText(holds));
        }
    }
}

// Who was asked may have taken his time.
void requireSame(const Doomed &announced, const Doomed &now) {
    const auto uuid = [](const Doomed &doomed) {
        return doomed.state ? doomed.state->uuid : decltype(doomed.state->uuid){};
    };
    if (now.data != announced.data || now.dataStand != announced.dataStand || uuid(now) != uuid(announced) ||
        now.snapshots != announced.snapshots || now.standIn != announced.standIn) {
        throw Failure(exitRefused, now.what + ": it isn't what was announced any more",
                      "remove it again to see what goes now");
    }
}

void requireConsent(const ShareRemoval &removal) {
    if (removal.yes) {
        return;
    }
    if (isatty(STDIN_FILENO) == 0) {
        throw Failure(exitRefused, "share " + quoted(removal.name) + " stays: nobody can be asked",
                      "say --yes if it is to go");
    }
    std::cerr << "Type the share's name to go on: " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    if (answer != removal.name) {
        throw Failure(exitRefused, "share " + quoted(removal.name) + " stays");
    }
}

void removeStandIn(const Doomed &doomed) {
    const std::string path = standInPath(doomed.volume, doomed.share->szName);
    forgetCause();
    if (doomed.standIn && QOVABtrfsDeleteSubvolFaultTolerant(path.c_str()) < 0) {
        const Failure failure = libraryFailure(doomed.what + ": " + printable(path), *doomed.share, causeNow());
        throw Failure(failure.exitStatus(), failure.message(), howToSettleStandIn(doomed.volume, doomed.share->szName));
    }
}

// The subvolume of an encrypted share is its back end; its path is a mount point, empty while the share is locked.
void removeData(const Doomed &doomed) {
    const QOVASHARE &share = *doomed.share;
    const std::string &what = doomed.what;
    const std::string &data = doomed.data;
    if (isEncrypted(share) && rmdir(share.szPath) != 0 && errno != ENOENT) {
        throw Failure(exitFailed,
                      what + ": can't remove the mount point " + printable(share.szPath) + ": " + std::strerror(errno));
    }
    if (!doomed.dataStand) { // only the list can be left
        if (SnapMetaFileDelete(&share) != 0) {
            throw libraryFailure(what + ": its list of snapshots", share, causeNow());
        }
        return;
    }
    forgetCause();
    if (QOVAShareSnapDataDelete(share.szPath) != 0) {
        throw libraryFailure(what, share, causeNow());
    }
    forgetCause();
    if (isEncrypted(share) && QOVABtrfsDeleteSubvolFaultTolerant(data.c_str()) < 0) {
        throw libraryFailure(what + ": " + printable(data), share, causeNow());
    }
}

} // namespace

// The record goes last, so that an interrupted removal can be taken up again. What the tree has of the share then is
// what a sync of all shares takes out.
int eraseShare(const ShareRemoval &removal) {
    requireRoot("can't remove share " + quoted(removal.name));
    const Doomed announced = lookAt(removal.name);
    announce(announced);
    requireConsent(removal);
    const SettledNames settled({removal.name}); // not while somebody makes up his mind
    const Doomed doomed = lookAt(removal.name);
    if (!removal.yes) {
        requireSame(announced, doomed);
    }
    const QOVASHARE &share = *doomed.share;
    removeStandIn(doomed);
    removeData(doomed);
    forgetCause();
    if (QOVAShareSnapConfigDelete(share.szPath) != 0) {
        throw libraryFailure(doomed.what + ": its settings", share, causeNow());
    }
    forgetCause();
    if (ShareSnapSysLockShareDeleteHook(share.szName) != 0) {
        throw libraryFailure(doomed.what + ": its holds", share, causeNow());
    }
    forgetCause();
    if (QOVAShareRecordRemove(share.szName) != 0) {
        throw libraryFailure(doomed.what + ": its record", share, causeNow());
    }
    return treeShareRemoved(doomed.volume, share.szName) ? exitDone : exitInPart;
}

} // namespace command
