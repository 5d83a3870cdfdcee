// The sandbox keeps what a test does to the fixed paths away from the machine and from the next test.
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/process.hpp"
#include "support/sandbox.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

using testkit::Sandbox;

namespace {

using SandboxPlain = testkit::SandboxTest;

TEST_F(SandboxPlain, HasEmptyFixedDirectories) {
    EXPECT_EQ(std::vector<std::string>{"lock"}, testkit::directoryNames("/run"));
    EXPECT_EQ(std::vector<std::string>{"etc"}, testkit::directoryNames("/usr/qova"));
    for (const char *path : {"/run/lock", "/usr/qova/etc", "/etc.defaults", "/etc/sharesnap", "/usr/lib/sharesnap"}) {
        EXPECT_TRUE(testkit::isDirectory(path)) << path;
        EXPECT_TRUE(testkit::directoryNames(path).empty()) << path;
    }
    EXPECT_FALSE(testkit::exists("/vol1"));
}

TEST_F(SandboxPlain, ForgetsWhatATestWroteThere) {
    const std::vector<std::string> files = {"/run/lock/a",      "/usr/qova/etc/a",      "/etc.defaults/a",
                                            "/etc/sharesnap/a", "/usr/lib/sharesnap/a", Sandbox::scratch() + "/a"};
    for (const std::string &file : files) {
        ASSERT_TRUE(testkit::writeFile(file, "text")) << file;
        ASSERT_EQ("text", testkit::readFile(file));
    }
    Sandbox::reset();
    for (const std::string &file : files) {
        EXPECT_FALSE(testkit::exists(file)) << file;
    }
}

TEST_F(SandboxPlain, LeavesTheMachinesRootAlone) {
    // Whoever started this program sees the machine as it is; without root that is out of reach.
    const std::string outside = "/proc/" + std::to_string(getppid()) + "/root";
    if (Sandbox::kind() != Sandbox::Kind::root || access((outside + "/etc").c_str(), X_OK) != 0 ||
        testkit::exists(outside + "/sandbox")) {
        GTEST_SKIP() << "the machine's own root can't be seen from here";
    }
    const auto ownThere = [&outside] {
        std::vector<std::string> names;
        for (const char *path : {"/vol1", "/vol2", "/etc.defaults", "/usr/qova", "/usr/lib/sharesnap", "/sandbox"}) {
            names.insert(names.end(), testkit::exists(outside + path) ? 1 : 0, path);
        }
        return names;
    };
    const std::vector<std::string> before = ownThere();
    for (const char *path : {"/etc/sandbox-probe", "/usr/sandbox-probe", "/run/sandbox-probe", "/sandbox-probe"}) {
        ASSERT_TRUE(testkit::writeFile(path, "x")) << path;
        EXPECT_FALSE(testkit::exists(outside + path)) << path;
    }
    Sandbox::reset();
    EXPECT_EQ(before, ownThere());
    for (const char *path : {"/etc/sandbox-probe", "/usr/sandbox-probe", "/sandbox-probe"}) {
        EXPECT_EQ(0, unlink(path)) << path;
    }
}

TEST_F(SandboxPlain, KeepsTheProgramsOfTheMachine) {
    const testkit::ProcessResult result = testkit::runProcess({"cat", "/proc/self/mounts"});
    EXPECT_EQ(0, result.exitStatus);
    EXPECT_NE(std::string::npos, result.output.find(" /run tmpfs "));
    EXPECT_TRUE(testkit::exists("/dev/null"));
    EXPECT_TRUE(testkit::exists("/etc/passwd"));
}

TEST_F(SandboxPlain, StartsFromOneKnownProcessState) {
    const mode_t mask = umask(022);
    EXPECT_EQ(mode_t{022}, mask);
    struct stat input {};
    struct stat null {};
    ASSERT_EQ(0, fstat(0, &input));
    ASSERT_EQ(0, stat("/dev/null", &null));
    EXPECT_EQ(null.st_rdev, input.st_rdev); // whatever path it was opened by
    EXPECT_TRUE(S_ISCHR(input.st_mode));
    EXPECT_EQ(0U, geteuid());
}

TEST_F(SandboxPlain, GoesBackToTheStartDirectory) {
    const std::string start = testkit::currentDirectory();
    ASSERT_EQ(0, chdir("/run/lock"));
    Sandbox::reset();
    EXPECT_EQ(start, testkit::currentDirectory());
}

TEST_F(SandboxPlain, TellsWhyAVolumeCannotBeHad) {
    const bool root = Sandbox::kind() == Sandbox::Kind::root;
    EXPECT_EQ(root ? "the kernel has no nosuchfs" : "a real volume needs root",
              Sandbox::mountVolume("/vol1", "nosuchfs"));
    EXPECT_FALSE(testkit::exists("/vol1"));
}

TEST(RunProcess, TellsStatusSignalAndBothStreams) {
    const testkit::ProcessResult joined = testkit::runProcess({"sh", "-c", "echo out; echo err >&2; exit 3"});
    EXPECT_EQ(3, joined.exitStatus);
    EXPECT_EQ("out\nerr\n", joined.output);
    const testkit::ProcessResult apart = testkit::runProcessApart({"sh", "-c", "cat; echo err >&2"}, "given");
    EXPECT_EQ(0, apart.exitStatus);
    EXPECT_EQ("given", apart.output);
    EXPECT_EQ("err\n", apart.errors);
    EXPECT_EQ(9, testkit::runProcess({"sh", "-c", "kill -9 $$"}).signal);
    EXPECT_EQ(-1, testkit::runProcess({"/no/such/program"}).exitStatus);
}

} // namespace
