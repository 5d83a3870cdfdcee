// What stands in the tree file of each class of the current form, in this order.
#ifndef SHARESNAP_SNAPTREE_SNAPTREE_SERIALIZE_H
#define SHARESNAP_SNAPTREE_SNAPTREE_SERIALIZE_H

#include <boost/serialization/map.hpp>
#include <boost/serialization/set.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/utility.hpp>

#include "snaptree/snaptree_access.h"
#include <sharesnap/snaptree.hpp>

namespace QovaSnapTree {

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
