// A tree on a Btrfs volume that has no room for it: a save fails as a whole, and works again when there is room.
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/snaptree.hpp>

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <linux/btrfs.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"
#include "support/tree_names.hpp"

namespace {

using namespace QovaSnapTree;
using testkit::objectName;
using testkit::snapName;

constexpr char kFile[] = "/vol1/@eaDir/snaptree.bin";
constexpr char kMark[] = "/vol1/@eaDir/snaptree.bin.broken";
constexpr char kBallast[] = "/vol1/ballast";
constexpr int kNames = 8000;
constexpr size_t kInfo = size_t{8} << 20; // what the tree grows by

bool eventually(const std::function<bool()> &condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

class FullVolumeTree : public testkit::VolumeTest {
protected:
    void SetUp() override {
        VolumeTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        ASSERT_TRUE(testkit::makeDirectories("/vol1/@eaDir"));
        ASSERT_TRUE(testkit::makeDirectories("/vol1/@tmp"));
        SnapTree tree;
        ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
        ASSERT_EQ(0, tree.insertObject(objectName("docs")));
        ASSERT_EQ(0, tree.insertSnap(objectName("docs"), snapName("docs", "GMT-2024.01.01-00.00.00")));
        ASSERT_EQ(0, tree.addNodeInfo(objectName("docs"), "note", "first"));
        ASSERT_TRUE(tree.save());
        before_ = testkit::readFile(kFile);
        ASSERT_LT(179U, before_.size());
        syncVolume();
    }

    // A tree that needs megabytes more than the one in the file.
    static bool saveLarge(SnapTree &tree) {
        if (tree.loadByVolume("/vol1", true) != 0 ||
            tree.insertSnap(objectName("docs"), snapName("docs", "GMT-2024.01.02-00.00.00")) != 0 ||
            tree.addNodeInfo(objectName("docs"), "note", std::string(kInfo, 'n')) != 0) {
            ADD_FAILURE() << testkit::logText();
            return false;
        }
        return tree.save();
    }

    static void syncVolume() {
        const int volume = open("/vol1", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(volume, 0);
        (void)ioctl(volume, BTRFS_IOC_SYNC); // a full one may say so
        (void)close(volume);
    }

    // No block of data is left. There is still room for names: what was once full of small files stays theirs.
    static void fill() {
        ASSERT_EQ(0, mkdir("/vol1/names", 0700));
        for (int i = 0; i < kNames; ++i) {
            ASSERT_TRUE(testkit::writeFile("/vol1/names/" + std::to_string(i), std::string(1800, 'x')));
        }
        syncVolume();
        for (int i = 0; i < kNames; i += 2) {
            ASSERT_EQ(0, unlink(("/vol1/names/" + std::to_string(i)).c_str()));
        }
        syncVolume();
        for (int round = 0; round < 2; ++round) { // what the first lets go of is filled, too
            ASSERT_NO_FATAL_FAILURE(fillWithData());
            syncVolume();
        }
    }

    static void fillWithData() {
        const int file = open(kBallast, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        ASSERT_GE(file, 0);
        const std::string block(size_t{1} << 20, 'x');
        size_t piece = block.size();
        for (size_t written = 0; piece >= 4096 && written < (size_t{1} << 30);) {
            const ssize_t done = write(file, block.data(), piece);
            written += done > 0 ? static_cast<size_t>(done) : 0;
            piece = done > 0 ? piece : piece / 2;
        }
        (void)fsync(file); // here, too
        ASSERT_EQ(0, close(file));
    }

    // Room is there when the file system has let go of what was unlinked, not before.
    static void makeRoom() {
        for (const std::string &left : testkit::directoryNames("/vol1/@tmp")) {
            ASSERT_EQ(0, unlink(("/vol1/@tmp/" + left).c_str()));
        }
        ASSERT_TRUE(eventually([] { return unlink(kBallast) == 0 || errno == ENOENT; }));
        ASSERT_TRUE(eventually([] {
            syncVolume();
            const int probe = open("/vol1/probe", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            const std::string text(2 * kInfo, 'z');
            const bool fits =
                write(probe, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(probe) == 0;
            (void)close(probe);
            return unlink("/vol1/probe") == 0 && fits;
        }));
        syncVolume();
    }

    static void expectFirstTree() {
        SnapTree tree;
        ASSERT_EQ(0, tree.loadByVolume("/vol1", false));
        tree.freeLock();
        EXPECT_EQ("root\n  snap/docs/GMT-2024.01.01-00.00.00\n    object/docs\n", testkit::printedTree(tree));
        std::string note;
        EXPECT_EQ(0, tree.getNodeInfo(objectName("docs"), "note", note));
        EXPECT_EQ("first", note);
    }

    // At once: nobody holds it.
    static bool isUnlocked() {
        int fd = -1;
        return QLIBCFileLockTimeByFile("/run/lock/sharesnap/snaptree_lock//vol1.lock", 1, 0, &fd) != 0 &&
               QLIBCFileUnlockByFile(fd) != 0;
    }

    std::string before_;
};

TEST_F(FullVolumeTree, SaveFailsAsAWholeAndWorksWhenThereIsRoom) {
    ASSERT_NO_FATAL_FAILURE(fill());
    testkit::logClear();
    SnapTree tree;
    EXPECT_FALSE(saveLarge(tree));
    EXPECT_EQ(1U, testkit::logCount(LOG_ERR, "save snaptree fail [/vol1]")) << testkit::logText();
    EXPECT_TRUE(isUnlocked());
    EXPECT_EQ(before_, testkit::readFile(kFile));
    EXPECT_FALSE(testkit::exists(kMark));
    ASSERT_NO_FATAL_FAILURE(expectFirstTree());
    // The tree in memory is whole, too: saved again when there is room, it is the one that was meant.
    ASSERT_NO_FATAL_FAILURE(makeRoom());
    EXPECT_EQ(before_, testkit::readFile(kFile));
    EXPECT_TRUE(tree.save()) << testkit::logText();
    EXPECT_LT(kInfo, testkit::readFile(kFile).size());
}

TEST_F(FullVolumeTree, NextCycleWorksAfterRoomWasMade) {
    ASSERT_NO_FATAL_FAILURE(fill());
    {
        SnapTree tree;
        EXPECT_FALSE(saveLarge(tree));
    }
    ASSERT_NO_FATAL_FAILURE(makeRoom());
    {
        SnapTree tree;
        ASSERT_TRUE(saveLarge(tree)) << testkit::logText();
    }
    EXPECT_TRUE(testkit::directoryNames("/vol1/@tmp").empty());
    SnapTree reader;
    ASSERT_EQ(0, reader.loadByVolume("/vol1", false));
    reader.freeLock();
    EXPECT_EQ("root\n  snap/docs/GMT-2024.01.01-00.00.00\n    snap/docs/GMT-2024.01.02-00.00.00\n      object/docs\n",
              testkit::printedTree(reader));
    std::string note;
    EXPECT_EQ(0, reader.getNodeInfo(objectName("docs"), "note", note));
    EXPECT_EQ(std::string(kInfo, 'n'), note);
    EXPECT_TRUE(isUnlocked());
}

} // namespace
