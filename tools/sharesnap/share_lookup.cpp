#include "share_lookup.h"

#include "failure.h"
#include "text.h"

#include <sharesnap/frame.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/subvolume.h>
#include <sharesnap/platform/volume.h>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace command {
namespace {

std::string firstComponent(const std::string &path) {
    return path.substr(0, path.find('/', 1));
}

// The section's pairs; false when there is no such section.
bool readSection(const QOVASHARE &share, const std::string &snapshot, Hash &pairs) {
    forgetCause();
    const int result = QOVAShareSnapAttrList(&share, snapshot.c_str(), pairs.address());
    const Cause cause = causeNow();
    if (result < 0 && cause.code != SNAP_ERR_NO_SUCH_SECTION) {
        throw libraryFailure("can't read the attributes of snapshot " + quoted(snapshot) + " of " + named(share), share,
                             cause);
    }
    // A section without pairs leaves the register alone.
    return result == 0 && (pairs->nPair > 0 || cause.code != SNAP_ERR_NO_SUCH_SECTION);
}

} // namespace

Share requireShare(const std::string &name) {
    constexpr int attempts = 5;
    for (int attempt = 1;; ++attempt) {
        Share share;
        forgetCause();
        if (QOVAShareGet(name.c_str(), share.address()) == 0) {
            return share;
        }
        const Cause cause = causeNow();
        if (cause.code == SNAP_ERR_BUSY && attempt < attempts) {
            usleep(200000);
            continue;
        }
        if (cause.code == SNAP_ERR_NO_SUCH_SECTION || cause.code == SNAP_ERR_BAD_PARAMETER) {
            throw Failure(exitNotFound, "no share " + quoted(name) + " [" + codeName(cause.code) + "]",
                          "`sharesnap share list` shows the shares, `sharesnap share add` adds one");
        }
        const std::string reason = cause.error != 0 ? std::string(", ") + std::strerror(cause.error) : "";
        throw Failure(exitFailed,
                      "can't read the record of share " + quoted(name) + reason + " [" + codeName(cause.code) + "]",
                      "see to /etc/sharesnap/shares.conf");
    }
}

bool hasRecord(const std::string &name) {
    int exists = 0;
    forgetCause();
    if (QLIBShareIsExist(name.c_str(), &exists) != 0) {
        const Cause cause = causeNow();
        throw Failure(exitFailed, "can't read the record of share " + quoted(name) + " [" + codeName(cause.code) + "]",
                      "see to /etc/sharesnap/shares.conf");
    }
    return exists != 0;
}

std::string volumeOfPath(const std::string &path, const std::string &what) {
    char volume[pathSize] = "";
    forgetCause();
    if (QOVAShareVolPathGet(path.c_str(), volume, sizeof(volume)) < 0) {
        throw Failure(exitNotFound,
                      what + ": no volume is mounted at " + printable(firstComponent(path)) + " [" +
                          codeName(SNAP_ERR_VOLUME_INFO) + "]",
                      "mount the volume, or see whether the path is right");
    }
    return volume;
}

std::string volumeOf(const QOVASHARE &share, const std::string &what) {
    return volumeOfPath(share.szPath, what + " " + named(share));
}

bool isEncrypted(const QOVASHARE &share) {
    int encrypted = 0;
    return QLIBShareIsEncryptionGet(&share, &encrypted) == 0 && encrypted != 0;
}

void requireLocked(const QOVASHARE &share, const std::string &what) {
    if (isEncrypted(share) && (share.uStatus & QOVA_SHARE_STATUS_UNLOCKED) != 0) {
        throw Failure(exitRefused, what + ": it is encrypted, and mounted at " + printable(share.szPath),
                      "unmount it (fusermount -u " + printable(share.szPath) + ") and mount it again afterwards");
    }
}

std::string dataPath(const QOVASHARE &share) {
    char path[pathSize] = "";
    forgetCause();
    if (ShareSubvolumePathGet(&share, path, sizeof(path)) != 0) {
        throw libraryFailure("can't tell where the data of " + named(share) + " lies", share, causeNow());
    }
    return path;
}

void requireTopOfVolume(const std::string &path, const std::string &volume, const std::string &what) {
    const bool below =
        path.size() > volume.size() + 1 && path.compare(0, volume.size(), volume) == 0 && path[volume.size()] == '/';
    if (!below || path.find('/', volume.size() + 1) != std::string::npos) {
        throw Failure(exitRefused,
                      what + ": its path is " + printable(path) +
                          ", and a share has to lie at the top of its volume (" + printable(volume) + "/NAME)",
                      "move the share to the top of the volume");
    }
}

Share requireBtrfsShare(const std::string &name, const std::string &what) {
    Share share = requireShare(name);
    const std::string volume = volumeOf(*share, what);
    requireTopOfVolume(share->szPath, volume, what + " " + named(*share));
    forgetCause();
    const int type = QOVAGetFSType(volume.c_str(), 0);
    if (type < 0) {
        throw libraryFailure(what + " " + named(*share), *share, causeNow());
    }
    if (type != FS_TYPE_BTRFS) {
        throw Failure(exitRefused,
                      what + " " + named(*share) + ": its volume " + printable(volume) + " isn't Btrfs [" +
                          codeName(SNAP_ERR_UNSUPPORTED) + "]",
                      "snapshots need a share on a Btrfs volume");
    }
    return share;
}

void requireDataSubvolume(const QOVASHARE &share, const std::string &what) {
    const std::string path = dataPath(share);
    forgetCause();
    const int result = QOVABtrfsIsSubVol(path.c_str());
    const Cause cause = causeNow();
    if (result == 1) {
        return;
    }
    const std::string where = what + " " + named(share) + ": ";
    if (result == 0) {
        throw Failure(exitRefused,
                      where + printable(path) + " is no Btrfs subvolume [" + codeName(SNAP_ERR_UNSUPPORTED) + "]",
                      "make a subvolume, move the files there, and register it with `sharesnap share add --existing`");
    }
    if (cause.error == ENOENT) {
        throw Failure(exitNotFound, where + "nothing stands at " + printable(path),
                      "put the data back, or take the share away with `sharesnap share remove`");
    }
    throw libraryFailure(where + printable(path), share, cause);
}

std::vector<std::string> shareNames() {
    List names = newList();
    forgetCause();
    if (QOVAShareEnum(names.address(), 0x301) < 0) {
        const Cause cause = causeNow();
        const std::string reason = cause.error != 0 ? std::string(", ") + std::strerror(cause.error) : "";
        throw Failure(exitFailed, "can't read the list of shares" + reason + " [" + codeName(cause.code) + "]",
                      "see to /etc/sharesnap/shares.conf");
    }
    return itemsOf(names);
}

bool hasSnapshot(const QOVASHARE &share, const std::string &snapshot) {
    Hash pairs = newHash();
    return !snapshot.empty() && readSection(share, snapshot, pairs);
}

Hash requireSnapshot(const QOVASHARE &share, const std::string &snapshot) {
    Hash pairs = newHash();
    if (snapshot.empty() || !readSection(share, snapshot, pairs)) {
        throw Failure(exitNotFound,
                      named(share) + " has no snapshot " + quoted(snapshot) + " [" +
                          codeName(SNAP_ERR_NO_SUCH_SECTION) + "]",
                      "`sharesnap list " + printable(share.szName) + " --hidden` shows those it has");
    }
    return pairs;
}

std::string requireSnapshotPath(const QOVASHARE &share, const std::string &snapshot, const std::string &what) {
    (void)requireSnapshot(share, snapshot); // its attributes aren't wanted, its absence is
    char path[pathSize] = "";
    if (QOVAShareSnapGetSnapPath(&share, snapshot.c_str(), path, sizeof(path)) != 1) {
        throw Failure(exitNotFound,
                      what + ": snapshot " + quoted(snapshot) + " of " + named(share) + " is not at " + printable(path),
                      "`sharesnap sync " + printable(share.szName) + "` takes it from the list");
    }
    return path;
}

bool pathStands(const std::string &path) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) == 0) {
        return true;
    }
    if (errno != ENOENT) {
        throw Failure(exitFailed, "can't look at " + printable(path) + ": " + std::strerror(errno));
    }
    return false;
}

void requireNothingAt(const std::string &path, const std::string &what, const std::string &next) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) == 0) {
        throw Failure(exitRefused, what + ": something stands at " + printable(path) + " already", next);
    }
}

bool onBtrfs(const QOVASHARE &share) {
    char volume[pathSize] = "";
    return QOVAShareVolPathGet(share.szPath, volume, sizeof(volume)) >= 0 && QOVAGetFSType(volume, 0) == FS_TYPE_BTRFS;
}

void checkKey(const std::string &key) {
    std::string reason;
    if (key.empty()) {
        reason = "it is empty";
    } else if (key.find('\n') != std::string::npos) {
        reason = "it holds a line feed";
    } else if (key.find('=') != std::string::npos) {
        reason = "it holds a \"=\"";
    } else if (std::strchr("[;#", key[0]) != nullptr) {
        reason = std::string("it begins with \"") + key[0] + "\"";
    } else if (key.size() > SNAP_ATTR_MAX_KEY) {
        reason = "it has " + std::to_string(key.size()) + " bytes, at most " + std::to_string(SNAP_ATTR_MAX_KEY) +
                 " are allowed [" + codeName(SNAP_ERR_ATTR_TOO_LONG) + "]";
    }
    if (!reason.empty()) {
        throw Failure(exitUsage, "bad key " + quoted(key) + ": " + reason, "choose another key");
    }
}

void checkValue(const std::string &key, const std::string &value) {
    std::string reason;
    if (value.find('\n') != std::string::npos) {
        reason = "it holds a line feed";
    } else if (value.size() > SNAP_ATTR_MAX_VALUE) {
        reason = "it has " + std::to_string(value.size()) + " bytes, at most " + std::to_string(SNAP_ATTR_MAX_VALUE) +
                 " are allowed [" + codeName(SNAP_ERR_ATTR_TOO_LONG) + "]";
    }
    if (!reason.empty()) {
        throw Failure(exitUsage, "bad value of " + quoted(key) + ": " + reason, "choose another value");
    }
}

} // namespace command
