#include "share_move.h"

#include "failure.h"
#include "share_lookup.h"
#include "text.h"
#include "volume_tree.h"

#include <sharesnap/config.h>
#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/section_file.h>
#include <sharesnap/platform/share_admin.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <unistd.h>

namespace command {
namespace {

// False of what is no directory, too.
bool isEmptyDirectory(const std::string &path) {
    std::error_code error;
    const bool isDirectory =
        std::filesystem::symlink_status(path, error).type() == std::filesystem::file_type::directory;
    const bool isEmpty = isDirectory && std::filesystem::is_empty(path, error);
    if (error) {
        throw Failure(exitFailed, "can't read " + printable(path) + ": " + error.message());
    }
    return isEmpty;
}

void removeFile(const std::string &path) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        throw Failure(exitFailed, "can't remove " + printable(path) + ": " + std::strerror(errno));
    }
}

std::string dataPathOf(const QOVASHARE &share, const std::string &path) {
    std::string copy = path;
    QOVASHARE record = share;
    record.szPath = copy.data();
    return dataPath(record);
}

// A share's record under another name and path; the texts are the caller's.
QOVASHARE recordAs(const QOVASHARE &share, std::string &name, std::string &path) {
    QOVASHARE record = share;
    record.szName = name.data();
    record.szPath = path.data();
    return record;
}

// One direction of a rename: everything that stands under `from` goes to `to`. Each step looks at what stands, so it can
// be taken again after an interruption, and taken backwards with both ends exchanged.
class Move {
public:
    Move(const QOVASHARE &share, RenameIntent intent)
        : share_(share), intent_(std::move(intent)), oldData_(dataPathOf(share, intent_.oldPath)),
          newData_(dataPathOf(share, intent_.newPath)) {}

    void run() {
        moveRecord();
        moveSettings();
        moveMetadata();
        moveSnapshots();
        moveData();
        moveMountPoint();
        moveHolds();
        setRecordPath();
    }

private:
    const QOVASHARE &share_;
    RenameIntent intent_;
    std::string oldData_;
    std::string newData_;

    [[nodiscard]] std::string what() const {
        return "can't rename share " + quoted(intent_.oldName) + " to " + quoted(intent_.newName);
    }

    // What can't be looked at is not taken for absent: the note would go, and the rest of the share stay behind.
    [[nodiscard]] bool stands(int result, const std::string &part) const {
        const Cause cause = causeNow();
        if (result < 0) {
            throw libraryFailure(what() + ": " + part, share_, cause);
        }
        return result == 1;
    }

    // The library also says 0 of a path that can't be looked at.
    [[nodiscard]] bool standsAt(int result, const std::string &part, const std::string &path) const {
        const bool found = stands(result, path.empty() ? part : part + " " + printable(path));
        return pathStands(path) && found;
    }

    // True when the part is still under the old name alone. Under both names only one of them can be the share's.
    [[nodiscard]] bool isToMove(bool atOld, bool atNew, const std::string &oldPlace,
                                const std::string &newPlace) const {
        if (atOld && atNew) {
            throw Failure(exitRefused,
                          what() + ": " + printable(oldPlace) + " and " + printable(newPlace) + " both stand",
                          "delete snapshots that were taken meanwhile, move away what isn't the share's, "
                          "then finish or undo the rename");
        }
        return atOld;
    }

    [[nodiscard]] bool inDatabase(const std::string &name) const {
        int found = 0;
        forgetCause();
        const int result = QLIBShareIsExist(name.c_str(), &found);
        return stands(result != 0 ? -1 : found != 0, "the list of shares");
    }

    [[nodiscard]] bool hasSettings(const std::string &name) const {
        Hash pairs = newHash();
        forgetCause();
        return stands(QOVAShareSnapConfList(name.c_str(), pairs.address()), "its settings");
    }

    [[nodiscard]] bool hasList(const QOVASHARE &share, std::string &place) const {
        char path[pathSize] = "";
        forgetCause();
        const int result = SnapMetaGetOrCreateFile(&share, path, sizeof(path), 0);
        place = path;
        return standsAt(result, "its list of snapshots", place);
    }

    [[nodiscard]] bool hasSnapshots(const QOVASHARE &share, std::string &place) const {
        char path[pathSize] = "";
        forgetCause();
        const int result = SnapGetOrCreateSubvolumeWithShare(&share, "@sharesnap", path, sizeof(path), 0);
        place = path;
        return standsAt(result, "its snapshots", place);
    }

    void moveRecord() {
        if (!isToMove(inDatabase(intent_.oldName), inDatabase(intent_.newName),
                      "the record of share " + intent_.oldName, "that of share " + intent_.newName)) {
            return;
        }
        forgetCause();
        if (QOVAShareRecordRename(intent_.oldName.c_str(), intent_.newName.c_str()) != 0) {
            throw libraryFailure(what() + ": its record", share_, causeNow());
        }
    }

    void moveSettings() {
        if (!isToMove(hasSettings(intent_.oldName), hasSettings(intent_.newName), settingsPlace(intent_.oldName),
                      settingsPlace(intent_.newName))) {
            return;
        }
        forgetCause();
        if (QOVAShareSnapConfUpdate(intent_.oldName.c_str(), intent_.newName.c_str(), nullptr) != 0) {
            throw libraryFailure(what() + ": its settings", share_, causeNow());
        }
    }

    // Both names with the path where the data stand now: the library looks at it.
    struct Ends {
        std::string oldName, newName, path, samePath;
        QOVASHARE from{}, to{};
        std::string oldPlace, newPlace; // of the part that is looked at
    };

    void fillEnds(Ends &ends) const {
        ends.oldName = intent_.oldName;
        ends.newName = intent_.newName;
        ends.path = pathStands(oldData_) ? intent_.oldPath : intent_.newPath;
        ends.samePath = ends.path;
        ends.from = recordAs(share_, ends.oldName, ends.path);
        ends.to = recordAs(share_, ends.newName, ends.samePath);
    }

    void moveMetadata() {
        Ends ends;
        fillEnds(ends);
        const bool atOld = hasList(ends.from, ends.oldPlace);
        const bool atNew = hasList(ends.to, ends.newPlace);
        if (!isToMove(atOld, atNew, ends.oldPlace, ends.newPlace)) {
            return;
        }
        forgetCause();
        if (SnapMetaFileRename(&ends.from, &ends.to) != 0) {
            throw libraryFailure(what() + ": its list of snapshots", share_, causeNow());
        }
    }

    void moveSnapshots() {
        Ends ends;
        fillEnds(ends);
        const bool atOld = hasSnapshots(ends.from, ends.oldPlace);
        const bool atNew = hasSnapshots(ends.to, ends.newPlace);
        if (!isToMove(atOld, atNew, ends.oldPlace, ends.newPlace)) {
            return;
        }
        forgetCause();
        if (SnapshotDirRename(&ends.from, &ends.to) != 0) {
            throw libraryFailure(what() + ": its snapshots", share_, causeNow());
        }
    }

    void moveDirectory(const std::string &from, const std::string &to) const {
        if (rename(from.c_str(), to.c_str()) != 0) {
            const bool isTaken = errno == ENOTEMPTY || errno == EEXIST || errno == ENOTDIR;
            throw Failure(isTaken ? exitRefused : exitFailed,
                          what() + ": " + printable(from) + " to " + printable(to) + ": " + std::strerror(errno),
                          isTaken ? "move away what stands there, then finish or undo the rename" : "");
        }
    }

    void moveData() const {
        if (isToMove(pathStands(oldData_), pathStands(newData_), oldData_, newData_)) {
            moveDirectory(oldData_, newData_);
        }
    }

    // The path of an encrypted share is where its back end gets mounted. An empty directory at its new place is as good,
    // and goes; but then no files of somebody else's may come there. Any other share's path has moved by now.
    void moveMountPoint() const {
        if (!isEncrypted(share_) || !pathStands(intent_.oldPath)) {
            return;
        }
        const bool standsInTheWay = pathStands(intent_.newPath) && !isEmptyDirectory(intent_.oldPath);
        if (isToMove(true, standsInTheWay, intent_.oldPath, intent_.newPath)) {
            moveDirectory(intent_.oldPath, intent_.newPath);
        }
    }

    // Asking for holds makes their file, so an empty one may stand under either name.
    void moveHolds() {
        const std::string from = holdsPlace(intent_.oldName);
        const std::string to = holdsPlace(intent_.newName);
        if (!pathStands(from)) {
            return; // nothing is held, or the claims were moved before
        }
        if (pathStands(to) && !isToMove(holdsStandAt(from), holdsStandAt(to), from, to)) {
            removeFile(from);
        }
        forgetCause();
        if (ShareSnapSysLockShareRenameHook(intent_.oldName.c_str(), intent_.newName.c_str()) != 0) {
            throw libraryFailure(what() + ": its holds", share_, causeNow());
        }
    }

    void setRecordPath() {
        std::string name = intent_.newName;
        std::string path = intent_.newPath;
        const QOVASHARE record = recordAs(share_, name, path);
        forgetCause();
        if (QOVAShareRecordSet(&record) != 0) {
            throw libraryFailure(what() + ": its record", share_, causeNow());
        }
    }
};

// The rename of a share that is gone for good has no end but this.
std::string whenAllIsGone(const RenameIntent &intent) {
    return "if nothing of the share is left, remove the note of its rename: " + printable(intentPath(intent.oldName));
}

Failure withNote(const Failure &failure, const RenameIntent &intent) {
    const std::string next = failure.next().empty() ? "" : failure.next() + "; ";
    return {failure.exitStatus(), failure.message(), next + whenAllIsGone(intent)};
}

RenameIntent backwards(const RenameIntent &intent) {
    return {intent.newName, intent.oldName, intent.newPath, intent.oldPath};
}

// The record under whichever name it has now.
Share recordOf(const RenameIntent &intent) {
    QOVASHARE *found = nullptr;
    if (QOVAShareGet(intent.newName.c_str(), &found) == 0 || QOVAShareGet(intent.oldName.c_str(), &found) == 0) {
        return Share(found);
    }
    throw Failure(exitNotFound,
                  "no share " + quoted(intent.oldName) + " or " + quoted(intent.newName) +
                      " is in the list of shares, but a rename between them is noted",
                  "add the share's record again, then finish or undo the rename; " + whenAllIsGone(intent));
}

} // namespace

std::string holdsPlace(const std::string &name) {
    return "/run/sharesnap/sys_lock/" + name + ".sharesnap_sys_lock";
}

bool holdsStandAt(const std::string &path) {
    List sections = newList();
    errno = 0;
    if (pathStands(path) && QLIBCFileEnumSection(path.c_str(), sections.address()) < 0) {
        throw Failure(exitFailed, "can't read the holds in " + printable(path) + ": " + std::strerror(errno));
    }
    return !itemsOf(sections).empty();
}

std::string settingsPlace(const std::string &name) {
    return "[" + name + "] in /usr/qova/etc/sharesnap/sharesnap.conf";
}

int endRename(const RenameIntent &intent, bool undo, bool first) {
    const Share share = recordOf(intent);
    requireLocked(*share, "can't rename share " + quoted(intent.oldName) + " to " + quoted(intent.newName));
    const RenameIntent direction = undo ? backwards(intent) : intent;
    try {
        Move(*share, direction).run();
    } catch (const Failure &failure) {
        throw withNote(failure, intent);
    }
    const Share renamed = requireShare(direction.newName);
    const bool treeIsTrue = treeShareRenamed(*renamed, {direction.oldName, direction.newName, intent.newName, first});
    removeIntent(intent);
    return treeIsTrue ? exitDone : exitInPart;
}

} // namespace command
