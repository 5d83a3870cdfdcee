// What every storage core does, whether real or simulated: one set of tests that a program of each kind takes in. Where
// they hold on both, a test of the library on the simulated core says something about the real one.
#pragma once

#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/process.hpp"

#include <sharesnap/platform/error.h>
#include <sharesnap/platform/process.h>
#include <sharesnap/platform/subvolume.h>
#include <sharesnap/platform/volume.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace storage_contract {

class StorageContract : public testkit::AnyVolumeTest {
protected:
    static std::map<std::string, std::string> facts(const char *path) {
        QLIBCSZHASH *hash = QLIBCSzHashAlloc(1024);
        QLIBCSZLIST *keys = QLIBCSzListAlloc(1024);
        std::map<std::string, std::string> all;
        EXPECT_EQ(0, QOVASnapFillSubvolInfoWithPath(path, &hash)) << path;
        EXPECT_EQ(0, QLIBCSzHashEnumKey(hash, &keys));
        for (int i = 0; i < keys->nItem; ++i) {
            all[QLIBCSzListGet(keys, i)] = QLIBCSzHashGetValue(hash, QLIBCSzListGet(keys, i));
        }
        QLIBCSzListFree(keys);
        QLIBCSzHashFree(hash);
        return all;
    }

    static int deleteList(const char *directory, const std::vector<const char *> &names, int *deleted) {
        QLIBCSZLIST *list = QLIBCSzListAlloc(512);
        for (const char *name : names) {
            EXPECT_LE(0, QLIBCSzListPush(&list, name));
        }
        const int result = QOVABtrfsDeleteSubvolListFaultTolerantEx(directory, list, deleted);
        QLIBCSzListFree(list);
        return result;
    }
};

TEST_F(StorageContract, TellsSubvolumesFromOtherThings) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs"));
    ASSERT_EQ(0, mkdir("/vol1/plain", 0755));
    ASSERT_TRUE(testkit::writeFile("/vol1/file", ""));
    ASSERT_EQ(0, symlink("docs", "/vol1/link"));
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1"));
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/docs"));
    EXPECT_EQ(0, QOVABtrfsIsSubVol("/vol1/plain"));
    EXPECT_EQ(0, QOVABtrfsIsSubVol("/vol1/file"));
    EXPECT_EQ(0, QOVABtrfsIsSubVol("/vol1/link"));
    EXPECT_EQ(0, QOVABtrfsIsSubVol("/etc"));
    errno = 0;
    EXPECT_EQ(-1, QOVABtrfsIsSubVol("/vol1/absent"));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(StorageContract, KeepsASubvolumeOverARename) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs"));
    ASSERT_EQ(0, rename("/vol1/docs", "/vol1/papers"));
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/papers"));
    ASSERT_EQ(0, mkdir("/vol1/docs", 0755));
    EXPECT_EQ(0, QOVABtrfsIsSubVol("/vol1/docs"));
}

TEST_F(StorageContract, RefusesWhatCannotBeMade) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs"));
    EXPECT_EQ(-1, QOVABtrfsCreateSubVol("/vol1/docs"));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ(unsigned(SNAP_ERR_ALREADY_EXISTS), QLIBCErrGet());
    EXPECT_EQ(-1, QOVABtrfsCreateSubVol("/vol1/absent/docs"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, QOVABtrfsCreateSubVol("/vol1/docs/../more"));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, QOVABtrfsCreateSubVol("/run/docs"));
    EXPECT_EQ(-1, QOVABtrfsCreateSubVol(("/vol1/" + std::string(256, 'n')).c_str()));
    EXPECT_EQ(ENAMETOOLONG, errno);
}

TEST_F(StorageContract, ASnapshotHoldsWhatStoodAtItsTime) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs"));
    ASSERT_TRUE(testkit::makeDirectories("/vol1/docs/a/b"));
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/a/b/file", "before"));
    ASSERT_EQ(0, chmod("/vol1/docs/a/b/file", 0640));
    ASSERT_EQ(0, symlink("a/b/file", "/vol1/docs/link"));
    ASSERT_EQ(0, setxattr("/vol1/docs/a", "user.note", "text", 4, 0));
    QLIBCErrSetEx(0x2300, "old", 1);
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/snap"));
    EXPECT_EQ(0U, QLIBCErrGet()) << "an earlier code is not of this attempt";
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/a/b/file", "after"));
    EXPECT_EQ("before", testkit::readFile("/vol1/snap/a/b/file"));
    EXPECT_EQ("a/b/file", testkit::readLink("/vol1/snap/link"));
    struct stat st = {};
    ASSERT_EQ(0, stat("/vol1/snap/a/b/file", &st));
    EXPECT_EQ(mode_t{0640}, st.st_mode & 07777);
    char note[8] = {};
    EXPECT_EQ(4, getxattr("/vol1/snap/a", "user.note", note, sizeof(note)));
    EXPECT_STREQ("text", note);
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/snap"));
}

TEST_F(StorageContract, ANestedSubvolumeIsAnEmptyDirectoryInASnapshot) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs/inner"));
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/inner/file", "x"));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/snap"));
    EXPECT_TRUE(testkit::isDirectory("/vol1/snap/inner"));
    EXPECT_TRUE(testkit::directoryNames("/vol1/snap/inner").empty());
    EXPECT_EQ(0, QOVABtrfsIsSubVol("/vol1/snap/inner"));
}

TEST_F(StorageContract, RefusesASnapshotOfOrAtTheWrongPlace) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs"));
    ASSERT_EQ(0, mkdir("/vol1/plain", 0755));
    EXPECT_GT(0, QOVABtrfsReadOnlySnapshotTake("/vol1/plain", "/vol1/snap"));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_GT(0, QOVABtrfsReadOnlySnapshotTake("/vol1/absent", "/vol1/snap"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(testkit::exists("/vol1/snap"));
    ASSERT_EQ(0, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/snap"));
    EXPECT_GT(0, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/snap"));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ(unsigned(SNAP_ERR_ALREADY_EXISTS), QLIBCErrGet());
}

TEST_F(StorageContract, AWritableSnapshotStandsForItself) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs"));
    ASSERT_EQ(0, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/clone"));
    EXPECT_TRUE(testkit::writeFile("/vol1/clone/file", "x"));
    EXPECT_FALSE(testkit::exists("/vol1/docs/file"));
}

TEST_F(StorageContract, TellsTheFactsOfASnapshot) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs"));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/snap"));
    const auto of = facts("/vol1/snap");
    ASSERT_EQ(5U, of.size());
    EXPECT_EQ("false", of.at("hide"));
    EXPECT_EQ(36U, of.at("uuid").size());
    EXPECT_EQ(of.at("uuid"), of.at("ruuid"));
    EXPECT_EQ(facts("/vol1/docs").at("uuid"), of.at("parent_uuid"));
    EXPECT_EQ("", facts("/vol1/docs").at("parent_uuid"));
    EXPECT_EQ(std::string("2026-01-01T00:00:00Z").size(), of.at("create_time").size());
    EXPECT_EQ(of, facts("/vol1/snap")) << "facts don't change";
}

TEST_F(StorageContract, HidesAndShows) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs"));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/snap"));
    EXPECT_EQ(0, QOVABtrfsSubvolHideAttrSet("/vol1/snap", 0)) << "it wasn't hidden";
    EXPECT_EQ(0, QOVABtrfsSubvolHideAttrSet("/vol1/snap", 1));
    EXPECT_EQ("true", facts("/vol1/snap").at("hide"));
    EXPECT_EQ(0, QOVABtrfsSubvolHideAttrSet("/vol1/snap", 0));
    EXPECT_EQ("false", facts("/vol1/snap").at("hide"));
    EXPECT_GT(0, QOVABtrfsSubvolHideAttrSet("/vol1/absent", 1));
}

TEST_F(StorageContract, DeletesOneWithAllThatIsInIt) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs/inner"));
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/inner/file", "x"));
    EXPECT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/docs"));
    EXPECT_FALSE(testkit::exists("/vol1/docs"));
    EXPECT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/docs")) << "gone counts as deleted";
    ASSERT_EQ(0, mkdir("/vol1/plain", 0755));
    EXPECT_GT(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/plain"));
    EXPECT_TRUE(testkit::isDirectory("/vol1/plain"));
}

TEST_F(StorageContract, DeletesABatchPastSingleFailures) {
    ASSERT_EQ(0, mkdir("/vol1/snaps", 0755));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/snaps/one"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/snaps/two"));
    ASSERT_EQ(0, mkdir("/vol1/snaps/plain", 0755));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/outside"));
    int deleted = -1;
    EXPECT_EQ(0, deleteList("/vol1/snaps", {"one", "plain", "gone", "../outside", "two"}, &deleted));
    EXPECT_EQ(3, deleted);
    EXPECT_EQ(std::vector<std::string>{"plain"}, testkit::directoryNames("/vol1/snaps"));
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/outside"));
    EXPECT_EQ(0, deleteList("/vol1/snaps", {}, &deleted));
    EXPECT_EQ(0, deleted);
    EXPECT_EQ(-1, deleteList("/vol1/absent", {"one"}, &deleted));
}

TEST_F(StorageContract, AsksForTheSystemsLimitWithTheCounters) {
    EXPECT_EQ(65536UL, QOVABtrfsSnapCountMaximumGet());
    ASSERT_TRUE(testkit::writeFile("/etc.defaults/qovainfo.conf", "max_snapshots_per_system=\"5\"\n"));
    EXPECT_EQ(5UL, QOVABtrfsSnapCountMaximumGet());
    EXPECT_EQ(0, QOVABtrfsSnapCountReachMaxCheck());
    ASSERT_TRUE(testkit::makeDirectories("/vol1/@sharesnap/docs"));
    ASSERT_TRUE(testkit::makeDirectories("/vol1/@sharesnap/pics"));
    ASSERT_EQ(0, setxattr("/vol1/@sharesnap/docs", "user.snapcount", "4", 1, 0));
    EXPECT_EQ(0, QOVABtrfsSnapCountReachMaxCheck());
    ASSERT_EQ(0, setxattr("/vol1/@sharesnap/pics", "user.snapcount", "1", 1, 0));
    EXPECT_EQ(-2, QOVABtrfsSnapCountReachMaxCheck());
}

TEST_F(StorageContract, KnowsTheVolumeOfAPath) {
    char text[4096] = "";
    EXPECT_EQ(0, QOVAShareVolPathGet("/vol1", text, sizeof(text)));
    EXPECT_STREQ("/vol1", text);
    EXPECT_EQ(0, QOVAShareVolPathGet("/vol1/absent/deep", text, sizeof(text)));
    EXPECT_STREQ("/vol1", text);
    EXPECT_EQ(-1, QOVAShareVolPathGet("/vol7/docs", text, sizeof(text)));
    EXPECT_EQ(-1, QOVAShareVolPathGet("/vol1", text, 3));
    EXPECT_EQ(FS_TYPE_BTRFS, QOVAGetFSType("/vol1", 0));
    auto info = std::make_unique<QOVAMOUNTVOLINFO>();
    EXPECT_EQ(0, QOVAMountVolInfoGet("/vol1/docs", info.get()));
    EXPECT_EQ(FS_TYPE_BTRFS, info->nFsType);
    EXPECT_STREQ("/vol1", info->szMountPath);
}

TEST_F(StorageContract, ListsTheVolumes) {
    bool found = false;
    QOVAMOUNTVOLINFO *all = QOVAMountVolAllEnum(0, 1, 0);
    for (const QOVAMOUNTVOLINFO *one = all; one != nullptr; one = one->pNext) {
        EXPECT_EQ(std::string::npos, std::string(one->szMountPath).find('/', 1)) << one->szMountPath;
        found = found || (one->nFsType == FS_TYPE_BTRFS && std::string(one->szMountPath) == "/vol1");
    }
    QOVAMountVolInfoFree(all);
    EXPECT_TRUE(found);
}

TEST_F(StorageContract, ParsesVolumePathsAsText) {
    char volume[QOVA_VOLUME_PATH_SIZE] = "";
    EXPECT_EQ(0, VolumePathParseEx("/vol9/docs/deep", volume));
    EXPECT_STREQ("/vol9", volume);
    EXPECT_EQ(-1, VolumePathParseEx("vol9", volume));
    EXPECT_EQ(-1, VolumePathParseEx("/", volume));
    EXPECT_EQ(0, VolumePathParseEx(("/" + std::string(130, 'v') + "/docs").c_str(), volume));
    EXPECT_EQ(-1, VolumePathParseEx(("/" + std::string(131, 'v') + "/docs").c_str(), volume));
    EXPECT_EQ(12, QOVAVolIDParse("/vol12"));
    EXPECT_EQ(-1, QOVAVolIDParse("/vol"));
}

TEST_F(StorageContract, TheToolListsTheSubvolumesOfAVolume) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs"));
    ASSERT_EQ(0, mkdir("/vol1/dir", 0755));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/dir/snap of it"));
    FILE *stream = QLIBCPopen("/sbin/btrfs", "r", "subvolume", "list", "/vol1", static_cast<char *>(nullptr));
    ASSERT_NE(nullptr, stream);
    std::string text;
    for (int byte = fgetc(stream); byte != EOF; byte = fgetc(stream)) {
        text.push_back(static_cast<char>(byte));
    }
    EXPECT_EQ(0, QLIBCPclose(stream));
    EXPECT_NE(std::string::npos, text.find(" path docs\n")) << text;
    EXPECT_NE(std::string::npos, text.find(" path dir/snap of it\n")) << text;
    EXPECT_EQ(2, std::count(text.begin(), text.end(), '\n')) << text;
}

TEST_F(StorageContract, TheToolFailsAwayFromAVolume) {
    EXPECT_EQ(nullptr, QLIBCPopen("/sbin/btrfs", "r", "subvolume", "list", "/run", static_cast<char *>(nullptr)));
}

TEST_F(StorageContract, TheToolEstimatesASend) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs"));
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/file", std::string(100000, 'x')));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/snap"));
    FILE *stream = QLIBCPopen("/sbin/btrfs", "r", "send", "-es", "/vol1/snap", static_cast<char *>(nullptr));
    ASSERT_NE(nullptr, stream);
    long long size = -1;
    EXPECT_EQ(1, fscanf(stream, "About:%lld", &size));
    EXPECT_GE(size, 100000);
    EXPECT_LT(size, 200000);
    (void)QLIBCPclose(stream);
}

} // namespace storage_contract
