// The snapshot tree when it couldn't be rewritten for a while: what was done stands, the command says so, and `sync`
// makes the tree true again.
#include "command.hpp"

#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/share_admin.h>
#include <sharesnap/platform/subvolume.h>
#include <sharesnap/snaptree.hpp>

#include <cstdio>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/tree_names.hpp"
#include "waiting.hpp"

namespace {

using namespace commandtest;
using testing::HasSubstr;
using testing::Not;

constexpr char kTree[] = "/vol1/@eaDir/snaptree.bin";
constexpr char kMark[] = "/vol1/@eaDir/snaptree.bin.broken";
constexpr char kNotes[] = "/etc/sharesnap/renames";

std::string drawn(const std::string &volume = "/vol1") {
    const auto result = sharesnap({"tree", volume});
    EXPECT_TRUE(ends(result, done));
    return result.output;
}

// The verb with a tree that can't be loaded: done in part, and it says why.
testing::AssertionResult isDoneWithoutTheTree(const Arguments &arguments, const std::string &mark = kMark) {
    if (!testkit::writeFile(mark, "")) {
        return testing::AssertionFailure() << "no mark at " << mark;
    }
    const auto result = sharesnap(arguments);
    (void)unlink(mark.c_str());
    const auto status = ends(result, inPart);
    return status ? says(result, {"what was asked is done", "snapshot tree", mark}) : status;
}

class TreeRepair : public CommandTest {
protected:
    // The tree's file as it is: another one has another inode.
    static std::pair<ino_t, std::string> file() {
        struct stat status = {};
        EXPECT_EQ(0, stat(kTree, &status));
        return {status.st_ino, testkit::readFile(kTree)};
    }

    // The tree keeps a share without a record.
    static void leaveStranger(const std::string &name) {
        ASSERT_TRUE(ends(sharesnap({"share", "add", name, "/vol1/" + name}), done));
        ASSERT_TRUE(isDoneWithoutTheTree({"share", "remove", name}));
        ASSERT_EQ(nullptr, testkit::getShare(name));
        ASSERT_THAT(drawn(), HasSubstr("object/" + name));
    }

    // The tree keeps a clone of that snapshot, which is neither a share nor a subvolume any more.
    static void leaveClone(const std::string &name, const std::string &snapshot) {
        ASSERT_TRUE(ends(sharesnap({"clone", "docs", name, "--snapshot", snapshot}), done));
        ASSERT_TRUE(isDoneWithoutTheTree({"share", "remove", name}));
        ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant(("/vol1/" + name).c_str()));
        ASSERT_EQ("root\n  snap/docs/" + snapshot + "\n", drawn().substr(0, drawn().find("    ")));
        ASSERT_THAT(drawn(), HasSubstr("\n    object/" + name + "\n"));
    }

    // A share that the tree doesn't know.
    static void addUnknown(const std::string &name) {
        ASSERT_TRUE(isDoneWithoutTheTree({"share", "add", name, "/vol1/" + name}));
        ASSERT_THAT(drawn(), Not(HasSubstr("object/" + name)));
    }

    static void noteRename(const std::string &from, const std::string &to) {
        ASSERT_TRUE(testkit::makeDirectories(kNotes));
        ASSERT_TRUE(testkit::writeFile(std::string(kNotes) + "/" + from, "[rename]\nold_name=" + from +
                                                                             "\nnew_name=" + to + "\nold_path=/vol1/" +
                                                                             from + "\nnew_path=/vol1/" + to + "\n"));
    }

    static nlohmann::json trees(const std::vector<std::string> &removed) {
        return {{{"volume", "/vol1"}, {"removed", removed}}};
    }
};

TEST_F(TreeRepair, SyncAllDropsARemovedShare) {
    leaveStranger("music");
    ASSERT_TRUE(ends(sharesnap({"sync", "docs"}), done));
    EXPECT_THAT(drawn(), HasSubstr("object/music")) << "one share was asked for";
    const auto result = sharesnap({"sync", "--all"});
    EXPECT_TRUE(ends(result, done));
    EXPECT_THAT(result.output,
                HasSubstr("music  -         taken from the tree of /vol1: it is no share of this volume\n"));
    EXPECT_EQ("root\n  object/docs\n", drawn());
    const auto before = file();
    EXPECT_EQ(trees({}), document({"sync", "--all"})["trees"]);
    EXPECT_EQ("root\n  object/docs\n", drawn());
    EXPECT_EQ(before.second, file().second);
}

TEST_F(TreeRepair, SyncAllDropsARemovedShareWithItsSnapshots) {
    const std::string first = take();
    ASSERT_TRUE(ends(sharesnap({"share", "add", "music", "/vol1/music"}), done));
    const std::string song = take({}, "music");
    ASSERT_TRUE(ends(sharesnap({"clone", "music", "copy", "--snapshot", song}), done));
    ASSERT_TRUE(isDoneWithoutTheTree({"share", "remove", "music", "--data", "--yes"}));
    EXPECT_EQ(nullptr, testkit::getShare("music"));
    EXPECT_FALSE(testkit::exists("/vol1/music"));
    ASSERT_THAT(drawn(), HasSubstr("snap/music/" + song));
    EXPECT_EQ(trees({"music"}), document({"sync", "--all"})["trees"]);
    const std::string left = drawn();
    EXPECT_THAT(left, Not(HasSubstr("music")));
    EXPECT_THAT(left, HasSubstr("\n  object/copy\n")) << left;
    EXPECT_THAT(left, HasSubstr("\n  snap/docs/" + first + "\n    object/docs\n")) << left;
}

TEST_F(TreeRepair, SyncAllFollowsARename) {
    const std::string first = take();
    ASSERT_TRUE(isDoneWithoutTheTree({"share", "rename", "docs", "papers"}));
    ASSERT_THAT(drawn(), HasSubstr("object/docs"));
    EXPECT_EQ(trees({"docs"}), document({"sync", "--all"})["trees"]);
    EXPECT_EQ("root\n  snap/papers/" + first + "\n    object/papers\n", drawn());
}

TEST_F(TreeRepair, ADryRunOnlyTells) {
    leaveStranger("music");
    const auto before = file();
    const auto result = sharesnap({"sync", "--all", "--dry-run"});
    EXPECT_TRUE(ends(result, done));
    EXPECT_THAT(result.output, HasSubstr("would be taken from the tree of /vol1"));
    EXPECT_EQ(trees({"music"}), document({"sync", "--all", "--dry-run"})["trees"]);
    EXPECT_EQ(before, file());
}

TEST_F(TreeRepair, SyncAllKeepsAShareThatIsBeingRenamed) {
    const std::string first = take();
    ASSERT_TRUE(ends(sharesnap({"clone", "docs", "copy", "--snapshot", first}), done));
    noteRename("docs", "papers");
    ASSERT_EQ(0, QOVAShareRecordRename("docs", "papers"));
    EXPECT_EQ(trees({}), document({"sync", "--all"})["trees"]);
    EXPECT_THAT(drawn(), HasSubstr("snap/docs/" + first));
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "--finish"}), done));
    const std::string text = drawn();
    EXPECT_EQ(0U, text.find("root\n  snap/papers/" + first + "\n    object/")) << text;
    EXPECT_THAT(text, HasSubstr("\n    object/papers\n"));
    EXPECT_THAT(text, HasSubstr("\n    object/copy\n")) << "its descent is the old share's";
    EXPECT_THAT(text, Not(HasSubstr("docs")));
}

TEST_F(TreeRepair, SyncAllKeepsTheTreeWhenItCantTell) {
    leaveStranger("music");
    const auto keeps = [] { return drawn().find("object/music") != std::string::npos; };
    // Notes of renames that can't be read.
    ASSERT_TRUE(testkit::makeDirectories("/etc/sharesnap"));
    (void)rmdir(kNotes);
    ASSERT_TRUE(testkit::writeFile(kNotes, "no directory"));
    const auto blind = sharesnap({"sync", "--all"});
    EXPECT_TRUE(ends(blind, inPart));
    EXPECT_TRUE(says(blind, {kNotes}));
    EXPECT_TRUE(keeps());
    ASSERT_EQ(0, unlink(kNotes));
    // Shares that can't be read, and none at all.
    ASSERT_EQ(0, rename("/etc/sharesnap/shares.conf", "/etc/sharesnap/away"));
    EXPECT_TRUE(ends(sharesnap({"sync", "--all"}), done));
    EXPECT_TRUE(keeps());
    ASSERT_EQ(0, mkdir("/etc/sharesnap/shares.conf", 0755));
    EXPECT_TRUE(ends(sharesnap({"sync", "--all"}), failed));
    EXPECT_TRUE(keeps());
    ASSERT_EQ(0, rmdir("/etc/sharesnap/shares.conf"));
    ASSERT_EQ(0, rename("/etc/sharesnap/away", "/etc/sharesnap/shares.conf"));
    EXPECT_EQ(trees({"music"}), document({"sync", "--all"})["trees"]);
    EXPECT_FALSE(keeps());
}

// Volumes that nobody can find out aren't taken for none.
TEST_F(TreeRepair, SyncAllSaysThatItCantFindTheTrees) {
    if (testkit::Sandbox::simulated()) {
        GTEST_SKIP() << "needs the real storage core";
    }
    leaveStranger("music");
    // The table of mounts can be opened, and not read.
    const auto result = testkit::runProcessApart({"unshare", "--mount", "sh", "-c",
                                                  "mount --bind /proc/$$/mem /proc/$$/mountinfo && exec \"$@\"", "sh",
                                                  SHARESNAP_COMMAND, "sync", "--all"});
    EXPECT_TRUE(ends(result, failed));
    EXPECT_TRUE(says(result, {"can't find out which volumes are mounted"}));
    EXPECT_THAT(drawn(), HasSubstr("object/music"));
}

TEST_F(TreeRepair, ANewShareTakesThePlaceOfAnEarlierOne) {
    const std::string first = take();
    leaveClone("copy", first);
    ASSERT_TRUE(ends(sharesnap({"share", "add", "copy", "/vol1/copy"}), done));
    EXPECT_THAT(drawn(), HasSubstr("\n  object/copy\n")) << drawn();
    EXPECT_THAT(drawn(), Not(HasSubstr("\n    object/copy\n")));
}

TEST_F(TreeRepair, AShareThatComesBackBringsItsSnapshots) {
    const std::string first = take();
    ASSERT_EQ(0, QOVAShareRecordRemove("docs"));
    ASSERT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol1/docs", "--existing"}), done));
    EXPECT_EQ("root\n  snap/docs/" + first + "\n    object/docs\n", drawn());
}

TEST_F(TreeRepair, ACloneTakesThePlaceOfAnEarlierShare) {
    const std::string first = take();
    leaveClone("copy", first);
    const std::string second = take();
    ASSERT_TRUE(ends(sharesnap({"clone", "docs", "copy", "--snapshot", second}), done));
    EXPECT_THAT(drawn(), HasSubstr("\n      object/copy\n")) << drawn();
    EXPECT_THAT(drawn(), Not(HasSubstr("\n    object/copy\n")));
    ASSERT_TRUE(isDoneWithoutTheTree({"share", "remove", "copy"}));
    ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/copy"));
    ASSERT_TRUE(ends(sharesnap({"clone", "docs", "copy"}), done));
    const std::string text = drawn();
    EXPECT_THAT(text, HasSubstr("\n        object/copy\n")) << text; // below a clone point
    EXPECT_THAT(text, HasSubstr("\n        object/docs\n")) << text;
}

TEST_F(TreeRepair, ARenamedShareTakesThePlaceOfAnEarlierOne) {
    const std::string first = take();
    leaveStranger("papers");
    ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/papers"));
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "papers"}), done));
    EXPECT_EQ("root\n  snap/papers/" + first + "\n    object/papers\n", drawn());
}

TEST_F(TreeRepair, AShareThatTheTreeDoesntKnowIsNoHeirByItsNewName) {
    const std::string first = take();
    leaveClone("papers", first);
    addUnknown("late");
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "late", "papers"}), done));
    EXPECT_THAT(drawn(), HasSubstr("\n  object/papers\n")) << drawn();
    EXPECT_THAT(drawn(), Not(HasSubstr("\n    object/papers\n")));
}

TEST_F(TreeRepair, ARenameThatIsUndoneBringsNoSnapshotsOfAnEarlierShare) {
    ASSERT_TRUE(ends(sharesnap({"share", "add", "papers", "/vol1/papers"}), done));
    const std::string earlier = take({}, "papers");
    ASSERT_TRUE(isDoneWithoutTheTree({"share", "remove", "papers", "--data", "--yes"}));
    addUnknown("late");
    const std::string own = take({}, "docs");
    noteRename("late", "papers");
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "late", "--undo"}), done));
    EXPECT_THAT(drawn(), HasSubstr("object/late\n"));
    EXPECT_THAT(drawn(), Not(HasSubstr("snap/late/" + earlier)));
    EXPECT_THAT(drawn(), Not(HasSubstr("papers")));
    EXPECT_THAT(drawn(), HasSubstr("snap/docs/" + own));
}

TEST_F(TreeRepair, ARenameThatTheTreeKnowsKeepsTheDescent) {
    const std::string first = take();
    ASSERT_TRUE(ends(sharesnap({"clone", "docs", "copy", "--snapshot", first}), done));
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "copy", "papers"}), done));
    const std::string before = drawn();
    ASSERT_THAT(before, HasSubstr("\n    object/papers\n"));
    noteRename("copy", "papers"); // what is left when the command ends right before its last step
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "copy", "--finish"}), done));
    EXPECT_EQ(before, drawn());
}

TEST_F(TreeRepair, ARecordThatIsPutBackKeepsTheDescent) {
    const std::string first = take();
    ASSERT_TRUE(ends(sharesnap({"clone", "docs", "copy", "--snapshot", first}), done));
    const std::string before = drawn();
    noteRename("docs", "papers");
    ASSERT_EQ(0, QOVAShareRecordRemove("docs"));
    ASSERT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol1/docs", "--existing"}), done));
    EXPECT_EQ(before, drawn());
}

// What was taken meanwhile is deleted, list and all, before the tree is told of it.
class TreeIsTold : public TreeRepair {
protected:
    // The library leaves the tree alone.
    static void deleteFromDocs(const std::string &snapshot) {
        const auto share = testkit::getShare("docs");
        QLIBCSZLIST *names = QLIBCSzListAlloc(512);
        (void)QLIBCSzListPush(&names, snapshot.c_str());
        QLIBCMRESULT *results = QLIBCMResultAlloc();
        EXPECT_EQ(0, QOVAShareSnapDelete(share.get(), names, &results)) << snapshot;
        QLIBCMResultFree(results);
        QLIBCSzListFree(names);
    }

    static void deleteBeforeTheTreeIsTold(const Arguments &arguments, const std::function<std::string()> &which) {
        testkit::LockHolder holder(treeLock("/vol1"), testkit::LockHolder::exclusive);
        ASSERT_TRUE(holder.holds());
        Running running = begin(arguments);
        ASSERT_TRUE(comesToWait(running, holder, treeLock("/vol1")));
        deleteFromDocs(which());
        holder.release();
        EXPECT_TRUE(ends(running.get(), done));
    }
};

TEST_F(TreeIsTold, OfNoSnapshotThatIsGone) {
    deleteBeforeTheTreeIsTold({"create", "docs"}, [] { return listed().at(0); });
    EXPECT_EQ("root\n  object/docs\n", drawn());
}

TEST_F(TreeIsTold, OfNoRestoredSnapshotThatIsGone) {
    const std::string first = take();
    ASSERT_TRUE(isDoneWithoutTheTree({"create", "docs"}));
    const std::string second = listed().at(1);
    deleteBeforeTheTreeIsTold({"restore", "docs", second}, [&] { return second; });
    EXPECT_THAT(drawn(), Not(HasSubstr(second)));
    EXPECT_EQ(2U, listed().size());
    for (const std::string &name : listed()) {
        EXPECT_THAT(drawn(), HasSubstr("snap/docs/" + name));
    }
    EXPECT_THAT(drawn(), HasSubstr("snap/docs/" + first));
}

TEST_F(TreeIsTold, OfNoClonedSnapshotThatIsGone) {
    ASSERT_TRUE(isDoneWithoutTheTree({"create", "docs"}));
    const std::string only = listed().at(0);
    deleteBeforeTheTreeIsTold({"clone", "docs", "copy", "--snapshot", only}, [&] { return only; });
    EXPECT_THAT(drawn(), Not(HasSubstr("snap/")));
    EXPECT_THAT(drawn(), HasSubstr("object/docs\n"));
    EXPECT_THAT(drawn(), HasSubstr("object/copy\n"));
}

// Another share gets the name of a removed one, and is in the tree before the removal comes to it.
TEST_F(TreeIsTold, OfNoRemovalWhenTheNameHasAShareAgain) {
    for (const Arguments &arguments :
         {Arguments{"share", "remove", "music"}, {"share", "remove", "music", "--data", "--yes"}}) {
        ASSERT_TRUE(ends(sharesnap({"share", "add", "music", "/vol1/music"}), done));
        testkit::LockHolder holder(treeLock("/vol1"), testkit::LockHolder::exclusive);
        ASSERT_TRUE(holder.holds());
        Running running = begin(arguments);
        EXPECT_TRUE(comesToWait(running, holder, treeLock("/vol1")));
        EXPECT_EQ(nullptr, testkit::getShare("music"));
        EXPECT_EQ("", testkit::addShare("music", "/vol1/music"));
        holder.release();
        EXPECT_EQ(done, running.get().exitStatus);
        EXPECT_EQ("root\n  object/docs\n  object/music\n", drawn());
        EXPECT_EQ(0, QOVAShareRecordRemove("music"));
        (void)QOVABtrfsDeleteSubvolFaultTolerant("/vol1/music"); // it went with the data
    }
}

// Every verb that comes to the tree does its work and says that the tree can't be read.
class BrokenTree : public TreeRepair {};

TEST_F(BrokenTree, DeleteSaysSo) {
    const std::string name = take();
    EXPECT_TRUE(isDoneWithoutTheTree({"delete", "docs", name}));
    EXPECT_EQ(0U, listed().size());
    EXPECT_FALSE(testkit::exists(snapshotPath(name)));
    ASSERT_TRUE(ends(sharesnap({"sync", "--all"}), done));
    EXPECT_EQ("root\n  object/docs\n", drawn());
}

TEST_F(BrokenTree, CloneSaysSo) {
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "kept"));
    const std::string name = take();
    EXPECT_TRUE(isDoneWithoutTheTree({"clone", "docs", "copy", "--snapshot", name}));
    EXPECT_TRUE(isDoneWithoutTheTree({"clone", "docs", "live"}));
    EXPECT_EQ("kept", testkit::readFile("/vol1/copy/letter"));
    EXPECT_EQ("kept", testkit::readFile("/vol1/live/letter"));
    EXPECT_NE(nullptr, testkit::getShare("copy"));
    EXPECT_NE(nullptr, testkit::getShare("live"));
    EXPECT_THAT(drawn(), Not(HasSubstr("copy")));
    ASSERT_TRUE(ends(sharesnap({"sync", "--all"}), done));
    EXPECT_THAT(drawn(), HasSubstr("\n  object/copy\n"));
    EXPECT_THAT(drawn(), HasSubstr("\n  object/live\n"));
}

TEST_F(BrokenTree, RestoreSaysSo) {
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "first"));
    const std::string name = take();
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "second"));
    EXPECT_TRUE(isDoneWithoutTheTree({"restore", "docs", name}));
    EXPECT_EQ("first", testkit::readFile("/vol1/docs/letter"));
    const std::vector<std::string> names = listed();
    ASSERT_EQ(2U, names.size());
    EXPECT_EQ("second", testkit::readFile(snapshotPath(names[1]) + "/letter"));
    EXPECT_FALSE(testkit::exists("/vol1/@restore-docs"));
    ASSERT_TRUE(ends(sharesnap({"sync", "docs"}), done));
    EXPECT_THAT(drawn(), HasSubstr("snap/docs/" + names[1]));
}

TEST_F(BrokenTree, RenameSaysSo) {
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "kept"));
    EXPECT_TRUE(isDoneWithoutTheTree({"share", "rename", "docs", "papers"}));
    EXPECT_EQ("kept", testkit::readFile("/vol1/papers/letter"));
    EXPECT_EQ(nullptr, testkit::getShare("docs"));
    EXPECT_NE(nullptr, testkit::getShare("papers"));
    EXPECT_FALSE(testkit::exists(std::string(kNotes) + "/docs")) << "there is nothing to finish";
}

TEST_F(BrokenTree, AddingAndRemovingAShareSaySo) {
    EXPECT_TRUE(isDoneWithoutTheTree({"share", "add", "music", "/vol1/music"}));
    EXPECT_NE(nullptr, testkit::getShare("music"));
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/music"));
    EXPECT_THAT(drawn(), Not(HasSubstr("music")));
    EXPECT_TRUE(isDoneWithoutTheTree({"share", "remove", "music"}));
    EXPECT_EQ(nullptr, testkit::getShare("music"));
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/music")) << "its files stay";
    EXPECT_TRUE(isDoneWithoutTheTree({"share", "remove", "docs", "--data", "--yes"}));
    EXPECT_EQ(nullptr, testkit::getShare("docs"));
    EXPECT_FALSE(testkit::exists("/vol1/docs"));
}

TEST_F(BrokenTree, SyncSaysSo) {
    ASSERT_TRUE(testkit::writeFile(kMark, ""));
    for (const Arguments &arguments : {Arguments{"sync", "docs"}, {"sync", "--all"}, {"sync", "--all", "--dry-run"}}) {
        const auto result = sharesnap(arguments);
        EXPECT_TRUE(ends(result, inPart));
        EXPECT_TRUE(says(result, {"/vol1", "snapshot tree", kMark}));
    }
}

// A volume whose last share went.
class TreeOfALonelyVolume : public testkit::VolumeTest {};

TEST_F(TreeOfALonelyVolume, IsPutRightToo) {
    ASSERT_EQ("", testkit::Sandbox::mountVolume("/vol2"));
    ASSERT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol1/docs"}), done));
    ASSERT_TRUE(ends(sharesnap({"share", "add", "far", "/vol2/far"}), done));
    ASSERT_TRUE(isDoneWithoutTheTree({"share", "remove", "far"}, "/vol2/@eaDir/snaptree.bin.broken"));
    ASSERT_EQ("root\n  object/far\n", drawn("/vol2"));
    ASSERT_TRUE(ends(sharesnap({"sync", "--all"}), done));
    EXPECT_EQ("root\n", drawn("/vol2"));
    EXPECT_EQ("root\n  object/docs\n", drawn());
}

TEST_F(TreeOfALonelyVolume, LosesAShareThatLiesOnAnotherVolumeNow) {
    ASSERT_EQ("", testkit::Sandbox::mountVolume("/vol2"));
    ASSERT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol2/docs"}), done));
    ASSERT_TRUE(ends(sharesnap({"share", "add", "far", "/vol2/far"}), done));
    ASSERT_TRUE(isDoneWithoutTheTree({"share", "remove", "docs"}, "/vol2/@eaDir/snaptree.bin.broken"));
    ASSERT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol1/docs"}), done));
    ASSERT_EQ("root\n  object/docs\n  object/far\n", drawn("/vol2"));
    ASSERT_TRUE(ends(sharesnap({"sync", "--all"}), done));
    EXPECT_EQ("root\n  object/far\n", drawn("/vol2"));
    EXPECT_EQ("root\n  object/docs\n", drawn());
}

// Such as one that is mounted elsewhere for a while, so that others lie where its shares were.
TEST_F(TreeOfALonelyVolume, KeepsAShareWhoseSnapshotsItHolds) {
    ASSERT_EQ("", testkit::Sandbox::mountVolume("/vol2"));
    ASSERT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol2/docs"}), done));
    const std::string name = lines(sharesnap({"create", "docs"}).output).at(0);
    ASSERT_EQ(0, QOVAShareRecordRemove("docs"));
    ASSERT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol1/docs"}), done));
    ASSERT_TRUE(ends(sharesnap({"sync", "--all"}), done));
    const std::string whole = "root\n  snap/docs/" + name + "\n    object/docs\n";
    EXPECT_EQ(whole, drawn("/vol2"));
    // The snapshots of an encrypted share count as well.
    ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant(("/vol2/@sharesnap/docs/" + name).c_str()));
    ASSERT_TRUE(testkit::makeDirectories("/vol2/@sharesnap/@docs@"));
    const std::string encrypted = "/vol2/@sharesnap/@docs@/" + name;
    ASSERT_EQ(0, QOVABtrfsCreateSubVol(encrypted.c_str()));
    ASSERT_TRUE(ends(sharesnap({"sync", "--all"}), done));
    EXPECT_EQ(whole, drawn("/vol2"));
    ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant(encrypted.c_str()));
    ASSERT_TRUE(ends(sharesnap({"sync", "--all"}), done));
    EXPECT_EQ("root\n", drawn("/vol2"));
}

TEST_F(TreeOfALonelyVolume, IsKeptWhenItIsMountedTwice) {
    ASSERT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol1/docs"}), done));
    ASSERT_TRUE(testkit::makeDirectories("/again"));
    ASSERT_EQ(0, mount("/vol1", "/again", nullptr, MS_BIND, nullptr));
    const auto document = commandtest::document({"sync", "--all"});
    const std::string tree = drawn();
    ASSERT_EQ(0, umount2("/again", MNT_DETACH));
    (void)rmdir("/again");
    EXPECT_EQ("root\n  object/docs\n", tree);
    EXPECT_EQ(2U, document["trees"].size());
}

} // namespace
