// Plug-ins around a creation: what they hear, and that they can't stop it.
#include "volume/lifecycle.hpp"

using namespace lifecycle;

namespace {

class SnapCreateHook : public Fixture {
protected:
    int create(unsigned int flags = 0, const Pairs &attributes = {}) {
        const testkit::FixedTime clock(1767323045);
        Hash hash(attributes);
        return QOVAShareSnapCreateEx(share, nullptr, 0, hash.address(), flags);
    }
};

// False for a process that has ended, whether or not somebody has asked for its status.
bool runs(pid_t pid) {
    const std::string stat = testkit::readFile("/proc/" + std::to_string(pid) + "/stat");
    return !stat.empty() && stat.find(") Z") == std::string::npos;
}

constexpr char kName[] = "GMT-2026.01.02-03.04.05";

TEST_F(SnapCreateHook, HearsOfTheSnapshotBeforeAndAfter) {
    ASSERT_EQ("", installPlugin("ears", recordingScript("ears")));
    ASSERT_EQ(0, create(SNAP_CREATE_BLOCKING_POST));
    for (const char *phase : {"pre", "post"}) {
        const std::string record = recorded("ears", phase);
        EXPECT_EQ("docs", variable(record, "SHARE_NAME")) << phase;
        EXPECT_EQ("/vol1/docs", variable(record, "SHARE_PATH")) << phase;
        EXPECT_EQ(std::string(kName) + " ", variable(record, "SNAPSHOT")) << phase;
        EXPECT_EQ("CREATE", variable(record, "ACTION")) << phase;
        EXPECT_EQ("0", variable(record, "RESULT")) << phase;
        EXPECT_EQ("0", variable(record, "ENC_STATUS")) << phase;
        EXPECT_EQ("(absent)", variable(record, "NEW_SHARE_NAME")) << phase;
    }
}

TEST_F(SnapCreateHook, PostIsWaitedForOnRequest) {
    ASSERT_EQ("", installPlugin("slow", "[ $1 = post ] && sleep 1\n" + recordingScript("slow")));
    ASSERT_EQ(0, create(SNAP_CREATE_BLOCKING_POST));
    EXPECT_TRUE(testkit::exists(testkit::Sandbox::scratch() + "/slow.post"));
}

TEST_F(SnapCreateHook, OtherFlagsAreNotRead) {
    const testkit::CallCount blocking("QLIBPluginSetBlocking");
    ASSERT_EQ(0, create(~static_cast<unsigned int>(SNAP_CREATE_BLOCKING_POST)));
    EXPECT_EQ(0U, blocking.calls());
}

TEST_F(SnapCreateHook, PostHearsOfAFailure) {
    ASSERT_EQ("", installPlugin("ears", recordingScript("ears")));
    const testkit::FreeSpace space(0);
    EXPECT_EQ(-1, create(SNAP_CREATE_BLOCKING_POST));
    EXPECT_EQ(0xE400U, QLIBCErrGet());
    EXPECT_EQ("-1", variable(recorded("ears", "post"), "RESULT"));
    EXPECT_EQ(std::string(kName) + " ", variable(recorded("ears", "post"), "SNAPSHOT"));
}

TEST_F(SnapCreateHook, PostHearsOfAConflictAtTheMetadata) {
    ASSERT_EQ("", installPlugin("ears", recordingScript("ears")));
    Hash other(Pairs{{"hide", "false"}});
    ASSERT_EQ(0, QOVAShareSnapMetaSectionAdd(share, kName, other.get()));
    EXPECT_EQ(-2, create(SNAP_CREATE_BLOCKING_POST));
    EXPECT_EQ("-2", variable(recorded("ears", "post"), "RESULT"));
}

TEST_F(SnapCreateHook, AFailingOneDoesNotStopTheSnapshot) {
    ASSERT_EQ("", installPlugin("grumpy", "exit 1\n"));
    EXPECT_EQ(0, create(SNAP_CREATE_BLOCKING_POST));
    EXPECT_TRUE(stands(kName));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to execute share snapshot plugin (PRE) of share [docs][0x2A00 "));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to execute share snapshot plugin (POST)"));
    EXPECT_EQ(0U, testkit::logCount(LOG_ERR, "Failed to perform re-hook"));
}

TEST_F(SnapCreateHook, AKilledOneDoesNotStopTheSnapshot) {
    ASSERT_EQ("", installPlugin("dying", "kill -9 $$\n"));
    EXPECT_EQ(0, create());
    EXPECT_TRUE(stands(kName));
}

// The plug-in's parent is the child that runs the action under the time limit.
TEST_F(SnapCreateHook, AKilledChildStopsTheSnapshot) {
    ASSERT_EQ("", installPlugin("murderer", "[ $1 = pre ] && kill -9 $PPID\n" + recordingScript("murderer")));
    const testkit::Leftovers leftovers({"/vol1"});
    EXPECT_EQ(-1, create(SNAP_CREATE_BLOCKING_POST));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to perform re-hook, ret: -1[0x"));
    EXPECT_EQ("-1", variable(recorded("murderer", "post"), "RESULT"));
    EXPECT_EQ("", leftovers.compare());
    EXPECT_EQ("", meta());
}

TEST_F(SnapCreateHook, ASlowOneIsEndedAfterTenSecondsAndTheSnapshotTaken) {
    const std::string pidFile = testkit::Sandbox::scratch() + "/pid";
    ASSERT_EQ("", installPlugin("slow", "[ $1 = post ] && exit 0\necho $$ > " + pidFile + "\nexec sleep 60\n"));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(0, create());
    const auto taken = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(taken, std::chrono::seconds(9));
    EXPECT_TRUE(stands(kName));
    EXPECT_EQ(1, storedCount());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Re-hooks cannot finish within 10 seconds[0x2E00 "));
    const pid_t pid = std::atoi(testkit::readFile(pidFile).c_str());
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(eventually([pid] { return !runs(pid); })); // it died with its starter
}

TEST_F(SnapCreateHook, AChattyOneIsHeardByNobody) {
    ASSERT_EQ("", installPlugin("chatty", "head -c 5000000 /dev/zero\nhead -c 5000000 /dev/zero >&2\n" +
                                              recordingScript("chatty")));
    EXPECT_EQ(0, create(SNAP_CREATE_BLOCKING_POST));
    EXPECT_EQ("0", variable(recorded("chatty", "pre"), "RESULT"));
    EXPECT_TRUE(stands(kName));
}

TEST_F(SnapCreateHook, OneThatAnyoneCouldWriteIsNotRun) {
    ASSERT_EQ("", installPlugin("open", recordingScript("open"), 0777));
    ASSERT_EQ("", installPlugin("safe", recordingScript("safe")));
    EXPECT_EQ(0, create(SNAP_CREATE_BLOCKING_POST));
    EXPECT_EQ("0", variable(recorded("safe", "post"), "RESULT"));
    EXPECT_FALSE(testkit::exists(testkit::Sandbox::scratch() + "/open.pre"));
    EXPECT_FALSE(testkit::exists(testkit::Sandbox::scratch() + "/open.post"));
}

TEST_F(SnapCreateHook, ChildThatCannotBeMadeStopsTheSnapshot) {
    const testkit::Fault fault("fork");
    EXPECT_EQ(-1, create());
    EXPECT_EQ(0x2A00U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to perform re-hook, ret: -1[0x2A00 "));
    EXPECT_EQ("", meta());
}

// The child must not keep a lock that another thread of the caller holds.
TEST_F(SnapCreateHook, ChildKeepsNoLockAlive) {
    const testkit::CallCount closed("QLIBCFileCloseLock");
    EXPECT_EQ(0, create());
    EXPECT_EQ(1U, closed.calls());
}

} // namespace
