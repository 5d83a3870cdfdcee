// What the archive and the walks may see of a node.
#ifndef SHARESNAP_SNAPTREE_SNAPTREE_ACCESS_H
#define SHARESNAP_SNAPTREE_SNAPTREE_ACCESS_H

#include <map>

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

    static const std::map<nodeName, SnapshotNode, NodeNameComparator> &snapshots(const ObjectNode &node) {
        return node.snapshots;
    }
};

} // namespace QovaSnapTree

#endif
