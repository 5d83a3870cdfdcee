// The story that scripts/demo tells: it runs to its end, and stops at the first thing that goes wrong.
#include "command.hpp"

#include <sys/stat.h>

namespace {

using namespace commandtest;
using testing::HasSubstr;

class DemoStory : public testkit::AnyVolumeTest {
protected:
    static testkit::ProcessResult told(const std::string &command) {
        return testkit::runProcessApart({"env", "SHARESNAP=" + command, "TMPDIR=" + testkit::Sandbox::scratch(), "bash",
                                         std::string(SHARESNAP_SOURCE_DIR) + "/scripts/lib/demo_story.sh"});
    }
};

TEST_F(DemoStory, IsToldToItsEnd) {
    const auto story = told(SHARESNAP_COMMAND);
    EXPECT_EQ(0, story.exitStatus) << commandtest::told(story);
    EXPECT_EQ("", story.errors);
    EXPECT_THAT(story.output, HasSubstr("\n# That was the demo."));
    // What was told was done.
    EXPECT_TRUE(testkit::isDirectory("/vol1/songs"));
    EXPECT_EQ("Budget: 20\n", testkit::readFile("/vol1/docs/plan.txt"));
    EXPECT_EQ("Budget: 3\n", testkit::readFile("/vol1/plans/plan.txt"));
}

TEST_F(DemoStory, EndsWithTheFirstStepThatGoesWrong) {
    // Claims are never made, and that goes unsaid.
    const std::string command = testkit::Sandbox::scratch() + "/sharesnap";
    ASSERT_TRUE(testkit::writeFile(command, "#!/bin/sh\n[ \"$1 $2\" != 'hold add' ] || exit 0\nexec " +
                                                std::string(SHARESNAP_COMMAND) + " \"$@\"\n"));
    ASSERT_EQ(0, chmod(command.c_str(), 0755));
    const auto story = told(command);
    EXPECT_EQ(1, story.exitStatus) << commandtest::told(story);
    EXPECT_THAT(story.errors, HasSubstr("ended with 0 instead of 4"));
    EXPECT_EQ(std::string::npos, story.output.find("That was the demo"));
}

} // namespace
