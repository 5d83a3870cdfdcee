// The command keeps the snapshot tree of a volume true, draws it, and answers from it.
#include "command.hpp"

#include <sharesnap/snaptree.hpp>
#include <unistd.h>

#include "support/tree_names.hpp"

namespace {

using namespace commandtest;

class TreeVerb : public CommandTest {
protected:
    static std::string drawn() {
        const auto result = sharesnap({"tree", "/vol1"});
        EXPECT_TRUE(ends(result, done));
        return result.output;
    }

    // A snapshot some seconds after the ones before: names tell them apart by the second.
    static std::string taken(const std::string &share = "docs") { return take({}, share); }
};

TEST_F(TreeVerb, FollowsASharesLife) {
    EXPECT_EQ("root\n  object/docs\n", drawn());
    const std::string first = taken();
    EXPECT_EQ("root\n  snap/docs/" + first + "\n    object/docs\n", drawn());
    const std::string second = taken();
    EXPECT_EQ("root\n  snap/docs/" + first + "\n    snap/docs/" + second + "\n      object/docs\n", drawn());
    ASSERT_TRUE(ends(sharesnap({"clone", "docs", "copy", "--snapshot", first}), done));
    EXPECT_NE(std::string::npos, drawn().find("\n    object/copy\n")) << drawn();
    ASSERT_TRUE(ends(sharesnap({"delete", "docs", first}), done));
    // What hung under the deleted snapshot hangs under its heir now.
    EXPECT_NE(std::string::npos, drawn().find("root\n  snap/docs/" + second + "\n    object/")) << drawn();
    EXPECT_NE(std::string::npos, drawn().find("\n    object/copy\n")) << drawn();
    EXPECT_NE(std::string::npos, drawn().find("\n    object/docs\n")) << drawn();
}

TEST_F(TreeVerb, LiveCloneMakesAClonePoint) {
    ASSERT_TRUE(ends(sharesnap({"clone", "docs", "copy"}), done));
    const std::string text = drawn();
    EXPECT_EQ(0U, text.find("root\n  clone/")) << text;
    EXPECT_NE(std::string::npos, text.find("\n    object/docs\n")) << text;
    EXPECT_NE(std::string::npos, text.find("\n    object/copy\n")) << text;
}

TEST_F(TreeVerb, RenameRebuildsTheNodes) {
    const std::string first = taken();
    ASSERT_TRUE(ends(sharesnap({"clone", "docs", "copy", "--snapshot", first}), done));
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "papers"}), done));
    const std::string text = drawn();
    EXPECT_EQ(0U, text.find("root\n  snap/papers/" + first + "\n")) << text;
    EXPECT_NE(std::string::npos, text.find("\n    object/papers\n")) << text;
    EXPECT_NE(std::string::npos, text.find("\n    object/copy\n")) << text;
    EXPECT_EQ(std::string::npos, text.find("docs")) << text;
}

TEST_F(TreeVerb, RemovedShareLeavesTheTree) {
    ASSERT_TRUE(ends(sharesnap({"share", "remove", "docs"}), done));
    EXPECT_EQ("root\n", drawn());
}

TEST_F(TreeVerb, ShareFromBeforeTheTreeIsTakenInByTime) {
    const std::string first = taken();
    const std::string second = taken();
    ASSERT_EQ(0, unlink("/vol1/@eaDir/snaptree.bin"));
    const std::string third = taken();
    EXPECT_EQ("root\n  snap/docs/" + first + "\n    snap/docs/" + second + "\n      snap/docs/" + third +
                  "\n        object/docs\n",
              drawn());
}

TEST_F(TreeVerb, SyncPutsTheTreeRight) {
    const std::string first = taken();
    const std::string second = taken();
    const std::string third = taken();
    const std::string whole = drawn();
    {
        QovaSnapTree::SnapTree tree;
        ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
        ASSERT_EQ(0, tree.deleteObjectSnap(testkit::objectName("docs"), testkit::snapName("docs", second)));
        ASSERT_EQ(0,
                  tree.insertSnap(testkit::objectName("docs"), testkit::snapName("docs", "GMT-2020.01.01-00.00.00")));
        ASSERT_TRUE(tree.save());
    }
    EXPECT_NE(whole, drawn());
    ASSERT_TRUE(ends(sharesnap({"sync", "docs"}), done));
    EXPECT_EQ(whole, drawn());
}

TEST_F(TreeVerb, BrokenTreeIsReportedAndUndoesNothing) {
    (void)taken();
    ASSERT_TRUE(testkit::writeFile("/vol1/@eaDir/snaptree.bin", "no tree"));
    const auto result = sharesnap({"create", "docs"});
    EXPECT_TRUE(ends(result, inPart));
    EXPECT_TRUE(says(result, {"/vol1", "snapshot tree", "snaptree.bin.broken"}));
    EXPECT_EQ(2U, listed().size());
    EXPECT_TRUE(ends(sharesnap({"tree", "/vol1"}), failed));
    // Moved away, the tree is made anew from the list.
    ASSERT_EQ(0, unlink("/vol1/@eaDir/snaptree.bin"));
    ASSERT_EQ(0, unlink("/vol1/@eaDir/snaptree.bin.broken"));
    EXPECT_TRUE(ends(sharesnap({"sync", "docs"}), done));
    EXPECT_EQ(4U, lines(drawn()).size());
}

TEST_F(TreeVerb, FormsForPrograms) {
    const std::string first = taken();
    const auto dot = sharesnap({"tree", "/vol1", "--format", "dot"});
    EXPECT_TRUE(ends(dot, done));
    EXPECT_EQ(0U, dot.output.find("digraph snapshots {\n")) << dot.output;
    EXPECT_NE(std::string::npos, dot.output.find("\"snap/docs/" + first + "\" -> \"object/docs\";")) << dot.output;
    const nlohmann::json json = document({"tree", "/vol1"});
    ASSERT_EQ(3U, json["nodes"].size());
    EXPECT_EQ("root", json["nodes"][0]["kind"]);
    EXPECT_EQ(first, json["nodes"][1]["snapshot"]);
    EXPECT_EQ("root", json["nodes"][1]["parent"]);
    EXPECT_EQ("object/docs", json["nodes"][1]["children"][0]);
}

TEST_F(TreeVerb, SourcesAreTheNearestFirst) {
    const std::string first = taken();
    const std::string second = taken();
    const auto names = [](const Arguments &arguments) {
        const nlohmann::json found = document(arguments);
        std::vector<std::string> snapshots;
        for (const auto &source : found["sources"]) {
            snapshots.push_back(source["snapshot"]);
        }
        return snapshots;
    };
    EXPECT_EQ((std::vector<std::string>{second, first}), names({"tree", "--sources", "docs"}));
    EXPECT_EQ((std::vector<std::string>{first}), names({"tree", "--sources", "docs", second}));
    EXPECT_TRUE(ends(sharesnap({"tree", "--sources", "docs", "absent"}), notFound));
}

TEST_F(TreeVerb, RefusesWhatIsNoVolumeOrForm) {
    EXPECT_TRUE(ends(sharesnap({"tree", "/vol7"}), notFound));
    EXPECT_TRUE(ends(sharesnap({"tree", "vol1"}), usage));
    EXPECT_TRUE(ends(sharesnap({"tree", "/vol1", "--format", "svg"}), usage));
    EXPECT_TRUE(ends(sharesnap({"tree", "/vol1", "snap"}), usage));
}

class RestoreVerb : public CommandTest {};

TEST_F(RestoreVerb, BringsTheFilesBackAndKeepsThePresent) {
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "first"));
    const std::string snapshot = take();
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "second"));
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/new", "new"));
    const nlohmann::json restored = document({"restore", "docs", snapshot});
    EXPECT_EQ(snapshot, restored["restored"]);
    const std::string kept = restored["kept"];
    EXPECT_EQ("first", testkit::readFile("/vol1/docs/letter"));
    EXPECT_FALSE(testkit::exists("/vol1/docs/new"));
    EXPECT_EQ("second", testkit::readFile(snapshotPath(kept) + "/letter"));
    EXPECT_EQ((std::vector<std::string>{snapshot, kept}), listed());
    EXPECT_TRUE(testkit::writeFile("/vol1/docs/letter", "third")); // the share can be written
    EXPECT_FALSE(testkit::exists("/vol1/@restore-docs"));
    const auto tree = sharesnap({"tree", "/vol1"});
    EXPECT_NE(std::string::npos, tree.output.find("  snap/docs/" + snapshot + "\n    ")) << tree.output;
    EXPECT_NE(std::string::npos, tree.output.find("\n    object/docs\n")) << tree.output;
}

TEST_F(RestoreVerb, RefusesWhatIsNotThere) {
    EXPECT_TRUE(ends(sharesnap({"restore", "docs", "absent"}), notFound));
    EXPECT_TRUE(ends(sharesnap({"restore", "nope", "absent"}), notFound));
    EXPECT_EQ(0U, listed().size());
}

class RestoreOnVolume : public testkit::VolumeTest {};

TEST_F(RestoreOnVolume, RefusesToLoseANestedSubvolume) {
    ASSERT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol1/docs"}), done));
    const auto created = sharesnap({"create", "docs"});
    ASSERT_TRUE(ends(created, done));
    ASSERT_EQ("", testkit::makeShare("inner", "/vol1/docs"));
    const auto result = sharesnap({"restore", "docs", lines(created.output)[0]});
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {"docs/inner"}));
}

} // namespace
