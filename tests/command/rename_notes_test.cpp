// Notes of interrupted renames: nothing else is done under the names of one, and none goes before its rename is at an
// end.
#include "command.hpp"

#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/share_admin.h>
#include <sharesnap/platform/subvolume.h>

#include <sys/stat.h>
#include <unistd.h>

#include "support/lock_holder.hpp"

namespace {

using namespace commandtest;

constexpr char kNote[] = "/etc/sharesnap/renames/docs";

// The share docs was to become files.
class RenameNotes : public CommandTest {
protected:
    static void note() {
        ASSERT_TRUE(testkit::makeDirectories("/etc/sharesnap/renames"));
        ASSERT_TRUE(testkit::writeFile(
            kNote, "[rename]\nold_name=docs\nnew_name=files\nold_path=/vol1/docs\nnew_path=/vol1/files\n"));
    }

    static testing::AssertionResult refuses(const Arguments &arguments) {
        const auto result = sharesnap(arguments);
        const auto status = ends(result, refused);
        return status ? says(result, {"\"docs\"", "\"files\"", "share rename docs --finish", "--undo"}) : status;
    }
};

TEST_F(RenameNotes, NothingElseIsDoneUnderTheOldName) {
    const std::string snapshot = take();
    note();
    EXPECT_TRUE(refuses({"share", "rename", "docs", "plans"}));
    EXPECT_TRUE(refuses({"share", "remove", "docs"}));
    EXPECT_TRUE(refuses({"share", "remove", "docs", "--data", "--yes"}));
    EXPECT_TRUE(refuses({"clone", "docs", "copy"}));
    EXPECT_TRUE(refuses({"restore", "docs", snapshot}));
    EXPECT_EQ(std::vector<std::string>{snapshot}, listed());
    EXPECT_TRUE(testkit::isDirectory("/vol1/docs"));
    EXPECT_FALSE(testkit::exists("/vol1/copy"));
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "--finish"}), done));
    EXPECT_EQ(std::vector<std::string>{snapshot}, listed({}, "files"));
}

TEST_F(RenameNotes, NothingElseTakesTheNewName) {
    ASSERT_TRUE(ends(sharesnap({"share", "add", "music", "/vol1/music"}), done));
    note();
    EXPECT_TRUE(refuses({"share", "add", "files", "/vol1/files"}));
    EXPECT_TRUE(refuses({"clone", "music", "files"}));
    EXPECT_TRUE(refuses({"share", "rename", "music", "files"}));
    EXPECT_FALSE(testkit::exists("/vol1/files"));
    EXPECT_TRUE(ends(sharesnap({"clone", "music", "songs"}), done));
}

// The record alone has its new name: what a schedule made under it would stand beside what is still under the old one.
TEST_F(RenameNotes, NoSnapshotIsTakenAndNothingSetBeforeTheRenameIsSettled) {
    const std::string snapshot = take();
    ASSERT_TRUE(ends(sharesnap({"conf", "set", "docs", "keep", "7"}), done));
    note();
    EXPECT_TRUE(refuses({"create", "docs"}));
    EXPECT_TRUE(refuses({"conf", "set", "docs", "keep", "8"}));
    ASSERT_EQ(0, QOVAShareRecordRename("docs", "files"));
    EXPECT_TRUE(refuses({"create", "files"}));
    EXPECT_TRUE(refuses({"conf", "set", "files", "keep", "8"}));
    EXPECT_TRUE(refuses({"conf", "unset", "files", "keep"}));
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "--finish"}), done));
    EXPECT_EQ(std::vector<std::string>{snapshot}, listed({}, "files"));
    EXPECT_EQ("7\n", sharesnap({"conf", "get", "files", "keep"}).output);
}

TEST_F(RenameNotes, SnapshotsDontWaitForWhatMovesOtherShares) {
    ASSERT_TRUE(ends(sharesnap({"share", "add", "music", "/vol1/music"}), done));
    note();
    const testkit::LockHolder holder("/run/lock/sharesnap/share_rename.lock", testkit::LockHolder::exclusive);
    ASSERT_TRUE(holder.holds());
    EXPECT_TRUE(ends(sharesnap({"create", "music"}), done));
    EXPECT_TRUE(ends(sharesnap({"conf", "set", "music", "keep", "7"}), done));
}

// All but the end of a rename is done: the share is files already.
TEST_F(RenameNotes, ANewShareOfTheOldNameIsntTakenForTheRenamedOne) {
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "files"}), done));
    note();
    EXPECT_TRUE(refuses({"share", "rename", "files", "plans"}));
    EXPECT_TRUE(refuses({"share", "add", "docs", "/vol1/docs"}));
    EXPECT_TRUE(refuses({"share", "remove", "files"}));
    EXPECT_EQ(nullptr, testkit::getShare("docs"));
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "--finish"}), done));
    EXPECT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol1/docs"}), done));
}

TEST_F(RenameNotes, ALostRecordCanBePutBackToSettleTheRename) {
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "kept"));
    note();
    ASSERT_EQ(0, QOVAShareRecordRemove("docs"));
    EXPECT_TRUE(ends(sharesnap({"share", "rename", "docs", "--finish"}), notFound));
    EXPECT_TRUE(refuses({"share", "add", "files", "/vol1/files"}));
    ASSERT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol1/docs", "--existing"}), done));
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "--finish"}), done));
    EXPECT_EQ("kept", testkit::readFile("/vol1/files/letter"));
}

TEST_F(RenameNotes, AreToldOfBesideTheListOfShares) {
    EXPECT_EQ("", sharesnap({"share", "list"}).errors);
    note();
    const auto result = sharesnap({"share", "list"});
    EXPECT_EQ(done, result.exitStatus);
    EXPECT_TRUE(says(result, {"\"docs\"", "\"files\"", "interrupted", "--finish", "--undo"}));
    EXPECT_NE(std::string::npos, result.output.find("/vol1/docs"));
}

TEST_F(RenameNotes, HalfANoteStandsInNobodysWay) {
    ASSERT_TRUE(testkit::makeDirectories("/etc/sharesnap/renames"));
    ASSERT_TRUE(testkit::writeFile(kNote, "[rename]\nold_name=docs\n"));
    EXPECT_TRUE(ends(sharesnap({"share", "remove", "docs"}), done));
    EXPECT_FALSE(testkit::exists(kNote));
}

// What can't be read stays for another attempt.
class UnreadablePart : public RenameNotes {
protected:
    void SetUp() override {
        RenameNotes::SetUp();
        if (IsSkipped()) {
            return;
        }
        snapshot_ = take();
        ASSERT_TRUE(ends(sharesnap({"conf", "set", "docs", "keep", "7"}), done));
        note();
    }

    // A directory in the place of a file can't be read as one, by nobody.
    void finishesOnlyWithout(const std::string &path) {
        const std::string text = testkit::readFile(path);
        ASSERT_EQ(0, unlink(path.c_str()));
        ASSERT_EQ(0, mkdir(path.c_str(), 0755));
        EXPECT_TRUE(ends(sharesnap({"share", "rename", "docs", "--finish"}), failed));
        EXPECT_TRUE(testkit::exists(kNote));
        ASSERT_EQ(0, rmdir(path.c_str()));
        ASSERT_TRUE(testkit::writeFile(path, text));
        ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "--finish"}), done));
        EXPECT_FALSE(testkit::exists(kNote));
        EXPECT_EQ(std::vector<std::string>{snapshot_}, listed({}, "files"));
        EXPECT_EQ("7\n", sharesnap({"conf", "get", "files", "keep"}).output);
    }

    std::string snapshot_;
};

TEST_F(UnreadablePart, OfTheListKeepsTheNote) {
    finishesOnlyWithout("/vol1/@sharesnap/@docs.meta");
}

TEST_F(UnreadablePart, OfTheSettingsKeepsTheNote) {
    finishesOnlyWithout("/usr/qova/etc/sharesnap/sharesnap.conf");
}

// A part that stands under both names: one of them is not the share's.
class BothEnds : public RenameNotes {
protected:
    void SetUp() override {
        RenameNotes::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "kept"));
        snapshot_ = take();
        ASSERT_TRUE(ends(sharesnap({"conf", "set", "docs", "keep", "7"}), done));
        note();
    }

    static void refusesBoth(const std::vector<std::string> &parts) {
        const auto result = sharesnap({"share", "rename", "docs", "--finish"});
        EXPECT_TRUE(ends(result, refused));
        EXPECT_TRUE(says(result, parts));
        EXPECT_TRUE(testkit::exists(kNote));
    }

    void finishes() const {
        ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "--finish"}), done));
        EXPECT_FALSE(testkit::exists(kNote));
        EXPECT_EQ("kept", testkit::readFile("/vol1/files/letter"));
        EXPECT_EQ(std::vector<std::string>{snapshot_}, listed({}, "files"));
        EXPECT_EQ("7\n", sharesnap({"conf", "get", "files", "keep"}).output);
    }

    std::string snapshot_;
};

TEST_F(BothEnds, OfTheDataAreRefused) {
    ASSERT_EQ(0, mkdir("/vol1/files", 0755));
    refusesBoth({"/vol1/docs", "/vol1/files"});
    EXPECT_EQ("kept", testkit::readFile("/vol1/docs/letter"));
    ASSERT_EQ(0, rmdir("/vol1/files"));
    finishes();
}

TEST_F(BothEnds, OfTheListAreRefused) {
    const std::string other = "/vol1/@sharesnap/@files.meta";
    ASSERT_TRUE(testkit::writeFile(other, "[GMT-2015.01.01-00.00.00]\nhide=false\n"));
    refusesBoth({"/vol1/@sharesnap/@docs.meta", other});
    ASSERT_EQ(0, unlink(other.c_str()));
    finishes();
}

TEST_F(BothEnds, OfTheSnapshotsAreRefused) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@sharesnap/files"));
    refusesBoth({"/vol1/@sharesnap/docs", "/vol1/@sharesnap/files"});
    ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/@sharesnap/files"));
    finishes();
}

// Another program took one with the library.
TEST_F(BothEnds, OfASnapshotThatWasTakenMeanwhileAreRefused) {
    ASSERT_EQ(0, QOVAShareRecordRename("docs", "files"));
    const auto record = testkit::getShare("files");
    ASSERT_NE(nullptr, record);
    char name[64] = "";
    ASSERT_EQ(0, QOVAShareSnapCreateEx(record.get(), name, sizeof(name), nullptr, 0));
    refusesBoth({"/vol1/@sharesnap/@docs.meta", "/vol1/@sharesnap/@files.meta", "delete"});
    EXPECT_TRUE(ends(sharesnap({"delete", "files", name}), done));
    // The empty list and the empty directory stay.
    ASSERT_EQ(0, unlink("/vol1/@sharesnap/@files.meta"));
    refusesBoth({"/vol1/@sharesnap/docs", "/vol1/@sharesnap/files"});
    ASSERT_EQ(0, unlink("/vol1/@sharesnap/files/desktop.ini"));
    ASSERT_EQ(0, rmdir("/vol1/@sharesnap/files"));
    finishes();
}

TEST_F(BothEnds, OfTheSettingsAreRefused) {
    const std::string file = "/usr/qova/etc/sharesnap/sharesnap.conf";
    const std::string text = testkit::readFile(file);
    ASSERT_TRUE(testkit::writeFile(file, text + "[files]\nkeep=9\n"));
    refusesBoth({"[docs]", "[files]", file});
    ASSERT_TRUE(testkit::writeFile(file, text));
    finishes();
}

// A rename doesn't begin where it couldn't be ended.
TEST_F(RenameNotes, SettingsUnderTheNewNameAreInTheWay) {
    const std::string file = "/usr/qova/etc/sharesnap/sharesnap.conf";
    ASSERT_TRUE(ends(sharesnap({"conf", "set", "docs", "keep", "7"}), done));
    ASSERT_TRUE(testkit::writeFile(file, testkit::readFile(file) + "[files]\nkeep=9\n"));
    const auto result = sharesnap({"share", "rename", "docs", "files"});
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {"[files]", file}));
    EXPECT_FALSE(testkit::exists(kNote));
    EXPECT_EQ("7\n", sharesnap({"conf", "get", "docs", "keep"}).output);
    EXPECT_TRUE(testkit::isDirectory("/vol1/docs"));
}

// Something that is no directory stands where the snapshots should: nobody knows what they are.
TEST_F(UnreadablePart, OfTheSnapshotsKeepsTheNote) {
    ASSERT_EQ(0, rename("/vol1/@sharesnap", "/vol1/aside"));
    ASSERT_TRUE(testkit::writeFile("/vol1/@sharesnap", ""));
    EXPECT_EQ(failed, sharesnap({"share", "rename", "docs", "--finish"}).exitStatus);
    EXPECT_TRUE(testkit::exists(kNote));
    ASSERT_EQ(0, unlink("/vol1/@sharesnap"));
    ASSERT_EQ(0, rename("/vol1/aside", "/vol1/@sharesnap"));
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "--finish"}), done));
    EXPECT_EQ(std::vector<std::string>{snapshot_}, listed({}, "files"));
}

// The volume of the share is gone for good.
TEST_F(RenameNotes, AreNamedWhenARenameCantBeSettled) {
    ASSERT_EQ("", testkit::addShare("lost", "/vol7/lost"));
    ASSERT_TRUE(testkit::makeDirectories("/etc/sharesnap/renames"));
    const std::string path = "/etc/sharesnap/renames/lost";
    ASSERT_TRUE(testkit::writeFile(
        path, "[rename]\nold_name=lost\nnew_name=found\nold_path=/vol7/lost\nnew_path=/vol7/found\n"));
    for (const char *option : {"--finish", "--undo"}) {
        const auto result = sharesnap({"share", "rename", "lost", option});
        EXPECT_NE(done, result.exitStatus);
        EXPECT_TRUE(says(result, {path}));
        EXPECT_TRUE(testkit::exists(path));
    }
    ASSERT_EQ(0, QOVAShareRecordRemove("lost"));
    const auto result = sharesnap({"share", "rename", "lost", "--undo"});
    EXPECT_TRUE(ends(result, notFound));
    EXPECT_TRUE(says(result, {path}));
}

} // namespace
