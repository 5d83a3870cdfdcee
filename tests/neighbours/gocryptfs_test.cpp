// Encrypted shares with the real gocryptfs: the back end /vol1/@docs@ is the subvolume, /vol1/docs its view.
#include "child_program.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/process.hpp"
#include "support/sandbox.hpp"

#include <cerrno>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/subvolume.h>
#include <sharesnap/platform/volume.h>
#include <sharesnap/sharesnap.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace {

constexpr const char *backEnd = "/vol1/@docs@";
constexpr const char *view = "/vol1/docs";

bool isMounted(const std::string &path) {
    return testkit::readFile("/proc/self/mountinfo").find(" " + path + " ") != std::string::npos;
}

bool flushed(const std::string &path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool done = file >= 0 && fsync(file) == 0;
    (void)close(file);
    return done;
}

class Gocryptfs : public testkit::VolumeTest {
protected:
    void SetUp() override {
        testkit::VolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        if (testkit::runProcess({"gocryptfs", "-version"}).exitStatus != 0) {
            GTEST_SKIP() << "gocryptfs isn't installed";
        }
        const int fuse = open("/dev/fuse", O_RDWR | O_CLOEXEC);
        if (fuse < 0) {
            GTEST_SKIP() << "/dev/fuse can't be opened here";
        }
        (void)close(fuse);
        ASSERT_EQ(0, QOVABtrfsCreateSubVol(backEnd));
        ASSERT_EQ(0, mkdir(view, 0755));
        ASSERT_EQ("", testkit::addShare("docs", view, 0x02));
        ASSERT_TRUE(testkit::writeFile(password(), "correct horse\n"));
        const auto made =
            testkit::runProcess({"gocryptfs", "-init", "-q", "-scryptn", "10", "-passfile", password(), backEnd});
        ASSERT_EQ(0, made.exitStatus) << made.output;
    }

    // Whatever state the test left: the view goes first, then its server, and nobody asks the view anything.
    void TearDown() override {
        for (const std::string &path : {std::string(view), copyView()}) {
            while (umount2(path.c_str(), MNT_DETACH) == 0) {}
        }
        server.end(SIGKILL);
        copyServer.end(SIGKILL);
    }

    static std::string password() { return testkit::Sandbox::scratch() + "/password"; }
    static std::string copyView() { return testkit::Sandbox::scratch() + "/copy"; }

    static testing::AssertionResult mountView(testkit::ChildProgram &program, const std::string &from,
                                              const std::string &at, const std::vector<std::string> &options = {}) {
        const std::string output = testkit::Sandbox::scratch() + "/gocryptfs.out";
        std::vector<std::string> command = {"gocryptfs", "-fg", "-q", "-nosyslog", "-passfile", password()};
        command.insert(command.end(), options.begin(), options.end());
        command.insert(command.end(), {from, at});
        if (!program.start(command, output)) {
            return testing::AssertionFailure() << "no process";
        }
        if (!testkit::comesTrue([&] { return isMounted(at) || !program.running(); }) || !isMounted(at)) {
            return testing::AssertionFailure() << "not mounted: " << testkit::readFile(output);
        }
        return testing::AssertionSuccess();
    }

    static unsigned int statusNow() {
        const testkit::SharePointer share = testkit::getShare("docs");
        return share == nullptr ? ~0U : share->uStatus;
    }

    static std::string volumeNow() {
        char volume[4096] = {};
        return QOVAShareVolPathGet(view, volume, sizeof(volume)) < 0 ? "failed" : volume;
    }

    testkit::ChildProgram server;
    testkit::ChildProgram copyServer;
};

} // namespace

TEST_F(Gocryptfs, RecordTellsWhetherTheShareIsUnlocked) {
    EXPECT_EQ(0x02U, statusNow());
    ASSERT_TRUE(mountView(server, backEnd, view));
    EXPECT_EQ(0x03U, statusNow());
    ASSERT_EQ(0, umount2(view, 0));
    EXPECT_EQ(0x02U, statusNow());
}

TEST_F(Gocryptfs, VolumeOfTheViewIsTheOneThatHoldsIt) {
    EXPECT_EQ("/vol1", volumeNow());
    ASSERT_TRUE(mountView(server, backEnd, view));
    EXPECT_EQ("/vol1", volumeNow());
}

TEST_F(Gocryptfs, DeadServerIsNotAsked) {
    ASSERT_TRUE(mountView(server, backEnd, view));
    server.end(SIGKILL);
    struct stat st = {};
    ASSERT_TRUE(testkit::comesTrue([&] { return stat(view, &st) != 0 && errno == ENOTCONN; }));
    EXPECT_EQ(0x03U, statusNow()); // still mounted; that nothing can be read there is another matter
    EXPECT_EQ("/vol1", volumeNow());
}

TEST_F(Gocryptfs, HangingServerIsNotWaitedFor) {
    ASSERT_TRUE(mountView(server, backEnd, view));
    server.signal(SIGSTOP);
    EXPECT_EQ(0x03U, statusNow()); // either of these would never return
    EXPECT_EQ("/vol1", volumeNow());
    server.signal(SIGCONT);
}

TEST_F(Gocryptfs, SnapshotOfAnUnlockedShareCanBeOpenedByItself) {
    ASSERT_TRUE(mountView(server, backEnd, view));
    ASSERT_TRUE(testkit::writeFile(std::string(view) + "/letter", "dear bank"));
    ASSERT_TRUE(flushed(std::string(view) + "/letter")); // what the server still holds back isn't in a snapshot
    char name[255] = {};
    {
        const testkit::SharePointer share = testkit::getShare("docs");
        ASSERT_NE(nullptr, share);
        ASSERT_EQ(0, QOVAShareSnapCreate(share.get(), name, sizeof(name), nullptr));
    }
    ASSERT_TRUE(testkit::writeFile(std::string(view) + "/letter", "changed since"));

    const std::string snapshot = std::string("/vol1/@sharesnap/@docs@/") + name;
    ASSERT_TRUE(testkit::exists(snapshot + "/gocryptfs.conf"));
    EXPECT_FALSE(testkit::exists(snapshot + "/letter")) << "the snapshot holds names in clear";
    ASSERT_EQ(0, mkdir(copyView().c_str(), 0755));
    ASSERT_TRUE(mountView(copyServer, snapshot, copyView(), {"-ro"}));
    EXPECT_EQ("dear bank", testkit::readFile(copyView() + "/letter"));
}

TEST_F(Gocryptfs, LockedShareCanBeSnapshotToo) {
    const testkit::SharePointer share = testkit::getShare("docs");
    ASSERT_NE(nullptr, share);
    ASSERT_EQ(0x02U, share->uStatus);
    char name[255] = {};
    ASSERT_EQ(0, QOVAShareSnapCreate(share.get(), name, sizeof(name), nullptr));
    EXPECT_TRUE(testkit::exists(std::string("/vol1/@sharesnap/@docs@/") + name + "/gocryptfs.conf"));
}

// A rename, a removal or a restore below a mounted view would get mixed up with what its server still writes.
TEST_F(Gocryptfs, MountedShareIsNotRenamedRemovedOrRestored) {
    ASSERT_TRUE(mountView(server, backEnd, view));
    ASSERT_TRUE(testkit::writeFile(std::string(view) + "/letter", "dear bank"));
    ASSERT_TRUE(flushed(std::string(view) + "/letter"));
    const std::string command = SHARESNAP_COMMAND;
    const auto created = testkit::runProcessApart({command, "create", "docs"});
    ASSERT_EQ(0, created.exitStatus) << created.errors;
    const std::string snapshot = created.output.substr(0, created.output.find('\n'));
    ASSERT_TRUE(testkit::writeFile(std::string(view) + "/letter", "changed since"));
    const std::vector<std::vector<std::string>> verbs = {{"share", "rename", "docs", "papers"},
                                                         {"share", "remove", "docs", "--data", "--yes"},
                                                         {"restore", "docs", snapshot}};
    for (const std::vector<std::string> &verb : verbs) {
        std::vector<std::string> whole = {command};
        whole.insert(whole.end(), verb.begin(), verb.end());
        const auto result = testkit::runProcessApart(whole);
        EXPECT_EQ(4, result.exitStatus) << result.output << result.errors;
        EXPECT_NE(std::string::npos, result.errors.find("it is encrypted, and mounted at /vol1/docs")) << result.errors;
    }
    EXPECT_EQ("changed since", testkit::readFile(std::string(view) + "/letter"));
    EXPECT_FALSE(testkit::exists("/vol1/@papers@"));
    EXPECT_TRUE(testkit::exists("/vol1/@sharesnap/@docs@/" + snapshot + "/gocryptfs.conf"));

    // Unmounted, it goes back, and another name is no matter to its files.
    ASSERT_EQ(0, umount2(view, 0));
    ASSERT_TRUE(testkit::comesTrue([&] { return !server.running(); }));
    ASSERT_EQ(0, testkit::runProcess({command, "restore", "docs", snapshot}).exitStatus);
    ASSERT_EQ(0, testkit::runProcess({command, "share", "rename", "docs", "papers"}).exitStatus);
    ASSERT_EQ(0, mkdir(copyView().c_str(), 0755));
    ASSERT_TRUE(mountView(copyServer, "/vol1/@papers@", copyView()));
    EXPECT_EQ("dear bank", testkit::readFile(copyView() + "/letter"));
}
