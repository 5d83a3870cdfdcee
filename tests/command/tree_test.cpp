// The command keeps the snapshot tree of a volume true, draws it, and answers from it.
#include "command.hpp"

#include <ctime>
#include <map>
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

    // Each node's children name it as their parent, and each parent has them; no name leads nowhere.
    static testing::AssertionResult linksAgree() {
        std::map<std::string, nlohmann::json> nodes;
        const nlohmann::json tree = document({"tree", "/vol1"});
        for (const auto &node : tree["nodes"]) {
            nodes[node["id"]] = node;
        }
        size_t children = 0;
        for (const auto &[name, node] : nodes) {
            for (const std::string child : node.value("children", nlohmann::json::array())) {
                ++children;
                if (nodes.count(child) == 0 || nodes[child]["parent"] != name) {
                    return testing::AssertionFailure() << name << " and " << child << " disagree: " << tree.dump(2);
                }
            }
        }
        return children + 1 == nodes.size() ? testing::AssertionSuccess()
                                            : testing::AssertionFailure() << "loose ends: " << tree.dump(2);
    }

    // A snapshot is somebody's heir only when it is older than the present second.
    static void letASecondPass() {
        const time_t begin = time(nullptr);
        while (time(nullptr) == begin) {
            (void)usleep(20000);
        }
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
    letASecondPass();
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

TEST_F(TreeVerb, RenameBelowAClonePoint) {
    ASSERT_TRUE(ends(sharesnap({"clone", "docs", "copy"}), done));
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "papers"}), done));
    const std::string text = drawn();
    EXPECT_EQ(0U, text.find("root\n  clone/")) << text;
    EXPECT_NE(std::string::npos, text.find("\n    object/papers\n")) << text;
    EXPECT_NE(std::string::npos, text.find("\n    object/copy\n")) << text;
    EXPECT_EQ(4U, lines(text).size()) << text;
    EXPECT_TRUE(linksAgree());
}

TEST_F(TreeVerb, RenameOfACloneStaysBelowItsOrigin) {
    const std::string origin = taken();
    ASSERT_TRUE(ends(sharesnap({"clone", "docs", "copy", "--snapshot", origin}), done));
    const std::string own = taken("copy");
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "copy", "notes"}), done));
    const std::string text = drawn();
    EXPECT_NE(std::string::npos, text.find("\n    snap/notes/" + own + "\n      object/notes\n")) << text;
    EXPECT_EQ(std::string::npos, text.find("copy")) << text;
    EXPECT_TRUE(linksAgree());
    // The origin's place goes to what descends from it, under the new name.
    letASecondPass();
    ASSERT_TRUE(ends(sharesnap({"delete", "docs", origin}), done));
    EXPECT_EQ(0U, drawn().find("root\n  snap/notes/" + own + "\n    object/")) << drawn();
    EXPECT_TRUE(linksAgree());
}

TEST_F(TreeVerb, RenameWithAnotherSharesSnapshotBelow) {
    const std::string origin = taken();
    ASSERT_TRUE(ends(sharesnap({"clone", "docs", "copy", "--snapshot", origin}), done));
    const std::string own = taken("copy");
    const std::string later = taken();
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "papers"}), done));
    const std::string text = drawn();
    EXPECT_EQ(0U, text.find("root\n  snap/papers/" + origin + "\n    snap/")) << text;
    EXPECT_NE(std::string::npos, text.find("\n    snap/copy/" + own + "\n      object/copy\n")) << text;
    EXPECT_NE(std::string::npos, text.find("\n    snap/papers/" + later + "\n      object/papers\n")) << text;
    EXPECT_EQ(std::string::npos, text.find("docs")) << text;
    EXPECT_TRUE(linksAgree());
    // A deletion follows the links of the renamed nodes.
    letASecondPass();
    ASSERT_TRUE(ends(sharesnap({"delete", "papers", origin}), done));
    EXPECT_EQ(std::string::npos, drawn().find("snap/papers/" + origin)) << drawn();
    EXPECT_NE(std::string::npos, drawn().find("snap/papers/" + later)) << drawn();
    EXPECT_TRUE(linksAgree());
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "papers", "docs"}), done));
    EXPECT_TRUE(linksAgree());
    EXPECT_EQ(5U, lines(drawn()).size()) << drawn();
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

} // namespace
