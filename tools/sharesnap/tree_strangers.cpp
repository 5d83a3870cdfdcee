#include "tree_strangers.h"

#include "failure.h"
#include "handles.h"
#include "rename_intent.h"
#include "share_lookup.h"
#include "text.h"
#include "volume_tree.h"

#include <sharesnap/platform/subvolume.h>
#include <sharesnap/platform/volume.h>

#include <algorithm>
#include <cerrno>
#include <list>
#include <memory>
#include <set>
#include <sys/stat.h>

namespace command {
namespace {

using namespace QovaSnapTree;

// One volume can be mounted at several places. What can't be told apart is taken for the same.
bool isOtherVolume(const std::string &one, const std::string &other) {
    struct stat first = {};
    struct stat second = {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
           (first.st_dev != second.st_dev || first.st_ino != second.st_ino);
}

// A record that can't be used, or lies on a volume that isn't mounted, may well be of this one.
bool liesElsewhere(const std::string &name, const std::string &volume) {
    Share share;
    char own[pathSize] = "";
    return QOVAShareGet(name.c_str(), share.address()) == 0 &&
           QOVAShareVolPathGet(share->szPath, own, sizeof(own)) == 0 && isOtherVolume(own, volume);
}

// What can't be looked at may well stand.
bool stands(const std::string &path) {
    forgetCause();
    const int result = QOVABtrfsIsSubVol(path.c_str());
    return result == 1 || (result < 0 && causeNow().error != ENOENT);
}

// A share that went in order took its snapshots along. One that left them is in use: its volume may only be mounted
// elsewhere for a while.
bool hasSnapshotOnVolume(const SnapTree &tree, const std::string &share, const std::string &volume) {
    const ObjectNode *object = tree.getObject(treeObject(share));
    const std::list<nodeName> snapshots = object != nullptr ? object->listSnapshots() : std::list<nodeName>();
    return std::any_of(snapshots.begin(), snapshots.end(), [&](const nodeName &snapshot) {
        const std::string directory = volume + "/@sharesnap/";
        return snapshot.objectName == share && (stands(directory + share + "/" + snapshot.snapName) ||
                                                stands(directory + "@" + share + "@/" + snapshot.snapName));
    });
}

bool isStranger(const SnapTree &tree, const std::string &share, const std::string &volume) {
    return (!hasRecord(share) || liesElsewhere(share, volume)) && !hasSnapshotOnVolume(tree, share, volume);
}

// Records first, renames afterwards: a rename notes itself before it touches a record, and removes its note after the
// tree, whose lock we have. Only a damaged tree has an object without a name; nothing can be done to that one.
std::vector<std::string> strangersOf(const SnapTree &tree, const std::string &volume) {
    std::vector<std::string> strangers;
    for (const BaseNode *node : treeNodes(tree)) {
        const std::string &name = node->name().objectName;
        if (node->name().type == NODE_OBJECT && !name.empty() && isStranger(tree, name, volume)) {
            strangers.push_back(name);
        }
    }
    if (strangers.empty()) {
        return strangers;
    }
    const std::set<std::string> renamed = namesUnderRename();
    strangers.erase(std::remove_if(strangers.begin(), strangers.end(),
                                   [&](const std::string &name) { return renamed.count(name) != 0; }),
                    strangers.end());
    std::sort(strangers.begin(), strangers.end());
    return strangers;
}

// Where the command makes trees: other places of that name may be any user's.
bool hasTree(const std::string &volume) {
    struct stat directory = {};
    struct stat file = {};
    return lstat((volume + "/@eaDir").c_str(), &directory) == 0 && S_ISDIR(directory.st_mode) &&
           directory.st_uid == 0 && lstat(SnapTree().getFileName(volume).c_str(), &file) == 0 && S_ISREG(file.st_mode);
}

} // namespace

std::vector<std::string> volumesWithTree() {
    forgetCause();
    const std::unique_ptr<QOVAMOUNTVOLINFO, void (*)(QOVAMOUNTVOLINFO *)> first(
        QOVAMountVolAllEnum(FS_TYPE_BTRFS, 1, 0), QOVAMountVolInfoFree);
    const Cause cause = causeNow();
    if (!first && cause.code != 0) { // without a code there is none
        throw Failure(exitFailed, "can't find out which volumes are mounted [" + codeName(cause.code) + "]",
                      "see whether /proc is mounted");
    }
    std::vector<std::string> volumes;
    for (const QOVAMOUNTVOLINFO *volume = first.get(); volume != nullptr; volume = volume->pNext) {
        if (hasTree(volume->szMountPath)) {
            volumes.emplace_back(volume->szMountPath);
        }
    }
    std::sort(volumes.begin(), volumes.end());
    return volumes;
}

std::vector<std::string> treeStrangers(const std::string &volume) {
    SnapTree tree;
    readTree(volume, tree);
    return strangersOf(tree, volume);
}

std::vector<std::string> dropTreeStrangers(const std::string &volume) {
    if (treeStrangers(volume).empty()) {
        return {}; // the file needn't be written
    }
    std::vector<std::string> dropped;
    rewriteTree(volume, [&](SnapTree &tree) {
        dropped = strangersOf(tree, volume);
        for (const std::string &name : dropped) {
            treeForget(tree, name);
        }
    });
    return dropped;
}

} // namespace command
