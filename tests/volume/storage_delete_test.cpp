// Deletion of subvolumes.
#include <sharesnap/platform/volume.h>

#include "storage_support.hpp"

using storage::List;
using testkit::exists;

namespace {

using SubvolumeDelete = storage::SnapshotTest;
using SubvolumeListDelete = storage::SnapshotTest;

int deleteAll(const List &list, int *deleted) {
    return QOVABtrfsDeleteSubvolListFaultTolerantEx("/vol1/snaps", list.get(), deleted);
}

TEST_F(SubvolumeDelete, TakesTheSubvolumeWithAllItHolds) {
    const std::string path = take("s");
    EXPECT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant(path.c_str()));
    EXPECT_FALSE(exists(path));
}

TEST_F(SubvolumeDelete, OfOneThatIsGoneSucceeds) {
    EXPECT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/snaps/nothing"));
    EXPECT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/no directory/nothing"));
}

TEST_F(SubvolumeDelete, NeverTakesAnythingElse) {
    ASSERT_EQ(0, mkdir("/vol1/snaps/plain", 0755));
    ASSERT_TRUE(testkit::writeFile("/vol1/snaps/file", "x"));
    ASSERT_EQ(0, symlink("/vol1/docs", "/vol1/snaps/link"));
    for (const char *path : {"/vol1/snaps/plain", "/vol1/snaps/file", "/vol1/snaps/link"}) {
        storage::setCode(0);
        EXPECT_GT(0, QOVABtrfsDeleteSubvolFaultTolerant(path)) << path;
        EXPECT_NE(0U, QLIBCErrGet());
        EXPECT_TRUE(exists(path));
    }
    EXPECT_TRUE(exists("/vol1/docs/letter"));
    EXPECT_GT(0, QOVABtrfsDeleteSubvolFaultTolerant("/"));
    EXPECT_GT(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/snaps/.."));
    EXPECT_GT(0, QOVABtrfsDeleteSubvolFaultTolerant(nullptr));
}

TEST_F(SubvolumeDelete, TakesWhatIsNestedAtAnyDepth) {
    ASSERT_EQ(0, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/snaps/s"));
    ASSERT_TRUE(testkit::makeDirectories("/vol1/snaps/s/some/way down"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/snaps/s/first"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/snaps/s/some/way down/second"));
    ASSERT_TRUE(testkit::makeDirectories("/vol1/snaps/s/some/way down/second/on"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/snaps/s/some/way down/second/on/third"));
    EXPECT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/snaps/s"));
    EXPECT_FALSE(exists("/vol1/snaps/s"));
}

TEST_F(SubvolumeDelete, TakesReadOnlyOnesWithReadOnlyOnesNested) {
    ASSERT_EQ(0, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/snaps/s"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/snaps/s/nested"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/snaps/s/nested/deep"));
    for (const char *path : {"/vol1/snaps/s/nested/deep", "/vol1/snaps/s/nested", "/vol1/snaps/s"}) {
        ASSERT_TRUE(storage::setReadOnly(path));
    }
    EXPECT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/snaps/s"));
    EXPECT_FALSE(exists("/vol1/snaps/s"));
}

TEST_F(SubvolumeDelete, OfOneThatIsBeingSentFailsAndLeavesIt) {
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/large", std::string(4 << 20, 'x')));
    const std::string path = take("s");
    storage::StalledSend send(path);
    ASSERT_TRUE(send.begun());
    storage::setCode(0);
    EXPECT_GT(0, QOVABtrfsDeleteSubvolFaultTolerant(path.c_str()));
    EXPECT_EQ(unsigned(SNAP_ERR_OPERATION_FAILED), QLIBCErrGet());
    EXPECT_TRUE(exists(path));
    int deleted = -1;
    take("other");
    EXPECT_EQ(0, deleteAll(List({"s", "other"}), &deleted));
    EXPECT_EQ(1, deleted);
    EXPECT_TRUE(exists(path));
    send.stop();
    EXPECT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant(path.c_str()));
    EXPECT_FALSE(exists(path));
}

TEST_F(SubvolumeDelete, ThatFailsOnANestedOneLeavesTheSnapshotReadOnly) {
    ASSERT_EQ(0, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/snaps/s"));
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/large", std::string(4 << 20, 'x')));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/snaps/s/nested"));
    ASSERT_TRUE(storage::setReadOnly("/vol1/snaps/s"));
    storage::StalledSend send("/vol1/snaps/s/nested");
    ASSERT_TRUE(send.begun());
    EXPECT_GT(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/snaps/s"));
    EXPECT_TRUE(exists("/vol1/snaps/s/nested/large"));
    EXPECT_TRUE(storage::isReadOnly("/vol1/snaps/s"));
}

TEST_F(SubvolumeDelete, TakesTheHiddenMarkAlong) {
    const std::string path = take("s");
    ASSERT_EQ(0, QOVABtrfsSubvolHideAttrSet(path.c_str(), 1));
    ASSERT_NE("", storage::attributeNames("/vol1/snaps"));
    EXPECT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant(path.c_str()));
    EXPECT_EQ("", storage::attributeNames("/vol1/snaps"));
}

// The names of subvolumes as the disk has them, past all that the kernel holds in memory: what a mount after a power
// cut would find.
std::string namesOnDisk() {
    QOVAMOUNTVOLINFO volume = {};
    EXPECT_EQ(0, QOVAMountVolInfoGet("/vol1", &volume));
    testkit::ProcessResult result;
    // Another commit in the middle of the reading takes away what is read.
    for (int attempt = 0; attempt < 20 && result.exitStatus != 0; ++attempt) {
        result = testkit::runProcess({"btrfs", "inspect-internal", "dump-tree", "-t", "root", volume.szDevice});
    }
    EXPECT_EQ(0, result.exitStatus) << result.output;
    return result.output;
}

// What was made before is on disk from here on.
void commitAll() {
    const int volume = open("/vol1", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(volume, 0);
    EXPECT_EQ(0, syncfs(volume));
    (void)close(volume);
}

TEST_F(SubvolumeDelete, IsOnDiskWhenItReturns) {
    ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant(take("gone-for-good").c_str()));
    const std::string names = namesOnDisk();
    EXPECT_NE(std::string::npos, names.find("name docs"));
    EXPECT_EQ(std::string::npos, names.find("name gone-for-good"));
}

TEST_F(SubvolumeListDelete, IsOnDiskWhenItReturns) {
    take("gone-1");
    take("gone-2");
    int deleted = -1;
    ASSERT_EQ(0, deleteAll(List({"gone-1", "gone-2"}), &deleted));
    const std::string names = namesOnDisk();
    EXPECT_NE(std::string::npos, names.find("name docs"));
    EXPECT_EQ(std::string::npos, names.find("name gone"));
}

// In another directory than the one given, whose sync says nothing about it.
TEST_F(SubvolumeListDelete, NameBeneathADirectoryIsOnDiskWhenItReturns) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/holder"));
    ASSERT_TRUE(testkit::makeDirectories("/vol1/holder/dir"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/holder/dir/gone-1"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/holder/gone-2"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/snaps/gone-3"));
    commitAll();
    ASSERT_NE(std::string::npos, namesOnDisk().find("name gone-1"));
    int deleted = -1;
    ASSERT_EQ(0, QOVABtrfsDeleteSubvolListFaultTolerantEx("/vol1/holder", List({"dir/gone-1"}).get(), &deleted));
    EXPECT_EQ(1, deleted);
    EXPECT_EQ(std::string::npos, namesOnDisk().find("name gone-1"));
    // Of several directories each.
    ASSERT_EQ(
        0, QOVABtrfsDeleteSubvolListFaultTolerantEx("/vol1", List({"snaps/gone-3", "holder/gone-2"}).get(), &deleted));
    EXPECT_EQ(2, deleted);
    const std::string names = namesOnDisk();
    EXPECT_NE(std::string::npos, names.find("name docs"));
    EXPECT_EQ(std::string::npos, names.find("name gone"));
}

TEST_F(SubvolumeListDelete, NestedOnesAreOnDiskWhenItReturns) {
    const auto makeNested = [] {
        ASSERT_EQ(0, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/snaps/gone-outer"));
        ASSERT_TRUE(testkit::makeDirectories("/vol1/snaps/gone-outer/way"));
        ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/snaps/gone-outer/way/gone-inner"));
        ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/snaps/gone-outer/way/gone-inner/gone-deep"));
        ASSERT_TRUE(storage::setReadOnly("/vol1/snaps/gone-outer"));
        commitAll();
        ASSERT_NE(std::string::npos, namesOnDisk().find("name gone-deep"));
    };
    ASSERT_NO_FATAL_FAILURE(makeNested());
    int deleted = -1;
    ASSERT_EQ(0, deleteAll(List({"gone-outer"}), &deleted));
    EXPECT_EQ(1, deleted);
    EXPECT_EQ(std::string::npos, namesOnDisk().find("name gone"));
    ASSERT_NO_FATAL_FAILURE(makeNested());
    ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/snaps/gone-outer"));
    EXPECT_EQ(std::string::npos, namesOnDisk().find("name gone"));
}

TEST_F(SubvolumeListDelete, GoesOnPastFailuresAndCountsWhatIsGone) {
    const std::vector<std::string> names = {"first", "with blank", "Grüße", std::string(255, 'z')};
    for (const std::string &name : names) {
        take(name);
    }
    ASSERT_EQ(0, mkdir("/vol1/snaps/plain", 0755));
    ASSERT_EQ(0, symlink("/vol1/docs", "/vol1/snaps/link"));
    int deleted = -1;
    EXPECT_EQ(0, deleteAll(List({"first", "plain", "with blank", "nothing", "link", "../docs", "", "/vol1/docs",
                                 "Grüße", names[3]}),
                           &deleted));
    EXPECT_EQ(5, deleted);
    EXPECT_EQ((std::vector<std::string>{"link", "plain"}), testkit::directoryNames("/vol1/snaps"));
    EXPECT_TRUE(exists("/vol1/docs/letter"));
}

TEST_F(SubvolumeListDelete, FindsNamesBeneathTheDirectoryAlone) {
    take("s");
    ASSERT_TRUE(testkit::makeDirectories("/vol1/snaps/dir"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/snaps/dir/inner"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/snaps/dir/kept"));
    ASSERT_EQ(0, symlink("dir", "/vol1/snaps/way"));
    ASSERT_EQ(0, symlink("/vol1", "/vol1/snaps/out"));
    int deleted = -1;
    EXPECT_EQ(0, deleteAll(List({"dir/inner", "way/kept", "out/docs", "dir/../s", "no dir/x"}), &deleted));
    EXPECT_EQ(2, deleted); // the first, and the last, which is gone with its directory
    EXPECT_FALSE(exists("/vol1/snaps/dir/inner"));
    EXPECT_TRUE(exists("/vol1/snaps/dir/kept"));
    EXPECT_TRUE(exists("/vol1/snaps/s"));
    EXPECT_TRUE(exists("/vol1/docs/letter"));
}

TEST_F(SubvolumeListDelete, TakesANameBehindTheOneThatHeldIt) {
    ASSERT_EQ(0, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/snaps/s"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/snaps/s/nested"));
    int deleted = -1;
    EXPECT_EQ(0, deleteAll(List({"s", "s/nested", "s"}), &deleted));
    EXPECT_EQ(3, deleted);
}

TEST_F(SubvolumeListDelete, OfNothingTouchesNothing) {
    int deleted = -1;
    EXPECT_EQ(0, deleteAll(List(), &deleted));
    EXPECT_EQ(0, deleted);
}

TEST_F(SubvolumeListDelete, InADirectoryThatCantBeUsedFails) {
    ASSERT_EQ(0, symlink("/vol1/snaps", "/vol1/way"));
    take("s");
    const List list({"s"});
    int deleted = -1;
    EXPECT_GT(0, QOVABtrfsDeleteSubvolListFaultTolerantEx("/vol1/nothing", list.get(), &deleted));
    EXPECT_EQ(0, deleted);
    EXPECT_GT(0, QOVABtrfsDeleteSubvolListFaultTolerantEx("/vol1/way", list.get(), &deleted));
    EXPECT_GT(0, QOVABtrfsDeleteSubvolListFaultTolerantEx("/proc", list.get(), &deleted));
    EXPECT_GT(0, QOVABtrfsDeleteSubvolListFaultTolerantEx(nullptr, list.get(), &deleted));
    EXPECT_GT(0, QOVABtrfsDeleteSubvolListFaultTolerantEx("/vol1/snaps", nullptr, &deleted));
    EXPECT_GT(0, QOVABtrfsDeleteSubvolListFaultTolerantEx("/vol1/snaps", list.get(), nullptr));
    EXPECT_TRUE(exists("/vol1/snaps/s"));
    EXPECT_EQ(0, QOVABtrfsDeleteSubvolListFaultTolerant("/vol1/snaps", list.get()));
    EXPECT_FALSE(exists("/vol1/snaps/s"));
}

} // namespace
