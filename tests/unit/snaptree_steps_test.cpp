// Rewrites of damaged trees against their steps, written out over the nodes' own operations: names that are one key with
// others, parents that name themselves, an object or nothing, links that no other link answers. What comes out must be
// the same tree, the same result and the same lines in the log. SHARESNAP_TREE_SEQUENCES sets the number of trees.
#include <sharesnap/snaptree.hpp>

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <string>
#include <vector>

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

// With all texts, unlike the text form.
std::string wholeName(const nodeName &name) {
    return std::to_string(name.type) + "<" + name.objectName + "," + name.snapName + "," + name.cloneName + ">";
}

std::string describeNode(const BaseNode &node) {
    std::string text = wholeName(node.name()) + " of " + wholeName(node.parent()) + ":";
    for (const nodeName &child : node.listChilds()) {
        text += " " + wholeName(child);
    }
    return text + "\n";
}

// The few names of which a tree and the calls are made.
class Names {
public:
    Names() {
        for (const std::int32_t type : {NODE_ROOT, NODE_OBJECT, NODE_SNAPSHOT, NODE_CLONE_POINT}) {
            for (const std::string object : {"", "a", "ab", "x"}) {
                for (const std::string snap : {"", "b", "s"}) {
                    for (const std::string clone : {"", "s"}) {
                        all_.push_back(treeName(type, object, snap, clone));
                    }
                }
            }
        }
    }

    // Now and then any name at all, as a rule one as it should be.
    nodeName any(std::mt19937 &random, int type) const {
        if (random() % 4 == 0) {
            return all_[random() % all_.size()];
        }
        constexpr const char *objects[] = {"a", "ab", "x"};
        const std::string object = objects[random() % 3];
        const std::string snap = random() % 2 == 0 ? "b" : "s";
        switch (type) {
        case NODE_OBJECT:
            return objectName(object);
        case NODE_SNAPSHOT:
            return snapName(object, snap);
        case NODE_CLONE_POINT:
            return cloneName(random() % 2 == 0 ? "s" : "1");
        default:
            return rootName();
        }
    }

    nodeName any(std::mt19937 &random) const { return any(random, static_cast<int>(random() % 4)); }

    [[nodiscard]] const std::vector<nodeName> &all() const { return all_; }

private:
    std::vector<nodeName> all_;
};

// Nodes whose links were drawn: hardly any of them is answered from the other side.
void damage(SnapTree &tree, const Names &names, std::mt19937 &random) {
    const auto fill = [&](BaseNode &node) {
        for (unsigned left = random() % 4; left > 0; --left) {
            node.addChild(names.any(random));
        }
    };
    SnapshotNode root(rootName(), nodeName());
    fill(root);
    tree.changeRoot(root);
    for (unsigned left = 1 + random() % 3; left > 0; --left) {
        ObjectNode object(names.any(random, NODE_OBJECT), names.any(random));
        for (unsigned owned = random() % 4; owned > 0; --owned) {
            SnapshotNode snap(names.any(random, NODE_SNAPSHOT), names.any(random));
            fill(snap);
            SnapshotNode *stored = object.addSnapshot(snap);
            if (random() % 8 == 0) {
                stored->changeName(names.any(random)); // under a key that isn't its name
            }
        }
        ObjectNode *stored = tree.addObject(object);
        if (random() % 8 == 0) {
            stored->changeName(names.any(random));
        }
    }
    for (unsigned left = random() % 3; left > 0; --left) {
        ClonePointNode point(names.any(random, NODE_CLONE_POINT), names.any(random));
        fill(point);
        tree.addClone(point);
    }
}

std::string describe(const SnapTree &tree, const Names &names) {
    std::string text = describeNode(*tree.getNode(rootName()));
    for (const nodeName &name : names.all()) {
        if (const ClonePointNode *point = tree.getClone(name)) {
            text += wholeName(name) + " point " + describeNode(*point);
        }
        const ObjectNode *object = tree.getObject(name);
        if (object == nullptr) {
            continue;
        }
        text += wholeName(name) + " object " + describeNode(*object);
        for (const nodeName &snap : object->listSnapshots()) {
            text += "  " + wholeName(snap) + " " + describeNode(*object->getSnapshot(snap));
        }
    }
    return text;
}

bool isObject(const nodeName &name) {
    return name.type == NODE_OBJECT && !name.objectName.empty();
}

bool isSnapshot(const nodeName &name) {
    return name.type == NODE_SNAPSHOT && !name.objectName.empty() && !name.snapName.empty();
}

void unlinkChild(BaseNode *parent, const nodeName &child) {
    if (parent != nullptr) {
        parent->deleteChild(child);
    }
}

void linkChild(BaseNode *parent, const nodeName &child) {
    if (parent != nullptr) {
        parent->addChild(child);
    }
}

int insertSnapByStep(SnapTree &tree, const nodeName &object, const nodeName &snap) {
    ObjectNode *node = isObject(object) && isSnapshot(snap) ? tree.getObject(object) : nullptr;
    if (node == nullptr || object.objectName != snap.objectName || node->getSnapshot(snap) != nullptr) {
        return -1;
    }
    SnapshotNode added(snap, node->parent());
    added.addChild(object);
    BaseNode *parent = tree.getNode(node->parent());
    linkChild(parent, snap);
    unlinkChild(parent, object);
    node->changeParent(snap);
    node->addSnapshot(added);
    return 0;
}

int insertSnapCloneByStep(SnapTree &tree, const nodeName &object, const nodeName &snap, const nodeName &newObject) {
    const bool valid = isObject(object) && isSnapshot(snap) && isObject(newObject);
    const ObjectNode *node = valid ? tree.getObject(object) : nullptr;
    if (node == nullptr || object.objectName != snap.objectName || node->getSnapshot(snap) == nullptr ||
        tree.getObject(newObject) != nullptr) {
        return -1;
    }
    tree.addObject(ObjectNode(newObject, snap));
    tree.getObject(object)->getSnapshot(snap)->addChild(newObject);
    return 0;
}

int restoreByStep(SnapTree &tree, const nodeName &object, const nodeName &snap) {
    ObjectNode *node = isObject(object) && isSnapshot(snap) ? tree.getObject(object) : nullptr;
    if (node == nullptr || object.objectName != snap.objectName || node->getSnapshot(snap) == nullptr) {
        return -1;
    }
    unlinkChild(tree.getNode(node->parent()), object);
    node->getSnapshot(snap)->addChild(object);
    node->changeParent(snap);
    return 0;
}

int insertObjectByStep(SnapTree &tree, const nodeName &object) {
    if (!isObject(object) || tree.getObject(object) != nullptr) {
        return -1;
    }
    tree.getNode(rootName())->addChild(object);
    tree.addObject(ObjectNode(object, rootName()));
    return 0;
}

// The refusals of objects to take and give children: they tell of the links that were followed.
size_t refusedLinks() {
    return testkit::logCount(LOG_ERR, "Cannot add child in object node") +
           testkit::logCount(LOG_ERR, "Cannot delete child in object node");
}

// The same damaged tree twice: one is rewritten, with the other the steps are gone through.
class Twins {
public:
    Twins(const Names &names, std::mt19937::result_type seed) : names_(names) {
        std::mt19937 random(seed);
        damage(rewritten_, names, random);
        random.seed(seed);
        damage(stepped_, names, random);
    }

    // The difference, or nothing.
    template <class Rewrite, class Steps>
    std::string compare(const Rewrite &rewrite, const Steps &steps) {
        const std::string before = describe(rewritten_, names_);
        testkit::logClear();
        result = rewrite(rewritten_);
        const size_t refused = refusedLinks();
        testkit::logClear();
        const int stepped = steps(stepped_);
        const std::string after = describe(rewritten_, names_);
        if (stepped == result && refusedLinks() == refused && describe(stepped_, names_) == after &&
            (result == 0 || before == after)) {
            return "";
        }
        return "of\n" + before + "gave " + std::to_string(result) + ", not " + std::to_string(stepped) + ":\n" + after +
               "and not\n" + describe(stepped_, names_);
    }

    int result = 0;

private:
    const Names &names_;
    SnapTree rewritten_;
    SnapTree stepped_;
};

using TreeSteps = testkit::SandboxTest;

TEST_F(TreeSteps, AreFollowedInDamagedTrees) {
    const char *wanted = std::getenv("SHARESNAP_TREE_SEQUENCES");
    const unsigned long trees = wanted == nullptr ? 600 : std::strtoul(wanted, nullptr, 10);
    const Names names;
    std::mt19937 random(20260103);
    size_t done[4] = {};
    for (unsigned long number = 0; number < trees; ++number) {
        Twins twins(names, static_cast<std::mt19937::result_type>(number));
        for (int left = 8; left > 0; --left) {
            const unsigned kind = random() % 4;
            const nodeName object = names.any(random, NODE_OBJECT);
            nodeName snap = names.any(random, NODE_SNAPSHOT);
            if (random() % 4 != 0) {
                snap.objectName = object.objectName;
            }
            const nodeName other = names.any(random, NODE_OBJECT);
            std::string wrong;
            if (kind == 0) {
                wrong = twins.compare([&](SnapTree &tree) { return tree.insertSnap(object, snap); },
                                      [&](SnapTree &tree) { return insertSnapByStep(tree, object, snap); });
            } else if (kind == 1) {
                wrong = twins.compare([&](SnapTree &tree) { return tree.restoreObject(object, snap); },
                                      [&](SnapTree &tree) { return restoreByStep(tree, object, snap); });
            } else if (kind == 2) {
                wrong = twins.compare([&](SnapTree &tree) { return tree.insertSnapClone(object, snap, other); },
                                      [&](SnapTree &tree) { return insertSnapCloneByStep(tree, object, snap, other); });
            } else {
                wrong = twins.compare([&](SnapTree &tree) { return tree.insertObject(object); },
                                      [&](SnapTree &tree) { return insertObjectByStep(tree, object); });
            }
            ASSERT_EQ("", wrong) << "tree " << number << ", kind " << kind << " " << wholeName(object) << " "
                                 << wholeName(snap) << " " << wholeName(other);
            done[kind] += twins.result == 0 ? 1 : 0;
        }
    }
    std::printf(
        "[  TREE    ] %lu sequences on damaged trees, done: %zu snapshots, %zu restores, %zu clones, %zu objects\n",
        trees, done[0], done[1], done[2], done[3]);
    for (const size_t count : done) {
        EXPECT_LE(trees / 50, count); // not refusals alone
    }
}

// An object of the key "ab" that is called by another name of that key: the snapshot of the object "a" is looked up where
// the name of a snapshot leads, not in the object that was found.
TEST_F(TreeSteps, ParentOfAnObjectUnderAnotherNameIsLookedUpInTheTree) {
    const nodeName alias = treeName(NODE_OBJECT, "a", "b");
    SnapTree tree;
    ASSERT_EQ(0, tree.insertObject(objectName("ab")));
    ASSERT_EQ(0, tree.insertSnap(alias, snapName("a", "s1")));
    const SnapshotNode *first = tree.getObject(objectName("ab"))->getSnapshot(snapName("a", "s1"));
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(nullptr, tree.getNode(snapName("a", "s1"))); // there is no object "a"
    ASSERT_EQ(0, tree.insertSnap(alias, snapName("a", "s2")));
    EXPECT_EQ((std::set<std::string>{"object/a"}), childNames(first));
    // With an object "a" its snapshot is the parent.
    ASSERT_EQ(0, tree.insertObject(objectName("a")));
    ASSERT_EQ(0, tree.insertSnap(objectName("a"), snapName("a", "s2")));
    ASSERT_EQ(0, tree.insertSnap(alias, snapName("a", "s3")));
    EXPECT_EQ((std::set<std::string>{"object/a", "snap/a/s3"}), childNames(tree.getNode(snapName("a", "s2"))));
}

// Its own name as the parent's: a snapshot that isn't there yet doesn't become its own child.
TEST_F(TreeSteps, SnapshotThatWasTheLostParentIsNotItsOwnChild) {
    SnapTree tree;
    tree.addObject(ObjectNode(objectName("a"), snapName("a", "s1")));
    ASSERT_EQ(0, tree.insertSnap(objectName("a"), snapName("a", "s1")));
    EXPECT_EQ((std::set<std::string>{"object/a"}), childNames(tree.getNode(snapName("a", "s1"))));
    EXPECT_EQ("snap/a/s1", nameText(tree.getNode(snapName("a", "s1"))->parent()));
    EXPECT_EQ("snap/a/s1", nameText(tree.getNode(objectName("a"))->parent()));
}

TEST_F(TreeSteps, ObjectAsAParentRefusesTheSnapshotAlone) {
    SnapTree tree;
    tree.addObject(ObjectNode(objectName("a"), objectName("a")));
    ASSERT_EQ(0, tree.insertSnap(objectName("a"), snapName("a", "s1")));
    EXPECT_EQ(1U, testkit::logCount(LOG_ERR, "Cannot add child in object node"));
    EXPECT_EQ(1U, testkit::logCount(LOG_ERR, "Cannot delete child in object node"));
    EXPECT_EQ(2U, testkit::logLines().size());
    EXPECT_EQ("snap/a/s1", nameText(tree.getNode(objectName("a"))->parent()));
    EXPECT_EQ("object/a", nameText(tree.getNode(snapName("a", "s1"))->parent()));
}

// A name of equal hash is the same snapshot, and nothing of it is overwritten.
TEST_F(TreeSteps, SnapshotOfEqualHashExists) {
    SnapTree tree;
    ASSERT_EQ(0, tree.insertObject(objectName("a")));
    ASSERT_EQ(0, tree.insertSnap(objectName("a"), snapName("a", "s1")));
    const std::string before = describe(tree, Names());
    EXPECT_EQ(-1, tree.insertSnap(objectName("a"), treeName(NODE_SNAPSHOT, "a", "s", "1")));
    EXPECT_TRUE(testkit::logged(LOG_DEBUG, "Failed to insert snap node [a/s] in tree, it aleardy exist."));
    EXPECT_EQ(before, describe(tree, Names()));
    ASSERT_EQ(1U, tree.getObject(objectName("a"))->listSnapshots().size());
    EXPECT_EQ("s1", tree.getObject(objectName("a"))->listSnapshots().front().snapName);
}

} // namespace
