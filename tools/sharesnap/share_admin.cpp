#include "share_admin.h"

#include "failure.h"
#include "rename_guard.h"
#include "share_lookup.h"
#include "stand_in.h"
#include "text.h"
#include "volume_tree.h"

#include <sharesnap/config.h>
#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/share_admin.h>
#include <sharesnap/platform/subvolume.h>
#include <sharesnap/platform/volume.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace command {
namespace {

constexpr size_t nameMost = 200; // room for what is put around it in file names

// A record made of the caller's texts.
class NewRecord {
public:
    explicit NewRecord(const ShareAddition &addition)
        : name_(addition.name), path_(addition.path), description_(addition.description) {
        record_.szName = name_.data();
        record_.szPath = path_.data();
        record_.szDesc = description_.data();
        record_.szDenyList = nothing_.data();
        record_.szRWList = nothing_.data();
        record_.szROList = nothing_.data();
        record_.nBrowseable = 1;
        record_.uStatus = addition.encrypted ? +QOVA_SHARE_STATUS_ENCRYPTED : 0U;
    }
    NewRecord(const NewRecord &) = delete;
    NewRecord &operator=(const NewRecord &) = delete;

    [[nodiscard]] const QOVASHARE &get() const { return record_; }

private:
    std::string name_;
    std::string path_;
    std::string description_;
    std::string nothing_;
    QOVASHARE record_ = {};
};

std::string withoutSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

void checkArguments(const ShareAddition &addition) {
    checkShareName(addition.name);
    checkValue("--desc", addition.description);
    if (addition.path.empty() || addition.path[0] != '/' || addition.path.find('\n') != std::string::npos) {
        throw Failure(exitUsage, "bad path " + quoted(addition.path) + ": it has to be absolute",
                      "give /VOLUME/" + printable(addition.name));
    }
    if (addition.encrypted && !addition.existing) {
        throw Failure(exitUsage, "--encrypted needs --existing: an encrypted share is made by gocryptfs first",
                      "gocryptfs -init /VOLUME/@" + printable(addition.name) + "@, then add it with --existing");
    }
}

// The volume, and that the path is "<volume>/<name>" on Btrfs.
void checkPlace(const ShareAddition &addition, const std::string &what) {
    const std::string volume = volumeOfPath(addition.path, what);
    requireTopOfVolume(addition.path, volume, what);
    if (addition.path != volume + "/" + addition.name) {
        throw Failure(exitUsage, what + ": the path " + printable(addition.path) + " doesn't end in the share's name",
                      "give " + printable(volume) + "/" + printable(addition.name));
    }
    if (QOVAGetFSType(volume.c_str(), 0) != FS_TYPE_BTRFS) {
        throw Failure(exitRefused,
                      what + ": its volume " + printable(volume) + " isn't Btrfs [" + codeName(SNAP_ERR_UNSUPPORTED) +
                          "]",
                      "snapshots need a share on a Btrfs volume");
    }
}

void makeSubvolume(const QOVASHARE &share, const std::string &what) {
    requireNothingAt(share.szPath, what, "if it is the share's subvolume, add --existing");
    forgetCause();
    if (QOVAShareSnapShareCreate(share.szPath) != 0) {
        throw libraryFailure(what + " (" + printable(share.szPath) + ")", share, causeNow());
    }
}

std::string metadataPath(const QOVASHARE &share, int &result) {
    char path[pathSize] = "";
    forgetCause();
    result = SnapMetaGetOrCreateFile(&share, path, sizeof(path), 0);
    return path;
}

size_t snapshotsOnVolume(const QOVASHARE &share, const std::string &what) {
    List names = newList();
    forgetCause();
    if (BtrfsListSnaps(&share, names.address()) < 0) {
        throw libraryFailure(what + ": its volume can't be read", share, causeNow());
    }
    return static_cast<size_t>(names->nItem);
}

size_t snapshotsInList(const QOVASHARE &share, const std::string &what) {
    List names = newList();
    forgetCause();
    if (QOVAShareSnapList(&share, names.address(), nullptr) != 0) {
        throw libraryFailure(what + ": its snapshots can't be listed", share, causeNow());
    }
    return static_cast<size_t>(names->nItem);
}

void requireNoSnapshots(const QOVASHARE &share, const std::string &what) {
    const size_t count = std::max(snapshotsInList(share, what), snapshotsOnVolume(share, what));
    if (count > 0) {
        const std::string name = printable(share.szName);
        throw Failure(
            exitRefused, what + ": it has " + std::to_string(count) + (count == 1 ? " snapshot" : " snapshots"),
            "`sharesnap list " + name + " --hidden` shows them, `sharesnap delete " + name + " ...` deletes them");
    }
}

// Removes what the snapshots left behind when the last of them went.
void clean(const QOVASHARE &share, const std::string &what) {
    char directory[pathSize] = "";
    if (SnapGetOrCreateSubvolumeWithShare(&share, "@sharesnap", directory, sizeof(directory), 0) == 1) {
        forgetCause();
        if (QOVABtrfsDeleteSubvolFaultTolerant(directory) < 0) {
            throw libraryFailure(what + ": can't remove " + printable(directory), share, causeNow());
        }
    }
    forgetCause();
    if (SnapMetaFileDelete(&share) != 0) {
        throw libraryFailure(what + ": can't remove its list of snapshots", share, causeNow());
    }
}

// A share whose path can't be used has nothing on a volume, so its record may go.
void checkLeftovers(const QOVASHARE &share, const ShareRemoval &removal, const std::string &what) {
    requireNoSnapshots(share, what);
    if (removal.clean) {
        clean(share, what);
    }
    int result = 0;
    const std::string path = metadataPath(share, result);
    if (result < 0) {
        throw libraryFailure(what + " (" + path + ")", share, causeNow());
    }
    if (result == 1) {
        throw Failure(exitRefused, what + ": its list of snapshots stands at " + printable(path),
                      "`sharesnap share remove " + printable(share.szName) + " --clean` removes the empty list, too");
    }
}

bool isShare(const std::string &name) {
    int exists = 0;
    return QLIBShareIsExist(name.c_str(), &exists) != 0 || exists != 0; // a list that can't be read is told of later
}

// An interrupted rename whose share has no record under either name can't be settled until the record is put back: that
// is what adding an existing subvolume is for then.
bool putsRecordBack(const ShareAddition &addition) {
    const std::vector<RenameIntent> intents = interruptedRenames();
    return addition.existing && std::any_of(intents.begin(), intents.end(), [&](const RenameIntent &intent) {
               const bool isMeant = addition.name == intent.oldName || addition.name == intent.newName;
               return isMeant && !isShare(intent.oldName) && !isShare(intent.newName);
           });
}

} // namespace

void checkShareName(const std::string &name) {
    std::string reason;
    if (name.empty()) {
        reason = "it is empty";
    } else if (name == "." || name == ".." || name.find_first_of("/[]\n") != std::string::npos) {
        reason = "it is \".\" or \"..\", or holds a slash, a bracket or a line feed";
    } else if (name[0] == '@') {
        reason = "names that begin with \"@\" are the system's own";
    } else if (name.size() > nameMost) {
        reason = "it has more than " + std::to_string(nameMost) + " bytes";
    }
    if (!reason.empty()) {
        throw Failure(exitUsage, "bad share name " + quoted(name) + ": " + reason, "choose another name");
    }
}

void requireFreeName(const std::string &name, const std::string &what) {
    int exists = 0;
    forgetCause();
    if (QLIBShareIsExist(name.c_str(), &exists) != 0) {
        const Cause cause = causeNow();
        throw Failure(exitFailed, what + ": can't read the list of shares [" + codeName(cause.code) + "]",
                      "see to /etc/sharesnap/shares.conf");
    }
    if (exists != 0) {
        throw Failure(exitRefused, what + ": there is a share of that name [" + codeName(SNAP_ERR_ALREADY_EXISTS) + "]",
                      "`sharesnap share show " + printable(name) + "` shows it");
    }
}

int addShare(const ShareAddition &asked) {
    ShareAddition addition = asked;
    addition.path = withoutSlashes(addition.path);
    checkArguments(addition);
    const std::string what = "can't add share " + quoted(addition.name);
    requireRoot(what);
    const SettledNames settled({});
    const bool comesBack = putsRecordBack(addition);
    if (!comesBack) {
        requireNoInterruptedRename({addition.name});
    }
    requireFreeName(addition.name, what);
    checkPlace(addition, what);
    requireNoStandIn(volumeOfPath(addition.path, what), addition.name, what);
    const NewRecord record(addition);
    if (addition.existing) {
        requireDataSubvolume(record.get(), "can't add");
    } else {
        makeSubvolume(record.get(), what);
    }
    forgetCause();
    if (QOVAShareRecordAdd(&record.get()) == 0) {
        const bool treeIsTrue = comesBack ? treeSynced(record.get()) : treeSharePut(record.get());
        return treeIsTrue ? exitDone : exitInPart;
    }
    const Cause cause = causeNow();
    if (!addition.existing) {
        (void)QOVABtrfsDeleteSubvolFaultTolerant(record.get().szPath); // empty, and of no use without its record
    }
    throw libraryFailure(what + " (" + printable(addition.path) + ")", record.get(), cause);
}

int removeShare(const ShareRemoval &removal) {
    requireRoot("can't remove share " + quoted(removal.name));
    const SettledNames settled({removal.name});
    const Share share = requireShare(removal.name);
    const std::string what = "can't remove " + named(*share);
    const std::string volume = volumeOf(*share, "can't remove"); // unmounted, nobody knows what it holds
    const bool btrfs = onBtrfs(*share);
    if (btrfs) {
        requireNoStandIn(volume, share->szName, what);
        checkLeftovers(*share, removal, what);
    }
    forgetCause();
    if (QOVAShareRecordRemove(share->szName) != 0) {
        throw libraryFailure(what, *share, causeNow());
    }
    // The holds of the share go along: without snapshots nothing is held.
    (void)ShareSnapSysLockShareDeleteHook(share->szName);
    forgetCause();
    if (QOVAShareSnapConfDeleteShare(share->szName) != 0) {
        const Cause cause = causeNow();
        const Failure failure =
            libraryFailure("the record of " + named(*share) + " is gone, but not its settings", *share, cause);
        throw Failure(exitInPart, failure.message(), "take its section out of /usr/qova/etc/sharesnap/sharesnap.conf");
    }
    return !btrfs || treeShareRemoved(volume, share->szName) ? exitDone : exitInPart;
}

} // namespace command
