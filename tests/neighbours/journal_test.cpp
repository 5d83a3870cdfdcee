// Events in a real journal: systemd-journald runs in the sandbox, on its own /run.
#include "child_program.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/process.hpp"
#include "support/sandbox.hpp"

#include <nlohmann/json.hpp>
#include <sharesnap/platform/event_log.h>
#include <sharesnap/platform/notification.h>
#include <sharesnap/platform/szhash.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

constexpr const char *journalProgram = "/usr/lib/systemd/systemd-journald";
constexpr const char *journalSocket = "/run/systemd/journal/socket";

// Whether somebody listens: a socket file alone doesn't tell.
bool journalListens() {
    const int out = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::string(journalSocket).copy(address.sun_path, sizeof(address.sun_path) - 1);
    const bool listens = connect(out, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
    (void)close(out);
    return listens;
}

class Journal : public testkit::SandboxTest {
protected:
    void SetUp() override {
        testkit::SandboxTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        if (testkit::Sandbox::kind() != testkit::Sandbox::Kind::root || !testkit::exists(journalProgram)) {
            GTEST_SKIP() << "no journal can be run here";
        }
        // In the sandbox's own /etc and /run. The kernel's log and its audit are the machine's: hands off.
        ASSERT_TRUE(testkit::makeDirectories("/etc/systemd"));
        ASSERT_TRUE(testkit::writeFile("/etc/systemd/journald.conf", "[Journal]\nStorage=volatile\nReadKMsg=no\n"
                                                                     "Audit=no\nForwardToSyslog=no\n"
                                                                     "ForwardToWall=no\nRateLimitBurst=0\n"));
        ASSERT_TRUE(testkit::writeFile("/etc/machine-id", "0123456789abcdef0123456789abcdef\n"));
        ASSERT_TRUE(testkit::makeDirectories("/run/systemd/journal"));
        const std::string output = testkit::Sandbox::scratch() + "/journald.out";
        ASSERT_TRUE(journal.start({journalProgram}, output));
        if (!testkit::comesTrue([&] { return journalListens() || !journal.running(); }) || !journal.running()) {
            GTEST_SKIP() << "the journal doesn't run here: " << testkit::readFile(output);
        }
    }

    // The entry that has this value in this field, as soon as it stands in the journal.
    static nlohmann::json entryWith(const std::string &field, const std::string &value) {
        nlohmann::json entry;
        (void)testkit::comesTrue([&] {
            const auto result = testkit::runProcessApart(
                {"journalctl", "--directory=/run/log/journal", "--no-pager", "-o", "json", field + "=" + value});
            entry = nlohmann::json::parse(result.output.substr(0, result.output.find('\n')), nullptr, false);
            return entry.is_object();
        });
        return entry.is_object() ? entry : nlohmann::json::object();
    }

    testkit::ChildProgram journal;
};

class Catalog : public testkit::SandboxTest {};

} // namespace

TEST_F(Journal, EventsCanBeFoundByTheirFields) {
    ASSERT_EQ(
        0, QOVALogSet1(9, 1, 0x13C00001, "alice", "GMT-2026.01.02-03.04.05", "my docs", static_cast<char *>(nullptr)));
    ASSERT_EQ(0, QOVALogSet1(9, 3, 0x13C00002, "alice", "my docs", "System busy", static_cast<char *>(nullptr)));
    const nlohmann::json taken = entryWith("SHARESNAP_EVENT", "0x13C00001");
    EXPECT_EQ("User alice took snapshot GMT-2026.01.02-03.04.05 of shared folder my docs.", taken.value("MESSAGE", ""));
    EXPECT_EQ("6", taken.value("PRIORITY", ""));
    EXPECT_EQ("my docs", taken.value("SHARE", ""));
    EXPECT_EQ(program_invocation_short_name, taken.value("SYSLOG_IDENTIFIER", ""));
    const nlohmann::json failed = entryWith("SHARESNAP_EVENT", "0x13C00002");
    EXPECT_EQ("3", failed.value("PRIORITY", ""));
    EXPECT_EQ("System busy", failed.value("REASON", ""));
    EXPECT_EQ("850caeac5f85458085b34863e79993fc", failed.value("MESSAGE_ID", ""));
}

TEST_F(Journal, TextsWithLineFeedsArriveWhole) {
    ASSERT_EQ(0, QOVALogSet1(9, 1, 0x13C00003, "alice\nPRIORITY=0", "docs", "snap", static_cast<char *>(nullptr)));
    const nlohmann::json entry = entryWith("SHARESNAP_EVENT", "0x13C00003");
    EXPECT_EQ("alice\nPRIORITY=0", entry.value("ACTOR", ""));
    EXPECT_EQ("6", entry.value("PRIORITY", ""));
}

TEST_F(Journal, NotificationsLeaveATrace) {
    QLIBCSZHASH *hash = QLIBCSzHashAlloc(512);
    ASSERT_EQ(0, QLIBCSzHashSetValue(&hash, "%SHARE%", "docs"));
    EXPECT_EQ(0, QOVASysNotifySendNotifiction("SnapshotFailed", &hash));
    QLIBCSzHashFree(hash);
    const nlohmann::json entry = entryWith("SHARESNAP_NOTIFICATION", "SnapshotFailed");
    EXPECT_EQ("Notification SnapshotFailed for shared folder docs.", entry.value("MESSAGE", ""));
    EXPECT_EQ("docs", entry.value("SHARESNAP_NOTIFY_SHARE", ""));
}

TEST_F(Catalog, ExplainsEveryMessage) {
    const std::string root = testkit::Sandbox::scratch() + "/root";
    const std::string source = std::string(SHARESNAP_SOURCE_DIR) + "/packaging/catalog/sharesnap.catalog";
    ASSERT_TRUE(testkit::makeDirectories(root + "/usr/lib/systemd/catalog"));
    ASSERT_TRUE(testkit::makeDirectories(root + "/var/lib/systemd/catalog"));
    ASSERT_TRUE(testkit::writeFile(root + "/usr/lib/systemd/catalog/sharesnap.catalog", testkit::readFile(source)));
    const auto updated = testkit::runProcess({"journalctl", "--root=" + root, "--update-catalog"});
    if (updated.exitStatus < 0 || updated.exitStatus == 127) {
        GTEST_SKIP() << "journalctl isn't installed";
    }
    ASSERT_EQ(0, updated.exitStatus) << updated.output;
    const auto list = testkit::runProcess({"journalctl", "--root=" + root, "--list-catalog", "--no-pager"});
    const std::vector<std::string> sources = {
        testkit::readFile(std::string(SHARESNAP_SOURCE_DIR) + "/platform/qovasdk/event_log.cpp"),
        testkit::readFile(std::string(SHARESNAP_SOURCE_DIR) + "/platform/qovasysnotify/notification.cpp")};
    // Each identifier in the catalog is one that the sources write, and there are as many of them.
    int entries = 0;
    for (size_t at = 0; at < list.output.size(); at = list.output.find('\n', at) + 1) {
        const std::string id = list.output.substr(at, 32);
        EXPECT_TRUE(sources[0].find(id) != std::string::npos || sources[1].find(id) != std::string::npos) << id;
        ++entries;
    }
    EXPECT_EQ(5, entries) << list.output;
}
