// sharesnap restore: what is written to the share beside it isn't lost, and its quota stays.
#include "command.hpp"
#include "support/argument_vector.hpp"

#include <sharesnap/platform/quota.h>
#include <sharesnap/platform/share_admin.h>
#include <sharesnap/platform/subvolume.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "waiting.hpp"

namespace {

using namespace commandtest;

// A program that works in a directory of the share and stays there when the share is exchanged for another subvolume.
class Writer {
public:
    explicit Writer(const char *directory)
        : directory_(open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC)), thread_([this] { run(); }) {}
    ~Writer() {
        stop();
        (void)close(directory_);
    }
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;

    void stop() {
        stopped_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    // The last number of which it knows that the directory could be written still when it stood in the file.
    [[nodiscard]] int last() const { return last_; }

private:
    void run() {
        for (int number = 1; !stopped_; ++number) {
            const std::string text = std::to_string(number);
            const int file = openat(directory_, "number", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            const bool written =
                file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
            (void)close(file);
            if (!written || mkdirat(directory_, "probe", 0755) != 0) {
                return;
            }
            last_ = number;
            if (unlinkat(directory_, "probe", AT_REMOVEDIR) != 0) {
                return;
            }
            (void)usleep(200);
        }
    }

    int directory_;
    std::atomic<bool> stopped_ = false;
    std::atomic<int> last_ = 0;
    std::thread thread_;
};

class RestoreKeeps : public testkit::VolumeTest {
protected:
    void SetUp() override {
        VolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol1/docs"}), done));
        ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "first"));
        const auto created = sharesnap({"create", "docs"});
        ASSERT_TRUE(ends(created, done));
        snapshot_ = lines(created.output).at(0);
        ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "second"));
    }

    static std::string pathOf(const std::string &snapshot) { return "/vol1/@sharesnap/docs/" + snapshot; }

    static std::vector<std::string> listed() {
        std::vector<std::string> names;
        nlohmann::json listing = document({"list", "docs"});
        for (const auto &snapshot : listing["snapshots"]) {
            names.push_back(snapshot["name"]);
        }
        return names;
    }

    static nlohmann::json laterIn(const nlohmann::json &restored) {
        return restored.value("kept_later", nlohmann::json("not told"));
    }

    static int greatestNumberIn(const std::vector<std::string> &snapshots) {
        int greatest = 0;
        for (const std::string &name : snapshots) {
            greatest = std::max(greatest, std::atoi(testkit::readFile(pathOf(name) + "/number").c_str()));
        }
        return greatest;
    }

    std::string snapshot_;
};

TEST_F(RestoreKeeps, WhatIsWrittenUntilTheOldDataAreClosed) {
    Writer writer("/vol1/docs");
    while (writer.last() < 3) {
        (void)usleep(1000);
    }
    const auto result = sharesnap({"restore", "docs", snapshot_, "--json"});
    writer.stop();
    ASSERT_TRUE(ends(result, done));
    const nlohmann::json later = laterIn(nlohmann::json::parse(result.output));
    EXPECT_EQ("first", testkit::readFile("/vol1/docs/letter"));
    EXPECT_LE(writer.last(), greatestNumberIn(listed())) << result.output;
    for (const std::string name : later) {
        EXPECT_EQ("second", testkit::readFile(pathOf(name) + "/letter"));
        EXPECT_EQ("written during a restore\n", sharesnap({"attr", "get", "docs", name, "desc"}).output);
        EXPECT_NE(std::string::npos, sharesnap({"tree", "/vol1"}).output.find(name));
    }
    EXPECT_EQ(2 + later.size(), listed().size());
    EXPECT_FALSE(testkit::exists("/vol1/@restore-docs"));
}

TEST_F(RestoreKeeps, WhatIsWrittenWhileTheTreeIsWaitedFor) {
    testkit::LockHolder holder(treeLock("/vol1"), testkit::LockHolder::exclusive);
    ASSERT_TRUE(holder.holds());
    Running running = begin({"restore", "docs", snapshot_});
    ASSERT_TRUE(comesToWait(running, holder, treeLock("/vol1")));
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/late", "late"));
    holder.release();
    EXPECT_TRUE(ends(running.get(), done));
    EXPECT_EQ("first", testkit::readFile("/vol1/docs/letter"));
    EXPECT_EQ("late", testkit::readFile("/vol1/docs/late"));
}

TEST_F(RestoreKeeps, NothingTwiceWhenNobodyWrites) {
    for (const char *letter : {"second", "third"}) {
        ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", letter));
        const auto restored = document({"restore", "docs", snapshot_});
        EXPECT_EQ(nlohmann::json::array(), laterIn(restored));
        EXPECT_EQ(letter, testkit::readFile(pathOf(restored.value("kept", "")) + "/letter"));
    }
    EXPECT_EQ(3U, listed().size());
}

TEST_F(RestoreKeeps, WhatAnInterruptedRestoreLeft) {
    ASSERT_EQ(0, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/@restore-docs"));
    EXPECT_EQ(nlohmann::json::array(), laterIn(document({"restore", "docs", snapshot_}))) << "an untouched copy";
    ASSERT_EQ(0, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/@restore-docs"));
    ASSERT_TRUE(testkit::writeFile("/vol1/@restore-docs/letter", "late"));
    const auto restored = document({"restore", "docs", snapshot_});
    ASSERT_EQ(1U, laterIn(restored).size());
    const std::string late = laterIn(restored)[0];
    EXPECT_EQ("late", testkit::readFile(pathOf(late) + "/letter"));
    EXPECT_THAT(listed(), testing::Contains(late));
    EXPECT_FALSE(testkit::exists("/vol1/@restore-docs"));
}

// Whoever takes a snapshot writes its section before its subvolume stands.
TEST_F(RestoreKeeps, SectionsOfOthersWhenSomethingLeftIsKept) {
    constexpr char list[] = "/vol1/@sharesnap/@docs.meta";
    const std::string coming = "[GMT-2015.01.01-00.00.00]\nhide=false\ndesc=somebody else's\n";
    ASSERT_TRUE(testkit::writeFile(list, testkit::readFile(list) + coming));
    ASSERT_EQ(0, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/@restore-docs"));
    ASSERT_TRUE(testkit::writeFile("/vol1/@restore-docs/letter", "late"));
    const auto restored = document({"restore", "docs", snapshot_});
    ASSERT_EQ(1U, laterIn(restored).size());
    const std::string late = laterIn(restored)[0];
    EXPECT_THAT(testkit::readFile(list), testing::HasSubstr("[GMT-2015.01.01-00.00.00]"));
    EXPECT_EQ("left by an interrupted restore\n", sharesnap({"attr", "get", "docs", late, "desc"}).output);
    EXPECT_EQ("false\n", sharesnap({"attr", "get", "docs", late, "hide"}).output);
    EXPECT_TRUE(ends(sharesnap({"attr", "get", "docs", late, "ruuid"}), done));
    EXPECT_EQ(3, document({"count", "docs"})["shares"]["docs"]);
}

TEST_F(RestoreKeeps, WhatWasLeftAlsoWhenTheRestoreFails) {
    ASSERT_TRUE(testkit::writeFile("/etc.defaults/qovainfo.conf", "max_snapshots_per_share=\"1\"\n"));
    ASSERT_EQ(0, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/@restore-docs"));
    ASSERT_TRUE(testkit::writeFile("/vol1/@restore-docs/letter", "late"));
    const auto result = sharesnap({"restore", "docs", snapshot_});
    EXPECT_TRUE(ends(result, refused));
    const std::vector<std::string> names = listed();
    ASSERT_EQ(2U, names.size());
    EXPECT_EQ("late", testkit::readFile(pathOf(names[1]) + "/letter"));
    EXPECT_TRUE(says(result, {"SNAP_ERR_SNAPSHOT_LIMIT", names[1]}));
    EXPECT_NE(std::string::npos, sharesnap({"tree", "/vol1"}).output.find(names[1]));
    EXPECT_FALSE(testkit::exists("/vol1/@restore-docs"));
    EXPECT_EQ("second", testkit::readFile("/vol1/docs/letter"));
}

// The command on a kernel that can't tell when a subvolume was changed. Its exit status, or -1.
int runWithoutGenerations(const Arguments &arguments) {
    sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_ioctl, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[1])), // the lower half
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, BTRFS_IOC_GET_SUBVOL_INFO, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOTTY),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {sizeof(steps) / sizeof(steps[0]), steps};
    testkit::ArgumentVector argv(SHARESNAP_COMMAND, arguments);
    const pid_t child = fork();
    if (child == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
            _exit(98);
        }
        (void)execv(SHARESNAP_COMMAND, argv.data());
        _exit(97);
    }
    const int status = testkit::waitForChild(child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(RestoreKeeps, WhatWasLeftWhereNobodyKnowsWhetherItIsKept) {
    ASSERT_EQ(0, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/@restore-docs"));
    ASSERT_TRUE(testkit::writeFile("/vol1/@restore-docs/letter", "late"));
    const int status = runWithoutGenerations({"restore", "docs", snapshot_});
    if (status == 98) {
        GTEST_SKIP() << "no system call can be kept from a program here";
    }
    EXPECT_EQ(failed, status);
    EXPECT_EQ("late", testkit::readFile("/vol1/@restore-docs/letter"));
    EXPECT_EQ("second", testkit::readFile("/vol1/docs/letter"));
    ASSERT_TRUE(ends(sharesnap({"restore", "docs", snapshot_}), done));
    EXPECT_EQ("late", testkit::readFile(pathOf(listed().at(1)) + "/letter"));
}

TEST_F(RestoreKeeps, SaysWhichSnapshotHoldsWhatWasLeft) {
    ASSERT_EQ(0, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/@restore-docs"));
    ASSERT_TRUE(testkit::writeFile("/vol1/@restore-docs/letter", "late"));
    const auto result = sharesnap({"restore", "docs", snapshot_});
    ASSERT_TRUE(ends(result, done));
    const std::string late = listed().at(1);
    EXPECT_EQ("late", testkit::readFile(pathOf(late) + "/letter"));
    EXPECT_THAT(result.output, testing::HasSubstr("what an interrupted restore left is kept as " + late + "\n"));
    EXPECT_THAT(result.output, testing::Not(testing::HasSubstr("written during")));
}

TEST_F(RestoreKeeps, TheQuotaOfTheShare) {
    ASSERT_EQ(0, testkit::runProcess({"btrfs", "quota", "enable", "/vol1"}).exitStatus);
    ASSERT_EQ(0, testkit::runProcess({"btrfs", "qgroup", "limit", "100M", "/vol1/docs"}).exitStatus);
    ASSERT_TRUE(ends(sharesnap({"restore", "docs", snapshot_}), done));
    EXPECT_EQ("first", testkit::readFile("/vol1/docs/letter"));
    QOVASHAREQUOTA quota = {};
    ASSERT_EQ(0, QOVAQuotaShareQuotaGet(testkit::getShare("docs").get(), &quota));
    EXPECT_EQ(uint64_t{100} << 20, quota.ullLimit);
}

// The frozen configuration lies in the back end while the snapshot is taken.
TEST_F(RestoreKeeps, NothingTwiceOfALockedEncryptedShare) {
    ASSERT_EQ("", testkit::makeShare("@safe@"));
    ASSERT_EQ(0, QOVAShareRecordRemove("@safe@"));
    ASSERT_TRUE(testkit::makeDirectories("/vol1/safe"));
    ASSERT_EQ("", testkit::addShare("safe", "/vol1/safe", QOVA_SHARE_STATUS_ENCRYPTED));
    ASSERT_TRUE(testkit::writeFile("/vol1/@safe@/cipher", "first"));
    const auto created = sharesnap({"create", "safe"});
    ASSERT_TRUE(ends(created, done));
    ASSERT_TRUE(testkit::writeFile("/vol1/@safe@/cipher", "second"));
    const auto restored = document({"restore", "safe", lines(created.output).at(0)});
    EXPECT_EQ(nlohmann::json::array(), laterIn(restored));
    EXPECT_EQ("first", testkit::readFile("/vol1/@safe@/cipher"));
    EXPECT_EQ(2U, document({"list", "safe"})["snapshots"].size());
}

} // namespace
