// sharesnap share remove --data: a share goes with its files and all its snapshots.
#include "failure.h"
#include "holds.h"
#include "rename_guard.h"
#include "share_admin.h"
#include "share_lookup.h"
#include "text.h"
#include "volume_tree.h"

#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/share_admin.h>
#include <sharesnap/platform/subvolume.h>

#include <cerrno>
#include <cstring>
#include <iostream>
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

// What goes, said before anything does.
void announce(const QOVASHARE &share, const std::vector<std::string> &snapshots) {
    complain(named(share) + " goes: all its files at " + printable(dataPath(share)) + ", " +
             std::to_string(snapshots.size()) + (snapshots.size() == 1 ? " snapshot" : " snapshots") +
             ", its settings, its record");
    for (const std::string &snapshot : snapshots) {
        const std::vector<Hold> holds = holdsOf(share, snapshot);
        if (!holds.empty()) {
            complain("snapshot " + quoted(snapshot) + " is held by " + holdsText(holds));
        }
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

// The record goes last, so that an interrupted removal can be taken up again.
int eraseShare(const ShareRemoval &removal) {
    requireRoot("can't remove share " + quoted(removal.name));
    const Share share = requireBtrfsShare(removal.name, "can't remove");
    const std::string what = "can't remove " + named(*share);
    requireLocked(*share, what);
    const std::string volume = volumeOf(*share, "can't remove");
    announce(*share, snapshotsOnVolume(*share, what));
    requireConsent(removal);
    const SettledNames settled({removal.name}); // not while somebody makes up his mind
    removeData(*share, what);
    forgetCause();
    if (QOVAShareSnapConfigDelete(share->szPath) != 0) {
        throw libraryFailure(what + ": its settings", *share, causeNow());
    }
    forgetCause();
    if (ShareSnapSysLockShareDeleteHook(share->szName) != 0) {
        throw libraryFailure(what + ": its holds", *share, causeNow());
    }
    const bool treeIsTrue = treeShareRemoved(volume, share->szName);
    forgetCause();
    if (QOVAShareRecordRemove(share->szName) != 0) {
        throw libraryFailure(what + ": its record", *share, causeNow());
    }
    return treeIsTrue ? exitDone : exitInPart;
}

} // namespace command
