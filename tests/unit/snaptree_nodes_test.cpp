#include <sharesnap/snaptree.hpp>

#include <gtest/gtest.h>
#include <string>
#include <type_traits>
#include <vector>

#include "support/fixtures.hpp"
#include "support/log_capture.hpp"
#include "support/tree_names.hpp"

namespace {

using namespace QovaSnapTree;
using testkit::cloneName;
using testkit::nameText;
using testkit::objectName;
using testkit::rootName;
using testkit::snapName;
using testkit::treeName;

class TreeNode : public testkit::SandboxTest {};

TEST_F(TreeNode, TextFormFollowsTheType) {
    EXPECT_EQ("root", nameText(treeName(0, "a", "b", "c")));
    EXPECT_EQ("object/vol", nameText(objectName("vol")));
    EXPECT_EQ("snap/vol/s1", nameText(snapName("vol", "s1")));
    EXPECT_EQ("clone/1234", nameText(cloneName("1234")));
    EXPECT_EQ("snap/a/b", nameText(treeName(7, "a", "b")));
    EXPECT_EQ("snap/a/b", nameText(treeName(-1, "a", "b")));
}

TEST_F(TreeNode, HashJoinsTheFieldsWithoutASeparator) {
    const NodeNameHasher hash;
    EXPECT_EQ(std::hash<std::string>()("1ab"), hash(objectName("ab")));
    EXPECT_EQ(hash(objectName("ab")), hash(treeName(NODE_OBJECT, "a", "b")));
    EXPECT_EQ(std::hash<std::string>()("-5abc"), hash(treeName(-5, "a", "b", "c")));
    const std::string longName(5000, 'x');
    EXPECT_EQ(std::hash<std::string>()("2" + longName + "s"), hash(snapName(longName, "s")));
}

TEST_F(TreeNode, OrderIsByDescendingHash) {
    const NodeNameHasher hash;
    const NodeNameComparator before;
    const nodeName a = objectName("a");
    const nodeName b = objectName("b");
    EXPECT_EQ(hash(a) > hash(b), before(a, b));
    EXPECT_NE(before(a, b), before(b, a));
    EXPECT_FALSE(before(a, a));
    BaseNode node(rootName(), rootName());
    for (int i = 0; i < 50; ++i) {
        node.addChild(objectName(std::to_string(i)));
    }
    std::uint64_t last = ~std::uint64_t{0};
    for (const nodeName &child : node.listChilds()) {
        EXPECT_LT(hash(child), last);
        last = hash(child);
    }
}

TEST_F(TreeNode, NamesOfEqualHashAreOneKey) {
    BaseNode node(rootName(), rootName());
    node.addChild(objectName("ab"));
    node.addChild(treeName(NODE_OBJECT, "a", "b"));
    ASSERT_EQ(1u, node.getChildSize());
    EXPECT_EQ("ab", node.listChilds().front().objectName);
}

TEST_F(TreeNode, TypeIsPartOfTheKey) {
    BaseNode node(rootName(), rootName());
    node.addChild(objectName("a"));
    node.addChild(treeName(NODE_SNAPSHOT, "a"));
    EXPECT_EQ(2u, node.getChildSize());
}

TEST_F(TreeNode, UnknownInfoClearsTheAnswer) {
    BaseNode node;
    std::string value = "before";
    node.getInfo("key", value);
    EXPECT_EQ("", value);
    node.addInfo("key", "one");
    node.addInfo("key", "two");
    node.getInfo("key", value);
    EXPECT_EQ("two", value);
}

TEST_F(TreeNode, CopyOfTheChildrenStandsAlone) {
    BaseNode node(rootName(), rootName());
    node.addChild(objectName("a"));
    const auto copy = node.listChilds();
    node.deleteChild(objectName("a"));
    node.deleteChild(objectName("never there"));
    EXPECT_EQ(1u, copy.size());
    EXPECT_EQ(0u, node.getChildSize());
}

TEST_F(TreeNode, NamesAndParentsAreOverwrittenWhole) {
    BaseNode node(snapName("a", "s"), rootName());
    node.changeName(cloneName("7"));
    node.changeParent(snapName("b", "t"));
    EXPECT_EQ("clone/7", nameText(node.name()));
    EXPECT_EQ("", node.name().objectName);
    EXPECT_EQ("snap/b/t", nameText(node.parent()));
    const BaseNode copy(node);
    EXPECT_EQ("clone/7", nameText(copy.name()));
}

TEST_F(TreeNode, DefaultNameHasATypeOfItsOwn) {
    EXPECT_EQ(NODE_ROOT, nodeName().type);
    EXPECT_FALSE(std::has_virtual_destructor<BaseNode>::value);
}

TEST_F(TreeNode, ObjectsRefuseChildren) {
    ObjectNode object(objectName("a"), rootName());
    object.addChild(objectName("b"));
    EXPECT_EQ(0u, object.getChildSize());
    EXPECT_TRUE(testkit::loggedMatch(LOG_ERR, "^snaptree[a-z_]*\\.cpp:[0-9]+ Cannot add child in object node$"));
    object.deleteChild(objectName("b"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Cannot delete child in object node"));
    EXPECT_EQ(2u, testkit::logLines().size());
}

TEST_F(TreeNode, SecondSnapshotOfANameReplacesTheFields) {
    ObjectNode object(objectName("a"), rootName());
    SnapshotNode first(snapName("a", "s"), rootName());
    first.addInfo("old", "1");
    SnapshotNode *stored = object.addSnapshot(first);
    SnapshotNode second(snapName("a", "s"), cloneName("5"));
    second.addInfo("new", "2");
    EXPECT_EQ(stored, object.addSnapshot(second));
    EXPECT_EQ(stored, object.getSnapshot(snapName("a", "s")));
    EXPECT_EQ("clone/5", nameText(stored->parent()));
    std::string value = "x";
    stored->getInfo("old", value);
    EXPECT_EQ("", value);
    EXPECT_EQ(1u, object.listSnapshots().size());
    object.deleteSnapshot(snapName("a", "absent"));
    object.deleteSnapshot(snapName("a", "s"));
    EXPECT_EQ(nullptr, object.getSnapshot(snapName("a", "s")));
    EXPECT_TRUE(testkit::nothingFailed());
}

// All names of the texts "", "1" and "11": many of them are one key with others.
std::vector<nodeName> similarNames() {
    std::vector<nodeName> names;
    for (const int type : {1, 2, 3, 11}) {
        for (const std::string object : {"", "1", "11"}) {
            for (const std::string snap : {"", "1", "11"}) {
                for (const std::string clone : {"", "1", "11"}) {
                    names.push_back(treeName(type, object, snap, clone));
                }
            }
        }
    }
    return names;
}

bool isOneKey(const nodeName &a, const nodeName &b) {
    return NodeNameHasher()(a) == NodeNameHasher()(b);
}

// Each look-up of each kind of node finds by the hash alone, whatever else stands in the map.
TEST_F(TreeNode, EveryLookUpFindsTheNamesOfEqualHash) {
    const std::vector<nodeName> names = similarNames();
    size_t hits = 0;
    for (const nodeName &stored : names) {
        SnapTree tree;
        tree.addObject(ObjectNode(stored, rootName()));
        tree.addClone(ClonePointNode(stored, rootName()));
        ObjectNode object(objectName("owner"), rootName());
        object.addSnapshot(SnapshotNode(stored, rootName()));
        for (const char *other : {"x", "y", "z"}) {
            tree.addObject(ObjectNode(objectName(other), rootName()));
            tree.addClone(ClonePointNode(cloneName(other), rootName()));
            object.addSnapshot(SnapshotNode(snapName(other, other), rootName()));
        }
        for (const nodeName &wanted : names) {
            BaseNode parent(rootName(), rootName());
            parent.addChild(objectName("x"));
            parent.addChild(stored);
            parent.deleteChild(wanted);
            const bool hit = isOneKey(stored, wanted);
            hits += hit ? 1 : 0;
            EXPECT_EQ(hit, tree.getObject(wanted) != nullptr) << stored << " " << wanted;
            EXPECT_EQ(hit, tree.getClone(wanted) != nullptr) << stored << " " << wanted;
            EXPECT_EQ(hit, object.getSnapshot(wanted) != nullptr) << stored << " " << wanted;
            EXPECT_EQ(hit ? 1U : 2U, parent.getChildSize()) << stored << " " << wanted;
        }
    }
    EXPECT_LT(2 * names.size(), hits); // each is one key with some others
}

} // namespace
