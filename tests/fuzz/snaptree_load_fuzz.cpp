// Any bytes as the tree file of a volume: they give a tree or are refused with the mark, a tree that was given comes
// back the same from its next file, and every walk, search and rewrite of it ends.
#include <sharesnap/snaptree.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include "fuzz/fuzz.hpp"
#include "support/files.hpp"
#include "support/log_capture.hpp"
#include "support/sandbox.hpp"
#include "support/tree_names.hpp"

namespace {

using namespace QovaSnapTree;

constexpr char kFile[] = "/vol1/@eaDir/snaptree.bin";
constexpr char kMark[] = "/vol1/@eaDir/snaptree.bin.broken";
constexpr size_t kMostNodes = 200; // enough of a large tree
constexpr size_t kMostSearches = 4;

void require(bool holds, const char *what) {
    if (!holds) {
        std::fprintf(stderr, "%s\n%s", what, testkit::logText().c_str());
        std::abort();
    }
}

// The nodes below the root, each once.
std::vector<nodeName> reachable(const SnapTree &tree) {
    std::vector<nodeName> names;
    std::deque<nodeName> waiting{testkit::rootName()};
    std::set<const BaseNode *> seen;
    while (!waiting.empty() && names.size() < kMostNodes) {
        const nodeName name = waiting.front();
        waiting.pop_front();
        const BaseNode *node = tree.getNode(name);
        if (node == nullptr || !seen.insert(node).second) {
            continue;
        }
        names.push_back(name);
        for (const nodeName &child : node->listChilds()) {
            waiting.push_back(child);
        }
    }
    return names;
}

void rewriteAround(SnapTree &tree, const nodeName &name, size_t number) {
    const std::string text = std::to_string(number);
    const nodeName object = testkit::objectName(name.objectName);
    (void)tree.addNodeInfo(name, "key", text);
    if (name.type == NODE_OBJECT) {
        (void)tree.insertSnap(name, testkit::snapName(name.objectName, "GMT-2024.01.01-00.00." + text));
        (void)tree.insertObjectClone(name, testkit::objectName("clone" + text));
    } else if (name.type == NODE_SNAPSHOT && number % 2 == 0) {
        (void)tree.insertSnapClone(object, name, testkit::objectName("of" + text));
        (void)tree.restoreObject(object, name);
    } else if (name.type == NODE_SNAPSHOT) {
        (void)tree.deleteObjectSnap(object, name);
    }
}

void rewriteEverything(SnapTree &tree) {
    size_t number = 0;
    for (const nodeName &name : reachable(tree)) {
        rewriteAround(tree, name, number++);
    }
    for (const nodeName &name : reachable(tree)) {
        if (name.type == NODE_OBJECT) {
            (void)tree.deleteObjectSnap(name, testkit::treeName(NODE_SNAPSHOT));
            require(tree.getObject(name) == nullptr, "an object stands after its deletion");
        }
    }
    (void)tree.deleteUselessClone(*tree.getNode(testkit::rootName()));
    (void)testkit::printedTree(tree);
}

// The search reads the volume's file itself.
void searchFromSome(const SnapTree &tree) {
    size_t left = kMostSearches;
    for (const nodeName &name : reachable(tree)) {
        if (left == 0 || (name.type != NODE_OBJECT && name.type != NODE_SNAPSHOT)) {
            continue;
        }
        --left;
        const std::string path = "/vol1/" + (name.type == NODE_OBJECT ? name.objectName : name.snapName);
        SnapTree reader;
        std::vector<nodeName> sources;
        (void)reader.findCloneSrcSnap("/vol1", name.objectName, path, sources); // a name can be any text
        for (const nodeName &source : sources) {
            require(source.type == NODE_SNAPSHOT, "a source is no snapshot");
        }
    }
}

// False for a file that was refused.
bool loadAndUse() {
    SnapTree tree;
    tree.setTreeFile(kFile);
    if (!tree.load()) {
        require(testkit::exists(kMark), "a file was refused without a mark");
        return false;
    }
    require(!testkit::exists(kMark), "a file was read and marked");
    require(tree.save(), "a tree that was read can't be saved");
    const std::string saved = testkit::readFile(kFile);
    SnapTree again;
    again.setTreeFile(kFile);
    require(again.load(), "what was saved can't be read");
    require(testkit::printedTree(tree) == testkit::printedTree(again), "another tree came back");
    require(again.save(), "what came back can't be saved");
    require(saved == testkit::readFile(kFile), "what came back is saved otherwise");
    searchFromSome(again);
    rewriteEverything(again);
    return true;
}

} // namespace

bool fuzzInputTaken = false;

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    std::string failure;
    if (!testkit::Sandbox::enter()) {
        failure = testkit::Sandbox::reason();
    } else {
        testkit::Sandbox::reset();
        failure = testkit::Sandbox::mountSimulatedVolume("/vol1");
    }
    if (!failure.empty()) {
        std::fprintf(stderr, "skipped: %s\n", failure.c_str());
        std::exit(kFuzzSkipped);
    }
    if (!testkit::makeDirectories("/vol1/@eaDir") || !testkit::makeDirectories("/vol1/@tmp")) {
        std::perror("/vol1");
        std::exit(EXIT_FAILURE);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    testkit::logClear();
    (void)unlink(kMark);
    require(testkit::writeFile(kFile, std::string(reinterpret_cast<const char *>(data), size)), "the disk is full");
    fuzzInputTaken = loadAndUse();
    return 0;
}
