// The parts of which the tree's rewrites are made, each by itself, and what the tree does when a part of a load fails.
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/snaptree.hpp>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"
#include "support/tree_names.hpp"
#include "support/tree_volume.hpp"

namespace {

// How many objects can still be added to any tree; below 0, as many as wanted.
int objectsLeft = -1;

} // namespace

// Stands in for the library's own, also for the library's calls.
QovaSnapTree::ObjectNode *QovaSnapTree::SnapTree::addObject(const ObjectNode &object) {
    if (objectsLeft == 0) {
        throw std::length_error("no room for an object");
    }
    objectsLeft -= objectsLeft > 0 ? 1 : 0;
    using Add = ObjectNode *(SnapTree *, const ObjectNode &);
    static Add *const real =
        reinterpret_cast<Add *>(dlsym(RTLD_NEXT, "_ZN12QovaSnapTree8SnapTree9addObjectERKNS_10ObjectNodeE"));
    return real(this, object);
}

namespace {

using namespace QovaSnapTree;
using testkit::childNames;
using testkit::nameText;
using testkit::objectName;
using testkit::rootName;
using testkit::snapName;

using Names = std::set<std::string>;
constexpr char kS1[] = "GMT-2024.01.01-00.00.00";
constexpr char kS2[] = "GMT-2024.01.02-00.00.00";
constexpr char kFile[] = "/vol1/@eaDir/snaptree.bin";
constexpr char kMark[] = "/vol1/@eaDir/snaptree.bin.broken";

class TreePart : public testkit::SandboxTest {
protected:
    [[nodiscard]] Names children(const nodeName &name) const { return childNames(tree.getNode(name)); }
    [[nodiscard]] std::string parentOf(const nodeName &name) const { return nameText(tree.getNode(name)->parent()); }

    // Two snapshots of a, the second between the first and a; c is a clone of the first.
    void plantTwoSnapshotsAndAClone() {
        ASSERT_EQ(0, tree.insertObject(objectName("a")));
        for (const char *snap : {kS1, kS2}) {
            ASSERT_EQ(0, tree.insertSnap(objectName("a"), snapName("a", snap)));
        }
        ASSERT_EQ(0, tree.insertSnapClone(objectName("a"), snapName("a", kS1), objectName("c")));
    }

    SnapTree tree;
};

TEST_F(TreePart, DeletedClonePointIsErasedAloneAndItsLinksStay) {
    ASSERT_EQ(0, tree.insertObject(objectName("a")));
    ASSERT_EQ(0, tree.insertObjectClone(objectName("a"), objectName("b")));
    const nodeName point = tree.getObject(objectName("a"))->parent();
    ASSERT_NE(nullptr, tree.getClone(point));
    tree.deleteClone(point);
    EXPECT_EQ(nullptr, tree.getClone(point));
    EXPECT_EQ(nullptr, tree.getNode(point));
    EXPECT_EQ(Names{nameText(point)}, children(rootName()));
    EXPECT_EQ(nameText(point), parentOf(objectName("a")));
    EXPECT_EQ(nameText(point), parentOf(objectName("b")));
    tree.deleteClone(point); // nothing happens
    EXPECT_NE(nullptr, tree.getObject(objectName("a")));
}

TEST_F(TreePart, DeletedObjectIsErasedWithItsSnapshotsAndItsLinksStay) {
    ASSERT_NO_FATAL_FAILURE(plantTwoSnapshotsAndAClone());
    tree.deleteObject(objectName("a"));
    EXPECT_EQ(nullptr, tree.getObject(objectName("a")));
    EXPECT_EQ(nullptr, tree.getNode(snapName("a", kS1)));
    EXPECT_EQ(Names{"snap/a/" + std::string(kS1)}, children(rootName()));
    EXPECT_NE(nullptr, tree.getObject(objectName("c")));
}

// The snapshot leaves the tree but not its object, and keeps its children but the one that climbed.
TEST_F(TreePart, ReplacedSnapshotStaysWithItsObjectAndKeepsItsChildren) {
    ASSERT_NO_FATAL_FAILURE(plantTwoSnapshotsAndAClone());
    const std::string second = nameText(snapName("a", kS2));
    SnapshotNode *const node = tree.getObject(objectName("a"))->getSnapshot(snapName("a", kS1));
    tree.replaceByChild(*node);
    EXPECT_EQ(Names{second}, children(rootName()));
    EXPECT_EQ(nameText(rootName()), parentOf(snapName("a", kS2)));
    EXPECT_EQ((Names{"object/a", "object/c"}), children(snapName("a", kS2)));
    EXPECT_EQ(second, parentOf(objectName("c")));
    EXPECT_EQ(node, tree.getObject(objectName("a"))->getSnapshot(snapName("a", kS1)));
    EXPECT_EQ(Names{"object/c"}, childNames(node));
    // Without a child snapshot all of them climb, and all of them stay children.
    SnapshotNode *const last = tree.getObject(objectName("a"))->getSnapshot(snapName("a", kS2));
    tree.replaceByChild(*last);
    EXPECT_EQ((Names{"object/a", "object/c"}), children(rootName()));
    EXPECT_EQ(nameText(rootName()), parentOf(objectName("a")));
    EXPECT_EQ(nameText(rootName()), parentOf(objectName("c")));
    EXPECT_EQ((Names{"object/a", "object/c"}), childNames(last));
    EXPECT_EQ(2U, tree.getObject(objectName("a"))->listSnapshots().size());
}

TEST_F(TreePart, ClonePointCarriesInfos) {
    ASSERT_EQ(0, tree.insertObject(objectName("a")));
    ASSERT_EQ(0, tree.insertObjectClone(objectName("a"), objectName("b")));
    const nodeName point = tree.getObject(objectName("a"))->parent();
    std::string value = "x";
    EXPECT_EQ(0, tree.getNodeInfo(point, "key", value));
    EXPECT_EQ("", value);
    EXPECT_EQ(0, tree.addNodeInfo(point, "key", "first"));
    EXPECT_EQ(0, tree.getNodeInfo(point, "key", value));
    EXPECT_EQ("first", value);
    value.clear();
    tree.getClone(point)->getInfo("key", value);
    EXPECT_EQ("first", value);
    EXPECT_EQ(0, tree.getNodeInfo(objectName("a"), "key", value));
    EXPECT_EQ("", value);
}

class TreeLoadPart : public TreePart {
protected:
    void SetUp() override {
        TreePart::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_EQ("", testkit::makeTreeVolume());
    }

    void TearDown() override {
        objectsLeft = -1;
        TreePart::TearDown();
    }

    static std::string oldFile() {
        return testkit::readFile(SHARESNAP_SOURCE_DIR "/tests/data/snaptree/old-v11-rich.bin");
    }
};

TEST_F(TreeLoadPart, LockThatCannotBeFreedIsToldAndKept) {
    ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
    {
        const testkit::Replacement<int(int)> unlock("QLIBCFileUnlockByFile", [](int) {
            QLIBCErrSetEx(0x2A00, "test.cpp", 1);
            return 0;
        });
        tree.freeLock();
    }
    EXPECT_TRUE(testkit::loggedMatch(
        LOG_ERR, "^snaptree_file\\.cpp:[0-9]+ Failed to unlock filelock\\[0x2A00 test\\.cpp:1\\]$"));
    EXPECT_TRUE(testkit::treeIsLocked());
    tree.freeLock(); // with the handle that it has kept
    EXPECT_FALSE(testkit::treeIsLocked());
}

TEST_F(TreeLoadPart, MarkThatCannotBeSetIsToldAndTheFileIsReadAgainNextTime) {
    ASSERT_TRUE(testkit::writeFile(kFile, ""));
    tree.setTreeFile(kFile);
    {
        const testkit::Fault touch("QLIBCFileTouch");
        EXPECT_FALSE(tree.load());
        EXPECT_TRUE(touch.met());
    }
    EXPECT_TRUE(testkit::logged(LOG_ERR, std::string("Fail to touch snap broken file [") + kMark + "][0x0C00 "));
    EXPECT_TRUE(testkit::logged(LOG_ERR, std::string("snaptree is broken, create broken file [") + kFile + "]"));
    EXPECT_FALSE(testkit::exists(kMark));
    ASSERT_TRUE(testkit::writeFile(kFile, oldFile()));
    EXPECT_TRUE(tree.load());
}

TEST_F(TreeLoadPart, OldTreeThatCannotBeTakenOverIsToldAndMarked) {
    ASSERT_TRUE(testkit::writeFile(kFile, oldFile()));
    objectsLeft = 1;
    tree.setTreeFile(kFile);
    EXPECT_FALSE(tree.load());
    objectsLeft = -1;
    EXPECT_TRUE(testkit::loggedMatch(
        LOG_ERR, "^snaptree_old\\.cpp:[0-9]+ fail to get old snaptree data\\. excep \\[no room for an object\\]$"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to get data from old snaptree"));
    EXPECT_FALSE(testkit::logged(LOG_ERR, "Fail to load old snaptree"));
    EXPECT_TRUE(testkit::exists(kMark));
    EXPECT_EQ(oldFile(), testkit::readFile(kFile));
    // What had come over by then stays in memory.
    EXPECT_EQ((Names{"clone/99", "snap/photo/GMT-2014.10.01-00.00.00"}), children(rootName()));
}

} // namespace
