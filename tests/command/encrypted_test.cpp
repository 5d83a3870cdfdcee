// Encrypted shares that are locked: the subvolume is the back end, the path an empty mount point.
#include "command.hpp"

#include <sharesnap/config.h>
#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/share_admin.h>
#include <sharesnap/platform/subvolume.h>

#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "waiting.hpp"

namespace {

using namespace commandtest;

class EncryptedShare : public testkit::VolumeTest {
protected:
    void SetUp() override {
        VolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@docs@"));
        ASSERT_EQ(0, mkdir("/vol1/docs", 0755));
        ASSERT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol1/docs", "--existing", "--encrypted"}), done));
        ASSERT_TRUE(testkit::writeFile("/vol1/@docs@/cipher", "first"));
        snapshot_ = takenOf("docs");
        ASSERT_TRUE(ends(sharesnap({"conf", "set", "docs", "keep", "7"}), done));
        ASSERT_TRUE(ends(sharesnap({"hold", "add", "docs", snapshot_, "backup"}), done));
    }

    static std::string takenOf(const std::string &share) {
        const auto created = sharesnap({"create", share});
        EXPECT_TRUE(ends(created, done));
        return created.exitStatus == done ? lines(created.output).at(0) : "";
    }

    static void note() {
        ASSERT_TRUE(testkit::makeDirectories("/etc/sharesnap/renames"));
        ASSERT_TRUE(testkit::writeFile(
            "/etc/sharesnap/renames/docs",
            "[rename]\nold_name=docs\nnew_name=papers\nold_path=/vol1/docs\nnew_path=/vol1/papers\n"));
    }

    // Back end, mount point, snapshots, list, settings, record and holds have this name, and nothing has the other.
    void expectAllUnder(const std::string &name, const std::string &other) const {
        const std::string backEnd = "@" + name + "@";
        EXPECT_EQ(1, QOVABtrfsIsSubVol(("/vol1/" + backEnd).c_str()));
        EXPECT_EQ("first", testkit::readFile("/vol1/" + backEnd + "/cipher"));
        EXPECT_EQ("first", testkit::readFile("/vol1/@sharesnap/" + backEnd + "/" + snapshot_ + "/cipher"));
        EXPECT_TRUE(testkit::isDirectory("/vol1/" + name));
        EXPECT_NE(std::string::npos,
                  testkit::readFile("/vol1/@sharesnap/" + backEnd + ".meta").find("[" + snapshot_ + "]"));
        for (const char *left : {"/vol1/", "/vol1/@", "/vol1/@sharesnap/@"}) {
            for (const char *end : {"", "@", "@.meta"}) {
                EXPECT_FALSE(testkit::exists(left + other + end)) << left + other + end;
            }
        }
        const auto record = testkit::getShare(name);
        ASSERT_NE(nullptr, record);
        EXPECT_EQ("/vol1/" + name, record->szPath);
        EXPECT_EQ(+QOVA_SHARE_STATUS_ENCRYPTED, record->uStatus);
        EXPECT_EQ(nullptr, testkit::getShare(other));
        EXPECT_EQ("7\n", sharesnap({"conf", "get", name, "keep"}).output);
        uint32_t holds = 0;
        EXPECT_EQ(1, QOVAShareSnapSysLockGet(record.get(), snapshot_.c_str(), "backup", &holds));
        EXPECT_EQ(1U, holds);
        EXPECT_FALSE(testkit::exists("/etc/sharesnap/renames/docs"));
        EXPECT_EQ("root\n  snap/" + name + "/" + snapshot_ + "\n    object/" + name + "\n",
                  sharesnap({"tree", "/vol1"}).output);
    }

    std::string snapshot_;
};

TEST_F(EncryptedShare, GoesWithItsBackEnd) {
    ASSERT_TRUE(testkit::isDirectory("/vol1/@sharesnap/@docs@/" + snapshot_));
    ASSERT_EQ(0, sharesnap({"share", "remove", "docs", "--data", "--yes"}).exitStatus);
    EXPECT_FALSE(testkit::exists("/vol1/docs"));
    EXPECT_FALSE(testkit::exists("/vol1/@docs@"));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/@docs@"));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/@docs@.meta"));
    EXPECT_EQ(nullptr, testkit::getShare("docs"));
}

TEST_F(EncryptedShare, IsRestoredInItsBackEnd) {
    ASSERT_TRUE(testkit::writeFile("/vol1/@docs@/cipher", "second"));
    ASSERT_TRUE(ends(sharesnap({"restore", "docs", snapshot_}), done));
    EXPECT_EQ("first", testkit::readFile("/vol1/@docs@/cipher"));
    EXPECT_TRUE(testkit::isDirectory("/vol1/docs"));
}

TEST_F(EncryptedShare, IsRenamedWithItsBackEnd) {
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "papers"}), done));
    expectAllUnder("papers", "docs");
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "papers", "docs"}), done));
    expectAllUnder("docs", "papers");
}

TEST_F(EncryptedShare, IsFinishedFromTheStart) {
    note();
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "--finish"}), done));
    expectAllUnder("papers", "docs");
}

TEST_F(EncryptedShare, IsFinishedAndUndoneFromTheMiddle) {
    for (const bool undo : {true, false}) {
        note();
        ASSERT_EQ(0, QOVAShareRecordRename("docs", "papers"));
        ASSERT_EQ(0, QOVAShareSnapConfUpdate("docs", "papers", nullptr));
        ASSERT_EQ(0, rename("/vol1/@sharesnap/@docs@.meta", "/vol1/@sharesnap/@papers@.meta"));
        ASSERT_EQ(0, rename("/vol1/@sharesnap/@docs@", "/vol1/@sharesnap/@papers@"));
        ASSERT_EQ(0, rename("/vol1/@docs@", "/vol1/@papers@"));
        ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", undo ? "--undo" : "--finish"}), done));
        expectAllUnder(undo ? "docs" : "papers", undo ? "papers" : "docs");
    }
}

TEST_F(EncryptedShare, RenameRefusesWhatStandsInTheWayOfItsBackEnd) {
    ASSERT_EQ(0, mkdir("/vol1/@papers@", 0755));
    const auto result = sharesnap({"share", "rename", "docs", "papers"});
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {"/vol1/@papers@"}));
    EXPECT_NE(nullptr, testkit::getShare("docs"));
    EXPECT_TRUE(testkit::exists("/vol1/@docs@/cipher"));
}

TEST_F(EncryptedShare, CloneTakesTheBackEnd) {
    ASSERT_TRUE(testkit::writeFile("/vol1/@docs@/cipher", "second"));
    ASSERT_TRUE(ends(sharesnap({"clone", "docs", "copy", "--snapshot", snapshot_}), done));
    ASSERT_TRUE(ends(sharesnap({"clone", "docs", "live"}), done));
    for (const std::string name : {"copy", "live"}) {
        const std::string cipher = "/vol1/@" + name + "@/cipher";
        EXPECT_EQ(1, QOVABtrfsIsSubVol(("/vol1/@" + name + "@").c_str()));
        EXPECT_EQ(name == "copy" ? "first" : "second", testkit::readFile(cipher));
        EXPECT_TRUE(testkit::writeFile(cipher, "third")); // it can be written
        const auto record = testkit::getShare(name);
        ASSERT_NE(nullptr, record);
        EXPECT_EQ("/vol1/" + name, record->szPath);
        EXPECT_EQ(+QOVA_SHARE_STATUS_ENCRYPTED, record->uStatus);
        const std::string taken = takenOf(name);
        EXPECT_EQ("third", testkit::readFile("/vol1/@sharesnap/@" + name + "@/" + taken + "/cipher"));
        const std::string tree = sharesnap({"tree", "/vol1"}).output;
        EXPECT_NE(std::string::npos, tree.find("snap/" + name + "/" + taken)) << tree;
    }
    EXPECT_EQ("second", testkit::readFile("/vol1/@docs@/cipher"));
    EXPECT_EQ("first", testkit::readFile("/vol1/@sharesnap/@docs@/" + snapshot_ + "/cipher"));
}

TEST_F(EncryptedShare, EmptyMountPointUnderTheNewNameIsNotInTheWay) {
    note();
    ASSERT_EQ(0, mkdir("/vol1/papers", 0755));
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "--finish"}), done));
    expectAllUnder("papers", "docs");
}

TEST_F(EncryptedShare, FilesAtTheNewMountPointAreRefused) {
    note();
    ASSERT_EQ(0, mkdir("/vol1/papers", 0755));
    ASSERT_TRUE(testkit::writeFile("/vol1/papers/strange", "kept"));
    for (const char *option : {"--finish", "--undo"}) {
        const auto result = sharesnap({"share", "rename", "docs", option});
        EXPECT_TRUE(ends(result, refused));
        EXPECT_TRUE(says(result, {"/vol1/docs", "/vol1/papers"}));
        EXPECT_TRUE(testkit::exists("/etc/sharesnap/renames/docs"));
        EXPECT_EQ("kept", testkit::readFile("/vol1/papers/strange"));
        EXPECT_TRUE(testkit::isDirectory("/vol1/docs"));
    }
    ASSERT_EQ(0, unlink("/vol1/papers/strange"));
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "--finish"}), done));
    expectAllUnder("papers", "docs");
}

// The share as it looks while it is mounted; nobody answers in it.
class Mounted {
public:
    Mounted() {
        const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
        const std::string options = "fd=" + std::to_string(device) + ",rootmode=40000,user_id=0,group_id=0";
        mounted_ = device >= 0 && mount("/vol1/@docs@", "/vol1/docs", "fuse.gocryptfs", 0, options.c_str()) == 0;
        (void)close(device); // nothing was written through it
    }
    ~Mounted() { unmount(); }
    Mounted(const Mounted &) = delete;
    Mounted &operator=(const Mounted &) = delete;

    [[nodiscard]] bool mounted() const { return mounted_; }
    void unmount() {
        if (mounted_) {
            EXPECT_EQ(0, umount2("/vol1/docs", MNT_DETACH));
            mounted_ = false;
        }
    }

private:
    bool mounted_ = false;
};

// The plug-ins that are told of a snapshot are waited for.
TEST_F(EncryptedShare, IsNotRestoredWhenItGetsMountedMeanwhile) {
    const std::string directory = "/etc/sharesnap/plugins/share_snapshot";
    const std::string came = testkit::Sandbox::scratch() + "/came";
    const std::string leave = testkit::Sandbox::scratch() + "/leave";
    ASSERT_TRUE(testkit::makeDirectories(directory));
    ASSERT_TRUE(testkit::writeFile(directory + "/wait", "#!/bin/sh\n[ \"$1\" = pre ] || exit 0\n: >" + came +
                                                            "\nfor i in $(seq 6000); do [ ! -e " + leave +
                                                            " ] || exit 0; sleep 0.01; done\n"));
    ASSERT_EQ(0, chmod((directory + "/wait").c_str(), 0755));
    ASSERT_TRUE(testkit::writeFile("/vol1/@docs@/cipher", "second"));
    Running running = begin({"restore", "docs", snapshot_});
    while (!testkit::exists(came) && running.wait_for(std::chrono::milliseconds(2)) == std::future_status::timeout) {}
    Mounted view;
    EXPECT_TRUE(testkit::writeFile("/vol1/@docs@/late", "late"));
    EXPECT_TRUE(testkit::writeFile(leave, "")); // without it the plug-in gives up after a while
    const auto result = running.get();
    if (!view.mounted()) {
        GTEST_SKIP() << "no FUSE here";
    }
    view.unmount();
    EXPECT_TRUE(ends(result, refused));
    EXPECT_EQ("second", testkit::readFile("/vol1/@docs@/cipher"));
    EXPECT_EQ("late", testkit::readFile("/vol1/@docs@/late"));
    EXPECT_FALSE(testkit::exists("/vol1/@restore-docs"));
    const auto snapshots = document({"list", "docs"})["snapshots"];
    ASSERT_EQ(2U, snapshots.size());
    EXPECT_TRUE(says(result, {"mounted", snapshots[1].value("name", "?")}));
}

TEST_F(EncryptedShare, RenameThatCantGoOnOrBackTellsBothAndItsNote) {
    constexpr char lock[] = "/run/lock/sharesnap/sharesnap_conf.lock";
    testkit::LockHolder holder(lock, testkit::LockHolder::exclusive);
    ASSERT_TRUE(holder.holds());
    Running running = begin({"share", "rename", "docs", "papers"});
    const bool came = comesToWait(running, holder, lock);
    Mounted view;
    holder.release();
    const auto result = running.get();
    ASSERT_TRUE(came) << told(result);
    if (!view.mounted()) {
        GTEST_SKIP() << "no FUSE here";
    }
    view.unmount();
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {"mounted", "can't be taken back", "share rename docs --finish", "--undo"}));
    EXPECT_TRUE(testkit::exists("/etc/sharesnap/renames/docs"));
    ASSERT_TRUE(ends(sharesnap({"share", "rename", "docs", "--undo"}), done));
    expectAllUnder("docs", "papers");
}

} // namespace
