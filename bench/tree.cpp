// The snapshot tree: building, saving and loading 1,000 to 100,000 nodes, against maps and sets of plain structs that
// have the same data in the same order and go through a bare archive; and what a creation pays for keeping the tree.
#include "common/bench.hpp"
#include "common/share.hpp"
#include "support/files.hpp"
#include "support/tree_names.hpp"

#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/mresult.h>
#include <sharesnap/snaptree.hpp>

#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/map.hpp>
#include <boost/serialization/set.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/utility.hpp>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

time_t clockSecond = 1600000000;

} // namespace

// The plain structs. Their order is that of the tree: descending hash of the joined texts, made in a stack buffer.
namespace plain {

struct Name {
    std::int32_t type = 0;
    std::string object;
    std::string snap;
    std::string clone;

    template <class Archive>
    void serialize(Archive &archive, const unsigned int /*version*/) {
        archive &type &object &snap &clone;
    }
};

size_t hashOf(const Name &name) {
    char text[512];
    size_t length = 1;
    text[0] = static_cast<char>('0' + name.type);
    for (const std::string *part : {&name.object, &name.snap, &name.clone}) {
        std::memcpy(text + length, part->data(), part->size());
        length += part->size();
    }
    return std::hash<std::string_view>()({text, length});
}

struct Order {
    bool operator()(const Name &a, const Name &b) const { return hashOf(a) > hashOf(b); }
};

struct Node {
    Name name;
    Name parent;
    std::set<Name, Order> childs;
    std::map<std::string, std::string> infos;

    template <class Archive>
    void serialize(Archive &archive, const unsigned int /*version*/) {
        archive &name &parent &childs &infos;
    }
};

struct ClonePoint : Node {}; // a class of its own, as the archive counts them

struct Object {
    Name name;
    Name parent;
    std::map<Name, Node, Order> snapshots;
    std::map<std::string, std::string> infos;

    template <class Archive>
    void serialize(Archive &archive, const unsigned int /*version*/) {
        archive &name &parent &snapshots &infos;
    }
};

struct Tree {
    Node root;
    std::map<Name, Object, Order> objects;
    std::map<Name, ClonePoint, Order> clones;

    template <class Archive>
    void serialize(Archive &archive, const unsigned int /*version*/) {
        archive &root &objects &clones;
    }
};

void load(const std::string &path, Tree &tree) {
    std::ifstream in(path, std::ios::binary);
    boost::archive::binary_iarchive archive(in);
    archive >> tree;
}

void save(const std::string &path, const Tree &tree) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    boost::archive::binary_oarchive archive(out);
    archive << tree;
}

} // namespace plain

namespace {

using namespace bench;
using QovaSnapTree::SnapTree;
using testkit::objectName;
using testkit::snapName;

constexpr int objects = 10;
constexpr char treeFile[] = "/vol1/@eaDir/snaptree.bin";
constexpr char plainFile[] = "/vol1/@tmp/plain.bin";

std::string share(int number) {
    return "share" + std::to_string(number);
}

// Ten shares, each with a chain of snapshots, each snapshot taken after the one before.
void build(SnapTree &tree, int nodes) {
    for (int i = 0; i < objects; ++i) {
        must(tree.insertObject(objectName(share(i))) == 0, "an object");
    }
    for (int i = 0; i < nodes; ++i) {
        const std::string name = share(i % objects);
        must(tree.insertSnap(objectName(name), snapName(name, snapshotName(i))) == 0, "a snapshot");
    }
}

// The same nodes and links, put where they belong without a question.
void build(plain::Tree &tree, int nodes) {
    for (int i = 0; i < objects; ++i) {
        const plain::Name object = {1, share(i), "", ""};
        plain::Name parent;
        auto &entry = tree.objects[object];
        entry.name = object;
        for (int number = i; number < nodes; number += objects) {
            const plain::Name name = {2, share(i), snapshotName(number), ""};
            plain::Node &node = entry.snapshots[name];
            node.name = name;
            node.parent = parent;
            node.childs.insert(number + objects < nodes ? plain::Name{2, share(i), snapshotName(number + objects), ""}
                                                        : object);
            parent = name;
        }
        entry.parent = parent;
        tree.root.childs.insert({2, share(i), snapshotName(i), ""});
    }
}

template <class Tree, class Build>
double building(int nodes, Build function) {
    const auto tree = std::make_unique<Tree>(); // its end isn't measured
    return timed([&] { function(*tree, nodes); });
}

double libraryLoad() {
    SnapTree tree;
    tree.setTreeFile(treeFile);
    return timed([&] { must(tree.load(), "load"); });
}

double plainLoad() {
    plain::Tree tree;
    return timed([&] { plain::load(treeFile, tree); });
}

void sync(const char *path) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    must(file >= 0 && fsync(file) == 0 && close(file) == 0, "fsync");
}

void raceTrees(int nodes) {
    SnapTree tree;
    plain::Tree bare;
    tree.setTreeFile(treeFile);
    build(tree, nodes);
    build(bare, nodes);
    must(tree.save(), "save");
    plain::save(plainFile, bare);
    // But for the version of the archive layer the two files are one.
    must(testkit::readFile(treeFile).substr(32) == testkit::readFile(plainFile).substr(32), "the same bytes");
    std::printf("a tree file of %zu bytes\n", testkit::readFile(treeFile).size());
    const std::string title = std::to_string(nodes) + " snapshots in ten shares, ";
    const int rounds = nodes > 10000 ? 5 : 9;
    race(title + "built",
         {{"maps of plain structs, hashed in a stack buffer",
           [nodes] { return building<plain::Tree>(nodes, [](plain::Tree &one, int count) { build(one, count); }); }},
          {"library, insertSnap",
           [nodes] { return building<SnapTree>(nodes, [](SnapTree &one, int count) { build(one, count); }); }}},
         rounds);
    race(title + "saved",
         {{"bare archive, no fsync", [&] { return timed([&] { plain::save(plainFile, bare); }); }},
          {"bare archive and one fsync",
           [&] {
               return timed([&] {
                   plain::save(plainFile, bare);
                   sync(plainFile);
               });
           }},
          {"library, save", [&] { return timed([&] { must(tree.save(), "save"); }); }}},
         rounds);
    race(title + "loaded", {{"bare archive", plainLoad}, {"library, load", libraryLoad}}, rounds);
}

// One creation, with or without its cycle of the tree; what it made is taken away again.
double create(const QOVASHARE &docs, bool withTree) {
    ++clockSecond;
    char name[1024] = "";
    QLIBCSZHASH *hash = QLIBCSzHashAlloc(1024);
    const double seconds = timed([&] {
        must(QOVAShareSnapCreate(&docs, name, sizeof(name), &hash) == 0, "QOVAShareSnapCreate");
        if (withTree) {
            SnapTree tree;
            must(tree.loadByVolume("/vol1", true) == 0, "loadByVolume");
            must(tree.insertSnap(objectName("docs"), snapName("docs", name)) == 0, "insertSnap");
            must(tree.save(), "save");
        }
    });
    QLIBCSzHashFree(hash);
    QLIBCSZLIST *list = QLIBCSzListAlloc(512);
    QLIBCMRESULT *results = QLIBCMResultAlloc();
    must(QLIBCSzListPush(&list, name) >= 0 && QOVAShareSnapDelete(&docs, list, &results) == 0, "deleting");
    QLIBCMResultFree(results);
    QLIBCSzListFree(list);
    if (withTree) {
        SnapTree tree;
        must(tree.loadByVolume("/vol1", true) == 0, "loadByVolume");
        must(tree.deleteObjectSnap(objectName("docs"), snapName("docs", name)) == 0 && tree.save(), "the tree");
    }
    return seconds;
}

void raceCreations(int count) {
    const QOVASHARE &docs = makeShare("docs", 2000);
    plantSnapshots(docs, 0, count - 1);
    SnapTree tree;
    tree.setTreeFile(treeFile);
    must(tree.insertObject(objectName("docs")) == 0, "the share");
    for (int i = 0; i < count; ++i) {
        must(tree.insertSnap(objectName("docs"), snapName("docs", snapshotName(i))) == 0, "a snapshot");
    }
    must(tree.save(), "save");
    race("one more snapshot, " + std::to_string(count) + " exist",
         {{"library, no tree", [&] { return create(docs, false); }},
          {"library, with a cycle of the tree", [&] { return create(docs, true); }}});
}

} // namespace

// Names have a resolution of one second. The clock of this program moves on with each snapshot, so that none has to wait.
extern "C" time_t time(time_t *result) noexcept {
    if (result != nullptr) {
        *result = clockSecond;
    }
    return clockSecond;
}

int main() {
    enterSandbox(2048);
    must(testkit::makeDirectories("/vol1/@eaDir") && testkit::makeDirectories("/vol1/@tmp"), "the tree's directories");
    for (const int nodes : {1000, 10000, 100000}) {
        raceTrees(nodes);
    }
    raceCreations(1000);
    return 0;
}
