// The command works whatever state of streams and signals its starter hands on: services and scheduled tasks close
// streams and ignore signals.
#include "command.hpp"

namespace {

using namespace commandtest;

class InheritedState : public CommandTest {
protected:
    // Runs the command behind a shell's preparations.
    static testkit::ProcessResult sharesnapAfter(const std::string &preparation, const Arguments &arguments) {
        Arguments whole = {"sh", "-c", preparation + "; exec \"$@\"", "sh", SHARESNAP_COMMAND};
        whole.insert(whole.end(), arguments.begin(), arguments.end());
        return testkit::runProcessApart(whole);
    }

    static bool treeKnows(const std::string &snapshot) {
        return sharesnap({"tree", "/vol1"}).output.find(snapshot) != std::string::npos;
    }
};

TEST_F(InheritedState, IgnoredChildrenAreWaitedForAllTheSame) {
    const Arguments ignoring = {"env", "--ignore-signal=CHLD", SHARESNAP_COMMAND};
    const auto run = [&ignoring](Arguments arguments) {
        arguments.insert(arguments.begin(), ignoring.begin(), ignoring.end());
        return testkit::runProcessApart(arguments);
    };
    const auto created = run({"create", "docs"});
    ASSERT_TRUE(ends(created, done));
    EXPECT_EQ(lines(created.output), listed());
    EXPECT_TRUE(ends(run({"sync", "docs"}), done));
}

TEST_F(InheritedState, ClosedInputDoesntKeepTheTreeFromItsFile) {
    const auto created = sharesnapAfter("exec 0<&-", {"create", "docs"});
    ASSERT_TRUE(ends(created, done));
    EXPECT_TRUE(treeKnows(lines(created.output).at(0)));
    EXPECT_EQ(std::vector<std::string>{}, testkit::directoryNames("/vol1/@tmp"));
}

TEST_F(InheritedState, ClosedOutputIsAFailureAndSpoilsNoFile) {
    EXPECT_TRUE(ends(sharesnapAfter("exec 1>&-", {"create", "docs"}), failed));
    const std::vector<std::string> names = listed();
    ASSERT_EQ(1U, names.size()); // it was taken, only its name couldn't be printed
    EXPECT_TRUE(treeKnows(names[0]));
}

TEST_F(InheritedState, AllStreamsClosed) {
    EXPECT_EQ(failed, sharesnapAfter("exec 0<&- 1>&- 2>&-", {"create", "docs"}).exitStatus);
    ASSERT_EQ(1U, listed().size());
    EXPECT_TRUE(treeKnows(listed()[0]));
    EXPECT_EQ(std::vector<std::string>{}, testkit::directoryNames("/vol1/@tmp"));
}

} // namespace
