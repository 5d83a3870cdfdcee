// What is undone when a creation fails, stage by stage; conflicts and the attempts after them.
#include "volume/lifecycle.hpp"

#include <filesystem>
#include <sys/vfs.h>

using namespace lifecycle;

namespace {

class SnapCreateRollback : public Fixture {
protected:
    void SetUp() override {
        Fixture::SetUp();
        if (!IsSkipped()) {
            first_ = take();
            ASSERT_EQ(0, result);
            before_ = meta();
            testkit::logClear();
            setCode(0);
        }
    }

    int create(const Pairs &attributes = {}) {
        const testkit::FixedTime clock(++now_);
        Hash hash(attributes);
        return QOVAShareSnapCreate(share, nullptr, 0, hash.address());
    }

    // A failure of one call, after which everything must be as before.
    void expectUndone(const std::string &symbol, unsigned int code, size_t nth = 1) {
        SCOPED_TRACE(symbol);
        const testkit::Leftovers leftovers({"/vol1/@sharesnap"});
        const testkit::Fault fault(symbol, nth, 0, -1, code);
        EXPECT_EQ(-1, create());
        EXPECT_TRUE(fault.met());
        EXPECT_EQ(code, QLIBCErrGet());
        expectAsBefore();
        EXPECT_EQ("", leftovers.compare());
    }

    void expectAsBefore() {
        EXPECT_EQ(before_, meta());
        EXPECT_EQ(1, storedCount());
        EXPECT_EQ(Names{first_}, standing());
    }

    std::string first_;
    std::string before_;
};

TEST_F(SnapCreateRollback, NothingIsUndoneBeforeTheCount) {
    const testkit::CallCount removed("QLIBCFileRemoveSection");
    const testkit::CallCount deleted("QOVABtrfsDeleteSubvolFaultTolerant");
    expectUndone("QOVAGetFSType", 0x2A00);
    expectUndone("QLIBPluginSDKInit", 0x2A00);
    EXPECT_EQ(0U, removed.calls());
    EXPECT_EQ(0U, deleted.calls());
}

TEST_F(SnapCreateRollback, NothingIsUndoneWithoutRoomForHashOrList) {
    const testkit::CallCount counted("setxattr");
    {
        const testkit::Fault fault("QLIBCSzHashAlloc");
        const testkit::FixedTime clock(++now_);
        EXPECT_EQ(-1, QOVAShareSnapCreate(share, nullptr, 0, nullptr));
        EXPECT_TRUE(fault.met());
        EXPECT_EQ(0x0200U, QLIBCErrGet());
    }
    const testkit::Fault fault("QLIBCSzListAlloc");
    EXPECT_EQ(-1, create());
    EXPECT_TRUE(fault.met());
    EXPECT_EQ(0x0200U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "QLIBCSzListAlloc() failed"));
    expectAsBefore();
    EXPECT_EQ(0U, counted.calls());
}

TEST_F(SnapCreateRollback, NothingIsUndoneWhenTheCountCannotGoUp) {
    const testkit::CallCount removed("QLIBCFileRemoveSection");
    const testkit::Fault count("setxattr", 1, EIO);
    EXPECT_EQ(-1, create());
    EXPECT_TRUE(count.met());
    EXPECT_EQ(1U, count.calls()); // nor put down again
    EXPECT_EQ(0U, removed.calls());
    expectAsBefore();
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to increase snapcount for share [docs], ret [-1]. [0x"));
}

TEST_F(SnapCreateRollback, ClockThatCannotBeReadStops) {
    const testkit::Replacement<time_t(time_t *)> clock("time", [](time_t *) { return time_t(-1); });
    EXPECT_EQ(-1, QOVAShareSnapCreate(share, nullptr, 0, nullptr));
    EXPECT_EQ(0x2A00U, QLIBCErrGet());
    expectAsBefore();
}

TEST_F(SnapCreateRollback, CountIsUndoneWhenTheConfigurationCannotBeFrozen) {
    std::filesystem::remove_all("/vol1/docs/@eaDir"); // left by the first snapshot
    const testkit::CallCount removed("QLIBCFileRemoveSection");
    const testkit::Fault fault("QOVAEAMKDir");
    EXPECT_EQ(-1, create());
    EXPECT_TRUE(fault.met());
    EXPECT_EQ(0xA100U, QLIBCErrGet());
    expectAsBefore();
    EXPECT_EQ(0U, removed.calls());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to backup share [docs] configuration [0x"));
}

TEST_F(SnapCreateRollback, CountIsUndoneWhenTheSectionCannotBeAdded) {
    // The first section added is that of the frozen configuration.
    const testkit::Replacement<int(const char *, const char *, const QLIBCSZHASH *, const char *)> failing(
        "QLIBCFileAddSection", [](const char *file, const char *section, const QLIBCSZHASH *hash, const char *format) {
            using Add = int(const char *, const char *, const QLIBCSZHASH *, const char *);
            if (std::string(section) == "share_info") {
                return testkit::real<Add>("QLIBCFileAddSection")(file, section, hash, format);
            }
            errno = EIO;
            setCode(0x0B00);
            return -1;
        });
    EXPECT_EQ(-1, create());
    EXPECT_EQ(0x0B00U, QLIBCErrGet());
    expectAsBefore();
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to add metadata for share [docs], snapshot [GMT-2026.01.02-03.04.07] "
                                         "[0x0B00 "));
}

TEST_F(SnapCreateRollback, CountAndSectionAreUndoneWhenTheReserveCannotBeRead) {
    for (const char *symbol : {"statfs64", "VolumePathParseEx"}) {
        SCOPED_TRACE(symbol);
        const testkit::Fault fault(symbol);
        EXPECT_EQ(-1, create());
        EXPECT_TRUE(fault.met());
        EXPECT_EQ(0x2A00U, QLIBCErrGet());
        EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to check volume free space for share [docs]"));
        expectAsBefore();
    }
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to statfs [/vol1], errno:(Input/output error)"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to parse volume path from [/vol1/docs]"));
}

// Lets the nth call of a function behind the look at the reserve fail, where the taking of the subvolume begins.
template <class Signature>
class FailsWhileTaking;

template <class Result, class... Arguments>
class FailsWhileTaking<Result(Arguments...)> {
public:
    FailsWhileTaking(const std::string &symbol, int nth, Result result, unsigned int code)
        : function_(symbol,
                    [=](Arguments... arguments) {
                        if (reserved_ && --left_ == 0) {
                            if (code != 0) {
                                setCode(code);
                            }
                            return result;
                        }
                        return testkit::real<Result(Arguments...)>(symbol)(arguments...);
                    }),
          left_(nth) {}
    [[nodiscard]] bool met() const { return left_ <= 0; }

private:
    testkit::Replacement<int(const char *, struct statfs64 *)> reserve_{
        "statfs64", [this](const char *path, struct statfs64 *info) {
            reserved_ = true;
            return ::statfs64(path, info);
        }};
    testkit::Replacement<Result(Arguments...)> function_;
    int left_;
    bool reserved_ = false;
};

TEST_F(SnapCreateRollback, CountAndSectionAreUndoneWithoutRoomForTheFacts) {
    const FailsWhileTaking<QLIBCSZHASH *(size_t)> hash("QLIBCSzHashAlloc", 1, nullptr, 0x0200);
    EXPECT_EQ(-1, create());
    EXPECT_TRUE(hash.met());
    EXPECT_EQ(0x0200U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to create snapshot\n[0x0200 "));
    expectAsBefore();
}

TEST_F(SnapCreateRollback, CountAndSectionAreUndoneWhenTheDataCannotBeFound) {
    const FailsWhileTaking<int(const QOVASHARE *, int *)> status("QLIBShareIsEncryptionGet", 1, -1, 0x8300);
    EXPECT_EQ(-1, create());
    EXPECT_TRUE(status.met());
    EXPECT_EQ(0x8300U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get encryption status of share [docs] [0x8300 "));
    expectAsBefore();
}

TEST_F(SnapCreateRollback, CountAndSectionAreUndoneWhenTheBackEndCannotBeFound) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@safe@"));
    const Record record("safe", "/vol1/safe", QOVA_SHARE_STATUS_ENCRYPTED);
    const FailsWhileTaking<int(const char *, char *, size_t)> backEnd("QLIBShareEncryptPathGet", 1, -1, 0x8300);
    EXPECT_EQ(-1, QOVAShareSnapCreateNoShareInfo(record.get(), nullptr, 0, nullptr));
    EXPECT_TRUE(backEnd.met());
    EXPECT_EQ(0x8300U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Get EncPath failed."));
    EXPECT_EQ("", testkit::readFile("/vol1/@sharesnap/@safe@.meta"));
}

TEST_F(SnapCreateRollback, CountAndSectionAreUndoneWhenTheDataAreNoSubvolume) {
    for (const int answer : {0, -1}) {
        const FailsWhileTaking<int(const char *)> isSubVol("QOVABtrfsIsSubVol", 1, answer, 0);
        EXPECT_EQ(-1, create());
        EXPECT_TRUE(isSubVol.met());
        EXPECT_EQ(0x0D00U, QLIBCErrGet());
        expectAsBefore();
    }
}

// The second look at the encryption is that of the snapshot directory.
TEST_F(SnapCreateRollback, CountAndSectionAreUndoneWithoutTheSnapshotDirectory) {
    const FailsWhileTaking<int(const QOVASHARE *, int *)> status("QLIBShareIsEncryptionGet", 2, -1, 0x8300);
    EXPECT_EQ(-1, create());
    EXPECT_TRUE(status.met());
    EXPECT_EQ(0x8300U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to create and get snapshot dir for share docs. [0x8300 "));
    expectAsBefore();
}

TEST_F(SnapCreateRollback, CountAndSectionAreUndoneWhenTheSubvolumeCannotBeTaken) {
    const testkit::CallCount deleted("QOVABtrfsDeleteSubvolFaultTolerant");
    expectUndone("QOVABtrfsReadOnlySnapshotTake", 0x2A00);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Faild to create subvolume /vol1/@sharesnap/docs/GMT-2026.01.02-03.04.07 "));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to create snapshot\n[0x2A00 "));
    EXPECT_EQ(0U, deleted.calls());
}

TEST_F(SnapCreateRollback, TakeThatFailsWithoutACodeGetsOne) {
    const testkit::Replacement<int(const char *, const char *)> mute("QOVABtrfsReadOnlySnapshotTake",
                                                                     [](const char *, const char *) {
                                                                         setCode(0);
                                                                         return -1;
                                                                     });
    EXPECT_EQ(-1, create());
    EXPECT_EQ(0x2A00U, QLIBCErrGet());
    expectAsBefore();
}

TEST_F(SnapCreateRollback, SubvolumeIsDeletedWhenItsMarkOrFactsFail) {
    expectUndone("QOVABtrfsSubvolHideAttrSet", 0x2A00);
    expectUndone("QOVASnapFillSubvolInfoWithPath", 0x0900);
    expectUndone("QOVASnapFillSubvolInfoWithPath", 0xE400);
}

// The writer of the facts takes the metadata lock after the one that adds the section.
TEST_F(SnapCreateRollback, SubvolumeIsDeletedWhenTheFactsCannotBeStored) {
    bool taken = false;
    using Take = int(const char *, const char *);
    using Lock = int(const char *, int, int, int *);
    const testkit::Replacement<Take> take("QOVABtrfsReadOnlySnapshotTake", [&](const char *from, const char *to) {
        taken = true;
        return testkit::real<Take>("QOVABtrfsReadOnlySnapshotTake")(from, to);
    });
    const testkit::Replacement<Lock> lock(
        "QLIBCFileLockTimeByFile", [&](const char *path, int mode, int seconds, int *fd) {
            if (taken) {
                taken = false; // once
                setCode(0x0400);
                return 0;
            }
            return testkit::real<Lock>("QLIBCFileLockTimeByFile")(path, mode, seconds, fd);
        });
    EXPECT_EQ(-1, create());
    EXPECT_EQ(0x0400U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(
        LOG_ERR, "Failed to set attributes to snapshot [GMT-2026.01.02-03.04.07] of share [docs][0x0400 "));
    expectAsBefore();
}

TEST_F(SnapCreateRollback, FactsThatThePlatformCannotTellAreLeftOut) {
    const testkit::Fault fault("QOVASnapFillSubvolInfoWithPath", 1, 0, -1, 0xD900);
    ASSERT_EQ(0, create());
    EXPECT_TRUE(fault.met());
    const std::string name = "GMT-2026.01.02-03.04.07";
    EXPECT_TRUE(stands(name));
    EXPECT_EQ("(absent)", attribute(name, "uuid"));
    EXPECT_EQ("true", attribute(name, "lock"));
    EXPECT_EQ(2, storedCount());
}

TEST_F(SnapCreateRollback, FirstCodeOutlivesFailingCleanUp) {
    const testkit::Fault hide("QOVABtrfsSubvolHideAttrSet", 1, 0, -1, 0x0900);
    const testkit::Fault remove("QOVABtrfsDeleteSubvolFaultTolerant", 1, EIO, -1, 0x2A00);
    const testkit::Fault section("QLIBCFileRemoveSection", 1, EIO, -1, 0x0B00);
    const testkit::FixedTime clock(++now_);
    EXPECT_EQ(-1, QOVAShareSnapCreateNoShareInfo(share, nullptr, 0, nullptr));
    EXPECT_TRUE(remove.met());
    EXPECT_TRUE(section.met());
    EXPECT_EQ(0x0900U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to delete subvol /vol1/@sharesnap/docs/GMT-2026.01.02-03.04.07, err: "
                                         "Input/output error"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to rollback metadata for share [docs], snapshot "
                                         "[GMT-2026.01.02-03.04.07] [0x0B00 "));
}

TEST_F(SnapCreateRollback, FailedCountRollbackIsLoggedAndTheSectionStillGoes) {
    // Count up, count down: the second attribute written fails.
    const testkit::Fault count("setxattr", 2);
    const testkit::FreeSpace space(0);
    EXPECT_EQ(-1, create());
    EXPECT_TRUE(count.met());
    EXPECT_EQ(0xE400U, QLIBCErrGet());
    EXPECT_EQ(before_, meta());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to rollback snapcount for share [docs] [0x"));
}

// What is undone and announced, in this order; the frozen configuration of an encrypted share is cleared in between.
TEST_F(SnapCreateRollback, CountGoesBeforeSectionBeforeConfigurationBeforePost) {
    ASSERT_EQ("", installPlugin("ears", "exit 0\n"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@safe@"));
    const Record record("safe", "/vol1/safe", QOVA_SHARE_STATUS_ENCRYPTED);
    Names steps;
    using Set = int(const char *, const char *, const void *, size_t, int);
    using Add = int(const char *, const char *, const QLIBCSZHASH *, const char *);
    using Remove = int(const char *, const char *);
    using Execute = int(const char *, char *const *, int);
    using Action = int(int, QLIBPLUGIN *);
    const testkit::Replacement<Set> count(
        "setxattr", [&](const char *path, const char *name, const void *value, size_t size, int flags) {
            steps.push_back("count " + std::string(static_cast<const char *>(value), 1));
            return ::setxattr(path, name, value, size, flags);
        });
    const testkit::Replacement<Add> add(
        "QLIBCFileAddSection", [&](const char *file, const char *section, const QLIBCSZHASH *hash, const char *format) {
            steps.push_back(std::string(section) == "share_info" ? "freeze" : "add");
            return testkit::real<Add>("QLIBCFileAddSection")(file, section, hash, format);
        });
    const testkit::Replacement<Remove> remove("QLIBCFileRemoveSection", [&](const char *file, const char *section) {
        if (std::string(section) != "share_info") { // an older one goes before the configuration is frozen
            steps.push_back("remove");
        }
        return testkit::real<Remove>("QLIBCFileRemoveSection")(file, section);
    });
    const testkit::Replacement<Execute> clear(
        "QLIBCExecv", [&](const char *program, char *const *arguments, int flags) {
            steps.push_back("clear");
            return testkit::real<Execute>("QLIBCExecv")(program, arguments, flags);
        });
    const testkit::Replacement<Action> action("QLIBPluginAction", [&](int phase, QLIBPLUGIN *plugin) {
        steps.push_back(phase == SNAP_PHASE_POST ? "post" : "pre"); // that of the child stays in the child
        return testkit::real<Action>("QLIBPluginAction")(phase, plugin);
    });
    const testkit::Replacement<void(QLIBPLUGIN *)> exit("QLIBPluginExit", [&](QLIBPLUGIN *plugin) {
        steps.push_back("exit");
        testkit::real<void(QLIBPLUGIN *)>("QLIBPluginExit")(plugin);
    });
    const testkit::FreeSpace space(0);
    EXPECT_EQ(-1, QOVAShareSnapCreateEx(record.get(), nullptr, 0, nullptr, SNAP_CREATE_BLOCKING_POST));
    EXPECT_EQ(0xE400U, QLIBCErrGet());
    EXPECT_EQ((Names{"count 1", "freeze", "add", "count 0", "remove", "clear", "post", "exit"}), steps);
}

TEST_F(SnapCreateRollback, HiddenSnapshotRollsNoCountBack) {
    const testkit::FreeSpace space(0);
    EXPECT_EQ(-1, create({{"hide", "true"}}));
    expectAsBefore();
}

// A platform whose take leaves the register alone: the code can't be told from a conflict, and the snapshot is given
// up.
class SnapCreateStaleCode : public SnapCreateRollback, public testing::WithParamInterface<unsigned int> {};

TEST_P(SnapCreateStaleCode, UndoesCountAndSectionAndLeavesTheSubvolume) {
    using Take = int(const char *, const char *);
    const testkit::Replacement<Take> take("QOVABtrfsReadOnlySnapshotTake", [](const char *from, const char *to) {
        const int taken = testkit::real<Take>("QOVABtrfsReadOnlySnapshotTake")(from, to);
        setCode(GetParam());
        return taken;
    });
    char name[255] = "";
    const testkit::FixedTime clock(++now_);
    EXPECT_EQ(-2, QOVAShareSnapCreate(share, name, sizeof(name), nullptr));
    EXPECT_EQ(GetParam(), QLIBCErrGet());
    EXPECT_STREQ("GMT-2026.01.02-03.04.07", name);
    EXPECT_EQ(before_, meta());
    EXPECT_EQ(1, storedCount());
    EXPECT_TRUE(stands(name));
}

TEST_P(SnapCreateStaleCode, UndoesTheCountOfAHiddenSnapshotToo) {
    using Take = int(const char *, const char *);
    const testkit::Replacement<Take> take("QOVABtrfsReadOnlySnapshotTake", [](const char *from, const char *to) {
        const int taken = testkit::real<Take>("QOVABtrfsReadOnlySnapshotTake")(from, to);
        setCode(GetParam());
        return taken;
    });
    EXPECT_EQ(-2, create({{"hide", "true"}}));
    EXPECT_EQ(before_, meta());
    EXPECT_EQ(0, storedCount());
    EXPECT_EQ(2U, standing().size());
}

INSTANTIATE_TEST_SUITE_P(BothConflicts, SnapCreateStaleCode, testing::Values(0x2300U, 0xE700U));

class SnapCreateRetry : public SnapCreateRollback {
protected:
    int retry(unsigned int times) {
        // The clock stands on the second of the first snapshot.
        const testkit::FixedTime clock(now_);
        const testkit::NoSleep naps;
        const int outcome = ShareSnapCreateNameConflictRetry(share, nullptr, 0, nullptr, times);
        naps_ = naps.seconds();
        return outcome;
    }

    std::vector<unsigned int> naps_;
};

TEST_F(SnapCreateRetry, ZeroTriesOnce) {
    EXPECT_EQ(-2, retry(0));
    EXPECT_EQ(0xE700U, QLIBCErrGet());
    EXPECT_EQ(std::vector<unsigned int>{1}, naps_);
    EXPECT_EQ(1U, testkit::logCount(LOG_ERR, "Failed to create snapshot, err [59136]"));
    expectAsBefore();
}

TEST_F(SnapCreateRetry, TenTriesElevenTimesAndSleepsAfterEach) {
    EXPECT_EQ(-2, retry(10));
    EXPECT_EQ(std::vector<unsigned int>(11, 1), naps_);
    EXPECT_EQ(11U, testkit::logCount(LOG_ERR, "Failed to create snapshot, err [59136]"));
    expectAsBefore();
}

TEST_F(SnapCreateRetry, ElevenAndNegativesAreRefusedAtOnce) {
    for (const unsigned int times : {11U, static_cast<unsigned int>(-1)}) {
        setCode(0);
        EXPECT_EQ(-1, retry(times));
        EXPECT_EQ(0x0D00U, QLIBCErrGet());
        EXPECT_TRUE(naps_.empty());
        EXPECT_EQ(0U, testkit::logCount(LOG_ERR, "Failed to create snapshot"));
    }
}

TEST_F(SnapCreateRetry, OtherFailuresEndIt) {
    const testkit::Fault fault("QOVAGetFSType");
    EXPECT_EQ(-1, retry(10));
    EXPECT_TRUE(naps_.empty());
}

TEST_F(SnapCreateRetry, SucceedsInTheNextSecondAndLeavesNoOrphan) {
    testkit::FixedTime clock(now_);
    const testkit::Replacement<unsigned int(unsigned int)> sleeping("sleep", [&](unsigned int seconds) {
        clock.set(now_ += seconds);
        return 0U;
    });
    char name[255] = "";
    EXPECT_EQ(0, ShareSnapCreateNameConflictRetry(share, name, sizeof(name), nullptr, 3)) << testkit::logText();
    EXPECT_STREQ("GMT-2026.01.02-03.04.07", name);
    EXPECT_EQ((Names{first_, name}), standing());
    EXPECT_EQ((Names{first_, name}), sections());
    EXPECT_EQ(2, storedCount());
}

TEST_F(SnapCreateRetry, SucceedsAfterAnotherCreatorTookTheSection) {
    Hash other(Pairs{{"hide", "true"}});
    ASSERT_EQ(0, QOVAShareSnapMetaSectionAdd(share, "GMT-2026.01.02-03.04.07", other.get()));
    testkit::FixedTime clock(++now_);
    const testkit::Replacement<unsigned int(unsigned int)> sleeping("sleep", [&](unsigned int seconds) {
        clock.set(now_ += seconds);
        return 0U;
    });
    char name[255] = "";
    EXPECT_EQ(0, ShareSnapCreateNameConflictRetry(share, name, sizeof(name), nullptr, 1)) << testkit::logText();
    EXPECT_STREQ("GMT-2026.01.02-03.04.08", name);
    EXPECT_EQ((Names{first_, name}), standing());
    EXPECT_EQ(2, storedCount());
}

} // namespace
