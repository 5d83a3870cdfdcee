// Notes of interrupted renames: nothing else is done under the names of one, and none goes before its rename is at an
// end.
#include "command.hpp"

#include <sharesnap/platform/share_admin.h>

#include <sys/stat.h>
#include <unistd.h>

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

} // namespace
