// What a reconciliation does when one of its steps fails: each failure has its own line, one that concerns a single
// snapshot stops neither the others nor the result, and one that leaves the lists in doubt loses nothing.
#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/log_capture.hpp"
#include "support/metadata_fixture.hpp"

#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/subvolume.h>

#include <cerrno>
#include <dlfcn.h>

namespace {

// The item that lists don't give back to the library.
std::string lostItem;

bool isLibrary(void *address) {
    Dl_info info{};
    return dladdr(address, &info) != 0 && std::string(info.dli_fname).find("libqovasharesnapshot") != std::string::npos;
}

} // namespace

// Stands in for the platform's own.
extern "C" const char *QLIBCSzListGet(const QLIBCSZLIST *list, int index) {
    using Get = const char *(const QLIBCSZLIST *, int);
    static Get *const real = reinterpret_cast<Get *>(dlsym(RTLD_NEXT, "QLIBCSzListGet"));
    const char *item = real(list, index);
    const bool lost =
        item != nullptr && !lostItem.empty() && lostItem == item && isLibrary(__builtin_return_address(0));
    return lost ? nullptr : item;
}

namespace {

using Values = std::map<std::string, std::string>;
using Names = std::vector<std::string>;

class SyncFailure : public testkit::MetadataTest {
protected:
    void SetUp() override {
        if (testkit::Sandbox::simulated()) {
            GTEST_SKIP() << "needs the real storage core";
        }
        MetadataTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        for (const char *name : {"a", "b"}) {
            takeSubvolume(name);
        }
        ASSERT_EQ(0, sync());
        testkit::logClear();
    }

    void TearDown() override {
        lostItem.clear();
        MetadataTest::TearDown();
    }

    int sync() {
        QLIBCErrSetEx(0, "", 0);
        return QOVAShareSnapMetaSync(docs());
    }

    [[nodiscard]] std::string value(const std::string &name, const std::string &key) const {
        testkit::Pairs pairs;
        EXPECT_EQ(0, QOVAShareSnapAttrList(docs(), name.c_str(), pairs.address()));
        Values all = pairs.all();
        return all.count(key) != 0 ? all[key] : "(absent)";
    }

    // Facts that the next pass puts right.
    void spoilBoth() const {
        for (const char *name : {"a", "b"}) {
            ASSERT_EQ(0, QOVAShareSnapAttrSet(docs(), name, "uuid", "wrong"));
        }
    }

    // The first of two snapshots keeps its section, the second is refreshed.
    void expectOnlySecondRefreshed(const std::string &line) {
        EXPECT_EQ("wrong", value("a", "uuid"));
        EXPECT_NE("wrong", value("b", "uuid"));
        EXPECT_TRUE(testkit::logged(LOG_ERR, line));
        EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to change share(docs) snapshot(a) meta section.["));
        EXPECT_FALSE(testkit::logged(LOG_WARNING, "Success to update share(docs) snapshot(a) meta section.["));
        EXPECT_TRUE(testkit::logged(LOG_WARNING, "Success to update share(docs) snapshot(b) meta section.["));
    }
};

TEST_F(SyncFailure, SectionThatCannotBeLockedStaysAndTheNextIsRefreshed) {
    ASSERT_NO_FATAL_FAILURE(spoilBoth());
    bool refused = false;
    {
        using Lock = int(const char *, int, int, int *);
        const testkit::Replacement<Lock> lock(
            "QLIBCFileLockTimeByFile", [&](const char *path, int mode, int seconds, int *fd) {
                if (mode == 1 && !refused && std::string(path).find("sharesnap_meta_lock") != std::string::npos) {
                    refused = true;
                    QLIBCErrSetEx(0x0400, "test.cpp", 1);
                    return 0;
                }
                return testkit::real<Lock>("QLIBCFileLockTimeByFile")(path, mode, seconds, fd);
            });
        EXPECT_EQ(0, sync());
    }
    EXPECT_TRUE(refused);
    expectOnlySecondRefreshed("Failed to set mulit attr share(docs) snapshot(a).[0x0400 ");
}

// A write that fails under the lock isn't told to the pass; the next one finds the section as it was.
TEST_F(SyncFailure, SectionThatCannotBeWrittenStaysAndTheNextIsRefreshed) {
    ASSERT_NO_FATAL_FAILURE(spoilBoth());
    {
        const testkit::Fault writing("QLIBCFileSetSection", 1, EIO);
        EXPECT_EQ(0, sync());
        EXPECT_TRUE(writing.met());
    }
    EXPECT_EQ("wrong", value("a", "uuid"));
    EXPECT_NE("wrong", value("b", "uuid"));
    EXPECT_EQ(0, sync());
    EXPECT_NE("wrong", value("a", "uuid"));
}

TEST_F(SyncFailure, FactsWhoseKeysCannotBeListedLeaveTheSection) {
    ASSERT_NO_FATAL_FAILURE(spoilBoth());
    {
        const testkit::Fault keys("QLIBCSzHashEnumKey");
        EXPECT_EQ(0, sync());
        EXPECT_TRUE(keys.met());
    }
    expectOnlySecondRefreshed("Failed to get hash enum key from hash.[0x0200 ");
}

TEST_F(SyncFailure, SectionThatCannotBeReadStaysAndTheNextIsRefreshed) {
    ASSERT_NO_FATAL_FAILURE(spoilBoth());
    {
        const testkit::Fault reading("QLIBCFileGetSection", 1, EIO);
        EXPECT_EQ(0, sync());
        EXPECT_TRUE(reading.met());
    }
    expectOnlySecondRefreshed("Failed to get share(docs) snapshot(a) attr list.[0x0900 ");
}

TEST_F(SyncFailure, StaleSectionThatCannotBeDroppedStaysAndTheNextGoes) {
    writeMeta("[gone-1]\nhide=false\n[gone-2]\nhide=false\n" + meta());
    {
        const testkit::Fault removing("QLIBCFileRemoveSection", 1, EIO);
        EXPECT_EQ(0, sync());
        EXPECT_TRUE(removing.met());
    }
    EXPECT_EQ((Names{"gone-1", "a", "b"}), listed());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to delete share(docs) snapshot(gone-1) meta section.[0x0B00 "));
    EXPECT_TRUE(testkit::logged(LOG_WARNING, "Success to delete share(docs) nonexist snapshot(gone-2) meta section.["));
}

TEST_F(SyncFailure, MissingSectionThatCannotBeAddedIsToldAndTheNextIsAdded) {
    writeMeta("");
    {
        const testkit::Fault adding("QLIBCFileAddSection", 1, EIO);
        EXPECT_EQ(0, sync());
        EXPECT_TRUE(adding.met());
    }
    EXPECT_EQ(Names{"b"}, listed());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to add share(docs) snapshot(a) meta secion.[0x0B00 "));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to add share(docs) snapshot(a) meta section.[0x0B00 "));
    EXPECT_TRUE(testkit::logged(LOG_WARNING, "Success to add share(docs) missing snapshot(b) meta section.["));
}

// Of a list without one of its items the others are taken.
TEST_F(SyncFailure, LostItemOfAPassIsToldAndPassedOver) {
    ASSERT_NO_FATAL_FAILURE(spoilBoth());
    lostItem = "a";
    EXPECT_EQ(0, sync());
    lostItem.clear();
    EXPECT_EQ("wrong", value("a", "uuid"));
    EXPECT_NE("wrong", value("b", "uuid"));
    EXPECT_TRUE(testkit::loggedMatch(
        LOG_ERR, "^snapshot_meta_sync\\.cpp:[0-9]+ Failed to get share name in item\\(0\\)\\.\\[0x[0-9A-F]{4} .*\\]$"));
}

TEST_F(SyncFailure, LostItemOfTheVolumesPathsIsToldAndPassedOver) {
    const testkit::Names paths = {"@sharesnap/docs/a", "@sharesnap/docs/b"};
    testkit::Names names;
    lostItem = "@sharesnap/docs/a";
    EXPECT_EQ(0, SnapMetaSyncFindShareSnapList(docs(), paths.get(), names.address()));
    lostItem.clear();
    EXPECT_EQ(Names{"b"}, names.all());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get share name in item(0).[0x"));
}

TEST_F(SyncFailure, LostShareOfAVolumeIsToldAndPassedOver) {
    ASSERT_EQ("", testkit::makeShare("other"));
    ASSERT_EQ("", testkit::makeShare("third"));
    const testkit::SharePointer third = testkit::getShare("third");
    char path[4096];
    ASSERT_EQ(1, QOVAShareSnapGetOrCreateSnapDir(third.get(), path, sizeof(path), 1));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/third", (std::string(path) + "/c").c_str()));
    lostItem = "other";
    EXPECT_EQ(0, QOVAShareSnapMetaSyncAll());
    lostItem.clear();
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get share name in item(1).[0x"));
    testkit::Names names;
    EXPECT_EQ(0, QOVAShareSnapList(third.get(), names.address(), nullptr));
    EXPECT_EQ(Names{"c"}, names.all());
}

TEST_F(SyncFailure, LostShareOfTheSumIsToldAndAddsNothing) {
    ASSERT_EQ("", testkit::makeShare("other"));
    const testkit::SharePointer other = testkit::getShare("other");
    ASSERT_EQ(5, QOVAShareSnapUpdateSnapCountEx(other.get(), 5, 1));
    EXPECT_EQ(7, QOVAShareSnapGetGlobalSnapCount());
    lostItem = "docs";
    EXPECT_EQ(5, QOVAShareSnapGetGlobalSnapCount());
    lostItem.clear();
    EXPECT_TRUE(testkit::loggedMatch(
        LOG_ERR, "^snapshot_snapcount\\.cpp:[0-9]+ Failed to get element from list\\[0x[0-9A-F]{4} .*\\]$"));
}

// One that can't be reconciled doesn't keep the others from it.
TEST_F(SyncFailure, ShareThatCannotBeReconciledIsToldAndTheOthersAre) {
    ASSERT_EQ("", testkit::makeShare("archive"));
    ASSERT_NO_FATAL_FAILURE(spoilBoth());
    using Encrypted = int(const QOVASHARE *, int *);
    const testkit::Replacement<Encrypted> status(
        "QLIBShareIsEncryptionGet", [](const QOVASHARE *record, int *encrypted) {
            if (std::string(record->szName) == "archive") {
                QLIBCErrSetEx(0x8300, "test.cpp", 1);
                return -1;
            }
            return testkit::real<Encrypted>("QLIBShareIsEncryptionGet")(record, encrypted);
        });
    EXPECT_EQ(0, QOVAShareSnapMetaSyncAll());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get encryption status of share [archive] [0x8300 "));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to find share(archive) snap list.[0x8300 "));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to sync share(archive) meta.[0x8300 "));
    EXPECT_NE("wrong", value("a", "uuid"));
}

TEST_F(SyncFailure, ShareWhoseKindCannotBeToldLosesNothing) {
    const std::string before = meta();
    {
        const testkit::Fault status("QLIBShareIsEncryptionGet", 1, EIO, -1, 0x8300);
        EXPECT_EQ(-1, sync());
    }
    EXPECT_EQ(0x8300U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to find share(docs) snap list.[0x8300 "));
    EXPECT_EQ(before, meta());
}

// Taken for empty, it would get every section anew.
TEST_F(SyncFailure, MetadataThatCannotBeListedIsNotTakenForEmpty) {
    ASSERT_EQ(0, QOVAShareSnapAttrSet(docs(), "a", "desc", "mine"));
    const std::string before = meta();
    {
        const testkit::Fault lock("QLIBCFileLockTimeByFile");
        EXPECT_EQ(-1, sync());
        EXPECT_TRUE(lock.met());
    }
    EXPECT_EQ(0x0400U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get share(docs) snapshot list from metadata.[0x0400 "));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to sync share(docs) meta.[0x0400 "));
    EXPECT_EQ(before, meta());
}

} // namespace
