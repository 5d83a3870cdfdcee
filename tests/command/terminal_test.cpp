// What the command does for a person at a terminal alone: it asks before a share goes with all its data, and shows how
// far long work has come.
#include "terminal.hpp"

#include <sharesnap/platform/subvolume.h>

namespace {

using namespace commandtest;
using testing::Contains;
using testing::HasSubstr;

constexpr char question[] = "Type the share's name to go on: ";

class ShareRemoveQuestion : public CommandTest {
protected:
    void SetUp() override {
        CommandTest::SetUp();
        if (!IsSkipped()) {
            ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "kept"));
            snapshot_ = take();
        }
    }

    void expectAllStays() const {
        EXPECT_EQ("kept", testkit::readFile("/vol1/docs/letter"));
        EXPECT_EQ(std::vector<std::string>{snapshot_}, listed());
        EXPECT_EQ("kept", testkit::readFile(snapshotPath(snapshot_) + "/letter"));
        EXPECT_TRUE(ends(sharesnap({"share", "show", "docs"}), done));
    }

    std::string snapshot_;
};

TEST_F(ShareRemoveQuestion, TheSharesNameLetsItGo) {
    Terminal terminal({"share", "remove", "docs", "--data"});
    ASSERT_TRUE(terminal.runs());
    ASSERT_TRUE(terminal.shows(question)) << terminal.written();
    // What goes is told before the question.
    EXPECT_THAT(terminal.written(), HasSubstr("all its files at /vol1/docs, 1 snapshot, "));
    expectAllStays();
    terminal.type("docs\n");
    EXPECT_EQ(done, terminal.exitStatus()) << terminal.written();
    EXPECT_FALSE(testkit::exists("/vol1/docs"));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/docs"));
    EXPECT_TRUE(ends(sharesnap({"share", "show", "docs"}), notFound));
}

// Another share that has got the name since isn't meant by the answer.
TEST_F(ShareRemoveQuestion, AnotherShareOfTheNameStays) {
    Terminal terminal({"share", "remove", "docs", "--data"});
    ASSERT_TRUE(terminal.runs());
    ASSERT_TRUE(terminal.shows(question)) << terminal.written();
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "papers"}), done));
    ASSERT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol1/docs"}), done));
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "new"));
    terminal.type("docs\n");
    EXPECT_EQ(refused, terminal.exitStatus()) << terminal.written();
    EXPECT_EQ("new", testkit::readFile("/vol1/docs/letter"));
    EXPECT_EQ("kept", testkit::readFile("/vol1/papers/letter"));
    EXPECT_TRUE(ends(sharesnap({"share", "show", "docs"}), done));
}

TEST_F(ShareRemoveQuestion, ASnapshotThatWasNotAnnouncedStays) {
    Terminal terminal({"share", "remove", "docs", "--data"});
    ASSERT_TRUE(terminal.runs());
    ASSERT_TRUE(terminal.shows(question)) << terminal.written();
    const std::string added = take();
    terminal.type("docs\n");
    EXPECT_EQ(refused, terminal.exitStatus()) << terminal.written();
    EXPECT_EQ("kept", testkit::readFile(snapshotPath(added) + "/letter"));
    EXPECT_EQ("kept", testkit::readFile("/vol1/docs/letter"));
    EXPECT_EQ(2U, listed().size());
}

TEST_F(ShareRemoveQuestion, AnyOtherAnswerKeepsAll) {
    for (const std::string answer : {"yes\n", "\n", "doc\n", "docs \n", "DOCS\n", "music\ndocs\n"}) {
        SCOPED_TRACE(answer);
        Terminal terminal({"share", "remove", "docs", "--data"});
        ASSERT_TRUE(terminal.runs());
        ASSERT_TRUE(terminal.shows(question)) << terminal.written();
        terminal.type(answer);
        EXPECT_EQ(refused, terminal.exitStatus()) << terminal.written();
        EXPECT_THAT(terminal.written(), HasSubstr("share \"docs\" stays"));
        expectAllStays();
    }
}

TEST_F(ShareRemoveQuestion, NoAnswerKeepsAll) {
    Terminal terminal({"share", "remove", "docs", "--data"});
    ASSERT_TRUE(terminal.runs());
    ASSERT_TRUE(terminal.shows(question)) << terminal.written();
    terminal.typeEnd();
    EXPECT_EQ(refused, terminal.exitStatus()) << terminal.written();
    expectAllStays();
}

TEST_F(ShareRemoveQuestion, NobodyIsAskedWhoSaidYes) {
    Terminal terminal({"share", "remove", "docs", "--data", "--yes"});
    ASSERT_TRUE(terminal.runs());
    EXPECT_EQ(done, terminal.exitStatus()) << terminal.written();
    EXPECT_EQ(std::string::npos, terminal.written().find(question));
    EXPECT_FALSE(testkit::exists("/vol1/docs"));
}

class ShownProgress : public CommandTest {
protected:
    // Snapshots of old times, each with a section in the list.
    static void plant(int count) {
        (void)take();
        const std::string list = "/vol1/@sharesnap/@docs.meta";
        std::string sections = testkit::readFile(list);
        for (int i = 0; i < count; ++i) {
            char name[64];
            (void)std::snprintf(name, sizeof(name), "GMT-2015.01.01-%02d.%02d.00", i / 60, i % 60);
            ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", snapshotPath(name).c_str())) << name;
            sections += "[" + std::string(name) + "]\nhide=false\n";
        }
        ASSERT_TRUE(testkit::writeFile(list, sections));
        ASSERT_TRUE(ends(sharesnap({"count", "docs", "--sync"}), done));
    }
};

TEST_F(ShownProgress, DeleteOfManyTellsHowFarItIsAndWipesThatOff) {
    ASSERT_NO_FATAL_FAILURE(plant(300));
    Terminal terminal({"delete", "docs", "--older-than", "1d"});
    ASSERT_TRUE(terminal.runs());
    EXPECT_TRUE(terminal.shows("\r\033[Kdeleting 1 to 256 of 300 snapshots")) << terminal.written();
    EXPECT_TRUE(terminal.shows("\r\033[Kdeleting 257 to 300 of 300 snapshots\r\033[K")) << terminal.written();
    EXPECT_EQ(done, terminal.exitStatus());
    const std::vector<std::string> screen = terminal.screen();
    ASSERT_EQ(302U, screen.size()); // a header, a line each, and where the cursor stands
    EXPECT_EQ("SNAPSHOT                 RESULT", screen[0]);
    EXPECT_EQ("GMT-2015.01.01-00.00.00  deleted", screen[1]);
    EXPECT_EQ("GMT-2015.01.01-04.59.00  deleted", screen[300]);
    EXPECT_EQ("", screen[301]);
    EXPECT_EQ(1U, listed().size());
}

TEST_F(ShownProgress, SyncOfAllNamesTheShareAndWipesThatOff) {
    ASSERT_EQ("", testkit::addShare("deep", "/vol1/docs/deep"));
    Terminal terminal({"sync", "--all"});
    ASSERT_TRUE(terminal.runs());
    EXPECT_EQ(inPart, terminal.exitStatus()) << terminal.written();
    EXPECT_THAT(terminal.written(), HasSubstr("\r\033[Kshare docs"));
    EXPECT_THAT(terminal.written(), HasSubstr("\r\033[Kshare deep"));
    EXPECT_THAT(terminal.screen(), Contains(HasSubstr("sharesnap: can't sync share \"deep\"")));
    for (const std::string &line : terminal.screen()) {
        EXPECT_NE(0U, line.find("share docs")) << line;
        EXPECT_NE(0U, line.find("share deep")) << line;
    }
}

// Nothing but the results is for a program that reads the messages.
TEST_F(ShownProgress, WithoutATerminalNothingIsShown) {
    ASSERT_NO_FATAL_FAILURE(plant(3));
    const auto deleted = sharesnap({"delete", "docs", "--older-than", "1d"});
    EXPECT_TRUE(ends(deleted, done));
    EXPECT_EQ("", deleted.errors);
    EXPECT_EQ(4U, lines(deleted.output).size());
    const auto synced = sharesnap({"sync", "--all"});
    EXPECT_TRUE(ends(synced, done));
    EXPECT_EQ("", synced.errors);
}

} // namespace
