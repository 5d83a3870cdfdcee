#include <sharesnap/frame.h>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/snaptree.hpp>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/lock_holder.hpp"
#include "support/log_capture.hpp"
#include "support/tree_names.hpp"

#if defined(__SANITIZE_ADDRESS__)
#define SHARESNAP_MEASURES_MEMORY 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SHARESNAP_MEASURES_MEMORY 0
#endif
#endif
#ifndef SHARESNAP_MEASURES_MEMORY
#define SHARESNAP_MEASURES_MEMORY 1
#endif

namespace {

using namespace QovaSnapTree;
using testkit::childNames;
using testkit::cloneName;
using testkit::nameText;
using testkit::objectName;
using testkit::rootName;
using testkit::snapName;
using testkit::treeName;

constexpr char kFile[] = "/vol1/@eaDir/snaptree.bin";
constexpr char kMark[] = "/vol1/@eaDir/snaptree.bin.broken";
constexpr char kLock[] = "/run/lock/sharesnap/snaptree_lock//vol1.lock";

std::string fixture(const std::string &name) {
    return testkit::readFile(std::string(SHARESNAP_SOURCE_DIR) + "/tests/data/snaptree/" + name + ".bin");
}

// All but the two bytes that hold the version of the layer that wrote the file.
std::string body(const std::string &bytes) {
    return bytes.size() < 32 ? bytes : bytes.substr(32);
}

class TreeFile : public testkit::SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_EQ("", testkit::Sandbox::mountSimulatedVolume("/vol1"));
        ASSERT_TRUE(testkit::makeDirectories("/vol1/@eaDir"));
        ASSERT_TRUE(testkit::makeDirectories("/vol1/@tmp"));
    }

    static void place(const std::string &bytes) { ASSERT_TRUE(testkit::writeFile(kFile, bytes)); }

    // Whether another process finds the volume's lock taken.
    static bool locked() {
        const pid_t child = fork();
        if (child == 0) {
            QLIBCFileCloseLock(); // what this process holds isn't the child's
            int fd = -1;
            _exit(QLIBCFileLockTimeByFile(kLock, 1, 0, &fd) == 0 ? 1 : 0);
        }
        int status = 0;
        (void)waitpid(child, &status, 0);
        return !(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
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
    EXPECT_TRUE(locked());
    EXPECT_TRUE(tree.save());
    EXPECT_FALSE(locked());
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

struct Verdict {
    const char *name;
    const char *saved; // the file whose bytes come back, or null for a refusal
};

constexpr Verdict kVerdicts[] = {
    {"fresh-179", "fresh-179"},
    {"example-486", "example-486"},
    {"example-486-v18", "example-486"},
#if SHARESNAP_BOOST_VERSION >= 107600
    {"example-486-v19", "example-486"},
#else
    {"example-486-v19", nullptr},
#endif
    {"example-486-v12", "example-486"},
    {"example-486-byte31", "example-486"},
    {"example-486-trailing", "example-486"},
    {"old-v11-empty", "fresh-179"},
    {"old-v11-small", "example-486"},
    {"old-v11-rich", "old-v11-rich.converted"},
    {"old-v11-rich.converted", "old-v11-rich.converted"},
    {"old-v11-collision", "old-v11-collision.converted"},
    {"old-v11-collision.converted", "old-v11-collision.converted"},
    {"old-v11-rich-buckets0", "old-v11-rich.converted"},
    {"old-v11-roomy", "old-v11-roomy.converted"},
    {"old-v09-rich", "old-v11-rich.converted"},
    {"old-v07-rich", "old-v11-rich.converted"},
    {"old-v04-rich", "old-v11-rich.converted"},
    {"bad-empty", nullptr},
    {"bad-20", nullptr},
    {"bad-30", nullptr},
    {"bad-31-v11", nullptr},
    {"bad-31-v17", nullptr},
    {"bad-40-header-only", nullptr},
    {"bad-40-header-only-v11", nullptr},
    {"bad-signature", nullptr},
    {"bad-signature-v11", nullptr},
    {"bad-version-200", nullptr},
    {"bad-version-127", nullptr},
    {"bad-sizeof-int", nullptr},
    {"bad-sizeof-long", nullptr},
    {"bad-sizeof-double", nullptr},
    {"bad-endian", nullptr},
    {"bad-sizeof-long-v11", nullptr},
    {"bad-trunc-485", nullptr},
    {"bad-old-v11-trunc", nullptr},
    {"bad-strlen-2p63", nullptr},
    {"bad-old-v11-count-2p60", nullptr},
    {"bad-old-v11-buckets-2p60", nullptr},
    {"bad-old-v06-layer141", nullptr},
    {"bad-text", nullptr},
    // What these ask for is refused before any memory is taken.
    {"hazard-strlen-2p32", nullptr},
    {"hazard-old-as-v17", nullptr},
    {"hazard-current-as-v11", nullptr},
    {"hazard-old-v11-buckets-2p30", nullptr},
    {"hazard-old-v11-buckets-64-times", nullptr},
};

class EveryTreeFile : public TreeFile {
protected:
    void check(const Verdict &verdict) {
        SCOPED_TRACE(verdict.name);
        (void)unlink(kMark);
        const std::string bytes = fixture(verdict.name);
        place(bytes);
        SnapTree tree;
        const int loaded = tree.loadByVolume("/vol1", true);
        if (verdict.saved == nullptr) {
            EXPECT_EQ(-1, loaded);
            EXPECT_TRUE(testkit::exists(kMark));
            EXPECT_EQ(bytes, testkit::readFile(kFile));
            tree.freeLock();
            return;
        }
        EXPECT_EQ(0, loaded);
        EXPECT_FALSE(testkit::exists(kMark));
        EXPECT_TRUE(tree.save());
        EXPECT_EQ(body(fixture(verdict.saved)), body(testkit::readFile(kFile)));
    }
};

TEST_F(EveryTreeFile, GivesItsVerdictInLittleMemory) {
    const pid_t child = fork();
    ASSERT_LE(0, child);
    if (child == 0) {
        for (const Verdict &verdict : kVerdicts) {
            check(verdict);
        }
        _exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    rusage usage{};
    ASSERT_EQ(child, wait4(child, &status, 0, &usage));
    EXPECT_EQ(0, status);
#if SHARESNAP_MEASURES_MEMORY
    EXPECT_LT(usage.ru_maxrss, 64 * 1024);
#endif
}

TEST_F(TreeFile, OldTreeKeepsItsShapeAndInfos) {
    place(fixture("old-v11-rich"));
    SnapTree tree;
    ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
    EXPECT_FALSE(locked()); // the conversion saved, and a save drops the lock
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

TEST_F(TreeFile, DamagedLinksEndEveryWalk) {
    for (const std::string name : {"hazard-dangling-child", "hazard-old-v11-clone-cycle", "hazard-clone-foreign-name",
                                   "hazard-snapshot-of-nobody"}) {
        place(fixture(name));
        SnapTree tree;
        ASSERT_EQ(0, tree.loadByVolume("/vol1", true)) << name;
        (void)testkit::printedTree(tree);
        EXPECT_TRUE(tree.save()) << name;
        (void)tree.deleteObjectSnap(objectName("a"), treeName(NODE_SNAPSHOT));
        EXPECT_EQ(nullptr, tree.getObject(objectName("a"))) << name;
        std::vector<nodeName> sources;
        EXPECT_EQ(-1, tree.findCloneSrcSnap("/vol1", "absent", "/vol1/absent", sources)) << name;
    }
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
    EXPECT_TRUE(locked()); // a failed load keeps the lock
    tree.freeLock();
    tree.freeLock(); // nothing happens
    EXPECT_FALSE(locked());
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
    EXPECT_FALSE(locked());
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
    EXPECT_FALSE(locked());
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
    EXPECT_FALSE(locked());
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

// A file that is cut or changed in one byte gives a tree or is refused with the mark; it never takes the process along.
TEST_F(TreeFile, DamagedBytesEndInATreeOrAMark) {
    for (const std::string name : {"example-486", "old-v11-small"}) {
        const std::string bytes = fixture(name);
        size_t loaded = 0;
        size_t refused = 0;
        const auto attempt = [&](const std::string &damaged) {
            (void)unlink(kMark);
            place(damaged);
            SnapTree tree;
            tree.setTreeFile(kFile);
            if (tree.load()) {
                ++loaded;
                EXPECT_FALSE(testkit::exists(kMark));
                EXPECT_TRUE(tree.save());
            } else {
                ++refused;
                EXPECT_TRUE(testkit::exists(kMark));
            }
        };
        for (size_t at = 0; at < bytes.size(); ++at) {
            attempt(bytes.substr(0, at));
            std::string changed = bytes;
            changed[at] = static_cast<char>(changed[at] ^ (at % 2 == 0 ? 0xFF : 0x01));
            attempt(changed);
        }
        EXPECT_LT(bytes.size(), refused) << name;
        EXPECT_LT(0u, loaded) << name;
        testkit::logClear();
    }
}

} // namespace
