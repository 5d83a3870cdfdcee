// What stands in the tree file of each class of the current form, in this order.
#ifndef SHARESNAP_SNAPTREE_SNAPTREE_SERIALIZE_H
#define SHARESNAP_SNAPTREE_SNAPTREE_SERIALIZE_H

#include <boost/serialization/map.hpp>
#include <boost/serialization/set.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/utility.hpp>

#include <sharesnap/snaptree.hpp>

namespace QovaSnapTree {

struct ArchiveAccess {
    // Snapshots, clone points and the root.
    template <class Archive, class Node>
    static void inner(Archive &archive, Node &node) {
        archive &node.selfName;
        archive &node.parentName;
        archive &node.childs;
        archive &node.infos;
    }

    // An object is a leaf: its children aren't in the file.
    template <class Archive>
    static void object(Archive &archive, ObjectNode &node) {
        archive &node.selfName;
        archive &node.parentName;
        archive &node.snapshots;
        archive &node.infos;
    }

    template <class Archive>
    static void tree(Archive &archive, SnapTree &tree) {
        archive &tree.root;
        archive &tree.objects;
        archive &tree.clones;
    }
};

template <class Archive>
void serialize(Archive &archive, nodeName &name, const unsigned int /*version*/) {
    archive &name.type;
    archive &name.objectName;
    archive &name.snapName;
    archive &name.cloneName;
}

template <class Archive>
void serialize(Archive &archive, SnapshotNode &node, const unsigned int /*version*/) {
    ArchiveAccess::inner(archive, node);
}

template <class Archive>
void serialize(Archive &archive, ClonePointNode &node, const unsigned int /*version*/) {
    ArchiveAccess::inner(archive, node);
}

template <class Archive>
void serialize(Archive &archive, ObjectNode &node, const unsigned int /*version*/) {
    ArchiveAccess::object(archive, node);
}

template <class Archive>
void serialize(Archive &archive, SnapTree &tree, const unsigned int /*version*/) {
    ArchiveAccess::tree(archive, tree);
}

} // namespace QovaSnapTree

#endif
