// sharesnap restore: the share is never missing, and what it was is kept.
#include "command.hpp"

#include <sharesnap/platform/file_lock.h>
#include <sharesnap/platform/subvolume.h>

#include <atomic>
#include <csignal>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace commandtest;

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

TEST_F(RestoreVerb, CopyGoesWhenThePresentCantBeKept) {
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "first"));
    const std::string snapshot = take();
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "second"));
    ASSERT_TRUE(testkit::writeFile("/etc.defaults/qovainfo.conf", "max_snapshots_per_share=\"1\"\n"));
    EXPECT_TRUE(ends(sharesnap({"restore", "docs", snapshot}), refused));
    EXPECT_FALSE(testkit::exists("/vol1/@restore-docs"));
    EXPECT_EQ("second", testkit::readFile("/vol1/docs/letter"));
    EXPECT_EQ((std::vector<std::string>{snapshot}), listed());
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

// Looks at a file of the share without a pause, as a client does.
class Watcher {
public:
    explicit Watcher(const char *path)
        : seen_(static_cast<Seen *>(
              mmap(nullptr, sizeof(Seen), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        pid_ = fork();
        if (pid_ == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;) {
                struct stat status = {};
                if (stat(path, &status) != 0) {
                    ++seen_->misses;
                }
                ++seen_->looks;
            }
        }
    }
    ~Watcher() {
        stop();
        (void)munmap(seen_, sizeof(Seen));
    }
    Watcher(const Watcher &) = delete;
    Watcher &operator=(const Watcher &) = delete;

    void stop() {
        if (pid_ > 0) {
            (void)kill(pid_, SIGKILL);
            (void)testkit::waitForChild(pid_);
            pid_ = -1;
        }
    }

    [[nodiscard]] bool started() const { return pid_ > 0; }
    [[nodiscard]] unsigned long looks() const { return seen_->looks; }
    [[nodiscard]] unsigned long misses() const { return seen_->misses; }

private:
    struct Seen {
        std::atomic<unsigned long> looks;
        std::atomic<unsigned long> misses;
    };
    Seen *seen_;
    pid_t pid_ = -1;
};

TEST_F(RestoreOnVolume, ShareIsNeverMissing) {
    constexpr char letter[] = "/vol1/docs/letter";
    ASSERT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol1/docs"}), done));
    ASSERT_TRUE(testkit::writeFile(letter, "first"));
    const auto created = sharesnap({"create", "docs"});
    ASSERT_TRUE(ends(created, done));
    const std::string snapshot = lines(created.output).at(0);
    Watcher watcher(letter);
    ASSERT_TRUE(watcher.started());
    for (int round = 0; round < 5; ++round) {
        ASSERT_TRUE(testkit::writeFile(letter, "second"));
        const nlohmann::json restored = document({"restore", "docs", snapshot});
        EXPECT_EQ("first", testkit::readFile(letter));
        const std::string kept = restored["kept"];
        EXPECT_EQ("second", testkit::readFile("/vol1/@sharesnap/docs/" + kept + "/letter"));
        ASSERT_TRUE(ends(sharesnap({"delete", "docs", kept}), done)); // its name is free for the next one
    }
    watcher.stop();
    EXPECT_LT(0U, watcher.looks());
    EXPECT_EQ(0U, watcher.misses()) << "of " << watcher.looks();
}

// The library's plug-ins run before and after each snapshot is taken.
class RestoreWithAPlugin : public CommandTest {
protected:
    static void install(const std::string &script) {
        const std::string directory = "/etc/sharesnap/plugins/share_snapshot";
        ASSERT_TRUE(testkit::makeDirectories(directory));
        ASSERT_TRUE(testkit::writeFile(directory + "/watch", "#!/bin/sh\n" + script));
        ASSERT_EQ(0, chmod((directory + "/watch").c_str(), 0755));
    }
};

TEST_F(RestoreWithAPlugin, CopyStandsBeforeThePresentIsKept) {
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "first"));
    const std::string snapshot = take();
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "second"));
    install("[ \"$1\" = pre ] && cp /vol1/@restore-docs/letter /vol1/docs/copy\nexit 0\n");
    const nlohmann::json restored = document({"restore", "docs", snapshot});
    const std::string kept = restored["kept"];
    // What was written to the share while the copy stood already is kept.
    EXPECT_EQ("first", testkit::readFile(snapshotPath(kept) + "/copy"));
    EXPECT_EQ("second", testkit::readFile(snapshotPath(kept) + "/letter"));
}

TEST_F(RestoreVerb, WaitsForARenameOrAnotherRestore) {
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "first"));
    const std::string snapshot = take();
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "second"));
    int lock = -1;
    ASSERT_NE(0, QLIBCFileLockTimeByFile("/run/lock/sharesnap/share_rename.lock", 1, 10, &lock));
    const pid_t child = fork();
    ASSERT_LE(0, child);
    if (child == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        QLIBCFileCloseLock();
        if (freopen("/dev/null", "w", stdout) == nullptr) {
            _exit(98);
        }
        (void)execl(SHARESNAP_COMMAND, SHARESNAP_COMMAND, "restore", "docs", snapshot.c_str(), nullptr);
        _exit(97);
    }
    (void)usleep(500000); // time enough to do it without the lock
    EXPECT_EQ("second", testkit::readFile("/vol1/docs/letter"));
    EXPECT_FALSE(testkit::exists("/vol1/@restore-docs"));
    EXPECT_NE(0, QLIBCFileUnlockByFile(lock));
    const int status = testkit::waitForChild(child);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    const bool gaveUp = WEXITSTATUS(status) == failed; // after ten seconds, which a loaded machine may let pass
    EXPECT_EQ(gaveUp ? 1 : 0, WEXITSTATUS(status));
    EXPECT_EQ(gaveUp ? "second" : "first", testkit::readFile("/vol1/docs/letter"));
}

TEST_F(RestoreVerb, AStandInOfAnInterruptedRestoreIsReplaced) {
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "first"));
    const std::string snapshot = take();
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "second"));
    ASSERT_EQ(0, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/@restore-docs"));
    ASSERT_TRUE(testkit::writeFile("/vol1/@restore-docs/letter", "stale"));
    ASSERT_TRUE(ends(sharesnap({"restore", "docs", snapshot}), done));
    EXPECT_EQ("first", testkit::readFile("/vol1/docs/letter"));
    EXPECT_FALSE(testkit::exists("/vol1/@restore-docs"));
}

} // namespace
