// Tree files of the earlier generation, with hash tables in place of ordered containers: read once, converted, saved in
// the current form. Nothing ever writes the old form.
#include <sharesnap/platform/error.h>
#include <syslog.h>

// Boost 1.74's unordered containers use it without including it.
#include <boost/serialization/library_version_type.hpp>

#include <boost/serialization/unordered_map.hpp>
#include <boost/serialization/unordered_set.hpp>
#include <fstream>
#include <functional>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "frame/log.h"
#include "snaptree/snaptree_archive.h"
#include "snaptree/snaptree_serialize.h"

namespace QovaSnapTree {

struct oldNodeName {
    std::int32_t type = NODE_ROOT;
    std::string objectName;
    std::string snapName;
    std::string cloneName;

    // Real equality: two names of equal hash stay two keys of an old table.
    bool operator==(const oldNodeName &other) const {
        return type == other.type && objectName == other.objectName && snapName == other.snapName &&
               cloneName == other.cloneName;
    }
};

struct oldNodeNameHasher {
    std::size_t operator()(const oldNodeName &name) const {
        return std::hash<std::string>()(std::to_string(name.type) + name.objectName + name.snapName + name.cloneName);
    }
};

struct OldBaseNode {
    oldNodeName selfName;
    oldNodeName parentName;
    std::unordered_set<oldNodeName, oldNodeNameHasher> childs;
    std::map<std::string, std::string> infos;
};

struct OldSnapshotNode : OldBaseNode {};
struct OldClonePointNode : OldBaseNode {};

struct OldObjectNode : OldBaseNode {
    std::unordered_map<oldNodeName, OldSnapshotNode, oldNodeNameHasher> snapshots;
};

struct OldSnapTree {
    std::unordered_map<oldNodeName, OldObjectNode, oldNodeNameHasher> objects;
    std::unordered_map<oldNodeName, OldClonePointNode, oldNodeNameHasher> clones;
    OldSnapshotNode root;
};

template <class Archive>
void serialize(Archive &archive, oldNodeName &name, const unsigned int /*version*/) {
    archive &name.type;
    archive &name.objectName;
    archive &name.snapName;
    archive &name.cloneName;
}

template <class Archive>
void SerializeInner(Archive &archive, OldBaseNode &node) {
    archive &node.selfName;
    archive &node.parentName;
    archive &node.childs;
    archive &node.infos;
}

template <class Archive>
void serialize(Archive &archive, OldSnapshotNode &node, const unsigned int /*version*/) {
    SerializeInner(archive, node);
}

template <class Archive>
void serialize(Archive &archive, OldClonePointNode &node, const unsigned int /*version*/) {
    SerializeInner(archive, node);
}

template <class Archive>
void serialize(Archive &archive, OldObjectNode &node, const unsigned int /*version*/) {
    archive &node.selfName;
    archive &node.parentName;
    archive &node.snapshots;
    archive &node.infos;
}

template <class Archive>
void serialize(Archive &archive, OldSnapTree &tree, const unsigned int /*version*/) {
    archive &tree.root;
    archive &tree.objects;
    archive &tree.clones;
}

namespace {

void castOldNodeName(const oldNodeName &from, nodeName &to) {
    to.type = from.type;
    to.objectName = from.objectName;
    to.snapName = from.snapName;
    to.cloneName = from.cloneName;
}

void castOldBaseNode(const OldBaseNode &from, BaseNode &to) {
    nodeName name;
    castOldNodeName(from.selfName, name);
    to.changeName(name);
    castOldNodeName(from.parentName, name);
    to.changeParent(name);
    for (const oldNodeName &child : from.childs) {
        castOldNodeName(child, name);
        to.addChild(name);
    }
    for (const auto &info : from.infos) {
        to.addInfo(info.first, info.second);
    }
}

bool ReadOldTree(const std::string &treeFile, OldSnapTree &old) {
    try {
        std::ifstream in(treeFile, std::ios::binary);
        in.seekg(0, std::ios::end);
        const std::streamoff cb = in.tellg();
        in.seekg(0, std::ios::beg);
        GuardedInputArchive archive(in, cb < 0 ? 0 : static_cast<std::uintmax_t>(cb));
        archive >> old;
    } catch (const std::exception &) {
        SNAP_LOG(LOG_ERR, "Fail to load old snaptree");
        return false;
    }
    return true;
}

void ConvertTree(const OldSnapTree &old, SnapTree &tree) {
    SnapshotNode root;
    castOldBaseNode(old.root, root);
    tree.changeRoot(root);
    for (const auto &entry : old.objects) {
        ObjectNode object;
        castOldBaseNode(entry.second, object);
        for (const auto &owned : entry.second.snapshots) {
            SnapshotNode snapshot;
            castOldBaseNode(owned.second, snapshot);
            object.addSnapshot(snapshot);
        }
        tree.addObject(object);
    }
    for (const auto &entry : old.clones) {
        ClonePointNode point;
        castOldBaseNode(entry.second, point);
        tree.addClone(point);
    }
}

} // namespace

bool SnapTree::loadByOldSnapTree() {
    OldSnapTree old;
    if (!ReadOldTree(treeFile, old)) {
        return false;
    }
    try {
        ConvertTree(old, *this);
    } catch (const std::exception &failure) {
        SNAP_LOG(LOG_ERR, "fail to get old snaptree data. excep [%s]", failure.what());
        SNAP_LOG(LOG_ERR, "Fail to get data from old snaptree");
        return false;
    }
    if (!save()) {
        SNAP_LOG(LOG_ERR, "Fail to save casted snaptree");
        return false;
    }
    return true;
}

} // namespace QovaSnapTree
