// Look-ups and rewrites of the tree in memory.
//
// A file from outside can hold broken links: a node that a name leads to nowhere is passed over on every walk.
#include <sharesnap/frame.h>
#include <syslog.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <unordered_set>
#include <utility>

#include "frame/log.h"
#include "snaptree/snaptree_access.h"
#include <sharesnap/snaptree.hpp>

namespace QovaSnapTree {

namespace {

constexpr int kCloneNames = 0x400000;

bool IsObjectName(const nodeName &name) {
    return name.type == NODE_OBJECT && !name.objectName.empty();
}

bool IsSnapshotName(const nodeName &name) {
    return name.type == NODE_SNAPSHOT && !name.objectName.empty() && !name.snapName.empty();
}

nodeName OwnerOf(const nodeName &snap) {
    nodeName owner;
    owner.type = NODE_OBJECT;
    owner.objectName = snap.objectName;
    return owner;
}

// The null checks of links, in one place.
void AddChildTo(BaseNode *parent, const nodeName &child) {
    if (parent != nullptr) {
        parent->addChild(child);
    }
}

void DeleteChildFrom(BaseNode *parent, const nodeName &child) {
    if (parent != nullptr) {
        parent->deleteChild(child);
    }
}

// What a rewrite needs to stand, with the line that says that it doesn't.
ObjectNode *ExistingObject(const SnapTree &tree, const nodeName &object) {
    ObjectNode *node = tree.getObject(object);
    if (node == nullptr) {
        SNAP_LOG(LOG_DEBUG, "Failed to get object node [%s] in tree, it not exist.", object.objectName.c_str());
    }
    return node;
}

SnapshotNode *ExistingSnapshot(const ObjectNode &object, const nodeName &snap) {
    SnapshotNode *node = object.getSnapshot(snap);
    if (node == nullptr) {
        SNAP_LOG(LOG_DEBUG, "Failed to get snap node [%s/%s] in tree, it not exist.", snap.objectName.c_str(),
                 snap.snapName.c_str());
    }
    return node;
}

// The parent of an object, which stands in the tree under the given name, is a snapshot of its own as a rule.
BaseNode *ParentOf(const SnapTree &tree, const nodeName &object, const ObjectNode &node) {
    const nodeName &parent = node.parent();
    const bool isOwn = parent.type == NODE_SNAPSHOT && parent.objectName == object.objectName &&
                       object.snapName.empty() && object.cloneName.empty();
    return isOwn ? node.getSnapshot(parent) : tree.getNode(parent);
}

bool IsOwned(const nodeName &object, const nodeName &snap) {
    if (object.objectName == snap.objectName) {
        return true;
    }
    SNAP_LOG(LOG_DEBUG, "snap node [%s/%s] is not belong to object [%s]", snap.objectName.c_str(),
             snap.snapName.c_str(), object.objectName.c_str());
    return false;
}

} // namespace

SnapTree::SnapTree() : lockFd(-1) {
    nodeName name;
    name.type = NODE_ROOT;
    root.changeName(name);
}

SnapTree::~SnapTree() = default;

ObjectNode *SnapTree::getObject(const nodeName &object) const {
    const auto found = objects.find(NodeNameHasher()(object));
    return found == objects.end() ? nullptr : const_cast<ObjectNode *>(&found->second);
}

ClonePointNode *SnapTree::getClone(const nodeName &clone) const {
    const auto found = clones.find(NodeNameHasher()(clone));
    return found == clones.end() ? nullptr : const_cast<ClonePointNode *>(&found->second);
}

BaseNode *SnapTree::getNode(const nodeName &node) const {
    switch (node.type) {
    case NODE_ROOT:
        return const_cast<SnapshotNode *>(&root);
    case NODE_OBJECT:
        return getObject(node);
    case NODE_SNAPSHOT: {
        const ObjectNode *owner = getObject(OwnerOf(node));
        return owner == nullptr ? nullptr : owner->getSnapshot(node);
    }
    default:
        return getClone(node);
    }
}

int SnapTree::getNodeInfo(const nodeName &node, const std::string &key, std::string &value) const {
    const BaseNode *found = getNode(node);
    if (found == nullptr) {
        SNAP_LOG(LOG_DEBUG, "Failed to get node in tree, it not exist.");
        return -1;
    }
    found->getInfo(key, value);
    return 0;
}

nodeName SnapTree::getNewCloneName() {
    nodeName name;
    name.type = NODE_CLONE_POINT;
    std::srand(static_cast<unsigned int>(std::time(nullptr)));
    do {
        name.cloneName = std::to_string(std::rand() % kCloneNames);
    } while (clones.find(name) != clones.end());
    return name;
}

int SnapTree::insertObject(const nodeName &object) {
    if (!IsObjectName(object)) {
        SNAP_LOG(LOG_ERR, "bad parameter");
        return -1;
    }
    if (getObject(object) != nullptr) {
        SNAP_LOG(LOG_DEBUG, "Failed to insert object node [%s] in tree, it already exist.", object.objectName.c_str());
        return -1;
    }
    nodeName parent;
    parent.type = NODE_ROOT;
    root.addChild(object);
    addObject(ObjectNode(object, parent));
    return 0;
}

int SnapTree::insertSnap(const nodeName &object, const nodeName &snap) {
    if (!IsObjectName(object) || !IsSnapshotName(snap)) {
        SNAP_LOG(LOG_ERR, "bad parameter");
        return -1;
    }
    ObjectNode *node = ExistingObject(*this, object);
    if (node == nullptr || !IsOwned(object, snap)) {
        return -1;
    }
    BaseNode *parent = ParentOf(*this, object, *node);
    SnapshotNode *snapshot = node->newSnapshot(snap, node->parent());
    if (snapshot == nullptr) {
        SNAP_LOG(LOG_DEBUG, "Failed to insert snap node [%s/%s] in tree, it aleardy exist.", snap.objectName.c_str(),
                 snap.snapName.c_str());
        return -1;
    }
    snapshot->addChild(object);
    AddChildTo(parent, snap);
    DeleteChildFrom(parent, object);
    node->changeParent(snap);
    return 0;
}

int SnapTree::insertSnapClone(const nodeName &object, const nodeName &snap, const nodeName &newObject) {
    if (!IsObjectName(object) || !IsSnapshotName(snap) || !IsObjectName(newObject)) {
        SNAP_LOG(LOG_ERR, "bad parameter");
        return -1;
    }
    const ObjectNode *node = ExistingObject(*this, object);
    if (node == nullptr || !IsOwned(object, snap)) {
        return -1;
    }
    SnapshotNode *snapshot = ExistingSnapshot(*node, snap);
    if (snapshot == nullptr) {
        return -1;
    }
    if (getObject(newObject) != nullptr) {
        SNAP_LOG(LOG_DEBUG, "Failed to insert object node [%s] in tree, it already exist.",
                 newObject.objectName.c_str());
        return -1;
    }
    addObject(ObjectNode(newObject, snap));
    snapshot->addChild(newObject);
    return 0;
}

int SnapTree::insertObjectClone(const nodeName &object, const nodeName &newObject) {
    if (!IsObjectName(object) || !IsObjectName(newObject)) {
        SNAP_LOG(LOG_ERR, "bad parameter");
        return -1;
    }
    ObjectNode *node = ExistingObject(*this, object);
    if (node == nullptr) {
        return -1;
    }
    if (getObject(newObject) != nullptr) {
        SNAP_LOG(LOG_DEBUG, "Failed to clone object node [%s] in tree, it already exist.",
                 newObject.objectName.c_str());
        return -1;
    }
    nodeName point = node->parent();
    if (point.type != NODE_CLONE_POINT) {
        point = getNewCloneName();
        BaseNode *parent = getNode(node->parent());
        ClonePointNode *stored = addClone(ClonePointNode(point, node->parent()));
        DeleteChildFrom(parent, object);
        AddChildTo(parent, point);
        stored->addChild(object);
        node->changeParent(point);
    }
    addObject(ObjectNode(newObject, point));
    AddChildTo(getClone(point), newObject);
    return 0;
}

int SnapTree::restoreObject(const nodeName &object, const nodeName &snap) {
    if (!IsObjectName(object) || !IsSnapshotName(snap)) {
        SNAP_LOG(LOG_ERR, "bad parameter");
        return -1;
    }
    ObjectNode *node = ExistingObject(*this, object);
    if (node == nullptr || !IsOwned(object, snap)) {
        return -1;
    }
    SnapshotNode *snapshot = ExistingSnapshot(*node, snap);
    if (snapshot == nullptr) {
        return -1;
    }
    DeleteChildFrom(getNode(node->parent()), object);
    snapshot->addChild(object);
    node->changeParent(snap);
    return 0;
}

int SnapTree::deleteObjectSnap(const nodeName &object, const nodeName &snap) {
    if (!IsObjectName(object)) {
        SNAP_LOG(LOG_ERR, "bad parameter");
        return -1;
    }
    ObjectNode *node = ExistingObject(*this, object);
    if (node == nullptr) {
        return -1;
    }
    if (snap.objectName.empty()) {
        deleteAllSnapshot(*node);
        DeleteChildFrom(getNode(node->parent()), object);
        deleteObject(object);
        return 0;
    }
    if (!IsOwned(object, snap)) {
        return -1;
    }
    SnapshotNode *snapshot = node->getSnapshot(snap);
    if (snapshot == nullptr) {
        SNAP_LOG(LOG_DEBUG, "Failed to get snapshot node [%s/%s] in tree, it not exist.", snap.objectName.c_str(),
                 snap.snapName.c_str());
        return -1;
    }
    replaceByChild(*snapshot);
    node->deleteSnapshot(snap);
    return 0;
}

int SnapTree::addNodeInfo(const nodeName &node, const std::string &key, const std::string &value) {
    BaseNode *found = getNode(node);
    if (found == nullptr) {
        SNAP_LOG(LOG_DEBUG, "Failed to get node in tree, it not exist.");
        return -1;
    }
    found->addInfo(key, value);
    return 0;
}

ObjectNode *SnapTree::addObject(const ObjectNode &object) {
    ObjectNode &stored = objects[object.name()];
    stored = object;
    return &stored;
}

ClonePointNode *SnapTree::addClone(const ClonePointNode &clone) {
    ClonePointNode &stored = clones[clone.name()];
    stored = clone;
    return &stored;
}

void SnapTree::deleteObject(const nodeName &object) {
    objects.erase(object);
}

void SnapTree::deleteClone(const nodeName &clone) {
    clones.erase(clone);
}

void SnapTree::deleteAllSnapshot(ObjectNode &object) {
    const nodeName name = object.name();
    for (const nodeName &snap : object.listSnapshots()) {
        // A snapshot of nobody, as a damaged file can have it, would stand for the whole object.
        if (!snap.objectName.empty()) {
            (void)deleteObjectSnap(name, snap); // a snapshot that can't go doesn't keep the others
        }
    }
}

void SnapTree::replaceByChild(SnapshotNode &node) {
    nodeName newParent = node.parent();
    const nodeName self = node.name();
    std::time_t oldest = std::time(nullptr);
    BaseNode *candidate = nullptr;
    for (const nodeName &child : node.listChilds()) {
        std::time_t childTime = 0;
        if (child.type != NODE_SNAPSHOT || QOVAShareSnapTimeGet(child.snapName.c_str(), &childTime) < 0) {
            continue;
        }
        BaseNode *found = std::difftime(oldest, childTime) > 0 ? getNode(child) : nullptr;
        if (found != nullptr && found != &node) {
            candidate = found;
            oldest = childTime;
        }
    }
    BaseNode *parent = getNode(newParent);
    DeleteChildFrom(parent, self);
    if (candidate != nullptr) {
        const nodeName name = candidate->name();
        node.deleteChild(name);
        AddChildTo(parent, name);
        candidate->changeParent(newParent);
        newParent = name;
        parent = candidate;
    }
    for (const nodeName &child : node.listChilds()) {
        BaseNode *found = getNode(child);
        if (found == nullptr || found == &node) {
            continue; // a broken link isn't handed on
        }
        AddChildTo(parent, child);
        found->changeParent(newParent);
    }
}

namespace {

// One node of the walk that prunes: the name that led to it, and its children as they stood when the walk came to it.
struct PruneFrame {
    PruneFrame(BaseNode *pNode, nodeName name) : node(pNode), link(std::move(name)), children(pNode->listChilds()) {}
    BaseNode *node;
    nodeName link;
    std::list<nodeName> children;
};

bool IsBareClonePoint(const BaseNode &node) {
    return node.name().type == NODE_CLONE_POINT && node.getChildSize() == 0;
}

template <class Nodes>
bool HasBareClonePoint(const Nodes &nodes) {
    return std::any_of(nodes.begin(), nodes.end(), [](const auto &entry) { return IsBareClonePoint(entry.second); });
}

} // namespace

// Children before parents, on a stack of its own: a chain of snapshots can be as long as memory allows. A node is
// entered once, so a clone point that is its own descendant ends the walk there. What goes is what the link led to: in a
// damaged tree a node's own name can be that of another one, on which the walk still stands.
bool SnapTree::deleteUselessClone(BaseNode &node) {
    // As a rule there is nothing to prune. To see that takes one pass over the nodes, without a look-up: a walk begins
    // to prune where it meets a bare clone point, or a snapshot whose own name in a damaged tree is that of one.
    if (!IsBareClonePoint(node) && !IsBareClonePoint(root) && !HasBareClonePoint(clones) &&
        std::none_of(objects.begin(), objects.end(),
                     [](const auto &entry) { return HasBareClonePoint(ArchiveAccess::snapshots(entry.second)); })) {
        return false;
    }
    std::vector<PruneFrame> walk;
    std::unordered_set<const BaseNode *> entered{&node};
    walk.emplace_back(&node, node.name());
    for (;;) {
        PruneFrame &top = walk.back();
        if (!top.children.empty()) {
            const nodeName child = top.children.front();
            top.children.pop_front();
            BaseNode *found = child.type == NODE_OBJECT ? nullptr : getNode(child);
            if (found != nullptr && entered.insert(found).second) {
                walk.emplace_back(found, child);
            }
            continue;
        }
        const nodeName link = top.link;
        const bool gone = IsBareClonePoint(*top.node);
        if (gone && getClone(link) == top.node) {
            entered.erase(top.node);
            deleteClone(link);
        }
        walk.pop_back();
        if (walk.empty()) {
            return gone;
        }
        if (gone) {
            walk.back().node->deleteChild(link);
        }
    }
}

void SnapTree::changeRoot(const SnapshotNode &node) {
    root = node;
}

} // namespace QovaSnapTree
