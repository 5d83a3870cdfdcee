#include <sharesnap/frame.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/snaptree.hpp>
#include <sys/resource.h>

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <thread>

#include "support/faults.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"
#include "support/tree_names.hpp"

namespace {

using namespace QovaSnapTree;
using testkit::childNames;
using testkit::cloneName;
using testkit::nameText;
using testkit::objectName;
using testkit::rootName;
using testkit::snapName;
using testkit::treeName;

using Names = std::set<std::string>;
constexpr char kS1[] = "GMT-2024.01.01-00.00.00";
constexpr char kS2[] = "GMT-2024.01.02-00.00.00";
constexpr char kS3[] = "GMT-2024.01.03-00.00.00";

class TreeRewrite : public testkit::SandboxTest {
protected:
    [[nodiscard]] Names children(const nodeName &name) const { return childNames(tree.getNode(name)); }
    [[nodiscard]] std::string parentOf(const nodeName &name) const { return nameText(tree.getNode(name)->parent()); }

    void chain(const std::string &object, std::initializer_list<const char *> snaps) {
        ASSERT_EQ(0, tree.insertObject(objectName(object)));
        for (const char *snap : snaps) {
            ASSERT_EQ(0, tree.insertSnap(objectName(object), snapName(object, snap)));
        }
    }

    SnapTree tree;
};

TEST_F(TreeRewrite, LooksUpByTheWholeName) {
    EXPECT_NE(nullptr, tree.getNode(treeName(NODE_ROOT, "any", "text", "at all")));
    EXPECT_EQ(nullptr, tree.getNode(snapName("a", kS1)));
    EXPECT_EQ(nullptr, tree.getNode(treeName(4)));
    EXPECT_EQ(nullptr, tree.getNode(objectName("a")));
    chain("a", {kS1});
    EXPECT_NE(nullptr, tree.getNode(snapName("a", kS1)));
    EXPECT_EQ(nullptr, tree.getObject(snapName("a", kS1)));
    EXPECT_EQ("", testkit::logText());
}

TEST_F(TreeRewrite, NodeInfosAreFoundEverywhere) {
    chain("a", {kS1});
    std::string value = "x";
    EXPECT_EQ(-1, tree.getNodeInfo(objectName("b"), "k", value));
    EXPECT_TRUE(testkit::logged(LOG_DEBUG, "Failed to get node in tree, it not exist."));
    EXPECT_EQ(-1, tree.addNodeInfo(objectName("b"), "k", "v"));
    for (const nodeName &name : {rootName(), objectName("a"), snapName("a", kS1)}) {
        EXPECT_EQ(0, tree.addNodeInfo(name, "k", "v"));
        EXPECT_EQ(0, tree.getNodeInfo(name, "k", value));
        EXPECT_EQ("v", value);
        EXPECT_EQ(0, tree.getNodeInfo(name, "other", value));
        EXPECT_EQ("", value);
    }
}

TEST_F(TreeRewrite, NewSnapshotGoesBetweenTheObjectAndItsParent) {
    chain("a", {});
    EXPECT_EQ(Names{"object/a"}, children(rootName()));
    ASSERT_EQ(0, tree.insertSnap(objectName("a"), snapName("a", kS1)));
    EXPECT_EQ(Names{std::string("snap/a/") + kS1}, children(rootName()));
    EXPECT_EQ(Names{"object/a"}, children(snapName("a", kS1)));
    EXPECT_EQ(std::string("snap/a/") + kS1, parentOf(objectName("a")));
    EXPECT_EQ("root", parentOf(snapName("a", kS1)));
    EXPECT_EQ(1u, tree.getObject(objectName("a"))->listSnapshots().size());
}

TEST_F(TreeRewrite, RefusalsNameTheCauseAndChangeNothing) {
    chain("a", {kS1});
    chain("b", {});
    const std::string before = testkit::printedTree(tree);
    EXPECT_EQ(-1, tree.insertObject(objectName("")));
    EXPECT_EQ(-1, tree.insertObject(snapName("a", kS2)));
    EXPECT_EQ(2u, testkit::logCount(LOG_ERR, "bad parameter"));
    EXPECT_EQ(-1, tree.insertObject(objectName("a")));
    EXPECT_TRUE(testkit::logged(LOG_DEBUG, "Failed to insert object node [a] in tree, it already exist."));
    EXPECT_EQ(-1, tree.insertSnap(objectName("c"), snapName("c", kS1)));
    EXPECT_TRUE(testkit::logged(LOG_DEBUG, "Failed to get object node [c] in tree, it not exist."));
    EXPECT_EQ(-1, tree.insertSnap(objectName("a"), snapName("a", kS1)));
    EXPECT_TRUE(testkit::logged(LOG_DEBUG,
                                std::string("Failed to insert snap node [a/") + kS1 + "] in tree, it aleardy exist."));
    EXPECT_EQ(-1, tree.insertSnap(objectName("a"), snapName("b", kS1)));
    EXPECT_TRUE(testkit::logged(LOG_DEBUG, std::string("snap node [b/") + kS1 + "] is not belong to object [a]"));
    EXPECT_EQ(-1, tree.insertSnapClone(objectName("a"), snapName("a", kS2), objectName("c")));
    EXPECT_TRUE(
        testkit::logged(LOG_DEBUG, std::string("Failed to get snap node [a/") + kS2 + "] in tree, it not exist."));
    EXPECT_EQ(-1, tree.insertSnapClone(objectName("a"), snapName("a", kS1), objectName("b")));
    EXPECT_TRUE(testkit::logged(LOG_DEBUG, "Failed to insert object node [b] in tree, it already exist."));
    EXPECT_EQ(-1, tree.insertObjectClone(objectName("a"), objectName("b")));
    EXPECT_TRUE(testkit::logged(LOG_DEBUG, "Failed to clone object node [b] in tree, it already exist."));
    EXPECT_EQ(-1, tree.restoreObject(objectName("a"), snapName("a", kS2)));
    EXPECT_EQ(-1, tree.restoreObject(objectName("a"), snapName("b", kS2)));
    EXPECT_EQ(-1, tree.deleteObjectSnap(objectName("a"), snapName("a", kS2)));
    EXPECT_TRUE(
        testkit::logged(LOG_DEBUG, std::string("Failed to get snapshot node [a/") + kS2 + "] in tree, it not exist."));
    EXPECT_EQ(-1, tree.deleteObjectSnap(objectName("a"), snapName("b", kS1)));
    EXPECT_EQ(-1, tree.deleteObjectSnap(objectName("c"), snapName("", "")));
    EXPECT_EQ(-1, tree.deleteObjectSnap(rootName(), snapName("", "")));
    EXPECT_EQ(before, testkit::printedTree(tree));
    EXPECT_EQ(0u, QLIBCErrGet());
}

TEST_F(TreeRewrite, CloneOfASnapshotHangsUnderIt) {
    chain("a", {kS1, kS2});
    ASSERT_EQ(0, tree.insertSnapClone(objectName("a"), snapName("a", kS1), objectName("b")));
    EXPECT_EQ((Names{std::string("snap/a/") + kS2, "object/b"}), children(snapName("a", kS1)));
    EXPECT_EQ(std::string("snap/a/") + kS1, parentOf(objectName("b")));
}

TEST_F(TreeRewrite, ClonesOfALiveObjectShareOneClonePoint) {
    chain("a", {kS1});
    ASSERT_EQ(0, tree.insertObjectClone(objectName("a"), objectName("b")));
    const nodeName point = tree.getObject(objectName("a"))->parent();
    ASSERT_EQ(NODE_CLONE_POINT, point.type);
    ASSERT_EQ(0, tree.insertObjectClone(objectName("a"), objectName("c")));
    ASSERT_EQ(0, tree.insertObjectClone(objectName("c"), objectName("d")));
    EXPECT_EQ((Names{"object/a", "object/b", "object/c", "object/d"}), children(point));
    EXPECT_EQ(Names{nameText(point)}, children(snapName("a", kS1)));
    EXPECT_EQ(std::string("snap/a/") + kS1, parentOf(point));
}

TEST_F(TreeRewrite, CloneNamesAreDrawnUntilOneIsFree) {
    const testkit::FixedTime clock(1700000000);
    const nodeName first = tree.getNewCloneName();
    EXPECT_EQ(nameText(first), nameText(tree.getNewCloneName())); // nothing was stored: the same draw again
    EXPECT_LT(std::stol(first.cloneName), 4194304);
    std::srand(1700000000); // the second is the seed
    EXPECT_EQ(std::to_string(std::rand() % 4194304), first.cloneName);
    const std::string next = std::to_string(std::rand() % 4194304);
    tree.addClone(ClonePointNode(first, rootName()));
    const nodeName second = tree.getNewCloneName();
    EXPECT_EQ(next, second.cloneName);
    EXPECT_NE(first.cloneName, second.cloneName);
    EXPECT_EQ(std::to_string(std::stol(second.cloneName)), second.cloneName);
}

TEST_F(TreeRewrite, OldestChildSnapshotTakesThePlaceOfADeletedOne) {
    chain("obj", {kS1, kS2});
    ASSERT_EQ(0, tree.insertSnapClone(objectName("obj"), snapName("obj", kS1), objectName("clone1")));
    ASSERT_EQ(0, tree.deleteObjectSnap(objectName("obj"), snapName("obj", kS1)));
    const std::string s2 = std::string("snap/obj/") + kS2;
    EXPECT_EQ(Names{s2}, children(rootName()));
    EXPECT_EQ((Names{"object/obj", "object/clone1"}), children(snapName("obj", kS2)));
    EXPECT_EQ(s2, parentOf(objectName("clone1")));
    EXPECT_EQ("root", parentOf(snapName("obj", kS2)));
    ASSERT_EQ(0, tree.deleteObjectSnap(objectName("obj"), snapName("obj", kS2)));
    EXPECT_EQ((Names{"object/obj", "object/clone1"}), children(rootName()));
    EXPECT_EQ("root", parentOf(objectName("clone1")));
    EXPECT_EQ(nullptr, tree.getNode(snapName("obj", kS2)));
}

TEST_F(TreeRewrite, SnapshotOfACloneQualifiesToo) {
    chain("a", {kS1, kS3});
    ASSERT_EQ(0, tree.insertSnapClone(objectName("a"), snapName("a", kS1), objectName("b")));
    ASSERT_EQ(0, tree.insertSnap(objectName("b"), snapName("b", kS2)));
    ASSERT_EQ(0, tree.deleteObjectSnap(objectName("a"), snapName("a", kS1)));
    EXPECT_EQ(Names{std::string("snap/b/") + kS2}, children(rootName()));
    EXPECT_EQ(std::string("snap/b/") + kS2, parentOf(snapName("a", kS3)));
}

TEST_F(TreeRewrite, ChildWithoutATimeIsNoCandidate) {
    chain("a", {kS1, "no time at all"});
    ASSERT_EQ(0, tree.deleteObjectSnap(objectName("a"), snapName("a", kS1)));
    EXPECT_EQ(Names{"snap/a/no time at all"}, children(rootName()));
    EXPECT_EQ("root", parentOf(snapName("a", "no time at all")));
}

TEST_F(TreeRewrite, ChildOfTheFutureIsNoCandidate) {
    const testkit::FixedTime clock(1704067200); // the very second of kS1
    chain("a", {"GMT-2023.01.01-00.00.00", kS1});
    ASSERT_EQ(0, tree.insertSnapClone(objectName("a"), snapName("a", "GMT-2023.01.01-00.00.00"), objectName("b")));
    ASSERT_EQ(0, tree.deleteObjectSnap(objectName("a"), snapName("a", "GMT-2023.01.01-00.00.00")));
    EXPECT_EQ((Names{std::string("snap/a/") + kS1, "object/b"}), children(rootName()));
}

TEST_F(TreeRewrite, OfEquallyOldChildrenTheFirstInSetOrderClimbs) {
    chain("a", {kS1, kS2});
    for (const std::string object : {"b", "c", "d"}) {
        ASSERT_EQ(0, tree.insertSnapClone(objectName("a"), snapName("a", kS1), objectName(object)));
        ASSERT_EQ(0, tree.insertSnap(objectName(object), snapName(object, kS2)));
    }
    const auto children = tree.getNode(snapName("a", kS1))->listChilds();
    ASSERT_EQ(4u, children.size());
    const nodeName first = children.front();
    ASSERT_EQ(0, tree.deleteObjectSnap(objectName("a"), snapName("a", kS1)));
    EXPECT_EQ(Names{nameText(first)}, this->children(rootName()));
    for (const nodeName &child : children) {
        EXPECT_EQ(nameText(child) == nameText(first) ? "root" : nameText(first), parentOf(child));
    }
}

TEST_F(TreeRewrite, WholeObjectGoesAndWhatDescendsFromItStays) {
    chain("a", {kS1, kS2});
    ASSERT_EQ(0, tree.insertSnapClone(objectName("a"), snapName("a", kS1), objectName("b")));
    ASSERT_EQ(0, tree.deleteObjectSnap(objectName("a"), treeName(NODE_SNAPSHOT)));
    EXPECT_EQ(Names{"object/b"}, children(rootName()));
    EXPECT_EQ("root", parentOf(objectName("b")));
    EXPECT_EQ(nullptr, tree.getObject(objectName("a")));
}

TEST_F(TreeRewrite, RestoredObjectHangsUnderItsSnapshot) {
    chain("a", {kS1, kS2});
    ASSERT_EQ(0, tree.restoreObject(objectName("a"), snapName("a", kS1)));
    EXPECT_EQ((Names{std::string("snap/a/") + kS2, "object/a"}), children(snapName("a", kS1)));
    EXPECT_EQ(Names{}, children(snapName("a", kS2)));
    const std::string before = testkit::printedTree(tree);
    ASSERT_EQ(0, tree.restoreObject(objectName("a"), snapName("a", kS1)));
    EXPECT_EQ(before, testkit::printedTree(tree));
}

TEST_F(TreeRewrite, ClonePointWithoutChildrenStaysUntilItIsPruned) {
    chain("a", {});
    ASSERT_EQ(0, tree.insertObjectClone(objectName("a"), objectName("b")));
    const nodeName point = tree.getObject(objectName("a"))->parent();
    ASSERT_EQ(0, tree.deleteObjectSnap(objectName("a"), treeName(NODE_SNAPSHOT)));
    ASSERT_EQ(0, tree.deleteObjectSnap(objectName("b"), treeName(NODE_SNAPSHOT)));
    EXPECT_NE(nullptr, tree.getClone(point));
    EXPECT_EQ(Names{nameText(point)}, children(rootName()));
    EXPECT_FALSE(tree.deleteUselessClone(*tree.getNode(rootName())));
    EXPECT_EQ(nullptr, tree.getClone(point));
    EXPECT_EQ(Names{}, children(rootName()));
}

TEST_F(TreeRewrite, NestedClonePointsGoInOnePass) {
    ClonePointNode outer(cloneName("1"), rootName());
    outer.addChild(cloneName("2"));
    tree.addClone(outer);
    tree.addClone(ClonePointNode(cloneName("2"), cloneName("1")));
    tree.getNode(rootName())->addChild(cloneName("1"));
    EXPECT_TRUE(tree.deleteUselessClone(*tree.getClone(cloneName("1"))));
    EXPECT_EQ(nullptr, tree.getClone(cloneName("1")));
    EXPECT_EQ(nullptr, tree.getClone(cloneName("2")));
}

TEST_F(TreeRewrite, BuildingBlocksLinkNothing) {
    chain("a", {kS1});
    tree.deleteObject(objectName("a"));
    EXPECT_EQ(nullptr, tree.getObject(objectName("a")));
    EXPECT_EQ(Names{std::string("snap/a/") + kS1}, children(rootName()));
    EXPECT_EQ("root\n", testkit::printedTree(tree)); // a name without a node is passed over
}

TEST_F(TreeRewrite, PrintsALineANode) {
    chain("a", {"s1"});
    ASSERT_EQ(0, tree.insertObjectClone(objectName("a"), objectName("b")));
    const std::string point = nameText(tree.getObject(objectName("a"))->parent());
    const NodeNameComparator before;
    const std::string first = before(objectName("a"), objectName("b")) ? "a" : "b";
    const std::string second = first == "a" ? "b" : "a";
    EXPECT_EQ("root\n  snap/a/s1\n    " + point + "\n      object/" + first + "\n      object/" + second + "\n",
              testkit::printedTree(tree));
}

TEST_F(TreeRewrite, DamagedTreesEndEveryWalk) {
    ClonePointNode circle(cloneName("5"), cloneName("5"));
    circle.addChild(cloneName("5"));
    circle.addChild(objectName("nowhere"));
    circle.addChild(snapName("nowhere", kS1));
    tree.addClone(circle);
    tree.getNode(rootName())->addChild(cloneName("5"));
    tree.getNode(rootName())->addChild(cloneName("77"));
    EXPECT_EQ("root\n  clone/5\n", testkit::printedTree(tree));
    EXPECT_FALSE(tree.deleteUselessClone(*tree.getNode(rootName())));
    ObjectNode lost(objectName("lost"), snapName("gone", kS1));
    tree.addObject(lost);
    EXPECT_EQ(0, tree.insertSnap(objectName("lost"), snapName("lost", kS1)));
    EXPECT_EQ(0, tree.insertObjectClone(objectName("lost"), objectName("copy")));
    EXPECT_EQ(0, tree.deleteObjectSnap(objectName("lost"), treeName(NODE_SNAPSHOT)));
}

// A file from outside can hold a node under another name than its own.
TEST_F(TreeRewrite, ClonePointsUnderAForeignNameArePrunedByTheirLink) {
    ClonePointNode outer(cloneName("2"), rootName());
    outer.addChild(cloneName("1"));
    tree.addClone(outer);
    tree.addClone(ClonePointNode(cloneName("1"), cloneName("2")));
    tree.getClone(cloneName("1"))->changeName(cloneName("2"));
    tree.getNode(rootName())->addChild(cloneName("2"));
    EXPECT_FALSE(tree.deleteUselessClone(*tree.getNode(rootName())));
    EXPECT_EQ(nullptr, tree.getClone(cloneName("1")));
    EXPECT_EQ(nullptr, tree.getClone(cloneName("2")));
    EXPECT_EQ(Names{}, children(rootName()));
}

TEST_F(TreeRewrite, SnapshotsOfNobodyGoWithTheirObject) {
    ObjectNode object(objectName("a"), rootName());
    object.addSnapshot(SnapshotNode(snapName("", "s1"), rootName()));
    object.addSnapshot(SnapshotNode(snapName("b", "s1"), rootName()));
    tree.addObject(object);
    tree.getNode(rootName())->addChild(objectName("a"));
    EXPECT_EQ(0, tree.deleteObjectSnap(objectName("a"), treeName(NODE_SNAPSHOT)));
    EXPECT_EQ(nullptr, tree.getObject(objectName("a")));
    EXPECT_EQ(Names{}, children(rootName()));
}

// A long chain on a small stack: walks keep their place on the heap.
TEST_F(TreeRewrite, LongChainsNeedNoDeepStack) {
    static const int snaps = std::getenv("SHARESNAP_LONG") != nullptr ? 100000 : 10000;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 512 * 1024);
    pthread_t thread;
    const auto work = [](void *argument) -> void * {
        auto *chained = static_cast<SnapTree *>(argument);
        (void)chained->insertObject(objectName("a"));
        for (int i = 0; i < snaps; ++i) {
            char name[64] = "";
            (void)SnapNameGenerateByTime(name, sizeof(name), 1000000000 + i, 0);
            (void)chained->insertSnap(objectName("a"), snapName("a", name));
        }
        (void)chained->deleteUselessClone(*chained->getNode(rootName()));
        std::ofstream out("/dev/null");
        chained->printTree(out);
        (void)chained->deleteObjectSnap(objectName("a"), treeName(NODE_SNAPSHOT));
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, &attributes, work, &tree));
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    pthread_attr_destroy(&attributes);
    EXPECT_EQ("root\n", testkit::printedTree(tree));
}

} // namespace
