#include <sharesnap/frame.h>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/snaptree.hpp>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <utility>
#include <vector>

#include "support/bounded.hpp"
#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/lock_holder.hpp"
#include "support/log_capture.hpp"
#include "support/tree_names.hpp"
#include "support/tree_volume.hpp"

namespace {

using namespace QovaSnapTree;
using testkit::cloneName;
using testkit::nameText;
using testkit::objectName;
using testkit::rootName;
using testkit::snapName;

constexpr char kFile[] = "/vol1/@eaDir/snaptree.bin";
constexpr char kMark[] = "/vol1/@eaDir/snaptree.bin.broken";
constexpr char kLock[] = "/run/lock/sharesnap/snaptree_lock//vol1.lock";

std::string fixture(const std::string &name) {
    return testkit::readFile(std::string(SHARESNAP_SOURCE_DIR) + "/tests/data/snaptree/" + name + ".bin");
}

class TreeFile : public testkit::TreeVolumeTest {
protected:
    static void place(const std::string &bytes) { ASSERT_TRUE(testkit::writeFile(kFile, bytes)); }
};

TEST_F(TreeFile, PathHoldsTheLastComponentAlone) {
    const SnapTree tree;
    EXPECT_EQ(kFile, tree.getFileName("/vol1"));
    EXPECT_EQ(kFile, tree.getFileName("/vol1/"));
    EXPECT_EQ("/vol/@eaDir/snaptree.bin", tree.getFileName("/mnt/vol"));
}

TEST_F(TreeFile, VolumeThatIsNotThereTakesNoLock) {
    SnapTree tree;
    EXPECT_EQ(-1, tree.loadByVolume("/vol9", true));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invalid volume path [/vol9]"));
    EXPECT_FALSE(testkit::exists("/run/lock/sharesnap"));
    // The file that was set before is still the tree's.
    tree.setTreeFile(kFile);
    EXPECT_EQ(-1, tree.loadByVolume("/vol9", true));
    EXPECT_TRUE(tree.save());
    EXPECT_TRUE(testkit::exists(kFile));
}

TEST_F(TreeFile, VolumeWithoutATreeGivesAnEmptyOneWithTheLock) {
    SnapTree tree;
    ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
    EXPECT_TRUE(testkit::treeIsLocked());
    EXPECT_TRUE(tree.save());
    EXPECT_FALSE(testkit::treeIsLocked());
    EXPECT_EQ(179u, testkit::readFile(kFile).size());
    EXPECT_EQ(fixture("fresh-179"), testkit::readFile(kFile));
    EXPECT_TRUE(testkit::directoryNames("/vol1/@tmp").empty());
    struct stat st {};
    ASSERT_EQ(0, stat(kFile, &st));
    EXPECT_EQ(0600u, st.st_mode & 07777);
}

TEST_F(TreeFile, WorkedExampleIsByteForByte) {
    SnapTree tree;
    ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
    ASSERT_EQ(0, tree.insertObject(objectName("a")));
    ASSERT_EQ(0, tree.insertSnap(objectName("a"), snapName("a", "s1")));
    ASSERT_TRUE(tree.save());
    EXPECT_EQ(486u, testkit::readFile(kFile).size());
    EXPECT_EQ(fixture("example-486"), testkit::readFile(kFile)); // the version is 17 here, too
}

TEST_F(TreeFile, OldTreeKeepsItsShapeAndInfos) {
    place(fixture("old-v11-rich"));
    SnapTree tree;
    ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
    EXPECT_FALSE(testkit::treeIsLocked()); // the conversion saved, and a save drops the lock
    EXPECT_EQ("root\n  snap/photo/GMT-2014.10.01-00.00.00\n    snap/photo/GMT+08-2015.03.02-04.05.06\n      "
              "clone/1234567\n        object/photo\n        object/photo_clone\n",
              testkit::printedTree(tree));
    std::string value;
    EXPECT_EQ(0, tree.getNodeInfo(objectName("photo_clone"), "kind", value));
    EXPECT_EQ("object clone", value);
    EXPECT_EQ(0, tree.getNodeInfo(rootName(), "kind", value));
    EXPECT_EQ("root", value);
    EXPECT_EQ(nullptr, tree.getClone(cloneName("99")));
}

// The version is a signed byte: from 128 on it tells an old file, too.
TEST_F(TreeFile, VersionsOfTheUpperHalfCountAsOld) {
    for (const auto &[name, old] :
         {std::pair<const char *, bool>{"bad-version-127", false}, {"bad-version-200", true}}) {
        place(fixture(name));
        (void)unlink(kMark);
        testkit::logClear();
        SnapTree tree;
        tree.setTreeFile(kFile);
        EXPECT_FALSE(tree.load()) << name;
        EXPECT_EQ(old ? 1u : 0u, testkit::logCount(LOG_ERR, "Fail to load old snaptree")) << name;
    }
}

TEST_F(TreeFile, FileThatCannotBeOpenedIsMarked) {
    SnapTree tree;
    tree.setTreeFile(kFile);
    EXPECT_FALSE(tree.load());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to open snaptree"));
    EXPECT_TRUE(testkit::exists(kMark));
}

TEST_F(TreeFile, FileThatCannotBeOpenedOnceMoreIsGoodAsItIs) {
    place(fixture("old-v11-small"));
    const testkit::Replacement<int(const char *, const char *)> vanish("rename", [](const char *, const char *to) {
        return unlink(to); // what was converted and saved is gone when it is to be read again
    });
    SnapTree tree;
    tree.setTreeFile(kFile);
    EXPECT_TRUE(tree.load());
    EXPECT_FALSE(testkit::exists(kFile));
    EXPECT_FALSE(testkit::exists(kMark));
    EXPECT_EQ("root\n  snap/a/s1\n    object/a\n", testkit::printedTree(tree));
}

TEST_F(TreeFile, MarkRefusesAPerfectFile) {
    place(fixture("example-486"));
    ASSERT_TRUE(testkit::writeFile(kMark, ""));
    SnapTree tree;
    EXPECT_EQ(-1, tree.loadByVolume("/vol1", true));
    EXPECT_TRUE(testkit::logged(LOG_ERR, std::string("snaptree was broken [") + kFile + "]["));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to load snaptree of [/vol1]"));
    EXPECT_EQ(fixture("example-486"), testkit::readFile(kFile));
    EXPECT_TRUE(testkit::treeIsLocked()); // a failed load keeps the lock
    tree.freeLock();
    tree.freeLock(); // nothing happens
    EXPECT_FALSE(testkit::treeIsLocked());
}

TEST_F(TreeFile, BrokenFileIsMarkedForGood) {
    place("");
    SnapTree tree;
    EXPECT_EQ(-1, tree.loadByVolume("/vol1", true));
    EXPECT_TRUE(testkit::logged(LOG_ERR, std::string("snaptree is broken, create broken file [") + kFile + "]"));
    tree.freeLock();
    place(fixture("example-486"));
    EXPECT_FALSE(tree.load());
}

TEST_F(TreeFile, SaveWithoutATemporaryDirectoryFailsWithoutAWord) {
    place(fixture("example-486"));
    SnapTree tree;
    ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
    ASSERT_EQ(0, rmdir("/vol1/@tmp"));
    EXPECT_FALSE(tree.save());
    EXPECT_EQ("", testkit::logText());
    EXPECT_FALSE(testkit::treeIsLocked());
    EXPECT_EQ(fixture("example-486"), testkit::readFile(kFile));
}

TEST_F(TreeFile, ConversionThatCannotBeSavedMarksTheFile) {
    place(fixture("old-v11-rich"));
    ASSERT_EQ(0, rmdir("/vol1/@tmp"));
    SnapTree tree;
    EXPECT_EQ(-1, tree.loadByVolume("/vol1", true));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to save casted snaptree"));
    EXPECT_TRUE(testkit::exists(kMark));
    EXPECT_EQ(fixture("old-v11-rich"), testkit::readFile(kFile));
}

TEST_F(TreeFile, FailedRenameLeavesTheOldFileAndTheTemporaryOne) {
    place(fixture("example-486"));
    SnapTree tree;
    ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
    ASSERT_EQ(0, tree.insertObject(objectName("b")));
    const testkit::Fault fault("rename", 1, EACCES);
    EXPECT_FALSE(tree.save());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "snaptree temp file rename fail errno:Permission denied"));
    EXPECT_EQ(fixture("example-486"), testkit::readFile(kFile));
    const auto names = testkit::directoryNames("/vol1/@tmp");
    ASSERT_EQ(1u, names.size());
    EXPECT_EQ(0u, names[0].find("snaptree.bin."));
    EXPECT_FALSE(testkit::treeIsLocked());
}

TEST_F(TreeFile, FullVolumeLeavesTheOldFile) {
    place(fixture("example-486"));
    SnapTree tree;
    ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
    ASSERT_EQ(0, tree.insertObject(objectName(std::string(200, 'b'))));
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{256, 256};
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(tree.save() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "save snaptree fail [/vol1]"));
    EXPECT_EQ(fixture("example-486"), testkit::readFile(kFile));
    tree.freeLock();
}

TEST_F(TreeFile, UselessClonePointsAreNotSaved) {
    SnapTree tree;
    ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
    tree.addClone(ClonePointNode(cloneName("7"), rootName()));
    tree.getNode(rootName())->addChild(cloneName("7"));
    ASSERT_TRUE(tree.save());
    EXPECT_EQ(nullptr, tree.getClone(cloneName("7")));
    EXPECT_EQ(179u, testkit::readFile(kFile).size());
}

TEST_F(TreeFile, CannotBeLockedWhileAnotherHoldsIt) {
    const testkit::LockHolder holder(kLock, testkit::LockHolder::shared);
    ASSERT_TRUE(holder.holds());
    int waited = 0;
    const testkit::Replacement<int(const char *, int, int, int *)> lock(
        "QLIBCFileLockTimeByFile", [&](const char *path, int mode, int seconds, int *fd) {
            waited = seconds;
            return testkit::real<int(const char *, int, int, int *)>("QLIBCFileLockTimeByFile")(path, mode, 0, fd);
        });
    SnapTree tree;
    EXPECT_EQ(0, tree.loadByVolume("/vol1", false)); // readers share it
    tree.freeLock();
    EXPECT_EQ(-1, tree.loadByVolume("/vol1", true));
    EXPECT_EQ(100, waited);
    EXPECT_TRUE(testkit::logged(LOG_ERR, std::string("Failed to get filelock ") + kLock + "[0x0400 "));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get lock of snaptree of [/vol1]"));
}

TEST_F(TreeFile, SomethingElseInTheLockDirectorysPlaceRefuses) {
    ASSERT_EQ(1, QOVAShareSnapCreateRunLockShareSnapDir());
    ASSERT_TRUE(testkit::writeFile("/run/lock/sharesnap/snaptree_lock", "x"));
    SnapTree tree;
    EXPECT_EQ(-1, tree.lockSnapTreeFile("/vol1", true));
    EXPECT_EQ("", testkit::logText());
}

TEST_F(TreeFile, SearchGoesUpThroughTheParents) {
    SnapTree tree;
    ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
    ASSERT_EQ(0, tree.insertObject(objectName("a")));
    ASSERT_EQ(0, tree.insertObject(objectName("bare")));
    ASSERT_EQ(0, tree.insertSnap(objectName("a"), snapName("a", "S1")));
    ASSERT_EQ(0, tree.insertObjectClone(objectName("a"), objectName("b")));
    ASSERT_EQ(0, tree.insertSnap(objectName("a"), snapName("a", "T")));
    ASSERT_EQ(0, tree.insertObject(objectName("chain")));
    ASSERT_EQ(0, tree.insertSnap(objectName("chain"), snapName("chain", "S1")));
    ASSERT_EQ(0, tree.insertSnap(objectName("chain"), snapName("chain", "S2")));
    ASSERT_TRUE(tree.save());

    const auto sources = [](const std::string &object, const std::string &path) {
        SnapTree reader;
        std::vector<nodeName> result;
        EXPECT_EQ(0, reader.findCloneSrcSnap("/vol1", object, path, result));
        std::string text;
        for (const nodeName &name : result) {
            text += nameText(name) + " ";
        }
        return text;
    };
    EXPECT_EQ("", sources("bare", "/vol1/bare"));
    EXPECT_EQ("snap/a/T snap/a/S1 ", sources("b", "/vol1/b"));
    EXPECT_EQ("snap/a/T snap/a/S1 ", sources("a", "/vol1/a"));
    EXPECT_EQ("snap/a/S1 ", sources("a", "/vol1/@sharesnap/a/T"));
    EXPECT_EQ("", sources("a", "/vol1/@sharesnap/a/S1"));
    EXPECT_EQ("snap/chain/S2 snap/chain/S1 ", sources("chain", "/vol1/chain"));
    EXPECT_EQ("snap/chain/S1 ", sources("chain", "/vol1/@sharesnap/chain/S2/"));
    SnapTree reader;
    std::vector<nodeName> result;
    EXPECT_EQ(-1, reader.findCloneSrcSnap("/vol1", "a", "/vol1/@sharesnap/a/absent", result));
    EXPECT_TRUE(testkit::logged(LOG_DEBUG, "Failed to get node [a/absent] in tree, it not exist."));
    EXPECT_FALSE(testkit::treeIsLocked());
}

TEST_F(TreeFile, SearchStopsAfterTheNearest256) {
    SnapTree tree;
    ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
    ASSERT_EQ(0, tree.insertObject(objectName("a")));
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(0, tree.insertSnap(objectName("a"), snapName("a", std::to_string(i))));
    }
    ASSERT_TRUE(tree.save());
    std::vector<nodeName> result;
    SnapTree reader;
    ASSERT_EQ(0, reader.findCloneSrcSnap("/vol1", "a", "/vol1/a", result));
    ASSERT_EQ(256u, result.size());
    EXPECT_EQ("299", result[0].snapName);
    EXPECT_EQ("44", result[255].snapName);
}

TEST_F(TreeFile, TwoProcessesLoseNoInsertion) {
    const int kSnaps = std::getenv("SHARESNAP_LONG") == nullptr ? 60 : 500;
    SnapTree tree;
    ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
    ASSERT_EQ(0, tree.insertObject(objectName("a")));
    ASSERT_EQ(0, tree.insertObject(objectName("b")));
    ASSERT_TRUE(tree.save());
    std::vector<pid_t> children;
    for (const std::string object : {"a", "b"}) {
        const pid_t child = fork();
        ASSERT_LE(0, child);
        if (child == 0) {
            int failed = 0;
            for (int i = 0; i < kSnaps; ++i) {
                SnapTree own;
                failed += own.loadByVolume("/vol1", true) != 0;
                failed += own.insertSnap(objectName(object), snapName(object, std::to_string(i))) != 0;
                failed += own.save() ? 0 : 1;
            }
            _exit(failed == 0 ? 0 : 1);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = -1;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_EQ(0, status);
    }
    SnapTree reader;
    ASSERT_EQ(0, reader.loadByVolume("/vol1", false));
    EXPECT_EQ(static_cast<size_t>(kSnaps), reader.getObject(objectName("a"))->listSnapshots().size());
    EXPECT_EQ(static_cast<size_t>(kSnaps), reader.getObject(objectName("b"))->listSnapshots().size());
    reader.freeLock();
}

// Everything that is done with a tree on its way through the file, with a chain that no recursion survives.
void passThroughTheFile(int snaps) {
    const auto name = [](int number) {
        char text[64] = "";
        EXPECT_EQ(0, SnapNameGenerateByTime(text, sizeof(text), 1000000000 + number, 0));
        return snapName("a", text);
    };
    {
        SnapTree tree;
        ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
        ASSERT_EQ(0, tree.insertObject(objectName("a")));
        for (int i = 0; i < snaps; ++i) {
            ASSERT_EQ(0, tree.insertSnap(objectName("a"), name(i)));
        }
        ASSERT_TRUE(tree.save());
    }
    std::vector<nodeName> sources;
    SnapTree reader;
    ASSERT_EQ(0, reader.findCloneSrcSnap("/vol1", "a", "/vol1/a", sources));
    ASSERT_EQ(256u, sources.size());
    EXPECT_EQ(nameText(name(snaps - 1)), nameText(sources[0]));
    sources.clear();
    ASSERT_EQ(0, reader.findCloneSrcSnap("/vol1", "a", "/vol1/@sharesnap/a/" + name(100).snapName, sources));
    EXPECT_EQ(100u, sources.size());

    SnapTree tree;
    ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
    EXPECT_EQ(static_cast<size_t>(snaps), tree.getObject(objectName("a"))->listSnapshots().size());
    const int middle = snaps / 2;
    ASSERT_EQ(0, tree.deleteObjectSnap(objectName("a"), name(middle)));
    EXPECT_EQ(nameText(name(middle - 1)), nameText(tree.getNode(name(middle + 1))->parent()));
    ASSERT_TRUE(tree.save());
    ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
    EXPECT_EQ(static_cast<size_t>(snaps - 1), tree.getObject(objectName("a"))->listSnapshots().size());
    EXPECT_FALSE(tree.deleteUselessClone(*tree.getNode(rootName())));
    std::ofstream out("/dev/null");
    tree.printTree(out);
    EXPECT_TRUE(out.good());
    ASSERT_EQ(0, tree.deleteObjectSnap(objectName("a"), testkit::treeName(NODE_SNAPSHOT)));
    ASSERT_TRUE(tree.save());
}

void onASmallStack(int snaps) {
    pthread_attr_t attributes;
    ASSERT_EQ(0, pthread_attr_init(&attributes));
    ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, size_t{512} * 1024));
    pthread_t thread;
    const auto work = [](void *argument) -> void * {
        passThroughTheFile(*static_cast<int *>(argument));
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, &attributes, work, &snaps));
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    pthread_attr_destroy(&attributes);
}

TEST_F(TreeFile, LongChainGoesThroughItsFileOnASmallStack) {
    // Where it takes too long: a shorter chain needs too much stack as well.
    const int snaps = testkit::hasOwnMemory() || std::getenv("SHARESNAP_LONG") != nullptr ? 100000 : 10000;
    const std::string failure = testkit::endsWithin(200, size_t{1} << 30, [&] { onASmallStack(snaps); });
    EXPECT_EQ("", failure);
    EXPECT_EQ(179u, testkit::readFile(kFile).size());
    EXPECT_FALSE(testkit::treeIsLocked());
}

} // namespace
