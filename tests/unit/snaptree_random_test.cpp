// Random rewrites against a plain model of the rules, with the invariants checked after each step. The model knows
// names, parents and times, and nothing of the implementation. SHARESNAP_TREE_SEQUENCES sets the number of sequences.
#include <sharesnap/snaptree.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "support/bounded.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"
#include "support/tree_names.hpp"
#include "support/tree_volume.hpp"

namespace {

using namespace QovaSnapTree;
using testkit::nameText;
using testkit::objectName;
using testkit::snapName;
using testkit::treeName;

constexpr char kFile[] = "/vol1/@eaDir/snaptree.bin";
constexpr size_t kFreshBytes = 179; // of a tree without a node but the root

// The text form of a name is its key here; what follows from it is kept beside it.
struct Node {
    nodeName name;
    std::string parent;
    std::set<std::string> children;
    long time = -1; // of a snapshot that can climb; -1 for all else
};

// One step: what to do, and which of the candidates to do it with.
struct Step {
    unsigned int kind;
    unsigned int first;
    unsigned int second;
};

class Model {
public:
    Model() { nodes["root"] = Node{testkit::rootName(), "", {}, -1}; }

    std::map<std::string, Node> nodes;
    std::map<std::string, nodeName> removed; // and not made again since

    void link(const nodeName &name, const std::string &parent, long time = -1) {
        nodes[nameText(name)] = Node{name, parent, {}, time};
        removed.erase(nameText(name));
        nodes[parent].children.insert(nameText(name));
    }

    void move(const std::string &node, const std::string &parent) {
        nodes[nodes[node].parent].children.erase(node);
        nodes[node].parent = parent;
        nodes[parent].children.insert(node);
    }

    // Takes a node without children out.
    void remove(const std::string &node) {
        nodes[nodes[node].parent].children.erase(node);
        removed[node] = nodes[node].name;
        nodes.erase(node);
    }

    // Older, or of two equally old ones the first in the order of hashes.
    static bool climbsBefore(const Node &child, const Node &other) {
        return child.time < other.time || (child.time == other.time && NodeNameComparator()(child.name, other.name));
    }

    // The oldest child snapshot takes the place of a removed one, and the other children with it.
    void removeSnapshot(const std::string &snap) {
        std::string heir;
        for (const std::string &child : nodes[snap].children) {
            if (nodes[child].time >= 0 && (heir.empty() || climbsBefore(nodes[child], nodes[heir]))) {
                heir = child;
            }
        }
        const std::string parent = nodes[snap].parent;
        const std::set<std::string> children = nodes[snap].children;
        if (!heir.empty()) {
            move(heir, parent);
        }
        for (const std::string &child : children) {
            if (child != heir) {
                move(child, heir.empty() ? parent : heir);
            }
        }
        remove(snap);
    }

    [[nodiscard]] std::vector<std::string> ofType(int type) const {
        std::vector<std::string> found;
        for (const auto &entry : nodes) {
            if (entry.second.name.type == type) {
                found.push_back(entry.first);
            }
        }
        return found;
    }

    [[nodiscard]] std::vector<std::string> snapshotsOf(const std::string &object) const {
        std::vector<std::string> found;
        for (const std::string &snap : ofType(NODE_SNAPSHOT)) {
            if (nodes.at(snap).name.objectName == object) {
                found.push_back(snap);
            }
        }
        return found;
    }

    // What is left of clone points without children, as a save does it.
    void prune() {
        for (bool again = true; again;) {
            again = false;
            for (const std::string &point : ofType(NODE_CLONE_POINT)) {
                if (nodes[point].children.empty()) {
                    remove(point);
                    again = true;
                }
            }
        }
    }
};

class Play {
public:
    // The first difference, or nothing.
    std::string play(const std::vector<Step> &steps) {
        for (size_t i = 0; i < steps.size(); ++i) {
            const std::string done = take(steps[i]);
            const std::string wrong = compare();
            if (!wrong.empty()) {
                return "step " + std::to_string(i) + " (" + done + "): " + wrong;
            }
        }
        return "";
    }

    // Every object goes, one after another: nothing is left, neither in memory nor in the file.
    std::string clear() {
        for (const std::string &objectKey : model_.ofType(NODE_OBJECT)) {
            const nodeName object = model_.nodes[objectKey].name;
            const std::string done = removeObject(object, objectKey, model_.snapshotsOf(object.objectName));
            const std::string wrong = compare();
            if (!wrong.empty()) {
                return "clear (" + done + "): " + wrong;
            }
        }
        model_.prune();
        tree_.setTreeFile(kFile);
        if (!tree_.save()) {
            return "the empty tree can't be saved";
        }
        const std::string wrong = compare();
        const size_t cb = testkit::readFile(kFile).size();
        return cb == kFreshBytes ? wrong : "the empty tree has " + std::to_string(cb) + " bytes";
    }

    // Notes on some nodes, and useless clone points gone from both sides, as a save would have it.
    void prepareForSave(std::mt19937 &random) {
        model_.prune();
        (void)tree_.deleteUselessClone(*tree_.getNode(testkit::rootName()));
        for (const auto &entry : model_.nodes) {
            for (unsigned int i = static_cast<unsigned int>(random()) % 3; i > 0; --i) {
                const std::string key = "key" + std::to_string(i);
                ASSERT_EQ(0, tree_.addNodeInfo(entry.second.name, key, std::string(random() % 300, '=') + "\n" + key));
            }
        }
    }

    // All that a tree says of the model's nodes: parents, children in their order, infos.
    [[nodiscard]] std::string described(const SnapTree &tree) const {
        std::string text = testkit::printedTree(tree);
        for (const auto &entry : model_.nodes) {
            const BaseNode *node = tree.getNode(entry.second.name);
            if (node == nullptr) {
                return entry.first + " isn't there";
            }
            text += nameText(node->name()) + " of " + nameText(node->parent()) + ":";
            for (const nodeName &child : node->listChilds()) {
                text += " " + nameText(child);
            }
            for (const std::string key : {"key1", "key2", "key3"}) {
                std::string value;
                node->getInfo(key, value);
                text += " [" + value + "]";
            }
            text += "\n";
        }
        return text;
    }

    SnapTree &tree() { return tree_; }

private:
    SnapTree tree_;
    Model model_;
    unsigned int made_ = 0;

    std::string expect(int wanted, int got, const std::string &what) {
        return wanted == got ? what : what + " gave " + std::to_string(got) + "!";
    }

    // Every third one has a name that was there before, when there is one.
    std::string newObject() {
        ++made_;
        for (const auto &entry : model_.removed) {
            if (made_ % 3 == 0 && entry.second.type == NODE_OBJECT) {
                return entry.second.objectName;
            }
        }
        return "o" + std::to_string(made_);
    }

    // The second of the day, or -1.
    static long timeOf(const std::string &snap) {
        unsigned int hours = 0;
        unsigned int minutes = 0;
        unsigned int seconds = 0;
        const bool timed = sscanf(snap.c_str(), "GMT-2024.01.01-%2u.%2u.%2u", &hours, &minutes, &seconds) == 3;
        return timed ? static_cast<long>(hours * 3600 + minutes * 60 + seconds) : -1;
    }

    // Seconds of a past day, some of them equal; now and then a name that holds no time.
    nodeName newSnapshot(const std::string &object, unsigned int choice, long *time) {
        char text[40];
        for (const auto &entry : model_.removed) {
            if (choice % 7 == 0 && entry.second.type == NODE_SNAPSHOT && entry.second.objectName == object) {
                *time = timeOf(entry.second.snapName);
                return entry.second;
            }
        }
        const unsigned int number = (made_++ * 7919U + choice) % 40U * 2000U;
        *time = static_cast<long>(number);
        if (choice % 9 == 0) {
            *time = -1;
            return snapName(object, "untimed" + std::to_string(made_));
        }
        (void)snprintf(text, sizeof(text), "GMT-2024.01.01-%02u.%02u.%02u", number / 3600, number / 60 % 60,
                       number % 60);
        return snapName(object, text);
    }

    std::string take(const Step &step) {
        const std::vector<std::string> objects = model_.ofType(NODE_OBJECT);
        if (step.kind % 8 == 0 || objects.empty()) {
            const nodeName name = objectName(newObject());
            model_.link(name, "root");
            return expect(0, tree_.insertObject(name), "insertObject " + name.objectName);
        }
        const std::string objectKey = objects[step.first % objects.size()];
        const nodeName object = model_.nodes[objectKey].name;
        const std::vector<std::string> snaps = model_.snapshotsOf(object.objectName);
        switch (step.kind % 8) {
        case 1:
        case 2:
            return snapshot(object, objectKey, step.second);
        case 3:
            return cloneObject(object, objectKey);
        case 7:
            if (step.second % 4 == 0) {
                return removeObject(object, objectKey, snaps);
            }
            model_.prune();
            (void)tree_.deleteUselessClone(*tree_.getNode(testkit::rootName()));
            return "prune";
        default:
            break;
        }
        if (snaps.empty()) {
            return snapshot(object, objectKey, step.second);
        }
        const std::string snapKey = snaps[step.second % snaps.size()];
        const nodeName snap = model_.nodes[snapKey].name;
        if (step.kind % 8 == 4) {
            const nodeName clone = objectName(newObject());
            model_.link(clone, snapKey);
            return expect(0, tree_.insertSnapClone(object, snap, clone), "insertSnapClone " + snapKey);
        }
        if (step.kind % 8 == 5) {
            model_.move(objectKey, snapKey);
            return expect(0, tree_.restoreObject(object, snap), "restoreObject " + objectKey + " to " + snapKey);
        }
        model_.removeSnapshot(snapKey);
        return expect(0, tree_.deleteObjectSnap(object, snap), "delete " + snapKey);
    }

    std::string snapshot(const nodeName &object, const std::string &objectKey, unsigned int choice) {
        long time = -1;
        const nodeName snap = newSnapshot(object.objectName, choice, &time);
        if (model_.nodes.count(nameText(snap)) != 0) {
            return expect(-1, tree_.insertSnap(object, snap), "insertSnap again");
        }
        model_.link(snap, model_.nodes[objectKey].parent, time);
        model_.move(objectKey, nameText(snap));
        return expect(0, tree_.insertSnap(object, snap), "insertSnap " + nameText(snap));
    }

    std::string cloneObject(const nodeName &object, const std::string &objectKey) {
        const nodeName clone = objectName(newObject());
        const std::string done = expect(0, tree_.insertObjectClone(object, clone), "insertObjectClone " + objectKey);
        std::string point = model_.nodes[objectKey].parent;
        if (model_.nodes[point].name.type != NODE_CLONE_POINT) {
            const nodeName drawn = tree_.getObject(object)->parent(); // its number is drawn by the tree
            model_.link(drawn, point);
            point = nameText(drawn);
            model_.move(objectKey, point);
        }
        model_.link(clone, point);
        return done;
    }

    std::string removeObject(const nodeName &object, const std::string &objectKey,
                             const std::vector<std::string> &snaps) {
        // The order in which an object's snapshots go is the order of their hashes.
        std::vector<std::string> ordered = snaps;
        const NodeNameComparator before;
        std::sort(ordered.begin(), ordered.end(), [&](const std::string &a, const std::string &b) {
            return before(model_.nodes[a].name, model_.nodes[b].name);
        });
        for (const std::string &snap : ordered) {
            model_.removeSnapshot(snap);
        }
        model_.remove(objectKey);
        return expect(0, tree_.deleteObjectSnap(object, treeName(NODE_SNAPSHOT)), "delete " + objectKey);
    }

    // Every node of the model stands in the tree with the same parent and children, and what the model has removed is
    // nowhere: that contains all invariants, since the model's links are whole.
    [[nodiscard]] std::string compare() const {
        size_t owned = 0;
        for (const auto &entry : model_.nodes) {
            const Node &node = entry.second;
            const BaseNode *found = tree_.getNode(node.name);
            if (found == nullptr) {
                return entry.first + " isn't there";
            }
            if (nameText(found->name()) != entry.first) {
                return entry.first + " is called " + nameText(found->name());
            }
            if (entry.first != "root" && nameText(found->parent()) != node.parent) {
                return entry.first + " hangs under " + nameText(found->parent()) + ", not " + node.parent;
            }
            if (testkit::childNames(found) != node.children) {
                return entry.first + " has other children";
            }
            if (node.name.type == NODE_OBJECT) {
                owned += tree_.getObject(node.name)->listSnapshots().size();
            }
        }
        if (owned != model_.ofType(NODE_SNAPSHOT).size()) {
            return "the objects own " + std::to_string(owned) + " snapshots";
        }
        for (const auto &entry : model_.removed) {
            if (tree_.getNode(entry.second) != nullptr) {
                return entry.first + " is still there";
            }
        }
        return "";
    }
};

std::string playAlone(const std::vector<Step> &steps) {
    Play run;
    const std::string wrong = run.play(steps);
    return wrong.empty() ? run.clear() : wrong;
}

// Leaves steps out as long as the rest still fails.
std::vector<Step> shrink(std::vector<Step> steps) {
    for (size_t i = 0; i < steps.size();) {
        std::vector<Step> fewer = steps;
        fewer.erase(fewer.begin() + static_cast<std::ptrdiff_t>(i));
        if (playAlone(fewer).empty()) {
            ++i;
        } else {
            steps = fewer;
        }
    }
    return steps;
}

std::vector<Step> randomSteps(std::mt19937 &random) {
    std::vector<Step> steps(1 + random() % 60);
    for (Step &step : steps) {
        step = Step{static_cast<unsigned int>(random()), static_cast<unsigned int>(random()),
                    static_cast<unsigned int>(random())};
    }
    return steps;
}

class TreeModel : public testkit::TreeVolumeTest {};

TEST_F(TreeModel, AgreesWithRandomRewrites) {
    const char *wanted = std::getenv("SHARESNAP_TREE_SEQUENCES");
    const unsigned long usual = testkit::underValgrind() ? 200 : 1000;
    const unsigned long sequences = wanted == nullptr ? usual : std::strtoul(wanted, nullptr, 10);
    std::mt19937 random(20260102);
    size_t taken = 0;
    for (unsigned long sequence = 0; sequence < sequences; ++sequence) {
        std::vector<Step> steps = randomSteps(random);
        taken += steps.size();
        const std::string wrong = playAlone(steps);
        if (wrong.empty()) {
            testkit::logClear();
            continue;
        }
        steps = shrink(steps);
        std::string text;
        for (const Step &step : steps) {
            text += "{" + std::to_string(step.kind) + ", " + std::to_string(step.first) + ", " +
                    std::to_string(step.second) + "} ";
        }
        FAIL() << "sequence " << sequence << ": " << wrong << "\nshrunk to " << text << "\n" << playAlone(steps);
    }
    std::printf("[  TREE    ] %lu sequences, %zu steps\n", sequences, taken);
}

// Random trees come back from their file as they were, to the order of children and the infos.
TEST_F(TreeModel, SavedTreesComeBackWhole) {
    std::mt19937 random(4711);
    SnapTree reader; // one for all: what it held before doesn't show through
    size_t lines = 0;
    for (int sequence = 0; sequence < 100; ++sequence) {
        Play run;
        ASSERT_EQ("", run.play(randomSteps(random)));
        ASSERT_NO_FATAL_FAILURE(run.prepareForSave(random));
        const std::string before = run.described(run.tree());
        lines += static_cast<size_t>(std::count(before.begin(), before.end(), '\n'));
        run.tree().setTreeFile(kFile);
        ASSERT_TRUE(run.tree().save());
        EXPECT_EQ(before, run.described(run.tree())) << "a save changed the tree in memory";
        const std::string bytes = testkit::readFile(kFile);
        ASSERT_EQ(0, reader.loadByVolume("/vol1", true));
        ASSERT_EQ(before, run.described(reader)) << "sequence " << sequence;
        ASSERT_TRUE(reader.save());
        EXPECT_EQ(bytes, testkit::readFile(kFile));
        testkit::logClear();
    }
    EXPECT_LT(2000u, lines);
}

} // namespace
