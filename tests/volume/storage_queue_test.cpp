// The queue of deleted subvolumes that the file system is still cleaning up.
#include "storage_support.hpp"

#include <cstring>
#include <memory>

using storage::Hash;
using testkit::exists;

namespace {

// Deletes a subvolume as any program may, without a commit. While `hold` is open the file system can't clean it up.
bool destroy(const std::string &directory, const std::string &name) {
    const storage::File parent(directory, O_RDONLY);
    btrfs_ioctl_vol_args args = {};
    std::memcpy(args.name, name.c_str(), name.size() + 1);
    return ioctl(parent.get(), BTRFS_IOC_SNAP_DESTROY, &args) == 0;
}

class DeletedQueue : public storage::SnapshotTest {
protected:
    static int count(const char *share = "/vol1/docs") {
        Hash hash;
        EXPECT_EQ(0, QOVABtrfsDeletedSubvolGet(share, hash.address()));
        return hash.size();
    }

    static std::string queueFile() {
        const std::vector<std::string> names = testkit::directoryNames("/run/sharesnap/deleted");
        return names.empty() ? "" : "/run/sharesnap/deleted/" + names.front();
    }

    // Waits for the file system's cleaner; it comes with a commit.
    static bool cleaned() {
        return testkit::runProcess({"btrfs", "filesystem", "sync", "/vol1"}).exitStatus == 0 &&
               testkit::runProcess({"btrfs", "subvolume", "sync", "-s", "1", "/vol1"}).exitStatus == 0;
    }
};

TEST_F(DeletedQueue, IsEmptyBeforeAnythingWent) {
    EXPECT_EQ(0, count());
    EXPECT_FALSE(exists("/run/sharesnap/deleted"));
}

TEST_F(DeletedQueue, CountsASubvolumeFromItsDeletionUntilItIsCleanedUp) {
    const std::string path = take("s");
    ASSERT_EQ(0, QOVABtrfsDeletedSubvolAdd("/vol1/docs", path.c_str()));
    EXPECT_EQ(0, count()); // it is still there
    {
        const storage::File hold(path, O_RDONLY);
        ASSERT_TRUE(destroy("/vol1/snaps", "s"));
        EXPECT_EQ(1, count());
        EXPECT_EQ(1, count());
    }
    ASSERT_TRUE(cleaned());
    EXPECT_EQ(0, count());
}

TEST_F(DeletedQueue, HasOneKeyForEachSubvolumeAlsoOfOneName) {
    std::vector<std::unique_ptr<storage::File>> holds;
    for (int i = 0; i < 3; ++i) {
        const std::string path = take("s");
        ASSERT_EQ(0, QOVABtrfsDeletedSubvolAdd("/vol1/docs", path.c_str()));
        ASSERT_EQ(0, QOVABtrfsDeletedSubvolAdd("/vol1/docs", path.c_str())); // a second try of the same deletion
        holds.push_back(std::make_unique<storage::File>(path, O_RDONLY));
        ASSERT_TRUE(destroy("/vol1/snaps", "s"));
    }
    EXPECT_EQ(3, count());
}

TEST_F(DeletedQueue, IsKeptForEachShareByItself) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/photos"));
    const std::string path = take("s");
    ASSERT_EQ(0, QOVABtrfsDeletedSubvolAdd("/vol1/docs", path.c_str()));
    const storage::File hold(path, O_RDONLY);
    ASSERT_TRUE(destroy("/vol1/snaps", "s"));
    EXPECT_EQ(0, count("/vol1/photos"));
    EXPECT_EQ(1, count());
}

TEST_F(DeletedQueue, FollowsTheShareThroughARename) {
    const std::string path = take("s");
    ASSERT_EQ(0, QOVABtrfsDeletedSubvolAdd("/vol1/docs", path.c_str()));
    const storage::File hold(path, O_RDONLY);
    ASSERT_TRUE(destroy("/vol1/snaps", "s"));
    ASSERT_EQ(0, rename("/vol1/docs", "/vol1/papers"));
    EXPECT_EQ(1, count("/vol1/papers"));
}

TEST_F(DeletedQueue, LeavesOutWhatWasDeletedWithoutBeingAdded) {
    const std::string path = take("s");
    const storage::File hold(path, O_RDONLY);
    ASSERT_TRUE(destroy("/vol1/snaps", "s"));
    EXPECT_EQ(0, count());
}

TEST_F(DeletedQueue, TakesAnyNameInOneLine) {
    const std::string name = "two\nlines";
    const std::string path = take(name);
    ASSERT_EQ(0, QOVABtrfsDeletedSubvolAdd("/vol1/docs", path.c_str()));
    const storage::File hold(path, O_RDONLY);
    ASSERT_TRUE(destroy("/vol1/snaps", name));
    EXPECT_EQ(1, count());
    const std::string text = testkit::readFile(queueFile());
    EXPECT_EQ(text.size() - 1, text.find('\n'));
}

TEST_F(DeletedQueue, DropsDeadLinesOnceItHasGrownButNoneThatCounts) {
    const std::string deleted = take("deleted");
    const std::string standing = take("standing");
    ASSERT_EQ(0, QOVABtrfsDeletedSubvolAdd("/vol1/docs", deleted.c_str()));
    ASSERT_EQ(0, QOVABtrfsDeletedSubvolAdd("/vol1/docs", standing.c_str()));
    const storage::File holdDeleted(deleted, O_RDONLY);
    ASSERT_TRUE(destroy("/vol1/snaps", "deleted"));
    const std::string file = queueFile();
    const std::string living = testkit::readFile(file);
    std::string dead;
    for (int i = 0; i < 4000; ++i) {
        dead += std::to_string(1000000 + i) + " /vol1/snaps/long gone\n";
    }
    ASSERT_TRUE(testkit::writeFile(file, dead + living + "half a li"));
    EXPECT_EQ(1, count());
    EXPECT_EQ(living, testkit::readFile(file));
    const storage::File holdStanding(standing, O_RDONLY);
    ASSERT_TRUE(destroy("/vol1/snaps", "standing"));
    EXPECT_EQ(2, count());
}

TEST_F(DeletedQueue, IsCleanedByAddingWhenNobodyAsks) {
    const std::string path = take("s");
    ASSERT_EQ(0, QOVABtrfsDeletedSubvolAdd("/vol1/docs", path.c_str()));
    const std::string line = testkit::readFile(queueFile());
    std::string dead;
    while (dead.size() + 100 < (1 << 20)) {
        dead += "1000000 /vol1/snaps/long gone\n";
    }
    dead += "1000001 " + std::string((1 << 20) - dead.size() - 10, 'x') + "\n";
    ASSERT_EQ(size_t(1 << 20) - 1, dead.size());
    ASSERT_TRUE(testkit::writeFile(queueFile(), dead));
    ASSERT_EQ(0, QOVABtrfsDeletedSubvolAdd("/vol1/docs", path.c_str()));
    EXPECT_TRUE(line == testkit::readFile(queueFile()));
}

TEST_F(DeletedQueue, DoesntFollowWhatAUserPlanted) {
    const std::string path = take("s");
    const std::string victim = testkit::Sandbox::scratch() + "/victim";
    ASSERT_TRUE(testkit::writeFile(victim, "precious"));
    ASSERT_EQ(0, QOVABtrfsDeletedSubvolAdd("/vol1/docs", path.c_str()));
    const std::string file = queueFile();
    ASSERT_EQ(0, unlink(file.c_str()));
    ASSERT_EQ(0, symlink(victim.c_str(), file.c_str()));
    storage::setCode(0);
    EXPECT_NE(0, QOVABtrfsDeletedSubvolAdd("/vol1/docs", path.c_str()));
    EXPECT_NE(0U, QLIBCErrGet());
    Hash hash;
    EXPECT_NE(0, QOVABtrfsDeletedSubvolGet("/vol1/docs", hash.address()));
    EXPECT_EQ("precious", testkit::readFile(victim));
    // A directory in which others may write holds nothing that can be relied on.
    ASSERT_EQ(0, unlink(file.c_str()));
    ASSERT_EQ(0, chmod("/run/sharesnap/deleted", 0777));
    EXPECT_NE(0, QOVABtrfsDeletedSubvolAdd("/vol1/docs", path.c_str()));
    EXPECT_EQ("", queueFile());
}

TEST_F(DeletedQueue, WantsSubvolumes) {
    Hash hash;
    EXPECT_NE(0, QOVABtrfsDeletedSubvolAdd("/vol1/docs", "/vol1/snaps/nothing"));
    EXPECT_NE(0, QOVABtrfsDeletedSubvolAdd("/vol1/nothing", "/vol1/snaps"));
    EXPECT_NE(0, QOVABtrfsDeletedSubvolAdd(nullptr, "/vol1/snaps"));
    EXPECT_NE(0, QOVABtrfsDeletedSubvolAdd("/vol1/docs", nullptr));
    EXPECT_NE(0, QOVABtrfsDeletedSubvolGet("/vol1/nothing", hash.address()));
    EXPECT_NE(0, QOVABtrfsDeletedSubvolGet("/proc", hash.address()));
    EXPECT_NE(0, QOVABtrfsDeletedSubvolGet(nullptr, hash.address()));
    EXPECT_NE(0, QOVABtrfsDeletedSubvolGet("/vol1/docs", nullptr));
}

} // namespace
