#include "tree_strangers.h"

#include "failure.h"
#include "rename_intent.h"
#include "text.h"
#include "volume_tree.h"

#include <sharesnap/platform/volume.h>

#include <algorithm>
#include <memory>
#include <set>
#include <sys/stat.h>

namespace command {
namespace {

using namespace QovaSnapTree;

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

// Records first, renames afterwards: a rename notes itself before it touches a record, and removes its note after the
// tree, whose lock we have.
std::vector<std::string> strangersOf(const SnapTree &tree) {
    std::vector<std::string> strangers;
    for (const BaseNode *node : treeNodes(tree)) {
        if (node->name().type == NODE_OBJECT && !hasRecord(node->name().objectName)) {
            strangers.push_back(node->name().objectName);
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
    const std::unique_ptr<QOVAMOUNTVOLINFO, void (*)(QOVAMOUNTVOLINFO *)> first(
        QOVAMountVolAllEnum(FS_TYPE_BTRFS, 1, 0), QOVAMountVolInfoFree);
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
    return strangersOf(tree);
}

std::vector<std::string> dropTreeStrangers(const std::string &volume) {
    if (treeStrangers(volume).empty()) {
        return {}; // the file needn't be written
    }
    std::vector<std::string> dropped;
    rewriteTree(volume, [&](SnapTree &tree) {
        dropped = strangersOf(tree);
        for (const std::string &name : dropped) {
            treeForget(tree, name);
        }
    });
    return dropped;
}

} // namespace command
