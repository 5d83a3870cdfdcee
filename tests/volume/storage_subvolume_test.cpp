// Subvolumes and snapshots: making them and telling what they are.
#include "storage_support.hpp"

#include <ctime>

using storage::Hash;
using testkit::exists;
using testkit::readFile;
using testkit::writeFile;

namespace {

using Subvolume = storage::SnapshotTest;
using ReadOnlySnapshot = storage::SnapshotTest;
using WritableSnapshot = storage::SnapshotTest;
using HiddenMark = storage::SnapshotTest;
using SubvolumeFacts = storage::SnapshotTest;

const std::string LONGEST(255, 'n');
const std::vector<std::string> NAMES = {"GMT-2026.01.02-03.04.05",
                                        "with some blanks ",
                                        "Grüße \xE6\x97\xA5",
                                        "quote'\"\\$(x)",
                                        "-dash",
                                        std::string(201, 'x'),
                                        LONGEST};

TEST_F(Subvolume, IsToldFromEverythingElse) {
    ASSERT_EQ(0, mkdir("/vol1/docs/plain", 0755));
    ASSERT_EQ(0, symlink("/vol1/docs", "/vol1/link"));
    ASSERT_EQ(0, symlink("/vol1/nothing", "/vol1/dangling"));
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1"));
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/docs"));
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/docs/"));
    EXPECT_EQ(0, QOVABtrfsIsSubVol("/vol1/docs/plain"));
    EXPECT_EQ(0, QOVABtrfsIsSubVol("/vol1/docs/letter"));
    EXPECT_EQ(0, QOVABtrfsIsSubVol("/vol1/link"));
    EXPECT_EQ(0, QOVABtrfsIsSubVol("/vol1/dangling"));
    EXPECT_EQ(0, QOVABtrfsIsSubVol("/proc"));
}

TEST_F(Subvolume, ThatIsAbsentIsNegativeWithItsReason) {
    storage::setCode(0);
    errno = 0;
    EXPECT_GT(0, QOVABtrfsIsSubVol("/vol1/nothing"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(unsigned(SNAP_ERR_OPERATION_FAILED), QLIBCErrGet());
    EXPECT_GT(0, QOVABtrfsIsSubVol("/vol1/docs/letter/below"));
    EXPECT_EQ(ENOTDIR, errno);
    EXPECT_GT(0, QOVABtrfsIsSubVol(nullptr));
    EXPECT_EQ(unsigned(SNAP_ERR_BAD_PARAMETER), QLIBCErrGet());
}

TEST_F(Subvolume, PlaceholderOfANestedOneIsNone) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs/nested"));
    const std::string snapshot = take("s");
    ASSERT_TRUE(testkit::isDirectory(snapshot + "/nested"));
    EXPECT_EQ(0, QOVABtrfsIsSubVol((snapshot + "/nested").c_str()));
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/docs/nested"));
}

TEST_F(Subvolume, PathsThroughParentsOrLinksAreRefused) {
    ASSERT_EQ(0, symlink("/vol1/snaps", "/vol1/way"));
    take("s");
    EXPECT_GT(0, QOVABtrfsIsSubVol("/vol1/docs/../snaps"));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_GT(0, QOVABtrfsIsSubVol("/vol1/way/s"));
    EXPECT_EQ(ELOOP, errno);
    EXPECT_EQ(-1, QOVABtrfsCreateSubVol("/vol1/way/new"));
    EXPECT_EQ(-1, QOVABtrfsCreateSubVol("/vol1/docs/../new"));
    EXPECT_EQ(-1, QOVABtrfsCreateSubVol("/vol1/docs/.."));
    EXPECT_GT(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/way/new"));
    EXPECT_GT(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/snaps/../new"));
    EXPECT_GT(0, QOVABtrfsReadOnlySnapshotTake("/vol1/way", "/vol1/new"));
    EXPECT_GT(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/way/s"));
    EXPECT_GT(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/docs/../snaps/s"));
    EXPECT_FALSE(exists("/vol1/snaps/new"));
    EXPECT_FALSE(exists("/vol1/new"));
    EXPECT_TRUE(exists("/vol1/snaps/s"));
}

TEST_F(Subvolume, IsMadeWithAnyNameOnce) {
    for (const std::string &name : NAMES) {
        const std::string path = "/vol1/" + name;
        EXPECT_EQ(0, QOVABtrfsCreateSubVol(path.c_str())) << name;
        EXPECT_EQ(1, QOVABtrfsIsSubVol(path.c_str())) << name;
        storage::setCode(0);
        EXPECT_EQ(-1, QOVABtrfsCreateSubVol(path.c_str())) << name;
        EXPECT_EQ(EEXIST, errno);
        EXPECT_EQ(unsigned(SNAP_ERR_ALREADY_EXISTS), QLIBCErrGet());
    }
    EXPECT_EQ(-1, QOVABtrfsCreateSubVol(("/vol1/" + LONGEST + "n").c_str()));
    EXPECT_EQ(ENAMETOOLONG, errno);
}

TEST_F(Subvolume, IsntMadeWhereThereCanBeNone) {
    EXPECT_EQ(-1, QOVABtrfsCreateSubVol("/vol1/nothing/new"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, QOVABtrfsCreateSubVol((testkit::Sandbox::scratch() + "/new").c_str()));
    EXPECT_EQ(ENOTTY, errno);
    EXPECT_EQ(-1, QOVABtrfsCreateSubVol("/"));
    EXPECT_EQ(-1, QOVABtrfsCreateSubVol(""));
    EXPECT_EQ(-1, QOVABtrfsCreateSubVol(nullptr));
}

TEST_F(Subvolume, NeverReplacesALinkThatStandsInItsPlace) {
    ASSERT_EQ(0, symlink("/vol1/elsewhere", "/vol1/planted"));
    EXPECT_EQ(-1, QOVABtrfsCreateSubVol("/vol1/planted"));
    EXPECT_GT(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/planted"));
    EXPECT_FALSE(exists("/vol1/elsewhere"));
    EXPECT_EQ("/vol1/elsewhere", testkit::readLink("/vol1/planted"));
}

TEST_F(ReadOnlySnapshot, HoldsTheDataAndCantBeWritten) {
    for (const std::string &name : NAMES) {
        const std::string path = take(name);
        EXPECT_EQ("dear all", readFile(path + "/letter")) << name;
        EXPECT_TRUE(storage::isReadOnly(path)) << name;
        EXPECT_FALSE(writeFile(path + "/letter", "changed")) << name;
        EXPECT_EQ(EROFS, errno);
    }
}

TEST_F(ReadOnlySnapshot, ClearsTheRegisterOnSuccessOnly) {
    storage::setCode(SNAP_ERR_SNAPSHOT_EXISTS);
    take("s");
    EXPECT_EQ(0U, QLIBCErrGet());
    EXPECT_STREQ("", QLIBCErrorGetFile());
    EXPECT_EQ(0, QLIBCErrorGetLine());
    EXPECT_EQ(-1, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/snaps/s"));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ(unsigned(SNAP_ERR_ALREADY_EXISTS), QLIBCErrGet());
}

TEST_F(ReadOnlySnapshot, IsTakenOfSubvolumesOnly) {
    ASSERT_EQ(0, mkdir("/vol1/docs/plain", 0755));
    ASSERT_EQ(0, symlink("/vol1/docs", "/vol1/link"));
    for (const char *source : {"/vol1/docs/plain", "/vol1/docs/letter", "/vol1/link", "/vol1/nothing", "/proc"}) {
        storage::setCode(0);
        EXPECT_EQ(-1, QOVABtrfsReadOnlySnapshotTake(source, "/vol1/snaps/s")) << source;
        EXPECT_NE(0, errno);
        EXPECT_NE(0U, QLIBCErrGet());
        EXPECT_FALSE(exists("/vol1/snaps/s")) << source;
    }
}

TEST_F(ReadOnlySnapshot, NeverLeavesItsFileSystem) {
    ASSERT_EQ("", testkit::Sandbox::mountVolume("/vol2"));
    EXPECT_EQ(-1, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol2/s"));
    EXPECT_EQ(EXDEV, errno);
}

TEST_F(WritableSnapshot, OfAReadOnlyOneIsWritable) {
    const std::string snapshot = take("s");
    storage::setCode(SNAP_ERR_BUSY);
    EXPECT_EQ(0, QOVABtrfsSnapshotTake(snapshot.c_str(), "/vol1/clone"));
    EXPECT_EQ(unsigned(SNAP_ERR_BUSY), QLIBCErrGet());
    EXPECT_TRUE(writeFile("/vol1/clone/letter", "mine"));
    EXPECT_EQ("dear all", readFile(snapshot + "/letter"));
    EXPECT_EQ(-1, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/clone"));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_FALSE(exists("/vol1/clone/docs"));
}

TEST_F(HiddenMark, IsReadBackAndClearedForAnyName) {
    for (const std::string &name : NAMES) {
        const std::string path = take(name);
        ASSERT_EQ(0, QOVABtrfsSubvolHideAttrSet(path.c_str(), 1)) << name;
        Hash hidden;
        ASSERT_EQ(0, QOVASnapFillSubvolInfoWithPath(path.c_str(), hidden.address()));
        EXPECT_EQ("true", hidden["hide"]) << name;
        ASSERT_EQ(0, QOVABtrfsSubvolHideAttrSet(path.c_str(), 0)) << name;
        Hash shown;
        ASSERT_EQ(0, QOVASnapFillSubvolInfoWithPath(path.c_str(), shown.address()));
        EXPECT_EQ("false", shown["hide"]) << name;
    }
    EXPECT_EQ("", storage::attributeNames("/vol1/snaps"));
}

TEST_F(HiddenMark, TellsLongNamesApart) {
    const std::string first = take(std::string(254, 'a') + "1");
    const std::string second = take(std::string(254, 'a') + "2");
    ASSERT_EQ(0, QOVABtrfsSubvolHideAttrSet(first.c_str(), 1));
    Hash facts;
    ASSERT_EQ(0, QOVASnapFillSubvolInfoWithPath(second.c_str(), facts.address()));
    EXPECT_EQ("false", facts["hide"]);
}

TEST_F(HiddenMark, LeavesTheSnapshotReadOnlyAndUntouched) {
    const std::string path = take("s");
    struct stat before = {};
    struct stat after = {};
    ASSERT_EQ(0, stat(path.c_str(), &before));
    ASSERT_EQ(0, QOVABtrfsSubvolHideAttrSet(path.c_str(), 1));
    ASSERT_EQ(0, stat(path.c_str(), &after));
    EXPECT_TRUE(storage::isReadOnly(path));
    EXPECT_EQ(before.st_ctim.tv_sec, after.st_ctim.tv_sec);
    EXPECT_EQ(before.st_ctim.tv_nsec, after.st_ctim.tv_nsec);
    EXPECT_EQ("trusted.sharesnap.hide.s ", storage::attributeNames("/vol1/snaps"));
}

TEST_F(HiddenMark, ThatIsAbsentIsClearedWithoutAWrite) {
    const std::string path = take("s");
    struct stat before = {};
    struct stat after = {};
    ASSERT_EQ(0, stat("/vol1/snaps", &before));
    EXPECT_EQ(0, QOVABtrfsSubvolHideAttrSet(path.c_str(), 0));
    ASSERT_EQ(0, stat("/vol1/snaps", &after));
    EXPECT_EQ(before.st_ctim.tv_sec, after.st_ctim.tv_sec);
    EXPECT_EQ(before.st_ctim.tv_nsec, after.st_ctim.tv_nsec);
}

TEST_F(HiddenMark, IsForSubvolumesOnly) {
    ASSERT_EQ(0, symlink("/vol1/docs", "/vol1/link"));
    for (const char *path : {"/vol1/nothing", "/vol1/docs/letter", "/vol1/link"}) {
        EXPECT_EQ(-1, QOVABtrfsSubvolHideAttrSet(path, 1)) << path;
        EXPECT_EQ(-1, QOVABtrfsSubvolHideAttrSet(path, 0)) << path;
    }
    EXPECT_EQ("", storage::attributeNames("/vol1"));
}

TEST_F(HiddenMark, MovesWithTheDirectory) {
    ASSERT_EQ(0, QOVABtrfsSubvolHideAttrSet(take("s").c_str(), 1));
    ASSERT_EQ(0, rename("/vol1/snaps", "/vol1/moved"));
    Hash facts;
    ASSERT_EQ(0, QOVASnapFillSubvolInfoWithPath("/vol1/moved/s", facts.address()));
    EXPECT_EQ("true", facts["hide"]);
}

std::string shown(const std::string &path, const std::string &label) {
    const testkit::ProcessResult result = testkit::runProcess({"btrfs", "subvolume", "show", path});
    const size_t at = result.output.find("\t" + label + ":");
    if (at == std::string::npos) {
        return "(not shown)";
    }
    const size_t value = result.output.find_first_not_of(" \t", at + label.size() + 2);
    return result.output.substr(value, result.output.find('\n', value) - value);
}

TEST_F(SubvolumeFacts, AreThoseOfTheFileSystem) {
    const time_t before = time(nullptr);
    const std::string path = take("s");
    const time_t after = time(nullptr);
    Hash facts;
    ASSERT_EQ(0, QOVASnapFillSubvolInfoWithPath(path.c_str(), facts.address()));
    EXPECT_EQ(5, facts.size());
    EXPECT_EQ("false", facts["hide"]);
    EXPECT_EQ(shown(path, "UUID"), facts["uuid"]);
    EXPECT_EQ(shown(path, "UUID"), facts["ruuid"]);
    EXPECT_EQ(shown("/vol1/docs", "UUID"), facts["parent_uuid"]);
    struct tm parts = {};
    const std::string created = facts["create_time"];
    ASSERT_EQ(20U, created.size()) << created;
    ASSERT_NE(nullptr, strptime(created.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts)) << created;
    // The file system takes the time of the last clock tick.
    EXPECT_LE(before - 1, timegm(&parts));
    EXPECT_GE(after, timegm(&parts));
}

TEST_F(SubvolumeFacts, StayTheSameWhateverHappensToTheSource) {
    const std::string path = take("s");
    Hash first;
    ASSERT_EQ(0, QOVASnapFillSubvolInfoWithPath(path.c_str(), first.address()));
    ASSERT_TRUE(writeFile("/vol1/docs/letter", "changed"));
    take("later");
    ASSERT_EQ(0, rename("/vol1/snaps", "/vol1/moved"));
    Hash second;
    ASSERT_EQ(0, QOVASnapFillSubvolInfoWithPath("/vol1/moved/s", second.address()));
    for (const char *key : {"hide", "ruuid", "uuid", "parent_uuid", "create_time"}) {
        EXPECT_EQ(first[key], second[key]) << key;
    }
}

TEST_F(SubvolumeFacts, OfAReceivedSnapshotNameItsOrigin) {
    const std::string path = take("s");
    ASSERT_EQ(0, mkdir("/vol1/received", 0755));
    const std::string stream = testkit::Sandbox::scratch() + "/stream";
    ASSERT_EQ(0, testkit::runProcess({"btrfs", "send", "-q", "-f", stream, path}).exitStatus);
    ASSERT_EQ(0, testkit::runProcess({"btrfs", "receive", "-q", "-f", stream, "/vol1/received"}).exitStatus);
    Hash origin;
    Hash copy;
    ASSERT_EQ(0, QOVASnapFillSubvolInfoWithPath(path.c_str(), origin.address()));
    ASSERT_EQ(0, QOVASnapFillSubvolInfoWithPath("/vol1/received/s", copy.address()));
    EXPECT_EQ(origin["uuid"], copy["ruuid"]);
    EXPECT_EQ(origin["ruuid"], copy["ruuid"]);
    EXPECT_NE(origin["uuid"], copy["uuid"]);
}

TEST_F(SubvolumeFacts, OfWhatIsNoSubvolumeFailAndAddNothing) {
    Hash facts;
    for (const char *path : {"/vol1/docs/letter", "/vol1/nothing", "/proc"}) {
        storage::setCode(0);
        EXPECT_GT(0, QOVASnapFillSubvolInfoWithPath(path, facts.address())) << path;
        EXPECT_NE(0U, QLIBCErrGet());
    }
    EXPECT_EQ(0, facts.size());
    EXPECT_GT(0, QOVASnapFillSubvolInfoWithPath(nullptr, facts.address()));
    EXPECT_GT(0, QOVASnapFillSubvolInfoWithPath("/vol1/docs", nullptr));
}

} // namespace
