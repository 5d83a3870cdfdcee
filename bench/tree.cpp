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
#include <vector>

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

Object &addObject(Tree &tree, const std::string &share) {
    const Name name = {1, share, "", ""};
    Object &object = tree.objects[name];
    object.name = name;
    return object;
}

bool insertSnap(Tree &tree, const Name &object, const Name &snap) {
    const auto owner = tree.objects.find(object);
    if (owner == tree.objects.end() || owner->second.snapshots.count(snap) != 0) {
        return false;
    }
    const Name above = owner->second.parent;
    Node &parent = above.type == 0 ? tree.root : tree.objects.at({1, above.object, "", ""}).snapshots.at(above);
    Node &node = owner->second.snapshots[snap];
    node.name = snap;
    node.parent = above;
    node.childs.insert(object);
    parent.childs.insert(snap);
    parent.childs.erase(object);
    owner->second.parent = snap;
    return true;
}

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
using QovaSnapTree::nodeName;
using QovaSnapTree::SnapTree;
using testkit::objectName;
using testkit::snapName;

constexpr int objects = 10;
constexpr char treeFile[] = "/vol1/@eaDir/snaptree.bin";
constexpr char plainFile[] = "/vol1/@tmp/plain.bin";

std::string share(int number) {
    return "share" + std::to_string(number);
}

// Ten shares, each with a chain of snapshots, each snapshot taken after the one before. The names are made beforehand.
void build(SnapTree &tree, const std::vector<nodeName> &snapshots) {
    std::vector<nodeName> owners;
    for (int i = 0; i < objects; ++i) {
        owners.push_back(objectName(share(i)));
        must(tree.insertObject(owners.back()) == 0, "an object");
    }
    for (size_t i = 0; i < snapshots.size(); ++i) {
        must(tree.insertSnap(owners[i % objects], snapshots[i]) == 0, "a snapshot");
    }
}

// The same nodes and links in the same order, each put where it belongs without a question.
void build(plain::Tree &tree, const std::vector<plain::Name> &snapshots) {
    std::vector<plain::Object *> owners;
    for (int i = 0; i < objects; ++i) {
        owners.push_back(&plain::addObject(tree, share(i)));
    }
    for (size_t i = 0; i < snapshots.size(); ++i) {
        plain::Object &owner = *owners[i % objects];
        plain::Node &node = owner.snapshots[snapshots[i]];
        node.name = snapshots[i];
        node.parent = owner.parent;
        node.childs.insert(i + objects < snapshots.size() ? snapshots[i + objects] : owner.name);
        owner.parent = snapshots[i];
        if (i < objects) {
            tree.root.childs.insert(snapshots[i]);
        }
    }
}

// The same by the steps of an insertion: is the object there, the snapshot not, where is the parent.
void buildAsking(plain::Tree &tree, const std::vector<plain::Name> &snapshots) {
    std::vector<plain::Name> owners;
    for (int i = 0; i < objects; ++i) {
        owners.push_back(plain::addObject(tree, share(i)).name);
        tree.root.childs.insert(owners.back());
    }
    for (size_t i = 0; i < snapshots.size(); ++i) {
        must(plain::insertSnap(tree, owners[i % objects], snapshots[i]), "a snapshot");
    }
}

template <class Tree, class Name>
double building(void (*way)(Tree &, const std::vector<Name> &), const std::vector<Name> &snapshots) {
    const auto tree = std::make_unique<Tree>(); // its end isn't measured
    return timed([&] { way(*tree, snapshots); });
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
    std::vector<nodeName> names;
    std::vector<plain::Name> plainNames;
    for (int i = 0; i < nodes; ++i) {
        const std::string owner = share(i % objects);
        names.push_back(snapName(owner, snapshotName(i)));
        plainNames.push_back({2, owner, snapshotName(i), ""});
    }
    tree.setTreeFile(treeFile);
    build(tree, names);
    build(bare, plainNames);
    must(tree.save(), "save");
    plain::save(plainFile, bare);
    // But for the version of the archive layer the two files are one.
    must(testkit::readFile(treeFile).substr(32) == testkit::readFile(plainFile).substr(32), "the same bytes");
    std::printf("a tree file of %zu bytes\n", testkit::readFile(treeFile).size());
    const std::string title = std::to_string(nodes) + " snapshots in ten shares, ";
    const int rounds = nodes > 10000 ? 5 : 9;
    race(title + "built",
         {{"maps of plain structs, no questions asked", [&] { return building<plain::Tree>(build, plainNames); }},
          {"maps of plain structs, the steps of an insertion",
           [&] { return building<plain::Tree>(buildAsking, plainNames); }},
          {"library, insertSnap", [&] { return building<SnapTree>(build, names); }}},
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
