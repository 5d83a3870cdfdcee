#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/error.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/lock_holder.hpp"
#include "support/log_capture.hpp"

namespace {

constexpr char kData[] = "/run/sharesnap/sys_lock/docs.sharesnap_sys_lock";
constexpr char kLock[] = "/run/lock/sharesnap/sys_lock/docs.sharesnap_sys_lock";
constexpr char kSnap[] = "GMT-2026.01.02-03.04.05";

class SystemLock : public testkit::SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        if (!IsSkipped()) {
            share_.szName = name_;
            share_.szPath = path_;
        }
    }

    int increment(const char *who, const char *snap = kSnap) {
        return QOVAShareSnapSysLockIncrement(&share_, snap, who);
    }
    int decrement(const char *who, const char *snap = kSnap) {
        return QOVAShareSnapSysLockDecrement(&share_, snap, who);
    }

    using Operation = std::function<int()>;

    // Each of the exported functions, with docs and the initiator backup.
    std::map<std::string, Operation> operations() {
        return {{"Increment", [this] { return increment("backup"); }},
                {"Decrement", [this] { return decrement("backup"); }},
                {"Remove", [this] { return QOVAShareSnapSysLockRemove(&share_, kSnap, "backup"); }},
                {"Get",
                 [this] {
                     uint32_t count = 0;
                     return QOVAShareSnapSysLockGet(&share_, kSnap, "backup", &count);
                 }},
                {"InitiatorList",
                 [this] {
                     QLIBCSZLIST *list = QLIBCSzListAlloc(512);
                     const int result = QOVAShareSnapSysLockInitiatorList(&share_, kSnap, &list);
                     QLIBCSzListFree(list);
                     return result;
                 }},
                {"RenameHook", [] { return ShareSnapSysLockShareRenameHook("docs", "papers"); }},
                {"DeleteHook", [] { return ShareSnapSysLockShareDeleteHook("docs"); }}};
    }

    // The operation gives -1 and leaves the code; the log then holds its own lines alone.
    static void fails(const Operation &operation, unsigned int code) {
        testkit::logClear();
        QLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(-1, operation());
        EXPECT_EQ(code, QLIBCErrGet());
    }

    // The count of an initiator, -1 for a failure.
    long claims(const char *who, const char *snap = kSnap) {
        uint32_t count = 77;
        return QOVAShareSnapSysLockGet(&share_, snap, who, &count) == 1 ? static_cast<long>(count) : -1;
    }

    std::vector<std::string> initiators(const char *snap = kSnap) {
        QLIBCSZLIST *list = QLIBCSzListAlloc(512);
        std::vector<std::string> names;
        if (QOVAShareSnapSysLockInitiatorList(&share_, snap, &list) != 1) {
            names.emplace_back("failed");
        }
        for (int i = 0; i < list->nItem; ++i) {
            names.emplace_back(QLIBCSzListGet(list, i));
        }
        QLIBCSzListFree(list);
        return names;
    }

    char name_[8] = "docs";
    char path_[16] = "/vol1/docs";
    QOVASHARE share_{};
};

using Names = std::vector<std::string>;

TEST_F(SystemLock, DecrementWithoutACountAddsNoKey) {
    EXPECT_EQ(1, decrement("backup"));
    EXPECT_EQ("", testkit::readFile(kData));
    EXPECT_EQ(Names{}, initiators());
}

TEST_F(SystemLock, LastClaimTakesKeyAndSection) {
    EXPECT_EQ(1, increment("backup"));
    EXPECT_EQ(1, increment("backup"));
    EXPECT_EQ(1, decrement("backup"));
    EXPECT_EQ(1, claims("backup"));
    EXPECT_EQ(std::string("[") + kSnap + "]\nbackup=1\n", testkit::readFile(kData));
    EXPECT_EQ(1, decrement("backup"));
    EXPECT_EQ("", testkit::readFile(kData));
}

TEST_F(SystemLock, FullCountIsNotTurnedIntoNoClaim) {
    ASSERT_EQ(1, increment("other"));
    ASSERT_TRUE(testkit::writeFile(kData, std::string("[") + kSnap + "]\nbackup=4294967295\n"));
    EXPECT_EQ(1, increment("backup"));
    EXPECT_EQ(4294967295L, claims("backup"));
}

TEST_F(SystemLock, RemoveDropsTheWholeClaim) {
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(1, increment("backup"));
    }
    EXPECT_EQ(5, claims("backup"));
    EXPECT_EQ(1, QOVAShareSnapSysLockRemove(&share_, kSnap, "backup"));
    EXPECT_EQ(0, claims("backup"));
    EXPECT_EQ("", testkit::readFile(kData));
}

TEST_F(SystemLock, OneInitiatorLeavesTheOthersAlone) {
    ASSERT_EQ(1, increment("backup"));
    ASSERT_EQ(1, increment("replication"));
    ASSERT_EQ(1, increment("replication"));
    ASSERT_EQ(1, decrement("backup"));
    EXPECT_EQ(Names{"replication"}, initiators());
    EXPECT_EQ(2, claims("replication"));
}

TEST_F(SystemLock, GetOfTheUnknownIsZeroAndLeavesAnEmptyFile) {
    EXPECT_FALSE(testkit::exists(kData));
    EXPECT_EQ(0, claims("nobody", "no-such-snapshot"));
    EXPECT_TRUE(testkit::exists(kData));
    EXPECT_EQ("", testkit::readFile(kData));
}

TEST_F(SystemLock, ListAppendsToWhatTheCallerHas) {
    ASSERT_EQ(1, increment("backup"));
    QLIBCSZLIST *list = QLIBCSzListAlloc(512);
    ASSERT_LT(0, QLIBCSzListPush(&list, "mine"));
    EXPECT_EQ(1, QOVAShareSnapSysLockInitiatorList(&share_, kSnap, &list));
    ASSERT_EQ(2, list->nItem);
    EXPECT_STREQ("mine", QLIBCSzListGet(list, 0));
    EXPECT_STREQ("backup", QLIBCSzListGet(list, 1));
    QLIBCSzListFree(list);
}

TEST_F(SystemLock, FileInTheDirectorysPlaceFailsEveryOperation) {
    ASSERT_TRUE(testkit::makeDirectories("/run/sharesnap"));
    ASSERT_TRUE(testkit::writeFile("/run/sharesnap/sys_lock", "x"));
    for (const auto &one : operations()) {
        SCOPED_TRACE(one.first);
        fails(one.second, SNAP_ERR_NOT_A_DIRECTORY);
        const bool isHook = one.first.find("Hook") != std::string::npos;
        EXPECT_EQ(isHook ? 1U : 0U,
                  testkit::logCount(LOG_ERR, "Failed to get snapshot lock file for share(docs) [0xA000 "));
    }
}

TEST_F(SystemLock, FileInTheLockDirectorysPlaceFailsEveryOperationThatLocks) {
    ASSERT_TRUE(testkit::makeDirectories("/run/lock/sharesnap"));
    ASSERT_TRUE(testkit::writeFile("/run/lock/sharesnap/sys_lock", "x"));
    for (const auto &one : operations()) {
        SCOPED_TRACE(one.first);
        if (one.first.find("Hook") == std::string::npos) {
            fails(one.second, SNAP_ERR_NOT_A_DIRECTORY);
        } else {
            EXPECT_EQ(0, one.second()); // the hooks take no lock
        }
    }
}

TEST_F(SystemLock, CountThatCannotBeReadIsReportedByItsLines) {
    const std::string about = std::string("share(docs) snap(") + kSnap + ") key(backup)[0x0900 fault:1]";
    const std::string section = std::string("Failed to get section(") + kSnap + ") key(backup) for file(" + kData;
    ASSERT_EQ(1, increment("backup"));
    for (const char *name : {"Increment", "Decrement", "Get"}) {
        SCOPED_TRACE(name);
        const testkit::Fault fault("QLIBCFileGetSectionValue");
        fails(operations().at(name), 0x0900);
        EXPECT_TRUE(testkit::logged(LOG_ERR, section + ")[0x0900 fault:1]"));
        EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get sys lock for " + about));
    }
    EXPECT_EQ(1, claims("backup"));
    const testkit::Fault fault("QLIBCFileGetSection");
    fails(operations().at("InitiatorList"), 0x0900);
    EXPECT_TRUE(testkit::logged(LOG_ERR, std::string("Failed to get section(") + kSnap + ") for file(" + kData +
                                             ")[0x0900 fault:1]"));
}

TEST_F(SystemLock, CountThatCannotBeWrittenIsReportedByItsLines) {
    const std::string set =
        std::string("Failed to set sys lock for share(docs) snap(") + kSnap + ") key(backup)[0x0B00 ";
    const std::string pair = std::string(" key-value to share(docs) snapshot(") + kSnap + ") section [0x0B00 fault:1]";
    const auto failsWith = [&](const char *name, const char *symbol, const std::string &line) {
        SCOPED_TRACE(std::string(name) + ", " + symbol);
        const testkit::Fault fault(symbol);
        fails(operations().at(name), 0x0B00);
        EXPECT_TRUE(testkit::logged(LOG_ERR, set));
        EXPECT_EQ(line.empty() ? 0U : 1U, testkit::logCount(LOG_ERR, pair));
        EXPECT_TRUE(testkit::logged(LOG_ERR, line));
    };
    failsWith("Increment", "QLIBCFileAddSection", "Failed to add" + pair);
    EXPECT_EQ(0, claims("backup"));
    ASSERT_EQ(1, increment("backup"));
    for (const char *name : {"Decrement", "Remove"}) {
        failsWith(name, "QLIBCFileRemoveSection", "");
        EXPECT_EQ(1, claims("backup"));
    }
    ASSERT_EQ(1, increment("other"));
    for (const char *name : {"Increment", "Decrement", "Remove"}) {
        failsWith(name, "QLIBCFileSetSection", "Failed to set" + pair);
        EXPECT_EQ(1, claims("backup"));
    }
}

TEST_F(SystemLock, RenameCarriesTheClaims) {
    ASSERT_EQ(1, increment("backup"));
    ASSERT_TRUE(testkit::exists(kLock));
    EXPECT_EQ(0, ShareSnapSysLockShareRenameHook("docs", "papers"));
    EXPECT_FALSE(testkit::exists(kLock));
    EXPECT_FALSE(testkit::exists(kData));
    char papers[] = "papers";
    share_.szName = papers;
    EXPECT_EQ(1, claims("backup"));
}

TEST_F(SystemLock, RenameWithoutClaimsMakesNothing) {
    EXPECT_EQ(0, ShareSnapSysLockShareRenameHook("docs", "papers"));
    EXPECT_EQ(Names{}, testkit::directoryNames("/run/sharesnap/sys_lock"));
    EXPECT_TRUE(testkit::nothingFailed());
}

TEST_F(SystemLock, DeleteHookWipesBothFiles) {
    ASSERT_EQ(1, increment("backup"));
    EXPECT_EQ(0, ShareSnapSysLockShareDeleteHook("docs"));
    EXPECT_FALSE(testkit::exists(kLock));
    EXPECT_FALSE(testkit::exists(kData));
}

TEST_F(SystemLock, HooksReportWhatCannotGo) {
    ASSERT_EQ(1, increment("backup"));
    {
        testkit::Fault fault("rename", 1, EACCES);
        EXPECT_EQ(0, ShareSnapSysLockShareRenameHook("docs", "papers"));
        EXPECT_TRUE(testkit::logged(LOG_ERR, std::string("Failed to rename:(") + kData +
                                                 ") to (/run/sharesnap/sys_lock/papers.sharesnap_sys_lock), "
                                                 "err:(Permission denied)"));
    }
    testkit::Fault fault("unlink", 1, EACCES);
    EXPECT_EQ(0, ShareSnapSysLockShareDeleteHook("docs"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to unlink:("));
}

TEST_F(SystemLock, VanishesWithTheRunTimeFiles) {
    ASSERT_EQ(1, increment("backup"));
    testkit::Sandbox::reset(); // what a reboot does to /run
    EXPECT_EQ(0, claims("backup"));
    EXPECT_EQ(Names{}, initiators());
}

TEST_F(SystemLock, RefusesNullArgumentsWithoutALine) {
    uint32_t count = 0;
    EXPECT_EQ(-1, QOVAShareSnapSysLockIncrement(nullptr, kSnap, "a"));
    EXPECT_EQ(-1, QOVAShareSnapSysLockDecrement(&share_, nullptr, "a"));
    EXPECT_EQ(-1, QOVAShareSnapSysLockRemove(&share_, kSnap, nullptr));
    EXPECT_EQ(-1, QOVAShareSnapSysLockGet(&share_, kSnap, "a", nullptr));
    EXPECT_EQ(-1, QOVAShareSnapSysLockGet(&share_, kSnap, nullptr, &count));
    EXPECT_EQ(-1, QOVAShareSnapSysLockInitiatorList(&share_, kSnap, nullptr));
    const QOVASHARE nameless{};
    QLIBCSZLIST *list = QLIBCSzListAlloc(512);
    EXPECT_EQ(-1, QOVAShareSnapSysLockIncrement(&nameless, kSnap, "a"));
    EXPECT_EQ(-1, QOVAShareSnapSysLockGet(&nameless, kSnap, "a", &count));
    EXPECT_EQ(-1, QOVAShareSnapSysLockInitiatorList(&nameless, kSnap, &list));
    QLIBCSzListFree(list);
    EXPECT_EQ(-1, ShareSnapSysLockShareRenameHook(nullptr, "b"));
    EXPECT_EQ(-1, ShareSnapSysLockShareRenameHook("a", nullptr));
    EXPECT_EQ(-1, ShareSnapSysLockShareDeleteHook(nullptr));
    EXPECT_EQ(unsigned{SNAP_ERR_BAD_PARAMETER}, QLIBCErrGet());
    EXPECT_EQ("", testkit::logText());
}

// Each operation that reads a count tells that it can't, and changes nothing.
TEST_F(SystemLock, UnreadableCountFailsWithBothLines) {
    ASSERT_EQ(1, increment("backup"));
    const std::string before = testkit::readFile(kData);
    uint32_t count = 0;
    const std::map<std::string, std::function<int()>> operations = {
        {"increment", [&] { return increment("backup"); }},
        {"decrement", [&] { return decrement("backup"); }},
        {"get", [&] { return QOVAShareSnapSysLockGet(&share_, kSnap, "backup", &count); }}};
    for (const auto &operation : operations) {
        SCOPED_TRACE(operation.first);
        testkit::logClear();
        {
            const testkit::Fault reading("QLIBCFileGetSectionValue", 1, EIO, -1, 0x0A00);
            EXPECT_EQ(-1, operation.second());
            EXPECT_TRUE(reading.met());
        }
        EXPECT_EQ(0x0A00U, QLIBCErrGet());
        EXPECT_TRUE(testkit::logged(LOG_ERR, std::string("Failed to get section(") + kSnap + ") key(backup) for file(" +
                                                 kData + ")[0x0A00 "));
        EXPECT_TRUE(testkit::logged(LOG_ERR, std::string("Failed to get sys lock for share(docs) snap(") + kSnap +
                                                 ") key(backup)[0x0A00 "));
        EXPECT_EQ(before, testkit::readFile(kData));
    }
}

TEST_F(SystemLock, ClaimThatCannotBeWrittenFailsWithItsLine) {
    ASSERT_EQ(1, increment("backup"));
    const std::string before = testkit::readFile(kData);
    const std::map<std::string, std::function<int()>> operations = {
        {"increment", [&] { return increment("backup"); }},
        {"decrement", [&] { return decrement("backup"); }},
        {"remove", [&] { return QOVAShareSnapSysLockRemove(&share_, kSnap, "backup"); }}};
    for (const auto &operation : operations) {
        SCOPED_TRACE(operation.first);
        testkit::logClear();
        {
            const testkit::Fault reading("QLIBCFileGetSection", 1, EIO, -1, 0x0A00);
            EXPECT_EQ(-1, operation.second());
            EXPECT_TRUE(reading.met());
        }
        EXPECT_TRUE(testkit::logged(LOG_ERR, std::string("Failed to set sys lock for share(docs) snap(") + kSnap +
                                                 ") key(backup)[0x0A00 "));
        EXPECT_EQ(before, testkit::readFile(kData));
    }
}

// A first claim adds a section, a further one replaces it.
TEST_F(SystemLock, SectionThatCannotBeAddedOrReplacedIsTold) {
    {
        const testkit::Fault adding("QLIBCFileAddSection", 1, EIO, -1, 0x0B00);
        EXPECT_EQ(-1, increment("backup"));
        EXPECT_TRUE(adding.met());
    }
    EXPECT_TRUE(testkit::logged(LOG_ERR, std::string("Failed to add key-value to share(docs) snapshot(") + kSnap +
                                             ") section [0x0B00 "));
    EXPECT_TRUE(testkit::logged(LOG_ERR, std::string("Failed to set sys lock for share(docs) snap(") + kSnap +
                                             ") key(backup)[0x0B00 "));
    EXPECT_EQ(0, claims("backup"));
    ASSERT_EQ(1, increment("backup"));
    testkit::logClear();
    {
        const testkit::Fault replacing("QLIBCFileSetSection", 1, EIO, -1, 0x0B00);
        EXPECT_EQ(-1, increment("backup"));
        EXPECT_TRUE(replacing.met());
    }
    EXPECT_TRUE(testkit::logged(LOG_ERR, std::string("Failed to set key-value to share(docs) snapshot(") + kSnap +
                                             ") section [0x0B00 "));
    EXPECT_EQ(1, claims("backup"));
}

TEST_F(SystemLock, HoldersThatCannotBeReadAreToldAndNothingIsAdded) {
    ASSERT_EQ(1, increment("backup"));
    QLIBCSZLIST *list = QLIBCSzListAlloc(512);
    {
        const testkit::Fault reading("QLIBCFileGetSection", 1, EIO, -1, 0x0A00);
        EXPECT_EQ(-1, QOVAShareSnapSysLockInitiatorList(&share_, kSnap, &list));
    }
    EXPECT_TRUE(
        testkit::logged(LOG_ERR, std::string("Failed to get section(") + kSnap + ") for file(" + kData + ")[0x0A00 "));
    EXPECT_EQ(0, list->nItem);
    {
        const testkit::Fault keys("QLIBCSzHashEnumKey");
        EXPECT_EQ(-1, QOVAShareSnapSysLockInitiatorList(&share_, kSnap, &list));
    }
    // The lock is free again.
    EXPECT_EQ(Names{"backup"}, initiators());
    QLIBCSzListFree(list);
}

TEST_F(SystemLock, FailedUnlockIsAWarningAlone) {
    testkit::Fault fault("QLIBCFileUnlockByFile", 1, EIO);
    EXPECT_EQ(1, increment("backup"));
    EXPECT_TRUE(testkit::logged(LOG_WARNING, "Failed to unlock share docs[0x"));
    EXPECT_EQ(1, claims("backup"));
}

TEST_F(SystemLock, WaitsForAnotherHolderAndGivesUp) {
    ASSERT_EQ(1, increment("backup"));
    testkit::LockHolder holder(kLock, 1);
    EXPECT_EQ(-1, increment("backup"));
    EXPECT_EQ(unsigned{SNAP_ERR_BUSY}, QLIBCErrGet());
}

TEST_F(SystemLock, ManyProcessesLoseNoClaim) {
    constexpr int kProcesses = 8;
    constexpr int kRounds = 40;
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i) {
        const pid_t child = fork();
        ASSERT_LE(0, child);
        if (child == 0) {
            int failed = 0;
            for (int round = 0; round < kRounds; ++round) {
                failed += increment("shared") != 1;
                failed += increment("shared") != 1;
                failed += decrement("shared") != 1;
            }
            _exit(failed == 0 ? 0 : 1);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = -1;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_EQ(0, status);
    }
    EXPECT_EQ(long{kProcesses} * kRounds, claims("shared"));
}

} // namespace
