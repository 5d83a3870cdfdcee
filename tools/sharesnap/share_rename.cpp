// Giving a share another name: record, files, snapshots, list, settings and holds go along.
#include "failure.h"
#include "share_admin.h"
#include "share_lookup.h"
#include "text.h"

#include <sharesnap/counters.h>
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

void requireLocked(const QOVASHARE &share, const std::string &what) {
    if (isEncrypted(share) && (share.uStatus & QOVA_SHARE_STATUS_UNLOCKED) != 0) {
        throw Failure(exitRefused, what + ": it is encrypted, and mounted at " + printable(share.szPath),
                      "unmount it (fusermount -u " + printable(share.szPath) + ") and mount it again afterwards");
    }
}

// Snapshots of a share that had this name before would get mixed up with those of this one.
void requireNoLeftovers(const QOVASHARE &share, const std::string &what) {
    char list[4096] = "";
    char directory[4096] = "";
    const bool hasList = SnapMetaGetOrCreateFile(&share, list, sizeof(list), 0) != 0;
    const bool hasDirectory =
        SnapGetOrCreateSubvolumeWithShare(&share, "@sharesnap", directory, sizeof(directory), 0) != 0;
    if (hasList || hasDirectory) {
        throw Failure(exitRefused,
                      what + ": snapshots of another share stand at " + printable(hasList ? list : directory) + " [" +
                          codeName(hasList ? SNAP_ERR_ALREADY_EXISTS : SNAP_ERR_SNAPSHOT_EXISTS) + "]",
                      "choose another name, or move them away");
    }
}

} // namespace

int renameShare(const ShareRenaming &renaming) {
    checkShareName(renaming.newName);
    const std::string what = "can't rename share " + quoted(renaming.name) + " to " + quoted(renaming.newName);
    requireRoot(what);
    const Share share = requireBtrfsShare(renaming.name, "can't rename");
    requireDataSubvolume(*share, "can't rename");
    requireLocked(*share, what);
    requireFreeName(renaming.newName, what);
    std::string newName = renaming.newName;
    std::string oldPath = share->szPath;
    std::string newPath = volumeOf(*share, "can't rename") + "/" + newName;
    const QOVASHARE moved = recordWith(*share, newName, newPath);
    requireNothingAt(newPath, what, elsewhere);
    requireNothingAt(dataPath(moved), what, elsewhere);

    // Until the data have moved the new name stands with the old path: the way back needs it so.
    const QOVASHARE between = recordWith(*share, newName, oldPath);
    requireNoLeftovers(between, what);

    forgetCause();
    if (QOVAShareRecordRename(share->szName, newName.c_str()) != 0) {
        throw libraryFailure(what, *share, causeNow());
    }
    forgetCause();
    if (QOVAShareSnapShareRename(share.get(), &between, dataPath(*share).c_str(), dataPath(moved).c_str()) != 0) {
        // The code may be that of a step on the way back, so it decides nothing.
        const Cause cause = causeNow();
        (void)QOVAShareRecordRename(newName.c_str(), share->szName); // the failure that is told is the move's
        throw Failure(exitFailed, libraryFailure(what, *share, cause).message(),
                      "the system log tells which step failed: journalctl -t sharesnap");
    }
    forgetCause();
    if (QOVAShareRecordSet(&moved) != 0) {
        const Failure failure = libraryFailure("share " + quoted(newName) + " has moved to " + printable(newPath) +
                                                   ", but its record can't be written",
                                               moved, causeNow());
        throw Failure(exitInPart, failure.message(), "set its path in /etc/sharesnap/shares.conf");
    }
    if (ShareSnapSysLockShareRenameHook(share->szName, newName.c_str()) != 0) {
        throw Failure(exitInPart,
                      "share " + quoted(newName) + " is renamed, but the holds of its snapshots didn't go along",
                      "hold them again under the new name");
    }
    return exitDone;
}

} // namespace command
