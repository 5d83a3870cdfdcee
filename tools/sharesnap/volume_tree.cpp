#include "volume_tree.h"

#include "failure.h"
#include "share_lookup.h"
#include "snapshots.h"
#include "text.h"
#include "times.h"

#include <sharesnap/platform/file_lock.h>
#include <sharesnap/platform/file_operation.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <sstream>
#include <sys/stat.h>

namespace command {
namespace {

using namespace QovaSnapTree;

void requireDirectory(const std::string &path) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        return;
    }
    throw Failure(exitFailed, "can't make the directory " + printable(path) + " of the snapshot tree",
                  "move away what stands there");
}

// Plain directories of root in the volume's top: the library expects both to stand.
void makeTreeDirectories(const std::string &volume) {
    const std::string eaDir = volume + "/@eaDir";
    const std::string temporary = volume + "/@tmp";
    (void)QOVAEAMKDir(0, eaDir.c_str()); // what came of it is looked at
    requireDirectory(eaDir);
    if (mkdir(temporary.c_str(), 0700) != 0 && errno != EEXIST) {
        throw Failure(exitFailed, "can't make " + printable(temporary) + ": " + std::strerror(errno));
    }
    requireDirectory(temporary);
}

// Drops the lock when a rewrite doesn't come to its save.
class LockGuard {
public:
    explicit LockGuard(SnapTree &tree) : tree_(tree) {}
    ~LockGuard() { tree_.freeLock(); }
    LockGuard(const LockGuard &) = delete;
    LockGuard &operator=(const LockGuard &) = delete;

private:
    SnapTree &tree_;
};

// The exclusive lock for a whole cycle. The tree takes it once more when it loads and gives that hold back when it saves,
// which it also does in the middle of a load, when it converts a file of the old form: without this hold somebody else's
// change could then get in between, and be lost.
class CycleLock {
public:
    explicit CycleLock(const std::string &volume) : fd_(SnapTree().lockSnapTreeFile(volume, true)) {
        if (fd_ < 0) {
            throw Failure(exitFailed, "can't lock the snapshot tree of volume " + printable(volume),
                          "when nobody works on it any more, `sharesnap sync --all` puts the tree right");
        }
    }
    ~CycleLock() { (void)QLIBCFileUnlockByFile(fd_); } // ends with the process at the latest
    CycleLock(const CycleLock &) = delete;
    CycleLock &operator=(const CycleLock &) = delete;

private:
    int fd_;
};

void load(const std::string &volume, SnapTree &tree, bool exclusive) {
    if (tree.loadByVolume(volume, exclusive) != 0) {
        throw Failure(exitFailed, "can't read the snapshot tree of volume " + printable(volume),
                      "when " + printable(tree.getFileName(volume)) +
                          ".broken stands, move the broken file and the mark away, and run `sharesnap sync --all`");
    }
}

bool told(const std::string &volume, const std::function<void(SnapTree &)> &rewrite) {
    try {
        rewriteTree(volume, rewrite);
        return true;
    } catch (const Failure &failure) {
        complain("what was asked is done, but the snapshot tree isn't up to date: " + failure.message(),
                 failure.next());
    } catch (const std::exception &error) {
        complain("what was asked is done, but the snapshot tree of volume " + printable(volume) +
                 " isn't up to date: " + error.what());
    }
    return false;
}

// The share's volume, or nothing, with a complaint, when it is gone meanwhile.
std::string volumeOrComplaint(const QOVASHARE &share) {
    try {
        return volumeOf(share, "can't keep the snapshot tree of");
    } catch (const Failure &failure) {
        complain(failure.message(), failure.next());
        return "";
    }
}

bool told(const QOVASHARE &share, const std::function<void(SnapTree &)> &rewrite) {
    const std::string volume = volumeOrComplaint(share);
    return !volume.empty() && told(volume, rewrite);
}

// A change whose ground was prepared is refused only by a damaged tree: nothing of the cycle is saved then.
void require(int result, const std::string &refused) {
    if (result != 0) {
        throw Failure(exitFailed, refused,
                      "`sharesnap sync --all` puts the tree right; if that says the same, move @eaDir/snaptree.bin of "
                      "the volume away before");
    }
}

bool isOwnSnapshot(const nodeName &name, const std::string &object) {
    return name.type == NODE_SNAPSHOT && name.objectName == object;
}

bool isNewer(const nodeName &snapshot, const std::string &than) {
    const auto time = timeOfName(snapshot.snapName);
    const auto other = timeOfName(than);
    return time && other && *time > *other;
}

// A snapshot that the tree lacks goes to its place in time: below the object, and below those of the object's own
// snapshots that were taken after it.
void putSnapshot(SnapTree &tree, const std::string &share, const std::string &snapshot) {
    const nodeName object = treeObject(share);
    const nodeName name = treeSnapshot(share, snapshot);
    ObjectNode *owner = tree.getObject(object);
    if (owner == nullptr || owner->getSnapshot(name) != nullptr) {
        return;
    }
    BaseNode *below = owner;
    const auto newerIsAbove = [&] {
        return isOwnSnapshot(below->parent(), share) && isNewer(below->parent(), snapshot);
    };
    // As a rule it is the newest one, and nobody has to count the others.
    size_t steps = newerIsAbove() ? owner->listSnapshots().size() : 0;
    while (steps-- > 0 && newerIsAbove()) {
        BaseNode *parent = tree.getNode(below->parent());
        if (parent == nullptr) {
            break;
        }
        below = parent;
    }
    if (below == owner) {
        require(tree.insertSnap(object, name), treeText(name) + " can't be put in");
        return;
    }
    SnapshotNode node(name, below->parent());
    node.addChild(below->name());
    if (BaseNode *parent = tree.getNode(below->parent())) {
        parent->addChild(name);
        parent->deleteChild(below->name());
    }
    below->changeParent(name);
    (void)owner->addSnapshot(node);
}

// The share's node. A share that the tree doesn't know yet is taken in with the snapshots of its list, oldest first.
void putShare(SnapTree &tree, const QOVASHARE &share) {
    if (tree.getObject(treeObject(share.szName)) != nullptr) {
        return;
    }
    require(tree.insertObject(treeObject(share.szName)), treeText(treeObject(share.szName)) + " can't be put in");
    Selection all;
    all.hidden = true;
    for (const Snapshot &snapshot : gatherSnapshots(share, all)) {
        putSnapshot(tree, share.szName, snapshot.name);
    }
}

// Strangers go first: a missing snapshot finds its place among those that are there in truth.
void syncShare(SnapTree &tree, const QOVASHARE &share) {
    putShare(tree, share);
    Selection all;
    all.hidden = true;
    const std::vector<Snapshot> snapshots = gatherSnapshots(share, all);
    std::set<std::string> listed;
    for (const Snapshot &snapshot : snapshots) {
        listed.insert(snapshot.name);
    }
    const nodeName object = treeObject(share.szName);
    for (const nodeName &name : tree.getObject(object)->listSnapshots()) {
        if (name.objectName != object.objectName) {
            tree.getObject(object)->deleteSnapshot(name); // in a damaged tree; it would stand for something else
        } else if (listed.count(name.snapName) == 0) {
            require(tree.deleteObjectSnap(object, name), treeText(name) + " can't be taken out");
        }
    }
    for (const Snapshot &snapshot : snapshots) {
        putSnapshot(tree, share.szName, snapshot.name);
    }
}

nodeName renamed(const nodeName &name, const std::string &oldName, const std::string &newName) {
    nodeName changed = name;
    if ((name.type == NODE_OBJECT || name.type == NODE_SNAPSHOT) && name.objectName == oldName) {
        changed.objectName = newName;
    }
    return changed;
}

// Tells the parent and the children of a node, those of other names, that it is called otherwise now.
void relink(SnapTree &tree, const BaseNode &node, const std::string &oldName, const std::string &newName) {
    const nodeName name = renamed(node.name(), oldName, newName);
    BaseNode *parent = tree.getNode(node.parent());
    if (parent != nullptr && !(node.parent().type == NODE_SNAPSHOT && node.parent().objectName == oldName)) {
        parent->deleteChild(node.name());
        parent->addChild(name);
    }
    for (const nodeName &child : node.listChilds()) {
        BaseNode *found = tree.getNode(child);
        if (found != nullptr && renamed(child, oldName, newName).objectName == child.objectName) {
            found->changeParent(name);
        }
    }
}

SnapshotNode renamedSnapshot(const SnapshotNode &node, const std::string &oldName, const std::string &newName) {
    SnapshotNode copy(node);
    copy.changeName(renamed(node.name(), oldName, newName));
    copy.changeParent(renamed(node.parent(), oldName, newName));
    for (const nodeName &child : node.listChilds()) {
        copy.deleteChild(child);
        copy.addChild(renamed(child, oldName, newName));
    }
    return copy;
}

// Rebuilds the nodes of a share, which the tree has under its old name alone, under its new one.
void renameNodes(SnapTree &tree, const std::string &oldName, const std::string &newName) {
    const ObjectNode *object = tree.getObject(treeObject(oldName));
    ObjectNode copy(*object);
    copy.changeName(treeObject(newName));
    copy.changeParent(renamed(object->parent(), oldName, newName));
    relink(tree, *object, oldName, newName);
    for (const nodeName &name : object->listSnapshots()) {
        const SnapshotNode *snapshot = object->getSnapshot(name);
        relink(tree, *snapshot, oldName, newName);
        copy.deleteSnapshot(name);
        (void)copy.addSnapshot(renamedSnapshot(*snapshot, oldName, newName));
    }
    tree.deleteObject(treeObject(oldName));
    (void)tree.addObject(copy);
}

// Whatever became of the nodes, in the end the snapshots are those of the list: the nodes that went may have been told of
// some that the others weren't, and those that stay may be of an earlier share.
void renameShare(SnapTree &tree, const QOVASHARE &share, const Renaming &renaming) {
    const auto has = [&](const std::string &name) { return tree.getObject(treeObject(name)) != nullptr; };
    if (has(renaming.to) && (has(renaming.from) || renaming.first)) {
        treeForget(tree, renaming.doubtful);
    }
    if (has(renaming.from)) {
        renameNodes(tree, renaming.from, renaming.to);
    }
    syncShare(tree, share);
}

// A delete changes the list first, and the tree afterwards. What it took from the list before we have the tree is gone
// for good; what is listed now it takes out of the tree itself.
void takeOutUnlisted(SnapTree &tree, const QOVASHARE &share, const std::string &snapshot) {
    if (!hasSnapshot(share, snapshot)) {
        const nodeName name = treeSnapshot(share.szName, snapshot);
        require(tree.deleteObjectSnap(treeObject(share.szName), name), treeText(name) + " can't be taken out");
    }
}

} // namespace

void rewriteTree(const std::string &volume, const std::function<void(SnapTree &)> &rewrite) {
    makeTreeDirectories(volume);
    const CycleLock lock(volume);
    SnapTree tree;
    const LockGuard guard(tree);
    load(volume, tree, true);
    rewrite(tree);
    if (!tree.save()) {
        throw Failure(exitFailed, "can't save the snapshot tree of volume " + printable(volume),
                      "see whether the volume is full; `sharesnap sync --all` puts the tree right");
    }
}

void readTree(const std::string &volume, SnapTree &tree) {
    const LockGuard guard(tree);
    load(volume, tree, false);
}

bool treeSharePut(const QOVASHARE &share) {
    return told(share, [&](SnapTree &tree) {
        treeForget(tree, share.szName);
        putShare(tree, share);
    });
}

bool treeSnapshotTaken(const QOVASHARE &share, const std::string &snapshot) {
    return told(share, [&](SnapTree &tree) {
        putShare(tree, share);
        putSnapshot(tree, share.szName, snapshot);
        takeOutUnlisted(tree, share, snapshot);
    });
}

bool treeSnapshotsDeleted(const QOVASHARE &share, const std::vector<std::string> &snapshots) {
    return told(share, [&](SnapTree &tree) {
        putShare(tree, share);
        for (const std::string &snapshot : snapshots) {
            // One that the tree never knew is as good as deleted.
            (void)tree.deleteObjectSnap(treeObject(share.szName), treeSnapshot(share.szName, snapshot));
        }
    });
}

bool treeShareCloned(const QOVASHARE &share, const QOVASHARE &clone, const std::string &snapshot) {
    const nodeName source = treeObject(share.szName);
    const nodeName object = treeObject(clone.szName);
    return told(share, [&](SnapTree &tree) {
        treeForget(tree, clone.szName);
        putShare(tree, share);
        if (snapshot.empty()) {
            require(tree.insertObjectClone(source, object), treeText(object) + " can't be put in");
        } else {
            putSnapshot(tree, share.szName, snapshot);
            require(tree.insertSnapClone(source, treeSnapshot(share.szName, snapshot), object),
                    treeText(object) + " can't be put in");
            takeOutUnlisted(tree, share, snapshot);
        }
        syncShare(tree, clone); // somebody may have taken a snapshot of it meanwhile
    });
}

bool treeShareRestored(const QOVASHARE &share, const std::string &snapshot) {
    return told(share, [&](SnapTree &tree) {
        putShare(tree, share);
        putSnapshot(tree, share.szName, snapshot);
        const nodeName object = treeObject(share.szName);
        require(tree.restoreObject(object, treeSnapshot(share.szName, snapshot)), treeText(object) + " can't be moved");
        takeOutUnlisted(tree, share, snapshot);
    });
}

bool treeShareRenamed(const QOVASHARE &share, const Renaming &renaming) {
    return told(share, [&](SnapTree &tree) { renameShare(tree, share, renaming); });
}

bool treeShareRemoved(const std::string &volume, const std::string &name) {
    return told(volume, [&](SnapTree &tree) {
        if (!hasRecord(name)) {
            treeForget(tree, name);
        }
    });
}

bool treeSynced(const QOVASHARE &share) {
    return told(share, [&](SnapTree &tree) { syncShare(tree, share); });
}

void treeForget(SnapTree &tree, const std::string &share) {
    if (tree.getObject(treeObject(share)) == nullptr) {
        return;
    }
    nodeName whole;
    whole.type = NODE_SNAPSHOT;
    require(tree.deleteObjectSnap(treeObject(share), whole), treeText(treeObject(share)) + " can't be taken out");
}

std::vector<const BaseNode *> treeNodes(const SnapTree &tree) {
    nodeName root;
    root.type = NODE_ROOT;
    std::vector<const BaseNode *> nodes = {tree.getNode(root)};
    std::set<const BaseNode *> seen(nodes.begin(), nodes.end());
    for (size_t i = 0; i < nodes.size(); ++i) {
        for (const nodeName &child : nodes[i]->listChilds()) {
            const BaseNode *found = tree.getNode(child);
            if (found != nullptr && seen.insert(found).second) {
                nodes.push_back(found);
            }
        }
    }
    return nodes;
}

std::string treeText(const nodeName &name) {
    std::ostringstream out;
    out << name;
    return out.str();
}

nodeName treeObject(const std::string &share) {
    nodeName name;
    name.type = NODE_OBJECT;
    name.objectName = share;
    return name;
}

nodeName treeSnapshot(const std::string &share, const std::string &snapshot) {
    nodeName name;
    name.type = NODE_SNAPSHOT;
    name.objectName = share;
    name.snapName = snapshot;
    return name;
}

} // namespace command
