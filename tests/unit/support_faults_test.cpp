// Calls fail, are replaced and are counted as a test asks, and only those of the library.
#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"

#include <sharesnap/config.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/platform/section_file.h>
#include <sharesnap/platform/share.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

using testkit::CallCount;
using testkit::Fault;
using testkit::FaultPoint;
using testkit::OwnCalls;
using testkit::Replacement;
using testkit::Sweep;

namespace {

using Faults = testkit::SandboxTest;

// An exported function with a lock, a directory and a file to make, and a section to write.
int setSetting(const char *value) {
    return QOVAShareSnapConfSet("docs", "key", value);
}

std::string setting() {
    char value[64] = "";
    return QOVAShareSnapConfGet("docs", "key", value, sizeof(value)) < 0 ? "" : value;
}

TEST_F(Faults, TheNthCallFailsWithTheGivenErrno) {
    const Fault fault("mkdir", 1, EACCES);
    EXPECT_EQ(-1, setSetting("1"));
    EXPECT_TRUE(fault.met());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "errno=13/Permission denied"));
    // Only that call: the next one goes well.
    EXPECT_EQ(0, setSetting("2"));
    EXPECT_EQ("2", setting());
}

TEST_F(Faults, AFunctionOfThePlatformLeavesItsCode) {
    const Fault fault("QLIBCFileLockTimeByFile");
    EXPECT_EQ(-1, setSetting("1"));
    EXPECT_TRUE(fault.met());
    EXPECT_EQ(unsigned(SNAP_ERR_BUSY), QLIBCErrGet());
    EXPECT_STREQ("fault", QLIBCErrorGetFile());
}

TEST_F(Faults, ResultAndCodeCanBeGiven) {
    OwnCalls own;
    const Fault fault("QOVAShareGet", 0, EBUSY, -7, SNAP_ERR_UNSUPPORTED);
    QOVASHARE *share = nullptr;
    EXPECT_EQ(-7, QOVAShareGet("docs", &share));
    EXPECT_EQ(EBUSY, errno);
    EXPECT_EQ(unsigned(SNAP_ERR_UNSUPPORTED), QLIBCErrGet());
    EXPECT_EQ(nullptr, share);
    EXPECT_EQ(-7, QOVAShareGet("docs", &share)) << "every call with 0";
    EXPECT_EQ(2U, fault.calls());
}

TEST_F(Faults, CallsOfTestAndPlatformPass) {
    const Fault mkdirs("mkdir", 0);
    const Fault renames("rename", 0);
    const Fault renamesAt("renameat", 0);
    const Fault opens("open64", 0);
    ASSERT_EQ(0, mkdir("/run/own", 0755));
    ASSERT_TRUE(testkit::writeFile("/run/own/file", "[docs]\nkey=old\n"));
    EXPECT_EQ(0, QLIBCFileSetSectionValue("/run/own/file", "docs", "key", "new"));
    EXPECT_EQ("[docs]\nkey=new\n", testkit::readFile("/run/own/file"));
    EXPECT_FALSE(mkdirs.met());
    EXPECT_FALSE(renames.met());
    EXPECT_FALSE(renamesAt.met());
    EXPECT_FALSE(opens.met());
}

TEST_F(Faults, CountsWithoutFailing) {
    const CallCount locks("QLIBCFileLockTimeByFile");
    const CallCount unlocks("QLIBCFileUnlockByFile");
    EXPECT_EQ(0, setSetting("1"));
    EXPECT_EQ("1", setting());
    EXPECT_EQ(2U, locks.calls());
    EXPECT_EQ(2U, unlocks.calls());
}

TEST_F(Faults, WhatReleasesDoesItsWorkAndReportsFailure) {
    const testkit::Leftovers before;
    const Fault fault("QLIBCFileUnlockByFile");
    (void)setSetting("1");
    EXPECT_TRUE(fault.met());
    EXPECT_EQ("", before.compare());
}

TEST_F(Faults, AFailedReadShowsOnItsStream) {
    ASSERT_TRUE(testkit::writeFile("/run/file", "line\n"));
    std::unique_ptr<FILE, int (*)(FILE *)> stream(fopen("/run/file", "re"), fclose);
    ASSERT_NE(nullptr, stream);
    const OwnCalls own;
    const Fault fault("getline", 1, EIO);
    char *line = nullptr;
    size_t size = 0;
    const ssize_t length = getline(&line, &size, stream.get());
    free(line);
    EXPECT_EQ(-1, length);
    EXPECT_NE(0, ferror(stream.get()));
    EXPECT_EQ(0, feof(stream.get()));
}

TEST_F(Faults, BypassLetsTheOwnCallsPass) {
    const OwnCalls own;
    const Fault fault("mkdir", 1);
    {
        const testkit::Bypass bypass;
        EXPECT_EQ(0, mkdir("/run/one", 0755));
    }
    EXPECT_FALSE(fault.met());
    EXPECT_EQ(-1, mkdir("/run/two", 0755));
    EXPECT_FALSE(testkit::exists("/run/two"));
}

// Not where a sanitizer or a memory checker has put its own allocator in the place of all others.
bool allocatorCanFail() {
    const std::vector<std::string> symbols = testkit::faultSymbols();
    if (std::find(symbols.begin(), symbols.end(), "malloc") == symbols.end()) {
        return false;
    }
    const OwnCalls own;
    const CallCount calls("malloc");
    delete new std::string(1000, 'x');
    return calls.calls() > 0;
}

TEST_F(Faults, MemoryOfTheRunTimeCountsForItsCaller) {
    if (!allocatorCanFail()) {
        GTEST_SKIP() << "the allocator is a sanitizer's or a memory checker's";
    }
    const OwnCalls own;
    const Fault fault("malloc", 1);
    EXPECT_THROW(std::vector<std::string>(1000), std::bad_alloc);
    EXPECT_TRUE(fault.met());
}

TEST_F(Faults, StreamsOfTheRunTimeCountForTheirCaller) {
    const OwnCalls own;
    const Fault fault("write", 0, ENOSPC);
    const Fault vectorFault("writev", 0, ENOSPC);
    std::ofstream out("/run/file");
    out << "text" << std::flush;
    EXPECT_FALSE(out);
    EXPECT_TRUE(fault.met() || vectorFault.met());
}

TEST_F(Faults, AVariadicCallHandsItsArgumentsOn) {
    const OwnCalls own;
    const CallCount calls("open64");
    const CallCount otherCalls("open");
    const int fd = open("/run/file", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(1U, calls.calls() + otherCalls.calls());
    struct stat st = {};
    ASSERT_EQ(0, fstat(fd, &st));
    EXPECT_EQ(mode_t{0640}, st.st_mode & 07777);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
    EXPECT_EQ(0, fcntl(fd, F_SETFD, 0));
    EXPECT_EQ(0, fcntl(fd, F_GETFD));
    EXPECT_GT(dprintf(fd, "%s %d", "text", 7), 0);
    close(fd);
    EXPECT_EQ("text 7", testkit::readFile("/run/file"));
}

TEST_F(Faults, SweepFailsEachCallOnce) {
    Sweep sweep;
    std::set<std::string> symbols;
    std::vector<size_t> numbers;
    int result = 0;
    sweep.prepare = [] { testkit::Sandbox::reset(); };
    sweep.operation = [&result] { result = setSetting("1"); };
    sweep.check = [&](const FaultPoint &point) {
        symbols.insert(point.symbol);
        numbers.push_back(point.number);
        EXPECT_FALSE(point.inChild);
        EXPECT_NE(std::string::npos, point.caller.find("libqovasharesnapshot.so")) << point;
        if (result == 0) {
            EXPECT_EQ("1", setting()) << "a failure that was tolerated";
        }
    };
    const size_t points = sweep.run();
    EXPECT_GE(points, 5U);
    ASSERT_EQ(points, numbers.size());
    for (size_t i = 0; i < points; ++i) {
        EXPECT_EQ(i + 1, numbers[i]);
    }
    for (const char *symbol : {"QLIBCFileLockTimeByFile", "QLIBCFileUnlockByFile", "mkdir"}) {
        EXPECT_EQ(1U, symbols.count(symbol)) << symbol;
    }
    EXPECT_EQ(0, result) << "the last run meets no fault";
    EXPECT_EQ("1", setting());
}

TEST_F(Faults, SweepCanBeNarrowed) {
    Sweep sweep;
    sweep.prepare = [] { testkit::Sandbox::reset(); };
    sweep.operation = [] { (void)setSetting("1"); };
    size_t met = 0;
    sweep.only = {"mkdir", "QLIBCFileLockTimeByFile"};
    sweep.except = {"QLIBCFileLockTimeByFile"};
    sweep.error = EROFS;
    sweep.check = [&met](const FaultPoint &point) {
        ++met;
        EXPECT_EQ("mkdir", point.symbol);
        EXPECT_EQ(point.number, point.index);
        EXPECT_TRUE(testkit::logged(LOG_ERR, "Read-only file system"));
        testkit::logClear();
    };
    EXPECT_EQ(2U, sweep.run()) << "the lock directory and the settings directory";
    EXPECT_EQ(2U, met);
}

int setInChild(void *) {
    return setSetting("1");
}

TEST_F(Faults, SweepReachesForkedChildren) {
    Sweep sweep;
    bool inChild = false;
    bool inParent = false;
    sweep.only = {"fork", "mkdir"};
    sweep.prepare = [] { testkit::Sandbox::reset(); };
    sweep.operation = [] {
        const TimeLimitTask task = {setInChild, nullptr};
        int status = 0;
        (void)ShareSnapTimeLimitFork(60, &task, &status);
    };
    sweep.check = [&](const FaultPoint &point) { (point.inChild ? inChild : inParent) = true; };
    EXPECT_EQ(3U, sweep.run()) << "the fork, and two directories in the child";
    EXPECT_TRUE(inChild);
    EXPECT_TRUE(inParent);
}

TEST_F(Faults, AReplacementStandsInForTheLibrary) {
    int calls = 0;
    {
        const Replacement<int(const char *, int, int, int *)> busy("QLIBCFileLockTimeByFile",
                                                                   [&calls](const char *, int, int, int *) {
                                                                       ++calls;
                                                                       return 0;
                                                                   });
        EXPECT_EQ(-1, setSetting("1"));
        EXPECT_EQ(1, calls);
    }
    EXPECT_EQ(0, setSetting("2"));
    EXPECT_EQ(1, calls);
}

TEST_F(Faults, AReplacementCanCallTheRealOne) {
    std::string locked;
    const Replacement<int(const char *, int, int, int *)> watch(
        "QLIBCFileLockTimeByFile", [&locked](const char *path, int mode, int seconds, int *fd) {
            locked = path;
            return testkit::real<int(const char *, int, int, int *)>("QLIBCFileLockTimeByFile")(path, mode, seconds,
                                                                                                fd);
        });
    EXPECT_EQ(0, setSetting("1"));
    EXPECT_EQ("/run/lock/sharesnap/sharesnap_conf.lock", locked);
    EXPECT_EQ("1", setting());
}

TEST(FaultsDeathTest, MistakesInATestEndIt) {
    EXPECT_DEATH(Fault("nosuchfunction"), "no such function in the tables: nosuchfunction");
    EXPECT_DEATH((Replacement<int(int)>("mkdir", [](int) { return 0; })), "a replacement of another signature: mkdir");
}

TEST(FaultTables, EveryNameInTheTablesIsAFunction) {
    const std::vector<std::string> symbols = testkit::faultSymbols();
    EXPECT_GT(symbols.size(), 150U);
    EXPECT_EQ(symbols.size(), std::set<std::string>(symbols.begin(), symbols.end()).size());
    for (const std::string &symbol : symbols) {
        EXPECT_NE(nullptr, testkit::detail::realFunction(symbol)) << symbol;
    }
}

TEST(FaultValues, TheClockStandsStill) {
    const OwnCalls own;
    testkit::FixedTime noon(1700000000);
    time_t stored = 0;
    EXPECT_EQ(1700000000, time(&stored));
    EXPECT_EQ(1700000000, stored);
    timeval day = {};
    EXPECT_EQ(0, gettimeofday(&day, nullptr));
    EXPECT_EQ(1700000000, day.tv_sec);
    timespec clock = {};
    EXPECT_EQ(0, clock_gettime(CLOCK_REALTIME, &clock));
    EXPECT_EQ(1700000000, clock.tv_sec);
    EXPECT_EQ(0, clock_gettime(CLOCK_MONOTONIC, &clock));
    EXPECT_NE(1700000000, clock.tv_sec);
    noon.set(5);
    EXPECT_EQ(5, time(nullptr));
}

TEST(FaultValues, TheClockGoesOnForOthers) {
    const testkit::FixedTime past(5);
    EXPECT_GT(time(nullptr), 1000000000);
}

TEST(FaultValues, WaitingIsKeptAndNotDone) {
    const OwnCalls own;
    const testkit::NoSleep naps;
    EXPECT_EQ(0U, sleep(3600));
    EXPECT_EQ(0, usleep(7000000));
    const timespec wait = {1800, 0};
    EXPECT_EQ(0, nanosleep(&wait, nullptr));
    EXPECT_EQ((std::vector<unsigned int>{3600, 7, 1800}), naps.seconds());
}

TEST(FaultValues, FreeSpaceIsWhatTheTestSays) {
    const OwnCalls own;
    const testkit::FreeSpace space(uint64_t(99) << 20);
    struct statfs fs = {};
    ASSERT_EQ(0, statfs("/", &fs));
    EXPECT_EQ(uint64_t(99) << 20, uint64_t(fs.f_bavail) * uint64_t(fs.f_bsize));
    struct statvfs vfs = {};
    ASSERT_EQ(0, statvfs("/", &vfs));
    EXPECT_EQ(uint64_t(99) << 20, uint64_t(vfs.f_bavail) * uint64_t(vfs.f_frsize));
    EXPECT_EQ(-1, statfs("/no/such/place", &fs));
}

using LeftoversTest = testkit::SandboxTest;

TEST_F(LeftoversTest, NothingIsLeftOver) {
    const testkit::Leftovers before({"/run"});
    EXPECT_EQ("", before.compare());
}

TEST_F(LeftoversTest, TellsDescriptors) {
    const testkit::Leftovers before;
    const int fd = open("/etc/passwd", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ("left over: descriptor " + std::to_string(fd) + ": /etc/passwd\n", before.compare());
    close(fd);
    EXPECT_EQ("", before.compare());
}

TEST_F(LeftoversTest, TellsChildrenAlsoDeadOnes) {
    const testkit::Leftovers before;
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    siginfo_t info = {};
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT));
    const std::string text = before.compare();
    EXPECT_NE(std::string::npos, text.find("left over: child " + std::to_string(pid) + ": ")) << text;
    EXPECT_EQ(" Z\n", text.substr(text.size() - 3));
    ASSERT_EQ(pid, waitpid(pid, nullptr, 0));
    EXPECT_EQ("", before.compare());
}

TEST_F(LeftoversTest, TellsFilesInTheNamedDirectoriesAndBelow) {
    ASSERT_TRUE(testkit::makeDirectories("/run/a/b"));
    ASSERT_TRUE(testkit::writeFile("/run/a/before", ""));
    const testkit::Leftovers before({"/run/a"});
    ASSERT_TRUE(testkit::writeFile("/run/a/b/after", ""));
    ASSERT_TRUE(testkit::writeFile("/run/elsewhere", ""));
    EXPECT_EQ("left over: file /run/a/b/after\n", before.compare());
}

TEST_F(LeftoversTest, TellsLocksThatAreHeld) {
    int held = -1;
    const std::string path = "/run/lock/sharesnap/some/thing.lock";
    ASSERT_TRUE(testkit::makeDirectories("/run/lock/sharesnap/some"));
    const testkit::Leftovers before;
    ASSERT_NE(0, QLIBCFileLockTimeByFile(path.c_str(), 1, 1, &held));
    const std::string text = before.compare();
    EXPECT_NE(std::string::npos, text.find("left over: lock " + path + "\n")) << text;
    ASSERT_NE(0, QLIBCFileUnlockByFile(held));
    EXPECT_EQ("", before.compare());
}

} // namespace
