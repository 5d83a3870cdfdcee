// A volume whose tree file is damaged, but can be read: links lead nowhere, round in a circle, to a node of another name.
// The command draws such a tree, searches in it, and goes on keeping it.
#include "command.hpp"

#include <sharesnap/platform/subvolume.h>
#include <sharesnap/snaptree.hpp>

#include <functional>

#include "support/tree_names.hpp"

#if defined(__SANITIZE_ADDRESS__)
#define SHARESNAP_BOUNDS_MEMORY 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SHARESNAP_BOUNDS_MEMORY 0
#endif
#endif
#ifndef SHARESNAP_BOUNDS_MEMORY
#define SHARESNAP_BOUNDS_MEMORY 1
#endif

namespace {

using namespace commandtest;
using namespace QovaSnapTree;
using nlohmann::json;
using testing::HasSubstr;
using testkit::cloneName;
using testkit::objectName;
using testkit::rootName;
using testkit::snapName;

// Ends by itself or is ended: a walk without an end takes time, or all memory.
testkit::ProcessResult bounded(const Arguments &arguments) {
    Arguments whole = {"timeout", "--signal=KILL", "60", SHARESNAP_COMMAND};
#if SHARESNAP_BOUNDS_MEMORY
    whole.insert(whole.begin(), {"prlimit", "--as=1073741824"});
#endif
    whole.insert(whole.end(), arguments.begin(), arguments.end());
    return testkit::runProcessApart(whole);
}

class DamagedTree : public CommandTest {
protected:
    static constexpr char file[] = "/vol1/@eaDir/snaptree.bin";

    static void place(const std::string &name) {
        const std::string bytes =
            testkit::readFile(std::string(SHARESNAP_SOURCE_DIR) + "/tests/data/snaptree/" + name + ".bin");
        ASSERT_NE("", bytes) << name;
        ASSERT_TRUE(testkit::writeFile(file, bytes));
    }

    // Changes links of the tree as it stands, behind the back of everything that keeps them.
    static void damage(const std::function<void(SnapTree &)> &change) {
        SnapTree tree;
        ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
        change(tree);
        ASSERT_TRUE(tree.save());
    }

    static std::string drawn() {
        const auto result = bounded({"tree", "/vol1"});
        EXPECT_TRUE(ends(result, done));
        EXPECT_EQ("", result.errors);
        return result.output;
    }

    // The names of all nodes in the JSON form, each of them once.
    static std::vector<std::string> nodes() {
        const auto result = bounded({"tree", "/vol1", "--json"});
        EXPECT_TRUE(ends(result, done));
        std::vector<std::string> names;
        for (const json &node : json::parse(result.output, nullptr, false).value("nodes", json::array())) {
            names.push_back(node.value("id", ""));
        }
        return names;
    }

    static std::string dot() {
        const auto result = bounded({"tree", "/vol1", "--format", "dot"});
        EXPECT_TRUE(ends(result, done));
        EXPECT_EQ(0U, result.output.find("digraph snapshots {\n")) << result.output;
        EXPECT_EQ(result.output.size() - 2, result.output.rfind("}\n")) << result.output;
        return result.output;
    }

    static std::vector<std::string> sources(const Arguments &target) {
        Arguments arguments = {"tree", "--sources", "--json"};
        arguments.insert(arguments.end(), target.begin(), target.end());
        const auto result = bounded(arguments);
        EXPECT_TRUE(ends(result, done));
        std::vector<std::string> names;
        for (const json &source : json::parse(result.output, nullptr, false).value("sources", json::array())) {
            names.push_back(source.value("snapshot", ""));
        }
        return names;
    }

    // All that keeps the tree goes on: the list is reconciled, a snapshot comes and goes.
    static void expectWorkGoesOn() {
        EXPECT_TRUE(ends(bounded({"sync", "docs"}), done));
        const auto created = bounded({"create", "docs"});
        ASSERT_TRUE(ends(created, done));
        const std::string name = lines(created.output).at(0);
        EXPECT_EQ(name, sources({"docs"}).at(0));
        EXPECT_EQ(name, listed().back());
        EXPECT_TRUE(ends(bounded({"delete", "docs", name}), done));
        EXPECT_TRUE(ends(bounded({"sync", "--all"}), done));
        EXPECT_FALSE(testkit::exists(std::string(file) + ".broken"));
        (void)drawn();
    }
};

struct Drawing {
    const char *file;
    const char *text;
    std::vector<std::string> nodes;
    const char *link; // in the form for Graphviz, which shows links that lead nowhere, too
};

TEST_F(DamagedTree, EveryFormDrawsWhatCanBeReached) {
    const Drawing drawings[] = {
        {"hazard-dangling-child", "root\n  object/vol\n", {"root", "object/vol"}, "\"root\" -> \"clone/77\";"},
        {"hazard-old-v11-clone-cycle",
         "root\n  clone/5\n  object/vol\n",
         {"root", "clone/5", "object/vol"},
         "\"clone/5\" -> \"clone/5\";"},
        {"hazard-clone-foreign-name",
         "root\n  clone/2\n    clone/2\n",
         {"root", "clone/2", "clone/2"},
         "\"clone/2\" -> \"clone/1\";"},
        {"hazard-snapshot-of-nobody", "root\n  object/a\n", {"root", "object/a"}, "\"root\" -> \"object/a\";"},
    };
    for (const Drawing &drawing : drawings) {
        SCOPED_TRACE(drawing.file);
        ASSERT_NO_FATAL_FAILURE(place(drawing.file));
        EXPECT_EQ(drawing.text, drawn());
        EXPECT_EQ(drawing.nodes, nodes());
        EXPECT_THAT(dot(), HasSubstr(drawing.link));
    }
}

TEST_F(DamagedTree, OfOtherSharesHindersNobody) {
    for (const char *name : {"hazard-dangling-child", "hazard-old-v11-clone-cycle", "hazard-clone-foreign-name",
                             "hazard-snapshot-of-nobody"}) {
        SCOPED_TRACE(name);
        ASSERT_NO_FATAL_FAILURE(place(name));
        expectWorkGoesOn();
        EXPECT_THAT(drawn(), HasSubstr("object/docs\n"));
    }
}

// The share hangs under a clone point that hangs under itself.
TEST_F(DamagedTree, ClonePointUnderItselfEndsEveryWalk) {
    damage([](SnapTree &tree) {
        ClonePointNode point(cloneName("5"), cloneName("5"));
        point.addChild(cloneName("5"));
        point.addChild(objectName("docs"));
        (void)tree.addClone(point);
        tree.getNode(rootName())->deleteChild(objectName("docs"));
        tree.getNode(rootName())->addChild(cloneName("5"));
        tree.getObject(objectName("docs"))->changeParent(cloneName("5"));
    });
    EXPECT_EQ("root\n  clone/5\n    object/docs\n", drawn());
    EXPECT_EQ((std::vector<std::string>{"root", "clone/5", "object/docs"}), nodes());
    EXPECT_THAT(dot(), HasSubstr("\"clone/5\" -> \"clone/5\";"));
    EXPECT_EQ(std::vector<std::string>{}, sources({"docs"}));
    expectWorkGoesOn();
}

// Of two snapshots each descends from the other.
TEST_F(DamagedTree, SnapshotsInACircleEndEveryWalk) {
    const std::string first = take();
    const std::string second = take();
    damage([&](SnapTree &tree) {
        tree.getNode(snapName("docs", first))->changeParent(snapName("docs", second));
        tree.getNode(snapName("docs", second))->addChild(snapName("docs", first));
    });
    EXPECT_EQ("root\n  snap/docs/" + first + "\n    snap/docs/" + second + "\n      object/docs\n", drawn());
    EXPECT_EQ((std::vector<std::string>{"root", "snap/docs/" + first, "snap/docs/" + second, "object/docs"}), nodes());
    EXPECT_THAT(dot(), HasSubstr("\"snap/docs/" + second + "\" -> \"snap/docs/" + first + "\";"));
    EXPECT_EQ((std::vector<std::string>{second, first}), sources({"docs"}));
    EXPECT_EQ((std::vector<std::string>{second}), sources({"docs", first}));
    expectWorkGoesOn();
    // An older one looks for its place below both of them.
    const std::string older = "GMT-2015.01.01-00.00.00";
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", snapshotPath(older).c_str()));
    EXPECT_TRUE(ends(bounded({"sync", "docs"}), done));
    (void)sources({"docs", older});
    EXPECT_TRUE(ends(bounded({"clone", "docs", "copy", "--snapshot", first}), done));
    EXPECT_TRUE(ends(bounded({"restore", "docs", second}), done));
    EXPECT_TRUE(ends(bounded({"delete", "docs", first, second}), done));
    (void)drawn();
}

// An object without a name can't be taken out, and holds up nothing else.
TEST_F(DamagedTree, ObjectWithoutANameStays) {
    damage([](SnapTree &tree) {
        for (const char *name : {"", "gone"}) {
            (void)tree.addObject(ObjectNode(objectName(name), rootName()));
            tree.getNode(rootName())->addChild(objectName(name));
        }
    });
    EXPECT_TRUE(ends(bounded({"sync", "--all"}), done));
    EXPECT_EQ(std::string::npos, drawn().find("gone"));
    expectWorkGoesOn();
}

// What the share descends from isn't there.
TEST_F(DamagedTree, MissingParentEndsEveryWalk) {
    const std::string first = take();
    damage([&](SnapTree &tree) {
        tree.getNode(rootName())->deleteChild(snapName("docs", first));
        tree.getNode(snapName("docs", first))->changeParent(cloneName("77"));
    });
    EXPECT_EQ("root\n", drawn());
    EXPECT_EQ((std::vector<std::string>{"root"}), nodes());
    EXPECT_EQ(std::string::npos, dot().find("->"));
    EXPECT_EQ((std::vector<std::string>{first}), sources({"docs"}));
    expectWorkGoesOn();
}

} // namespace
