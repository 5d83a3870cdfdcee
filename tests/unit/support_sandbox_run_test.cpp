// The program that runs a command in a sandbox.
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/process.hpp"

#include <gtest/gtest.h>

namespace {

using SandboxRun = testkit::SandboxTest;

testkit::ProcessResult sandboxRun(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), SHARESNAP_SANDBOX_RUN);
    return testkit::runProcessApart(arguments);
}

TEST_F(SandboxRun, GivesTheStatusAndOutputOfTheCommand) {
    const testkit::ProcessResult result = sandboxRun({"--simulated", "sh", "-c", "echo out; echo err >&2; exit 5"});
    EXPECT_EQ(5, result.exitStatus);
    EXPECT_EQ("out\n", result.output);
    EXPECT_EQ("err\n", result.errors);
}

TEST_F(SandboxRun, HasAFreshVolumeOfItsOwn) {
    const testkit::ProcessResult first =
        sandboxRun({"--simulated", "--", "sh", "-c", "ls /vol1; touch /vol1/a /run/b"});
    EXPECT_EQ(0, first.exitStatus) << first.errors;
    const testkit::ProcessResult second = sandboxRun({"--simulated", "--", "ls", "/vol1", "/run"});
    EXPECT_EQ("/run:\nlock\n\n/vol1:\n", second.output) << second.errors;
    EXPECT_FALSE(testkit::exists("/vol1"));
}

TEST_F(SandboxRun, MountsARealVolumeForRoot) {
    const testkit::ProcessResult result = sandboxRun({"--size", "128", "sh", "-c", "grep ' /vol1 ' /proc/self/mounts"});
    if (testkit::Sandbox::kind() != testkit::Sandbox::Kind::root) {
        EXPECT_EQ(77, result.exitStatus);
        EXPECT_EQ("sandbox_run: skipped: a real volume needs root\n", result.errors);
        return;
    }
    if (result.exitStatus == 77) {
        GTEST_SKIP() << result.errors;
    }
    EXPECT_NE(std::string::npos, result.output.find(" btrfs ")) << result.output << result.errors;
}

TEST_F(SandboxRun, CanDoWithoutAVolume) {
    const testkit::ProcessResult result = sandboxRun({"--no-volume", "sh", "-c", "test ! -e /vol1 && ls /usr/qova"});
    EXPECT_EQ(0, result.exitStatus) << result.errors;
    EXPECT_EQ("etc\n", result.output);
}

TEST_F(SandboxRun, TellsWrongArguments) {
    EXPECT_EQ(2, sandboxRun({}).exitStatus);
    EXPECT_EQ(2, sandboxRun({"--nonsense", "true"}).exitStatus);
    EXPECT_EQ(2, sandboxRun({"--size", "3", "true"}).exitStatus);
    EXPECT_EQ(127, sandboxRun({"--no-volume", "/no/such/program"}).exitStatus);
}

} // namespace
