// Tree files that aren't whole: cut, changed in a byte, with lengths that no memory holds, with links that lead nowhere
// or round in a circle. Each gives a tree on which every walk ends or is refused with the mark, and none takes much time
// or memory for it. SHARESNAP_LONG tries every change on every file.
#include <sharesnap/snaptree.hpp>

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "support/bounded.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"
#include "support/tree_names.hpp"
#include "support/tree_volume.hpp"

namespace {

using namespace QovaSnapTree;
using testkit::cloneName;
using testkit::nameText;
using testkit::objectName;
using testkit::rootName;
using testkit::snapName;
using testkit::treeName;

constexpr char kFile[] = "/vol1/@eaDir/snaptree.bin";
constexpr char kMark[] = "/vol1/@eaDir/snaptree.bin.broken";
constexpr size_t kMostBytes = size_t{64} << 20;
constexpr unsigned kMostSeconds = 60; // for what takes milliseconds: the machine may be slow

std::string fixture(const std::string &name) {
    return testkit::readFile(std::string(SHARESNAP_SOURCE_DIR) + "/tests/data/snaptree/" + name + ".bin");
}

// All but the two bytes that hold the version of the layer that wrote the file.
std::string body(const std::string &bytes) {
    return bytes.size() < 32 ? bytes : bytes.substr(32);
}

// Runs work in a child of its own and wants it to end well there.
template <class Work>
void expectEnd(const std::string &what, const Work &work) {
    const std::string failure = testkit::endsWithin(kMostSeconds, kMostBytes, work);
    EXPECT_EQ("", failure) << what;
}

class DamagedTree : public testkit::TreeVolumeTest {
protected:
    static void place(const std::string &bytes) {
        (void)unlink(kMark);
        ASSERT_TRUE(testkit::writeFile(kFile, bytes));
    }
};

constexpr char kAnyTree[] = "";

struct Verdict {
    const char *name;
    const char *saved; // the file whose bytes come back; kAnyTree; null for a refusal
};

constexpr Verdict kVerdicts[] = {
    {"fresh-179", "fresh-179"},
    {"example-486", "example-486"},
    {"example-486-v18", "example-486"},
#if SHARESNAP_BOOST_VERSION >= 107600
    {"example-486-v19", "example-486"},
#else
    {"example-486-v19", nullptr},
#endif
    {"example-486-v12", "example-486"},
    {"example-486-byte31", "example-486"},
    {"example-486-trailing", "example-486"},
    {"old-v11-empty", "fresh-179"},
    {"old-v11-small", "example-486"},
    {"old-v11-rich", "old-v11-rich.converted"},
    {"old-v11-rich.converted", "old-v11-rich.converted"},
    {"old-v11-collision", "old-v11-collision.converted"},
    {"old-v11-collision.converted", "old-v11-collision.converted"},
    {"old-v11-rich-buckets0", "old-v11-rich.converted"},
    {"old-v11-roomy", "old-v11-roomy.converted"},
    {"old-v09-rich", "old-v11-rich.converted"},
    {"old-v07-rich", "old-v11-rich.converted"},
    {"old-v04-rich", "old-v11-rich.converted"},
    {"bad-empty", nullptr},
    {"bad-20", nullptr},
    {"bad-30", nullptr},
    {"bad-31-v11", nullptr},
    {"bad-31-v17", nullptr},
    {"bad-40-header-only", nullptr},
    {"bad-40-header-only-v11", nullptr},
    {"bad-signature", nullptr},
    {"bad-signature-v11", nullptr},
    {"bad-version-200", nullptr},
    {"bad-version-127", nullptr},
    {"bad-sizeof-int", nullptr},
    {"bad-sizeof-long", nullptr},
    {"bad-sizeof-double", nullptr},
    {"bad-endian", nullptr},
    {"bad-sizeof-long-v11", nullptr},
    {"bad-trunc-485", nullptr},
    {"bad-old-v11-trunc", nullptr},
    {"bad-strlen-2p63", nullptr},
    {"bad-old-v11-count-2p60", nullptr},
    {"bad-old-v11-buckets-2p60", nullptr},
    {"bad-old-v06-layer141", nullptr},
    {"bad-text", nullptr},
    // What these ask for is refused before any memory is taken.
    {"hazard-strlen-2p32", nullptr},
    {"hazard-old-as-v17", nullptr},
    {"hazard-current-as-v11", nullptr},
    {"hazard-old-v11-buckets-2p30", nullptr},
    {"hazard-old-v11-buckets-64-times", nullptr},
    // Links without a node, and a circle of them.
    {"hazard-dangling-child", "hazard-dangling-child"},
    {"hazard-old-v11-clone-cycle", kAnyTree},
    {"hazard-clone-foreign-name", kAnyTree},
    {"hazard-snapshot-of-nobody", "hazard-snapshot-of-nobody"},
};

void expectVerdict(const Verdict &verdict) {
    SCOPED_TRACE(verdict.name);
    const std::string bytes = fixture(verdict.name);
    ASSERT_TRUE(testkit::writeFile(kFile, bytes));
    (void)unlink(kMark);
    SnapTree tree;
    const int loaded = tree.loadByVolume("/vol1", true);
    if (verdict.saved == nullptr) {
        EXPECT_EQ(-1, loaded);
        EXPECT_TRUE(testkit::exists(kMark));
        EXPECT_EQ(bytes, testkit::readFile(kFile));
        tree.freeLock();
        return;
    }
    EXPECT_EQ(0, loaded);
    EXPECT_FALSE(testkit::exists(kMark));
    EXPECT_TRUE(tree.save());
    const std::string saved = testkit::readFile(kFile);
    if (verdict.saved != kAnyTree) {
        EXPECT_EQ(body(fixture(verdict.saved)), body(saved));
    }
    SnapTree again;
    EXPECT_EQ(0, again.loadByVolume("/vol1", true));
    EXPECT_EQ(testkit::printedTree(tree), testkit::printedTree(again));
    EXPECT_TRUE(again.save());
    EXPECT_EQ(saved, testkit::readFile(kFile));
}

using EveryTreeFile = DamagedTree;

TEST_F(EveryTreeFile, GivesItsVerdictInLittleMemory) {
    expectEnd("all files", [] {
        for (const Verdict &verdict : kVerdicts) {
            testkit::boundSeconds(kMostSeconds);
            expectVerdict(verdict);
        }
    });
}

// Loads a file that is damaged in its links, walks everywhere, saves, and takes an object away.
void walkEverywhere(const std::string &name) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(testkit::writeFile(kFile, fixture(name)));
    SnapTree tree;
    ASSERT_EQ(0, tree.loadByVolume("/vol1", true));
    (void)testkit::printedTree(tree);
    EXPECT_TRUE(tree.save());
    for (const std::string object : {"a", "vol"}) {
        std::vector<nodeName> sources;
        const bool stands = tree.getObject(objectName(object)) != nullptr;
        EXPECT_EQ(stands ? 0 : -1, tree.findCloneSrcSnap("/vol1", object, "/vol1/" + object, sources));
        EXPECT_TRUE(sources.empty());
        (void)tree.deleteObjectSnap(objectName(object), treeName(NODE_SNAPSHOT));
        EXPECT_EQ(nullptr, tree.getObject(objectName(object)));
    }
}

TEST_F(DamagedTree, LinksEndEveryWalk) {
    for (const std::string name : {"hazard-dangling-child", "hazard-old-v11-clone-cycle", "hazard-clone-foreign-name",
                                   "hazard-snapshot-of-nobody"}) {
        expectEnd(name, [&] { walkEverywhere(name); });
    }
}

class SearchInADamagedTree : public DamagedTree {
protected:
    SnapTree tree_;

    // An object whose parent the given name is.
    void addObject(const std::string &object, const nodeName &parent) {
        tree_.addObject(ObjectNode(objectName(object), parent));
    }

    // The sources of an object in the tree as it was saved, in a child that is ended if it walks for ever.
    void expectSources(const std::string &object, const std::string &expected) {
        tree_.setTreeFile(kFile);
        ASSERT_TRUE(tree_.save());
        expectEnd(object, [&] {
            SnapTree reader;
            std::vector<nodeName> sources;
            EXPECT_EQ(0, reader.findCloneSrcSnap("/vol1", object, "/vol1/" + object, sources));
            std::string text;
            for (const nodeName &source : sources) {
                text += nameText(source) + " ";
            }
            EXPECT_EQ(expected, text);
        });
    }
};

TEST_F(SearchInADamagedTree, EndsAtAClonePointThatIsItsOwnParent) {
    ClonePointNode point(cloneName("5"), cloneName("5"));
    point.addChild(objectName("a"));
    tree_.addClone(point);
    addObject("a", cloneName("5"));
    expectSources("a", "");
    tree_.getClone(cloneName("5"))->addChild(snapName("b", "s1"));
    expectSources("a", "snap/b/s1 ");
}

TEST_F(SearchInADamagedTree, EndsInACircleOfSnapshots) {
    addObject("a", snapName("a", "s1"));
    tree_.getObject(objectName("a"))->addSnapshot(SnapshotNode(snapName("a", "s1"), snapName("a", "s2")));
    tree_.getObject(objectName("a"))->addSnapshot(SnapshotNode(snapName("a", "s2"), snapName("a", "s1")));
    expectSources("a", "snap/a/s1 snap/a/s2 ");
}

TEST_F(SearchInADamagedTree, EndsInACircleOfClonePoints) {
    addObject("a", cloneName("1"));
    for (const auto &[point, parent] : {std::pair{"1", "2"}, {"2", "3"}, {"3", "1"}}) {
        ClonePointNode node(cloneName(point), cloneName(parent));
        node.addChild(objectName("a")); // with a child the point isn't pruned
        tree_.addClone(node);
    }
    expectSources("a", "");
}

TEST_F(SearchInADamagedTree, EndsAtAParentThatIsNotThere) {
    addObject("a", snapName("gone", "s1"));
    expectSources("a", "");
    addObject("b", snapName("b", "gone"));
    expectSources("b", "");
    addObject("c", cloneName("7"));
    expectSources("c", "");
}

TEST_F(SearchInADamagedTree, EndsAtAnObjectAsParent) {
    addObject("a", objectName("a"));
    expectSources("a", "");
    addObject("b", objectName("c"));
    addObject("c", objectName("b"));
    expectSources("b", "");
}

// The tries of a file, each in bounded time and all in bounded memory.
class Damage {
public:
    size_t loaded = 0;
    size_t refused = 0;

    void attempt(const std::string &damaged) {
        testkit::boundSeconds(kMostSeconds);
        (void)unlink(kMark);
        ASSERT_TRUE(testkit::writeFile(kFile, damaged));
        SnapTree tree;
        tree.setTreeFile(kFile);
        if (tree.load()) {
            ++loaded;
            EXPECT_FALSE(testkit::exists(kMark));
            EXPECT_TRUE(tree.save());
        } else {
            ++refused;
            EXPECT_TRUE(testkit::exists(kMark));
        }
        if ((loaded + refused) % 500 == 0) {
            testkit::logClear();
        }
    }

    // The byte set to 0 and to 255, its lowest and its highest bit turned round.
    void change(const std::string &bytes, size_t at, size_t how) {
        const auto byte = static_cast<unsigned char>(bytes[at]);
        const unsigned changes[] = {0, 0xFF, byte ^ 1U, byte ^ 0x80U};
        std::string changed = bytes;
        changed[at] = static_cast<char>(changes[how % 4]);
        if (changed != bytes) {
            attempt(changed);
        }
    }
};

TEST_F(DamagedTree, BytesEndInATreeOrAMark) {
    for (const std::string name : {"example-486", "old-v11-small"}) {
        expectEnd(name, [&] {
            const std::string bytes = fixture(name);
            Damage damage;
            for (size_t at = 0; at < bytes.size(); ++at) {
                damage.attempt(bytes.substr(0, at));
                for (size_t how = 0; how < 4; ++how) {
                    damage.change(bytes, at, how);
                }
            }
            EXPECT_LT(bytes.size(), damage.refused);
            EXPECT_LT(0U, damage.loaded);
        });
    }
}

// The same for every file that is taken. Not every change of every byte, unless there is time: each byte in one way, each
// file beginning with another one, and a cut at every seventh.
TEST_F(DamagedTree, BytesOfEveryFileEndInATreeOrAMark) {
    const bool all = std::getenv("SHARESNAP_LONG") != nullptr;
    const size_t step = testkit::underValgrind() ? 5 : 1;
    size_t turn = 0;
    for (const Verdict &verdict : kVerdicts) {
        const std::string bytes = fixture(verdict.name);
        ++turn;
        if (verdict.saved == nullptr || bytes.size() >= 2048) {
            continue;
        }
        expectEnd(verdict.name, [&] {
            Damage damage;
            for (size_t at = turn % step; at < bytes.size(); at += step) {
                if (all || (at + turn) % 7 == 0) {
                    damage.attempt(bytes.substr(0, at));
                }
                for (size_t how = 0; how < (all ? 4 : 1); ++how) {
                    damage.change(bytes, at, at + turn + how);
                }
            }
            EXPECT_LT(0U, damage.refused);
            EXPECT_LT(0U, damage.loaded);
        });
    }
}

} // namespace
