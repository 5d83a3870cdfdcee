// Giving a share another name: record, files, snapshots, list, settings and holds go along.
#include "failure.h"
#include "move_lock.h"
#include "rename_guard.h"
#include "rename_intent.h"
#include "share_admin.h"
#include "share_lookup.h"
#include "share_move.h"
#include "stand_in.h"
#include "text.h"

#include <sharesnap/config.h>
#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/share_admin.h>

namespace command {
namespace {

constexpr char elsewhere[] = "choose another name, or move it away";

// The same record under another name or path. The texts stay the caller's.
QOVASHARE recordWith(const QOVASHARE &share, std::string &name, std::string &path) {
    QOVASHARE record = share;
    record.szName = name.data();
    record.szPath = path.data();
    return record;
}

// Snapshots of a share that had this name before would get mixed up with those of this one.
void requireNoLeftovers(const QOVASHARE &share, const std::string &what) {
    char list[pathSize] = "";
    char directory[pathSize] = "";
    const bool hasList = SnapMetaGetOrCreateFile(&share, list, sizeof(list), 0) != 0;
    const bool hasDirectory =
        SnapGetOrCreateSubvolumeWithShare(&share, "@sharesnap", directory, sizeof(directory), 0) != 0;
    if (hasList || hasDirectory) {
        throw Failure(exitRefused,
                      what + ": snapshots of another share stand at " + printable(hasList ? list : directory) + " [" +
                          codeName(hasList ? SNAP_ERR_ALREADY_EXISTS : SNAP_ERR_SNAPSHOT_EXISTS) + "]",
                      "choose another name, or move them away");
    }
    Hash settings = newHash();
    forgetCause();
    const int result = QOVAShareSnapConfList(share.szName, settings.address());
    if (result < 0) {
        throw libraryFailure(what + ": its settings", share, causeNow());
    }
    if (result == 1) {
        throw Failure(exitRefused, what + ": settings of another share stand at " + settingsPlace(share.szName),
                      "choose another name, or take that section out");
    }
    if (const std::string holds = holdsPlace(share.szName); holdsStandAt(holds)) {
        throw Failure(exitRefused, what + ": holds of another share stand at " + printable(holds),
                      "choose another name, or remove that file");
    }
}

// The library carries settings, list, snapshots and data, and goes back by itself when one of them fails. Until the data
// have moved the new name stands with the old path: the way back needs it so.
void moveStores(const QOVASHARE &share, const QOVASHARE &between, const QOVASHARE &moved, const std::string &what) {
    forgetCause();
    if (QOVAShareRecordRename(share.szName, between.szName) != 0) {
        throw libraryFailure(what, share, causeNow());
    }
    forgetCause();
    if (QOVAShareSnapShareRename(&share, &between, dataPath(share).c_str(), dataPath(moved).c_str()) != 0) {
        // The code may be that of a step on the way back, so it decides nothing.
        const Cause cause = causeNow();
        throw Failure(exitFailed, libraryFailure(what, share, cause).message(),
                      "the system log tells which step failed: journalctl -t sharesnap");
    }
}

void takeBack(const RenameIntent &intent, const Failure &failure) {
    try {
        (void)endRename(intent, true); // the rename's failure is told in either case
    } catch (const Failure &second) {
        throw Failure(second.exitStatus(),
                      failure.message() + "; and what was done can't be taken back: " + second.message(),
                      "when that is mended: " + howToSettle(intent));
    }
}

int beginRename(const ShareRenaming &renaming, const std::string &what) {
    const Share share = requireBtrfsShare(renaming.name, "can't rename");
    requireDataSubvolume(*share, "can't rename");
    requireLocked(*share, what);
    requireFreeName(renaming.newName, what);
    std::string newName = renaming.newName;
    std::string oldPath = share->szPath;
    const std::string volume = volumeOf(*share, "can't rename");
    std::string newPath = volume + "/" + newName;
    requireNoStandIn(volume, share->szName, what);
    requireNoStandIn(volume, newName, what);
    const QOVASHARE moved = recordWith(*share, newName, newPath);
    requireNothingAt(newPath, what, elsewhere);
    requireNothingAt(dataPath(moved), what, elsewhere);
    const QOVASHARE between = recordWith(*share, newName, oldPath);
    requireNoLeftovers(between, what);

    const RenameIntent intent{renaming.name, newName, oldPath, newPath};
    writeIntent(intent);
    try {
        moveStores(*share, between, moved, what);
        return endRename(intent, false, true);
    } catch (const Failure &failure) {
        takeBack(intent, failure);
        throw;
    }
}

} // namespace

int renameShare(const ShareRenaming &renaming) {
    if (renaming.finish && renaming.undo) {
        throw Failure(exitUsage, "--finish and --undo don't go together", "give one of them");
    }
    if (renaming.finish || renaming.undo) {
        requireRoot("can't rename share " + quoted(renaming.name));
        const MoveLock lock(MoveLock::alone);
        const auto pending = readIntent(renaming.name);
        if (!pending) {
            throw Failure(exitNotFound, "no rename of share " + quoted(renaming.name) + " was interrupted");
        }
        return endRename(*pending, renaming.undo);
    }
    checkShareName(renaming.newName);
    const std::string what = "can't rename share " + quoted(renaming.name) + " to " + quoted(renaming.newName);
    requireRoot(what);
    const MoveLock lock(MoveLock::alone);
    requireNoInterruptedRename({renaming.name, renaming.newName});
    return beginRename(renaming, what);
}

} // namespace command
