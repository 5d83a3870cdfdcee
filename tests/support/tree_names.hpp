// Names of tree nodes and the text of a whole tree, for the tests of the snapshot tree.
#pragma once

#include <fstream>
#include <set>
#include <sharesnap/snaptree.hpp>
#include <sstream>
#include <string>

#include "files.hpp"
#include "sandbox.hpp"

namespace testkit {

inline QovaSnapTree::nodeName treeName(int type, const std::string &object = "", const std::string &snap = "",
                                       const std::string &clone = "") {
    QovaSnapTree::nodeName name;
    name.type = type;
    name.objectName = object;
    name.snapName = snap;
    name.cloneName = clone;
    return name;
}

inline QovaSnapTree::nodeName rootName() {
    return treeName(QovaSnapTree::NODE_ROOT);
}

inline QovaSnapTree::nodeName objectName(const std::string &object) {
    return treeName(QovaSnapTree::NODE_OBJECT, object);
}

inline QovaSnapTree::nodeName snapName(const std::string &object, const std::string &snap) {
    return treeName(QovaSnapTree::NODE_SNAPSHOT, object, snap);
}

inline QovaSnapTree::nodeName cloneName(const std::string &clone) {
    return treeName(QovaSnapTree::NODE_CLONE_POINT, "", "", clone);
}

inline std::string nameText(const QovaSnapTree::nodeName &name) {
    std::ostringstream out;
    out << name;
    return out.str();
}

// The names of a node's children, sorted as texts.
inline std::set<std::string> childNames(const QovaSnapTree::BaseNode *node) {
    std::set<std::string> names;
    for (const QovaSnapTree::nodeName &child : node->listChilds()) {
        names.insert(nameText(child));
    }
    return names;
}

// What the tree prints of itself.
inline std::string printedTree(const QovaSnapTree::SnapTree &tree) {
    const std::string path = Sandbox::scratch() + "/printed";
    {
        std::ofstream out(path);
        tree.printTree(out);
    }
    return readFile(path);
}

} // namespace testkit
