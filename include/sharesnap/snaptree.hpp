// The snapshot tree of a volume: from what each share and each snapshot descends, kept through every deletion.
//
// A tree is worked on in cycles: loadByVolume(volume, exclusive), rewrites, save(). loadByVolume takes the tree's lock
// (it may wait 100 seconds), save and freeLock drop it; the destructor doesn't. One object is used by one thread at a
// time. Rewrites change memory alone. Needs root, for the lock and for the tree file.
//
// Results: int 0 done, -1 refused (a line in the log tells why, the tree is as it was); bool true done. Allocation
// failures pass through as standard exceptions.
#ifndef SHARESNAP_SNAPTREE_HPP
#define SHARESNAP_SNAPTREE_HPP

#include <sharesnap/api.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iosfwd>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace QovaSnapTree {

// Kinds of node. The numbers stand in the tree file.
enum : std::int32_t { NODE_ROOT = 0, NODE_OBJECT = 1, NODE_SNAPSHOT = 2, NODE_CLONE_POINT = 3 };

class SnapTree;
struct ArchiveAccess;

// The name of a node; which of the texts are used depends on the type.
struct SHARESNAP_API nodeName {
    nodeName();
    nodeName(const nodeName &other);
    nodeName &operator=(const nodeName &other);
    nodeName &operator=(nodeName &&other) noexcept;
    ~nodeName();

    std::int32_t type;
    std::string objectName; // of an object, or of the object that owns a snapshot
    std::string snapName;   // of a snapshot
    std::string cloneName;  // of a clone point, in decimal digits
};

// Hash of the type in decimal and the three texts, joined without a separator.
struct SHARESNAP_API NodeNameHasher {
    std::uint64_t operator()(const nodeName &name) const;
};

// Order of every set and map of names: descending hash. Names of equal hash are one key. A look-up can go by the hash of
// the name that is looked for, which is then worked out once and not for every node on the way.
struct SHARESNAP_API NodeNameComparator {
    using is_transparent = void;

    bool operator()(const nodeName &a, const nodeName &b) const;
    bool operator()(const nodeName &a, std::uint64_t hash) const;
    bool operator()(std::uint64_t hash, const nodeName &b) const;
};

// "root", "object/<object>", "snap/<object>/<snapshot>" or "clone/<number>".
SHARESNAP_API std::ostream &operator<<(std::ostream &out, const nodeName &name);

// Nodes are held by value in maps and never deleted through a base pointer: the destructor isn't virtual on purpose.
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#endif

class SHARESNAP_API BaseNode {
public:
    BaseNode();
    BaseNode(const nodeName &name, const nodeName &parent);
    BaseNode(const BaseNode &other);
    BaseNode &operator=(const BaseNode &other);
    ~BaseNode();

    const nodeName &name() const;
    const nodeName &parent() const;
    std::size_t getChildSize() const;
    void changeName(const nodeName &name);
    void changeParent(const nodeName &parent);
    virtual void addChild(const nodeName &child);
    virtual void deleteChild(const nodeName &child);
    // A copy of the children's names in set order.
    std::list<nodeName> listChilds() const;
    void addInfo(const std::string &key, const std::string &value);
    // An unknown key clears value.
    void getInfo(const std::string &key, std::string &value) const;
    // Writes the node and all below it, a line a node, two blanks a level.
    virtual void printTree(std::ofstream &out, const SnapTree &tree, const std::string &prefix) const;

protected:
    friend struct ArchiveAccess;
    nodeName selfName;
    nodeName parentName;
    std::set<nodeName, NodeNameComparator> childs;
    std::map<std::string, std::string> infos;
};

class SHARESNAP_API SnapshotNode final : public BaseNode {
public:
    SnapshotNode();
    SnapshotNode(const nodeName &name, const nodeName &parent);
};

class SHARESNAP_API ClonePointNode final : public BaseNode {
public:
    ClonePointNode();
    ClonePointNode(const nodeName &name, const nodeName &parent);
};

// An object is a leaf. It owns its snapshots' nodes, wherever those stand in the tree.
class SHARESNAP_API ObjectNode final : public BaseNode {
public:
    ObjectNode();
    ObjectNode(const nodeName &name, const nodeName &parent);

    void addChild(const nodeName &child) override;    // refuses, with a line in the log
    void deleteChild(const nodeName &child) override; // likewise
    void printTree(std::ofstream &out, const SnapTree &tree, const std::string &prefix) const override;

    // The stored node; one of the same name gets the new fields in its place.
    SnapshotNode *addSnapshot(const SnapshotNode &node);
    void deleteSnapshot(const nodeName &snap);
    // Null when there is none. Valid until the map changes.
    SnapshotNode *getSnapshot(const nodeName &snap) const;
    std::list<nodeName> listSnapshots() const;

private:
    friend struct ArchiveAccess;
    friend class SnapTree;
    // A new snapshot without children. Null when there is one of this name.
    SnapshotNode *newSnapshot(const nodeName &snap, const nodeName &parent);

    std::map<nodeName, SnapshotNode, NodeNameComparator> snapshots;
};

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

class SHARESNAP_API SnapTree {
public:
    SnapTree();
    SnapTree(const SnapTree &) = delete;
    SnapTree &operator=(const SnapTree &) = delete;
    ~SnapTree();

    // Look-ups: null when there is none; a pointer is valid until the map that holds the node changes.
    ObjectNode *getObject(const nodeName &object) const;
    ClonePointNode *getClone(const nodeName &clone) const;
    BaseNode *getNode(const nodeName &node) const;
    int getNodeInfo(const nodeName &node, const std::string &key, std::string &value) const;
    // A free random number below 4194304 as a clone point's name; nothing reserves it.
    nodeName getNewCloneName();

    // Rewrites. A new object; a snapshot of an object; a clone of a snapshot; a clone of a live object; an object that
    // goes back to one of its snapshots; one snapshot, or with an empty snap.objectName a whole object, that goes.
    int insertObject(const nodeName &object);
    int insertSnap(const nodeName &object, const nodeName &snap);
    int insertSnapClone(const nodeName &object, const nodeName &snap, const nodeName &newObject);
    int insertObjectClone(const nodeName &object, const nodeName &newObject);
    int restoreObject(const nodeName &object, const nodeName &snap);
    int deleteObjectSnap(const nodeName &object, const nodeName &snap);
    int addNodeInfo(const nodeName &node, const std::string &key, const std::string &value);

    // Building blocks: they change one map or one node and link nothing else.
    ObjectNode *addObject(const ObjectNode &object);
    ClonePointNode *addClone(const ClonePointNode &clone);
    void deleteObject(const nodeName &object);
    void deleteClone(const nodeName &clone);
    void deleteAllSnapshot(ObjectNode &object);
    void replaceByChild(SnapshotNode &node);
    // Drops childless clone points below node; true when node itself was one and is gone.
    bool deleteUselessClone(BaseNode &node);
    void changeRoot(const SnapshotNode &node);

    // Snapshots from which the object, or the snapshot that path ends in, may have its data, nearest first, appended to
    // result. Loads the volume's tree into this object under the shared lock and drops the lock again. 0 or -1.
    int findCloneSrcSnap(const std::string &volume, const std::string &object, const std::string &path,
                         std::vector<nodeName> &result);
    // Writes the whole tree as text, the root first. Ask the stream whether it was written.
    void printTree(std::ofstream &out) const;

    // "/<last component of volume>/@eaDir/snaptree.bin".
    std::string getFileName(const std::string &volume) const;
    // The path that load and save use from now on; the tree in memory stays as it is.
    void setTreeFile(const std::string &path);
    // The lock's handle or -1; waits up to 100 seconds. The object doesn't keep the handle.
    int lockSnapTreeFile(const std::string &volume, bool blExclusive);
    // Drops the lock that loadByVolume took; nothing without one. A lock that can't be dropped stays, with a line in
    // the log.
    void freeLock();
    // 0 with the lock held, also when the volume has no tree yet; -1, with the lock still held when only the load
    // failed. A file of the old form is converted and saved while loading, which drops the lock. Not with the lock of
    // an earlier call still held: that one would be lost.
    int loadByVolume(const std::string &volume, bool blExclusive);
    // Reads the tree file into this tree, which should be empty. False: the file can't be read, or one that couldn't
    // stands marked (<tree file>.broken). It is marked then, and refused until somebody takes the mark away. The lock
    // is the caller's business.
    bool load();
    // Writes the tree through a temporary file in the volume's @tmp, which has to be there, and drops the lock, on
    // failure too. False: the file is as it was. Clone points without children go, in memory too. Descriptors 0 to 2
    // must be open, or the file is taken for a failure.
    bool save();
    // Converts the tree file from the old form and saves it, which drops the lock. load calls it.
    bool loadByOldSnapTree();
    // Does nothing: a program that calls it is bound to this library and finds out so whether it has trees.
    void support();

private:
    friend struct ArchiveAccess;
    std::map<nodeName, ObjectNode, NodeNameComparator> objects;
    std::map<nodeName, ClonePointNode, NodeNameComparator> clones;
    std::string treeFile;
    std::int32_t lockFd;
    SnapshotNode root;
};

} // namespace QovaSnapTree

#endif
