// A program of somebody else, in C++, over an installed tree: the snapshot tree's classes.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <list>
#include <sharesnap/snaptree.hpp>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

int failures = 0;

void check(bool good, const std::string &what) {
    if (!good) {
        std::cerr << "consumer.cpp: " << what << '\n';
        ++failures;
    }
}

QovaSnapTree::nodeName object(const std::string &name) {
    QovaSnapTree::nodeName node;
    node.type = QovaSnapTree::NODE_OBJECT;
    node.objectName = name;
    return node;
}

QovaSnapTree::nodeName snapshot(const std::string &owner, const std::string &name) {
    QovaSnapTree::nodeName node;
    node.type = QovaSnapTree::NODE_SNAPSHOT;
    node.objectName = owner;
    node.snapName = name;
    return node;
}

void nodes() {
    const QovaSnapTree::nodeName docs = object("docs");
    const QovaSnapTree::nodeName first = snapshot("docs", "GMT-2026.01.02-03.04.05");
    std::ostringstream text;
    text << docs << ' ' << first;
    check(text.str() == "object/docs snap/docs/GMT-2026.01.02-03.04.05", "names read " + text.str());
    QovaSnapTree::ObjectNode node(docs, first);
    const QovaSnapTree::SnapshotNode *stored = node.addSnapshot(QovaSnapTree::SnapshotNode(first, docs));
    check(stored != nullptr && node.getSnapshot(first) == stored && stored->parent().objectName == "docs",
          "the object keeps its snapshot");
    node.addInfo("kind", "folder");
    std::string kind;
    node.getInfo("kind", kind);
    check(kind == "folder", "a node keeps what is noted about it");
}

std::string printed(const QovaSnapTree::SnapTree &tree) {
    char path[] = "/tmp/consumer-XXXXXX";
    const int file = mkstemp(path);
    if (file < 0) {
        return "no file to print to";
    }
    (void)close(file);
    {
        std::ofstream out(path);
        tree.printTree(out);
    }
    std::ifstream in(path);
    const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    (void)std::remove(path);
    return text;
}

void tree() {
    QovaSnapTree::SnapTree tree;
    check(tree.insertObject(object("docs")) == 0, "a share is taken in");
    check(tree.insertObject(object("docs")) == -1, "and not a second time");
    check(tree.insertSnap(object("docs"), snapshot("docs", "one")) == 0, "a snapshot is taken in");
    check(tree.insertSnap(object("docs"), snapshot("docs", "two")) == 0, "and a second one");
    check(tree.insertSnapClone(object("docs"), snapshot("docs", "one"), object("copy")) == 0,
          "and a clone of the first");
    const std::string text = printed(tree);
    check(text.find("root\n  snap/docs/one\n    ") == 0, "the first descends from nothing: " + text);
    check(text.find("\n    snap/docs/two\n      object/docs\n") != std::string::npos, "the second from it: " + text);
    check(text.find("\n    object/copy\n") != std::string::npos, "and the clone: " + text);
    check(tree.deleteObjectSnap(object("docs"), snapshot("docs", "one")) == 0, "a snapshot goes");
    check(tree.getNode(snapshot("docs", "one")) == nullptr, "and is gone");
    check(tree.getNode(object("copy")) != nullptr, "what descends from it stays");
    std::string kind;
    check(tree.addNodeInfo(object("docs"), "kind", "folder") == 0 &&
              tree.getNodeInfo(object("docs"), "kind", kind) == 0 && kind == "folder",
          "a tree keeps what is noted about a node");
}

// A directory that has neither a tree nor the room for one, and a volume that isn't there.
void withoutAVolume() {
    QovaSnapTree::SnapTree tree;
    check(tree.getFileName("/run") == "/run/@eaDir/snaptree.bin", "a volume has its tree in one place");
    check(tree.loadByVolume("/run", true) == 0, "a volume without a tree has an empty one");
    check(printed(tree) == "root\n", "that is a root");
    check(tree.insertObject(object("docs")) == 0, "it can be filled");
    check(!tree.save(), "but not saved");
    std::vector<QovaSnapTree::nodeName> sources;
    check(tree.findCloneSrcSnap("/run", "absent", "/run/absent", sources) == -1 && sources.empty(),
          "what it doesn't know has no sources");
    check(QovaSnapTree::SnapTree().loadByVolume("/nowhere", true) == -1, "what isn't there has no tree");
}

} // namespace

int main() {
    nodes();
    tree();
    withoutAVolume();
    if (failures == 0) {
        std::cout << "consumer: good\n";
    }
    return failures == 0 ? 0 : 1;
}
