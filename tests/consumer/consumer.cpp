// A program of somebody else, in C++, over an installed tree: the snapshot tree's classes.
#include <iostream>
#include <sharesnap/snaptree.hpp>
#include <sstream>

int main() {
    QovaSnapTree::nodeName object;
    object.type = QovaSnapTree::NODE_OBJECT;
    object.objectName = "docs";
    QovaSnapTree::nodeName snapshot;
    snapshot.type = QovaSnapTree::NODE_SNAPSHOT;
    snapshot.objectName = "docs";
    snapshot.snapName = "GMT-2026.01.02-03.04.05";

    std::ostringstream text;
    text << object << ' ' << snapshot;
    if (text.str() != "object/docs snap/docs/GMT-2026.01.02-03.04.05") {
        std::cerr << "consumer.cpp: names read " << text.str() << '\n';
        return 1;
    }
    QovaSnapTree::ObjectNode node(object, snapshot);
    const QovaSnapTree::SnapshotNode *stored = node.addSnapshot(QovaSnapTree::SnapshotNode(snapshot, object));
    if (stored == nullptr || node.getSnapshot(snapshot) != stored || stored->parent().objectName != "docs") {
        std::cerr << "consumer.cpp: the object lost its snapshot\n";
        return 1;
    }
    std::cout << "consumer: good\n";
    return 0;
}
