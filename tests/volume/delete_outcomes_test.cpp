// What a batch leaves behind, by the place where it ended.
#include "volume/lifecycle.hpp"

#include <algorithm>
#include <functional>
#include <sys/wait.h>

#include "support/lock_holder.hpp"

using namespace lifecycle;

namespace {

enum { GONE = 0, SURVIVED = 0x2A00, NOT_FOUND = 0xA100, LOCKED = 0xF400 };
using Codes = std::vector<int>;
using DeleteList = int(const char *, const QLIBCSZLIST *, int *);

// The platform's deletion as it is when some subvolumes can't be deleted.
int deleteAllBut(const Names &survivors, const char *directory, const QLIBCSZLIST *list, int *deleted) {
    List others;
    for (int i = 0; i < list->nItem; ++i) {
        const char *name = QLIBCSzListGet(list, i);
        if (std::find(survivors.begin(), survivors.end(), name) == survivors.end()) {
            (void)QLIBCSzListPush(others.address(), name);
        }
    }
    return testkit::real<DeleteList>("QOVABtrfsDeleteSubvolListFaultTolerantEx")(directory, others.get(), deleted);
}

class SnapDeleteOutcome : public Fixture {
protected:
    void SetUp() override {
        Fixture::SetUp();
        if (!IsSkipped()) {
            names_ = takeSome(3);
            hidden_ = take({{"hide", "true"}});
            before_ = meta();
            testkit::logClear();
            setCode(0);
            errno = 0;
        }
    }

    // The batch holds a refused name, too, so that its code can be seen to stay.
    void expectUntouched(const std::function<int()> &deletion) {
        ASSERT_EQ(1, QOVAShareSnapSysLockIncrement(share, names_[2].c_str(), "backup"));
        const testkit::Leftovers leftovers({"/vol1/@sharesnap"});
        EXPECT_EQ(-1, deletion());
        EXPECT_EQ((Codes{SURVIVED, LOCKED, SURVIVED}), codes);
        EXPECT_EQ(before_, meta());
        EXPECT_EQ(3, storedCount());
        EXPECT_EQ(4U, standing().size());
        EXPECT_EQ("", leftovers.compare());
    }

    void expectUntouchedAfter(const std::string &symbol, size_t nth = 1, int error = 0) {
        SCOPED_TRACE(symbol);
        expectUntouched([&] {
            const testkit::Fault fault(symbol, nth, error);
            const int outcome = remove({names_[0], names_[2], hidden_});
            EXPECT_TRUE(fault.met());
            return outcome;
        });
    }

    // Subvolumes are gone, the metadata is as it was.
    void expectOldMetadataAfter(const std::string &symbol, unsigned int code, bool leavesTemporary = false,
                                int error = EIO, size_t nth = 1) {
        SCOPED_TRACE(symbol);
        const testkit::Leftovers leftovers({"/vol1/@sharesnap"});
        {
            const testkit::Fault fault(symbol, nth, error);
            EXPECT_EQ(-1, remove({names_[0], hidden_}));
            EXPECT_TRUE(fault.met());
        }
        EXPECT_EQ(code, QLIBCErrGet());
        EXPECT_EQ((Codes{SURVIVED, SURVIVED}), codes);
        EXPECT_EQ(before_, meta());
        EXPECT_EQ((Names{names_[1], names_[2]}), standing());
        EXPECT_EQ(2, storedCount());
        const std::string left = leftovers.compare();
        EXPECT_EQ(leavesTemporary, left.find("/vol1/@sharesnap/@docs.meta.") != std::string::npos) << left;
        if (!leavesTemporary) {
            EXPECT_EQ("", left);
        }
    }

    Names names_;
    std::string hidden_;
    std::string before_;
};

TEST_F(SnapDeleteOutcome, NothingIsTouchedByAFailureOnTheWayToTheDeletion) {
    expectUntouchedAfter("fopen64");
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed open metadata file [/vol1/@sharesnap/@docs.meta] errno:5"));
}

TEST_F(SnapDeleteOutcome, NothingIsTouchedWhenTheFileHasNoStatus) {
    expectUntouchedAfter("fstat64");
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to stat intput file errno:5"));
}

TEST_F(SnapDeleteOutcome, NothingIsTouchedWhenTheFileCannotBeReadToItsEnd) {
    expectUntouchedAfter("getdelim", 3);
    EXPECT_EQ(0x0A00U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to intput file eof errno:5"));
}

TEST_F(SnapDeleteOutcome, NothingIsTouchedWhenTheCounterCannotGoDown) {
    expectUntouchedAfter("setxattr");
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to decrease snapcount for share [docs] [0x"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to remove snapshots.[0x"));
    EXPECT_EQ(0x2900U, QLIBCErrGet()); // the kit's failure is that of a full volume
}

TEST_F(SnapDeleteOutcome, NothingIsTouchedWhenTheHiddenStateCannotBeRead) {
    using Value = int(const char *, const char *, const char *, char *, size_t);
    expectUntouched([&] {
        const testkit::Replacement<Value> value(
            "QLIBCFileGetSectionValue",
            [](const char *file, const char *section, const char *key, char *text, size_t size) {
                if (std::string(key) == "hide") {
                    setCode(0x0900);
                    return -1;
                }
                return testkit::real<Value>("QLIBCFileGetSectionValue")(file, section, key, text, size);
            });
        return remove({names_[0], names_[2], hidden_});
    });
    EXPECT_EQ(0x0900U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get section [" + names_[0] + "] attr [hide][0x0900 "));
}

TEST_F(SnapDeleteOutcome, NothingIsTouchedWithoutTheMetadataLock) {
    expectUntouched([&] {
        using Lock = int(const char *, int, int, int *);
        const testkit::Replacement<Lock> lock(
            "QLIBCFileLockTimeByFile", [](const char *path, int mode, int seconds, int *fd) {
                if (std::string(path).find("sharesnap_meta_lock") != std::string::npos && mode == 1) {
                    EXPECT_EQ(10, seconds);
                    setCode(0x0400);
                    return 0;
                }
                return testkit::real<Lock>("QLIBCFileLockTimeByFile")(path, mode, seconds, fd);
            });
        return remove({names_[0], names_[2], hidden_});
    });
    EXPECT_EQ(0x0400U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to lock meta file [0x0400 "));
}

TEST_F(SnapDeleteOutcome, WaitsForAnotherHolderOfTheMetadataLock) {
    testkit::LockHolder holder("/run/lock/sharesnap/sharesnap_meta_lock/docs.lock", testkit::LockHolder::exclusive);
    ASSERT_TRUE(holder.holds());
    holder.releaseAfter(std::chrono::milliseconds(300));
    EXPECT_EQ(0, remove({names_[0]}));
}

TEST_F(SnapDeleteOutcome, WholeBatchStopsWhenTheHoldersCannotBeListed) {
    ASSERT_EQ("", installPlugin("ears", recordingScript("ears")));
    // One lock a name: the third fails.
    const testkit::Fault fault("QLIBCFileLockTimeByFile", 3);
    EXPECT_EQ(-1, remove({names_[0], names_[1], names_[2]}));
    EXPECT_TRUE(fault.met());
    EXPECT_EQ((Codes{SURVIVED, SURVIVED, SURVIVED}), codes);
    EXPECT_EQ(before_, meta());
    EXPECT_EQ(4U, standing().size());
    EXPECT_EQ(3, storedCount());
    EXPECT_TRUE(
        testkit::logged(LOG_ERR, "Failed list snapshot locker fot snap [" + names_[2] + "] share [docs] [0x0400 "));
    // Those that had passed by then are announced.
    EXPECT_EQ(names_[0] + " " + names_[1] + " ", variable(recorded("ears", "post"), "SNAPSHOT"));
    EXPECT_EQ("-1", variable(recorded("ears", "post"), "RESULT"));
}

TEST_F(SnapDeleteOutcome, SurvivorsKeepTheirSectionsAndTheirCount) {
    const testkit::Replacement<DeleteList> deletion("QOVABtrfsDeleteSubvolListFaultTolerantEx",
                                                    [&](const char *directory, const QLIBCSZLIST *list, int *deleted) {
                                                        return deleteAllBut({names_[2]}, directory, list, deleted);
                                                    });
    EXPECT_EQ(-1, remove({names_[0], hidden_, names_[2]}));
    EXPECT_EQ((Codes{GONE, GONE, SURVIVED}), codes);
    EXPECT_EQ((Names{names_[1], names_[2]}), standing());
    EXPECT_EQ((Names{names_[1], names_[2]}), sections());
    EXPECT_EQ(2, storedCount());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to delete share [docs] snapshot [" + names_[2] + "][0x"));
}

TEST_F(SnapDeleteOutcome, HiddenSurvivorKeepsItsSectionToo) {
    const testkit::Replacement<DeleteList> deletion("QOVABtrfsDeleteSubvolListFaultTolerantEx",
                                                    [&](const char *directory, const QLIBCSZLIST *list, int *deleted) {
                                                        return deleteAllBut({hidden_}, directory, list, deleted);
                                                    });
    EXPECT_EQ(-1, remove({names_[0], hidden_}));
    EXPECT_EQ((Codes{GONE, SURVIVED}), codes);
    EXPECT_EQ((Names{names_[1], names_[2], hidden_}), sections());
    EXPECT_EQ(2, storedCount());
}

// In doubt a section stays: those of the names behind a survivor do, although their subvolumes are gone.
TEST_F(SnapDeleteOutcome, KeepsSectionsBehindASurvivor) {
    const testkit::Replacement<DeleteList> deletion("QOVABtrfsDeleteSubvolListFaultTolerantEx",
                                                    [&](const char *directory, const QLIBCSZLIST *list, int *deleted) {
                                                        return deleteAllBut({names_[0]}, directory, list, deleted);
                                                    });
    EXPECT_EQ(-1, remove({names_[0], names_[1]}));
    EXPECT_EQ((Codes{SURVIVED, GONE}), codes);
    EXPECT_EQ((Names{names_[0], names_[1], names_[2], hidden_}), sections());
    EXPECT_EQ((Names{names_[0], names_[2], hidden_}), standing());
    EXPECT_EQ(2, storedCount());
}

TEST_F(SnapDeleteOutcome, DropsSectionsAheadOfASurvivor) {
    const testkit::Replacement<DeleteList> deletion("QOVABtrfsDeleteSubvolListFaultTolerantEx",
                                                    [&](const char *directory, const QLIBCSZLIST *list, int *deleted) {
                                                        return deleteAllBut({names_[0]}, directory, list, deleted);
                                                    });
    EXPECT_EQ(-1, remove({names_[1], names_[0]}));
    EXPECT_EQ((Codes{GONE, SURVIVED}), codes);
    EXPECT_EQ((Names{names_[0], names_[2], hidden_}), sections());
}

// A listed name whose subvolume stands without a section holds up the sections behind it as well.
TEST_F(SnapDeleteOutcome, SurvivorWithoutASectionKeepsTheSectionsBehindIt) {
    ASSERT_EQ(0, SnapMetaSectionDel(share, names_[0].c_str(), 1));
    const testkit::Replacement<DeleteList> deletion("QOVABtrfsDeleteSubvolListFaultTolerantEx",
                                                    [&](const char *directory, const QLIBCSZLIST *list, int *deleted) {
                                                        return deleteAllBut({hidden_}, directory, list, deleted);
                                                    });
    EXPECT_EQ(-1, remove({names_[0], names_[1], hidden_}));
    EXPECT_EQ((Codes{NOT_FOUND, GONE, SURVIVED}), codes);
    EXPECT_EQ((Names{names_[1], names_[2], hidden_}), sections());
}

TEST_F(SnapDeleteOutcome, FailedDeletionOfOneListDoesNotStopTheOther) {
    const testkit::Fault fault("QOVABtrfsDeleteSubvolListFaultTolerantEx");
    EXPECT_EQ(-1, remove({names_[0], hidden_}));
    EXPECT_EQ((Codes{SURVIVED, GONE}), codes);
    EXPECT_EQ(names_, standing());
    EXPECT_EQ(3, storedCount());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Faild to delete subvolumes.[0x2A00 "));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to delete snapshots in [/vol1/docs][0x2A00 "));
}

TEST_F(SnapDeleteOutcome, FailedDeletionOfHiddenOnesIsTold) {
    const testkit::Fault fault("QOVABtrfsDeleteSubvolListFaultTolerantEx", 2);
    EXPECT_EQ(-1, remove({names_[0], hidden_}));
    EXPECT_EQ((Codes{GONE, SURVIVED}), codes);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to delete hide snapshots in [/vol1/docs][0x2A00 "));
}

TEST_F(SnapDeleteOutcome, BothListsAreHandedOverAlsoWhenEmpty) {
    Codes lengths;
    const testkit::Replacement<DeleteList> deletion("QOVABtrfsDeleteSubvolListFaultTolerantEx",
                                                    [&](const char *directory, const QLIBCSZLIST *list, int *deleted) {
                                                        lengths.push_back(list->nItem);
                                                        return deleteAllBut({}, directory, list, deleted);
                                                    });
    EXPECT_EQ(0, remove({hidden_}));
    EXPECT_EQ((Codes{0, 1}), lengths);
}

TEST_F(SnapDeleteOutcome, CounterIsDownBeforeTheFirstSubvolumeGoes) {
    int counted = -1;
    const testkit::Replacement<DeleteList> deletion("QOVABtrfsDeleteSubvolListFaultTolerantEx",
                                                    [&](const char *directory, const QLIBCSZLIST *list, int *deleted) {
                                                        counted = counted < 0 ? storedCount() : counted;
                                                        return deleteAllBut({}, directory, list, deleted);
                                                    });
    EXPECT_EQ(0, remove({names_[0], names_[1], hidden_}));
    EXPECT_EQ(1, counted);
}

TEST_F(SnapDeleteOutcome, OldMetadataStaysWithoutATemporaryFile) {
    expectOldMetadataAfter("mkstemp64", 0x2A00);
    EXPECT_TRUE(testkit::loggedMatch(
        LOG_ERR, "^[a-z_]+\\.cpp:[0-9]+ Failed create tmp file \\[/vol1/@sharesnap/@docs\\.meta\\..*\\] errno:5$"));
}

TEST_F(SnapDeleteOutcome, OldMetadataStaysWithoutAStream) {
    expectOldMetadataAfter("fdopen", 0x2A00);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed open tmp file [/vol1/@sharesnap/@docs.meta."));
}

TEST_F(SnapDeleteOutcome, OldMetadataStaysAfterAShortWrite) {
    expectOldMetadataAfter("fwrite", 0x2A00);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to write line in output file[0x"));
}

// The first pass has read every line and met the end.
TEST_F(SnapDeleteOutcome, OldMetadataStaysWhenItCannotBeReadAgain) {
    const auto lines = static_cast<size_t>(std::count(before_.begin(), before_.end(), '\n'));
    expectOldMetadataAfter("getdelim", 0x0A00, false, EIO, lines + 1 + 3);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to intput file eof errno:5"));
}

TEST_F(SnapDeleteOutcome, OldMetadataStaysWhenTheVolumeIsFull) {
    expectOldMetadataAfter("fwrite", 0x2900, false, ENOSPC);
}

TEST_F(SnapDeleteOutcome, OldMetadataStaysAfterAFailedFlush) {
    expectOldMetadataAfter("fflush", 0x0B00);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to fflush Output file errno:5"));
}

TEST_F(SnapDeleteOutcome, OldMetadataStaysWhenAFlushMeetsAFullVolume) {
    expectOldMetadataAfter("fflush", 0x2900, false, ENOSPC);
}

TEST_F(SnapDeleteOutcome, OldMetadataStaysAfterAFailedSync) {
    expectOldMetadataAfter("fsync", 0x0B00);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to fsync/chown/chmod Output file errno:5"));
}

TEST_F(SnapDeleteOutcome, OldMetadataStaysAfterAFailedChangeOfOwner) {
    expectOldMetadataAfter("fchown", 0x0B00);
}

TEST_F(SnapDeleteOutcome, OldMetadataStaysAfterAFailedChangeOfMode) {
    expectOldMetadataAfter("fchmod", 0x0B00);
}

// fclose of the output comes before that of the input.
TEST_F(SnapDeleteOutcome, FailedCloseLeavesTheTemporaryFile) {
    expectOldMetadataAfter("fclose", 0x0B00, true);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to close Output file errno:5"));
}

TEST_F(SnapDeleteOutcome, FailedRenameLeavesTheTemporaryFile) {
    expectOldMetadataAfter("rename", 0x2800, true);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to rename tmp file replace meta file errno:5"));
}

// The data are on disk before the name changes; the lock is given back when all is closed.
TEST_F(SnapDeleteOutcome, NewMetadataIsFinishedStepByStep) {
    Names steps;
    using OfStream = int(FILE *);
    const testkit::Replacement<OfStream> flush("fflush",
                                               [&](FILE *stream) { return steps.push_back("flush"), fflush(stream); });
    const testkit::Replacement<int(int)> sync("fsync", [&](int fd) { return steps.push_back("sync"), fsync(fd); });
    const testkit::Replacement<int(int, uid_t, gid_t)> owner(
        "fchown", [&](int fd, uid_t uid, gid_t gid) { return steps.push_back("owner"), fchown(fd, uid, gid); });
    const testkit::Replacement<int(int, mode_t)> mode(
        "fchmod", [&](int fd, mode_t bits) { return steps.push_back("mode"), fchmod(fd, bits); });
    const testkit::Replacement<OfStream> close("fclose",
                                               [&](FILE *stream) { return steps.push_back("close"), fclose(stream); });
    const testkit::Replacement<int(const char *, const char *)> rename(
        "rename", [&](const char *from, const char *to) { return steps.push_back("rename"), ::rename(from, to); });
    const testkit::Replacement<int(int)> unlock("QLIBCFileUnlockByFile", [&](int fd) {
        if (!steps.empty()) { // those of claims and counter come before
            steps.push_back("unlock");
        }
        return testkit::real<int(int)>("QLIBCFileUnlockByFile")(fd);
    });
    EXPECT_EQ(0, remove({names_[0], hidden_}));
    EXPECT_EQ((Names{"flush", "sync", "owner", "mode", "close", "rename", "close", "unlock"}), steps);
}

// An old full volume isn't this one.
TEST_F(SnapDeleteOutcome, ErrnoOfAnEarlierCallIsNotTakenForAFullVolume) {
    const testkit::Fault fault("rename", 1, EIO);
    errno = ENOSPC;
    EXPECT_EQ(-1, remove({names_[0]}));
    EXPECT_EQ(0x2800U, QLIBCErrGet());
}

TEST_F(SnapDeleteOutcome, AnnouncesTheAcceptedNamesAfterAFailedRewrite) {
    ASSERT_EQ("", installPlugin("ears", recordingScript("ears")));
    const testkit::Fault fault("rename", 1, EIO);
    EXPECT_EQ(-1, remove({names_[0], names_[1]}));
    EXPECT_EQ(names_[0] + " " + names_[1] + " ", variable(recorded("ears", "post"), "SNAPSHOT"));
}

// What became of the metadata doesn't matter to the count: survivors are put back.
TEST_F(SnapDeleteOutcome, SurvivorsKeepTheirCountAfterAFailedRewriteToo) {
    const testkit::Replacement<DeleteList> deletion("QOVABtrfsDeleteSubvolListFaultTolerantEx",
                                                    [&](const char *directory, const QLIBCSZLIST *list, int *deleted) {
                                                        return deleteAllBut({names_[1]}, directory, list, deleted);
                                                    });
    const testkit::Fault fault("fsync", 1, EIO);
    EXPECT_EQ(-1, remove({names_[0], names_[1]}));
    EXPECT_EQ((Codes{SURVIVED, SURVIVED}), codes);
    EXPECT_EQ(before_, meta());
    EXPECT_EQ(2, storedCount());
}

// A counter that got lost meanwhile is counted by the new metadata, which shows the survivors already.
TEST_F(SnapDeleteOutcome, SurvivorsAreNotCountedTwiceWhenTheCounterWasLost) {
    const testkit::Replacement<DeleteList> deletion("QOVABtrfsDeleteSubvolListFaultTolerantEx",
                                                    [&](const char *directory, const QLIBCSZLIST *list, int *deleted) {
                                                        (void)removexattr(directory, "user.snapcount");
                                                        return deleteAllBut({names_[1]}, directory, list, deleted);
                                                    });
    EXPECT_EQ(-1, remove({names_[0], names_[1]}));
    EXPECT_EQ((Names{names_[1], names_[2], hidden_}), sections());
    EXPECT_EQ(2, storedCount());
}

// Neither the put-back of the count nor the last announcement hides why the batch stopped.
TEST_F(SnapDeleteOutcome, RegisterTellsWhyTheBatchStopped) {
    ASSERT_EQ("", installPlugin("ears", "exit 0\n"));
    const testkit::Replacement<DeleteList> deletion("QOVABtrfsDeleteSubvolListFaultTolerantEx",
                                                    [&](const char *directory, const QLIBCSZLIST *list, int *deleted) {
                                                        return deleteAllBut({names_[1]}, directory, list, deleted);
                                                    });
    const testkit::Replacement<int(int, QLIBPLUGIN *)> action("QLIBPluginAction", [](int phase, QLIBPLUGIN *) {
        setCode(phase == SNAP_PHASE_POST ? 0x6400 : QLIBCErrGet());
        return phase == SNAP_PHASE_POST ? -1 : 0;
    });
    const testkit::Fault rewrite("rename", 1, EIO);
    const testkit::Fault count("setxattr", 2, ENOSPC);
    EXPECT_EQ(-1, remove({names_[0], names_[1]}));
    EXPECT_TRUE(count.met());
    EXPECT_EQ(0x2800U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to rollback snapcount for share [docs] [0x"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to execute share plugin (POST)"));
}

// An entry that can't be handed on keeps its first value.
TEST_F(SnapDeleteOutcome, EntriesThatCannotBeReadOrWrittenAreLogged) {
    {
        const testkit::Fault reading("QLIBCMResultGetCoreErrorByIndex");
        EXPECT_EQ(-1, remove({names_[0], hidden_}));
        EXPECT_EQ((Codes{SURVIVED, GONE}), codes);
        EXPECT_TRUE(testkit::logged(LOG_ERR, "QLIBCMResultGetCoreErrorByIndex failed."));
    }
    const testkit::Fault writing("QLIBCMResultSetCoreError");
    EXPECT_EQ(-1, remove({names_[1], names_[2]}));
    EXPECT_EQ((Codes{SURVIVED, GONE}), codes);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "QLIBCMResultSetCoreError failed."));
    EXPECT_EQ(Names{}, standing());
    EXPECT_EQ(0, storedCount());
}

// Behind the decrease the first look at the encryption is for the snapshot directory, the third for the subvolume.
TEST_F(SnapDeleteOutcome, ListWhoseDirectoriesCannotBeFoundStaysAndTheOtherGoes) {
    const std::map<int, std::string> lines{{1, "Fail to get snapshot dir for share docs. [0x8300 "},
                                           {3, "Failed to get share subvol path of share [docs][0x8300 "}};
    std::string other = hidden_;
    for (const auto &line : lines) {
        SCOPED_TRACE(line.second);
        bool decreased = false;
        int left = line.first;
        {
            using Set = int(const char *, const char *, const void *, size_t, int);
            using Encrypted = int(const QOVASHARE *, int *);
            const testkit::Replacement<Set> set(
                "setxattr", [&](const char *path, const char *name, const void *value, size_t size, int flags) {
                    decreased = true;
                    return ::setxattr(path, name, value, size, flags);
                });
            const testkit::Replacement<Encrypted> status(
                "QLIBShareIsEncryptionGet", [&](const QOVASHARE *record, int *encrypted) {
                    if (decreased && --left == 0) {
                        setCode(0x8300);
                        return -1;
                    }
                    return testkit::real<Encrypted>("QLIBShareIsEncryptionGet")(record, encrypted);
                });
            EXPECT_EQ(-1, remove({names_[0], other}));
        }
        EXPECT_EQ((Codes{SURVIVED, GONE}), codes);
        EXPECT_EQ(names_, standing());
        EXPECT_EQ(3, storedCount());
        EXPECT_TRUE(testkit::logged(LOG_ERR, line.second));
        EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to delete snapshots in [/vol1/docs][0x8300 "));
        testkit::logClear();
        other = take({{"hide", "true"}});
    }
}

TEST_F(SnapDeleteOutcome, NothingIsTouchedWithoutRoomForTheNames) {
    using Init = QLIBCMRESULT *(QLIBCMRESULT *, int, int);
    using Alloc = QLIBCSZLIST *(size_t);
    int inits = 0;
    const testkit::Replacement<Init> init("QLIBCMResultInit", [&](QLIBCMRESULT *record, int count, int code) {
        ++inits;
        return testkit::real<Init>("QLIBCMResultInit")(record, count, code);
    });
    // Of the private level, which begins with the second record, the first list.
    const testkit::Replacement<Alloc> alloc("QLIBCSzListAlloc", [&](size_t size) -> QLIBCSZLIST * {
        if (inits == 2) {
            inits = 0;
            setCode(0x0200);
            return nullptr;
        }
        return testkit::real<Alloc>("QLIBCSzListAlloc")(size);
    });
    testing::internal::CaptureStdout();
    const int outcome = remove({names_[0], hidden_});
    EXPECT_EQ("QLIBCSzListAlloc failed. [0x0200 test.cpp:1]\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(-1, outcome);
    EXPECT_EQ(before_, meta());
    EXPECT_EQ(4U, standing().size());
    EXPECT_EQ(3, storedCount());
}

TEST_F(SnapDeleteOutcome, FailedUnlockIsOnlyLogged) {
    using Unlock = int(int);
    const testkit::Replacement<Unlock> unlock("QLIBCFileUnlockByFile", [](int fd) {
        (void)testkit::real<Unlock>("QLIBCFileUnlockByFile")(fd);
        return 0;
    });
    EXPECT_EQ(0, remove({names_[0]}));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "fail to QLIBCFileUnlockByFile of share(docs) metadata[0x"));
}

TEST_F(SnapDeleteOutcome, FailedPutBackOfTheCountIsOnlyLogged) {
    const testkit::Replacement<DeleteList> deletion("QOVABtrfsDeleteSubvolListFaultTolerantEx",
                                                    [&](const char *directory, const QLIBCSZLIST *list, int *deleted) {
                                                        return deleteAllBut({names_[1]}, directory, list, deleted);
                                                    });
    const testkit::Fault count("setxattr", 2, EIO);
    EXPECT_EQ(-1, remove({names_[0], names_[1]}));
    EXPECT_TRUE(count.met());
    EXPECT_EQ((Codes{GONE, SURVIVED}), codes);
    EXPECT_EQ(1, storedCount()); // too low, never too high
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to rollback snapcount for share [docs] [0x"));
}

// The count that is put back belongs to the directory: where that has gone meanwhile, none is made for it.
TEST_F(SnapDeleteOutcome, PutBackOfTheCountMakesNoDirectory) {
    const testkit::Replacement<DeleteList> deletion(
        "QOVABtrfsDeleteSubvolListFaultTolerantEx", [&](const char *directory, const QLIBCSZLIST *, int *deleted) {
            const List all(standing());
            int gone = 0;
            (void)testkit::real<DeleteList>("QOVABtrfsDeleteSubvolListFaultTolerantEx")(directory, all.get(), &gone);
            EXPECT_EQ(4, gone);
            EXPECT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant(directory));
            *deleted = 1; // two to put back
            return 0;
        });
    EXPECT_EQ(0, remove(names_)) << testkit::logText();
    EXPECT_EQ((Codes{GONE, GONE, GONE}), codes);
    EXPECT_EQ(Names{hidden_}, sections());
    EXPECT_FALSE(testkit::exists(snapDir()));
}

// A process that dies between the deletions and the rewrite leaves old metadata and a counter that is too low.
TEST_F(SnapDeleteOutcome, ReconciliationMendsWhatACrashLeaves) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        const testkit::Replacement<DeleteList> deletion(
            "QOVABtrfsDeleteSubvolListFaultTolerantEx",
            [&](const char *directory, const QLIBCSZLIST *list, int *deleted) {
                (void)deleteAllBut({names_[1]}, directory, list, deleted);
                _exit(9);
                return 0;
            });
        (void)remove({names_[0], names_[1]});
        _exit(1);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_EQ(9, WEXITSTATUS(status));
    EXPECT_EQ(before_, meta());
    EXPECT_EQ(1, storedCount());
    EXPECT_EQ((Names{names_[1], names_[2], hidden_}), standing());
    ASSERT_EQ(0, QOVAShareSnapMetaSync(share)) << testkit::logText();
    EXPECT_EQ((Names{names_[1], names_[2], hidden_}), sections());
    EXPECT_EQ(2, storedCount());
}

// Each listed name is asked for once before and once after the deletion, whatever the number of sections.
TEST_F(SnapDeleteOutcome, AsksForEachNameOnceOnEitherSide) {
    Names all = names_;
    for (int i = 0; i < 20; ++i) {
        all.push_back(take());
    }
    const auto asked = [&](const Names &batch, const Names &survivors) {
        std::map<std::string, int> times;
        using IsSubVol = int(const char *);
        const testkit::Replacement<IsSubVol> isSubVol("QOVABtrfsIsSubVol", [&](const char *path) {
            ++times[path];
            return testkit::real<IsSubVol>("QOVABtrfsIsSubVol")(path);
        });
        const testkit::Replacement<DeleteList> deletion(
            "QOVABtrfsDeleteSubvolListFaultTolerantEx",
            [&](const char *directory, const QLIBCSZLIST *list, int *deleted) {
                return deleteAllBut(survivors, directory, list, deleted);
            });
        (void)remove(batch);
        int most = 0;
        for (const std::string &name : batch) {
            most = std::max(most, times[snapDir() + "/" + name]);
        }
        return most;
    };
    EXPECT_EQ(2, asked(Names(all.begin(), all.begin() + 10), {all[4]}));
    EXPECT_EQ(2, asked(Names(all.begin() + 10, all.end()), {}));
}

} // namespace
