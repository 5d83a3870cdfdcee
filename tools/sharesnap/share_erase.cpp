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
    std::optional<SubvolumeState> state; // of the data; nothing when an earlier attempt took them
    std::vector<std::string> snapshots;
    bool standIn; // what a restore left, too
};

Doomed lookAt(const std::string &name) {
    Doomed doomed = {requireBtrfsShare(name, "can't remove"), {}, {}, {}, {}, {}, false};
    const QOVASHARE &share = *doomed.share;
    doomed.what = "can't remove " + named(share);
    requireLocked(share, doomed.what);
    doomed.volume = volumeOf(share, "can't remove");
    doomed.data = dataPath(share);
    if (QOVABtrfsIsSubVol(doomed.data.c_str()) == 1) {
        doomed.state = stateOf(doomed.data);
    }
    doomed.snapshots = snapshotsOnVolume(share, doomed.what);
    std::sort(doomed.snapshots.begin(), doomed.snapshots.end());
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
    if (now.data != announced.data || uuid(now) != uuid(announced) || now.snapshots != announced.snapshots ||
        now.standIn != announced.standIn) {
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
        throw libraryFailure(doomed.what + ": " + printable(path), *doomed.share, causeNow());
    }
}

// The subvolume of an encrypted share is its back end; its path is a mount point, empty while the share is locked.
void removeData(const QOVASHARE &share, const std::string &what) {
    const std::string data = dataPath(share);
    if (isEncrypted(share) && rmdir(share.szPath) != 0 && errno != ENOENT) {
        throw Failure(exitFailed,
                      what + ": can't remove the mount point " + printable(share.szPath) + ": " + std::strerror(errno));
    }
    if (QOVABtrfsIsSubVol(data.c_str()) != 1) {
        // An earlier attempt came this far: only the list can be left.
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
    removeData(share, doomed.what);
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
