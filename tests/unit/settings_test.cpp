#include <sharesnap/config.h>
#include <sharesnap/frame.h>
#include <sys/stat.h>

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

constexpr char kDirectory[] = "/usr/qova/etc/sharesnap";
constexpr char kFile[] = "/usr/qova/etc/sharesnap/sharesnap.conf";
constexpr char kLock[] = "/run/lock/sharesnap/sharesnap_conf.lock";

using Pairs = std::map<std::string, std::string>;

class Settings : public testkit::SandboxTest {
protected:
    // A hash of these pairs that the fixture frees.
    QLIBCSZHASH *hash(const Pairs &pairs) {
        QLIBCSZHASH *pHash = QLIBCSzHashAlloc(1024);
        for (const auto &pair : pairs) {
            EXPECT_EQ(0, QLIBCSzHashSetValue(&pHash, pair.first.c_str(), pair.second.c_str()));
        }
        hashes_.push_back(pHash);
        return pHash;
    }

    void TearDown() override {
        for (QLIBCSZHASH *pHash : hashes_) {
            QLIBCSzHashFree(pHash);
        }
        SandboxTest::TearDown();
    }

    static int get(const char *share, const char *key) {
        char value[64] = "untouched";
        return QOVAShareSnapConfGet(share, key, value, sizeof(value));
    }

    static std::string value(const char *share, const char *key) {
        char text[64] = "";
        EXPECT_EQ(1, QOVAShareSnapConfGet(share, key, text, sizeof(text)));
        return text;
    }

    static void write(const std::string &text) {
        ASSERT_TRUE(testkit::makeDirectories(kDirectory));
        ASSERT_TRUE(testkit::writeFile(kFile, text));
    }

    std::vector<QLIBCSZHASH *> hashes_;
};

TEST_F(Settings, AbsentFileSectionAndKeyAreNoFailure) {
    EXPECT_EQ(0, get("docs", "a"));
    EXPECT_FALSE(testkit::exists(kFile));
    write("[other]\nb=1\n");
    EXPECT_EQ(0, get("docs", "b"));
    EXPECT_EQ(0, get("other", "a"));
    EXPECT_EQ(1, get("other", "b"));
}

TEST_F(Settings, RemovalWithoutASectionMakesTheFileAndNothingElse) {
    EXPECT_EQ(0, QOVAShareSnapConfSet("docs", "a", nullptr));
    EXPECT_EQ("", testkit::readFile(kFile));
    ASSERT_TRUE(testkit::exists(kFile));
    write("[other]\nb=1\n");
    EXPECT_EQ(0, QOVAShareSnapConfSet("docs", "a", nullptr));
    EXPECT_EQ("[other]\nb=1\n", testkit::readFile(kFile));
}

TEST_F(Settings, RemovalOfTheLastKeyLeavesAnEmptySection) {
    ASSERT_EQ(0, QOVAShareSnapConfSet("docs", "a", "1"));
    EXPECT_EQ(0, QOVAShareSnapConfSet("docs", "a", nullptr));
    EXPECT_EQ("[docs]\n", testkit::readFile(kFile));
    EXPECT_EQ(0, QOVAShareSnapConfList("docs", &(hashes_.emplace_back(QLIBCSzHashAlloc(64)))));
    EXPECT_EQ(0, QOVAShareSnapConfSet("docs", "b", "2")); // a section without pairs takes new ones
    EXPECT_EQ("[docs]\nb=2\n", testkit::readFile(kFile));
}

TEST_F(Settings, SetAddsAndReplaces) {
    EXPECT_EQ(0, QOVAShareSnapConfSet("docs", "local_time_format", "true"));
    EXPECT_EQ(0, QOVAShareSnapConfSet("docs", "keep", "7"));
    EXPECT_EQ(0, QOVAShareSnapConfSet("docs", "keep", "8"));
    EXPECT_EQ(0, QOVAShareSnapConfSet("docs", "absent", nullptr));
    EXPECT_EQ("[docs]\nlocal_time_format=true\nkeep=8\n", testkit::readFile(kFile));
    struct stat st {};
    ASSERT_EQ(0, stat(kFile, &st));
    EXPECT_EQ(0644u, st.st_mode & 07777);
}

TEST_F(Settings, ListGivesAllPairs) {
    write("[docs]\na=1\nb=2\n");
    QLIBCSZHASH *pHash = QLIBCSzHashAlloc(64);
    EXPECT_EQ(1, QOVAShareSnapConfList("docs", &pHash));
    EXPECT_EQ(2, pHash->nPair);
    EXPECT_STREQ("2", QLIBCSzHashGetValue(pHash, "b"));
    QLIBCSzHashFree(pHash);
}

TEST_F(Settings, UpdateMovesASection) {
    write("[docs]\na=1\n");
    EXPECT_EQ(0, QOVAShareSnapConfUpdate("docs", "papers", nullptr));
    EXPECT_EQ("[papers]\na=1\n", testkit::readFile(kFile));
}

TEST_F(Settings, UpdateOfAShareWithoutASectionMakesNoNewOne) {
    write("[other]\na=1\n");
    EXPECT_EQ(0, QOVAShareSnapConfUpdate("docs", "papers", nullptr));
    EXPECT_EQ("[other]\na=1\n", testkit::readFile(kFile));
}

TEST_F(Settings, UpdateWithPairsOfAnAbsentSectionAddsItUnderTheOldName) {
    EXPECT_EQ(0, QOVAShareSnapConfUpdate("docs", "papers", hash({{"a", "1"}})));
    EXPECT_EQ("[docs]\na=1\n", testkit::readFile(kFile));
}

TEST_F(Settings, UpdateMergesAndRenamesInOneWrite) {
    write("[docs]\na=1\nkeep=x\n");
    EXPECT_EQ(0, QOVAShareSnapConfUpdate("docs", "papers", hash({{"a", "2"}, {"b", "3"}})));
    EXPECT_EQ("[papers]\na=2\nkeep=x\nb=3\n", testkit::readFile(kFile));
}

TEST_F(Settings, UpdateFillsAnEmptySection) {
    write("[docs]\n[other]\nz=1\n");
    EXPECT_EQ(0, QOVAShareSnapConfUpdate("docs", "papers", hash({{"a", "2"}})));
    EXPECT_EQ("2", value("papers", "a"));
    EXPECT_EQ(0, get("docs", "a"));
}

TEST_F(Settings, UpdateRefusesATakenName) {
    write("[docs]\na=1\n[papers]\nb=1\n");
    EXPECT_EQ(-1, QOVAShareSnapConfUpdate("docs", "papers", nullptr));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to update sharesnap config section(docs) [0x0800 "));
    EXPECT_EQ("[docs]\na=1\n[papers]\nb=1\n", testkit::readFile(kFile));
}

TEST_F(Settings, UpdateWithNothingToDoIsRefused) {
    EXPECT_EQ(-1, QOVAShareSnapConfUpdate("docs", nullptr, nullptr));
    EXPECT_EQ(unsigned{SNAP_ERR_BAD_PARAMETER}, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument ((NULL != szNewShareName || NULL != pUpdateHash))=[0]\n"));
}

TEST_F(Settings, DeleteShareRemovesItsSection) {
    EXPECT_EQ(0, QOVAShareSnapConfDeleteShare("docs"));
    write("[docs]\na=1\n[other]\nb=1\n");
    EXPECT_EQ(0, QOVAShareSnapConfDeleteShare("docs"));
    EXPECT_EQ("[other]\nb=1\n", testkit::readFile(kFile));
    EXPECT_EQ(0, QOVAShareSnapConfDeleteShare("docs"));
}

TEST_F(Settings, EnumSectionPushesAllNames) {
    QLIBCSZLIST *list = QLIBCSzListAlloc(512);
    EXPECT_EQ(0, QOVAShareSnapConfEnumSection(&list));
    EXPECT_EQ(0, list->nItem);
    write("[docs]\na=1\n[empty]\n[other]\nb=1\n");
    EXPECT_EQ(0, QOVAShareSnapConfEnumSection(&list));
    ASSERT_EQ(3, list->nItem);
    EXPECT_STREQ("empty", QLIBCSzListGet(list, 1));
    QLIBCSzListFree(list);
}

TEST_F(Settings, TheFirstShareOfATaskWins) {
    write("[none]\na=1\n[first]\nschedule_task_id=42\n[second]\nschedule_task_id=42\n");
    char name[64] = "untouched";
    EXPECT_EQ(0, QOVAShareSnapGetShareNameByTaskId("43", name, sizeof(name)));
    EXPECT_STREQ("untouched", name);
    EXPECT_EQ(1, QOVAShareSnapGetShareNameByTaskId("42", name, sizeof(name)));
    EXPECT_STREQ("first", name);
}

TEST_F(Settings, SmallBufferCutsTheShareName) {
    write("[documents]\nschedule_task_id=42\n");
    char name[5] = "";
    EXPECT_EQ(1, QOVAShareSnapGetShareNameByTaskId("42", name, sizeof(name)));
    EXPECT_STREQ("docu", name);
}

TEST_F(Settings, DirectoryInTheFilesPlaceFailsAllButRemovalAndEnumeration) {
    ASSERT_TRUE(testkit::makeDirectories(kFile));
    QLIBCSZLIST *list = QLIBCSzListAlloc(512);
    EXPECT_EQ(-1, get("docs", "a"));
    EXPECT_EQ(-1, QOVAShareSnapConfSet("docs", "a", "1"));
    EXPECT_EQ(-1, QOVAShareSnapConfUpdate("docs", "papers", nullptr));
    EXPECT_EQ(0, QOVAShareSnapConfDeleteShare("docs"));
    EXPECT_EQ(0, QOVAShareSnapConfEnumSection(&list));
    QLIBCSzListFree(list);
}

TEST_F(Settings, FileInTheDirectorysPlaceFails) {
    ASSERT_TRUE(testkit::makeDirectories("/usr/qova/etc"));
    ASSERT_TRUE(testkit::writeFile(kDirectory, "x"));
    EXPECT_EQ(-1, get("docs", "a"));
    EXPECT_EQ(-1, QOVAShareSnapConfSet("docs", "a", "1"));
}

TEST_F(Settings, FailedCreationIsReported) {
    testkit::Fault fault("mkdir", 1, EACCES);
    EXPECT_EQ(-1, QOVAShareSnapConfSet("docs", "a", "1"));
    EXPECT_EQ(unsigned{SNAP_ERR_CREATE_FAILED}, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to mkdir [/usr/qova/etc/sharesnap], errno=13/Permission denied\n"));
}

TEST_F(Settings, FullVolumeIsTold) {
    write("[docs]\na=1\n");
    testkit::Fault fault("QLIBCFileSetSection", 1, ENOSPC);
    EXPECT_EQ(-1, QOVAShareSnapConfSet("docs", "a", "2"));
    EXPECT_EQ(unsigned{SNAP_ERR_NO_SPACE}, QLIBCErrGet());
    EXPECT_EQ("[docs]\na=1\n", testkit::readFile(kFile));
}

TEST_F(Settings, FailedUnlockIsLoggedAlone) {
    testkit::Fault fault("QLIBCFileUnlockByFile", 1, EIO);
    EXPECT_EQ(0, QOVAShareSnapConfSet("docs", "a", "1"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, std::string("Failed to unlock ") + kLock));
}

TEST_F(Settings, ReadersShareTheLockAndWritersWait) {
    write("[docs]\na=1\n");
    testkit::LockHolder holder(kLock, testkit::LockHolder::shared);
    ASSERT_TRUE(holder.holds());
    EXPECT_EQ(1, get("docs", "a"));
    EXPECT_EQ(-1, QOVAShareSnapConfSet("docs", "a", "2"));
    EXPECT_EQ(unsigned{SNAP_ERR_BUSY}, QLIBCErrGet());
}

TEST_F(Settings, RefusesNullArguments) {
    char text[8];
    EXPECT_EQ(-1, QOVAShareSnapConfGet("a", "b", text, 0));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (0 < cbValue)=[0]\n"));
    EXPECT_EQ(-1, QOVAShareSnapConfGet("a", "b", nullptr, 1));
    EXPECT_EQ(-1, QOVAShareSnapConfGet("a", nullptr, text, 8));
    EXPECT_EQ(-1, QOVAShareSnapConfGet(nullptr, "b", text, 8));
    EXPECT_EQ(-1, QOVAShareSnapConfList("a", nullptr));
    EXPECT_EQ(-1, QOVAShareSnapConfSet("a", nullptr, "c"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (NULL != szKey)=[0]\n"));
    EXPECT_EQ(-1, QOVAShareSnapConfSet(nullptr, "b", "c"));
    EXPECT_EQ(-1, QOVAShareSnapConfUpdate(nullptr, "b", nullptr));
    EXPECT_EQ(-1, QOVAShareSnapConfDeleteShare(nullptr));
    EXPECT_EQ(-1, QOVAShareSnapConfEnumSection(nullptr));
    EXPECT_EQ(-1, QOVAShareSnapGetShareNameByTaskId(nullptr, text, 8));
    EXPECT_EQ(-1, QOVAShareSnapGetShareNameByTaskId("1", nullptr, 8));
    EXPECT_EQ(unsigned{SNAP_ERR_BAD_PARAMETER}, QLIBCErrGet());
}

} // namespace
