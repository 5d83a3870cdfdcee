// What follows a share when it is made, renamed and removed.
#include "volume/lifecycle.hpp"

#include <sharesnap/config.h>
#include <sharesnap/platform/share_admin.h>

using namespace lifecycle;

namespace {

class ShareOp : public Fixture {
protected:
    void SetUp() override {
        Fixture::SetUp();
        if (!IsSkipped()) {
            ASSERT_TRUE(testkit::makeDirectories("/usr/qova/etc/sharesnap"));
        }
    }

    static std::string setting(const std::string &name) {
        char value[64] = "";
        return QOVAShareSnapConfGet(name.c_str(), "local_time_format", value, sizeof(value)) == 1 ? value : "(absent)";
    }

    int rename() { return QOVAShareSnapShareRename(share, renamed_.get(), "/vol1/docs", "/vol1/files"); }

    void expectOldName(const Names &snapshots, const std::string &metaText) {
        EXPECT_EQ("false", setting("docs"));
        EXPECT_EQ("(absent)", setting("files"));
        EXPECT_EQ(metaText, meta());
        EXPECT_EQ(snapshots, standing());
        EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/docs"));
        EXPECT_EQ(static_cast<int>(snapshots.size()), storedCount());
    }

    // The new name and the old path: the data move last.
    Record renamed_{"files", "/vol1/docs"};
};

TEST_F(ShareOp, CreateMakesASubvolume) {
    EXPECT_EQ(0, QOVAShareSnapShareCreate("/vol1/new"));
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/new"));
    EXPECT_EQ(-1, QOVAShareSnapShareCreate("/vol1/new"));
    EXPECT_EQ(-1, QOVAShareSnapShareCreate("/vol1/absent/new"));
    const testkit::Replacement<int(const char *)> odd("QOVABtrfsCreateSubVol", [](const char *) { return 3; });
    EXPECT_EQ(0, QOVAShareSnapShareCreate("/vol1/other"));
}

TEST_F(ShareOp, NullsAreRefusedWithoutALine) {
    const auto refused = [](int outcome) {
        const bool right = outcome == -1 && QLIBCErrGet() == 0x0D00;
        setCode(0);
        return right;
    };
    EXPECT_TRUE(refused(QOVAShareSnapShareCreate(nullptr)));
    EXPECT_TRUE(refused(QOVAShareSnapConfigDelete(nullptr)));
    EXPECT_TRUE(refused(QOVAShareSnapDataDelete(nullptr)));
    EXPECT_TRUE(refused(QOVAShareSnapShareRename(nullptr, share, "/vol1/a", "/vol1/b")));
    EXPECT_TRUE(refused(QOVAShareSnapShareRename(share, nullptr, "/vol1/a", "/vol1/b")));
    EXPECT_TRUE(refused(QOVAShareSnapShareRename(share, share, nullptr, "/vol1/b")));
    EXPECT_TRUE(refused(QOVAShareSnapShareRename(share, share, "/vol1/a", nullptr)));
    EXPECT_TRUE(testkit::logLines().empty()) << testkit::logText();
}

TEST_F(ShareOp, ConfigDeleteTakesTheSectionAlone) {
    ASSERT_EQ(0, QOVAShareSnapConfSet("docs", "local_time_format", "false"));
    ASSERT_EQ(0, QOVAShareSnapConfSet("other", "local_time_format", "true"));
    const std::string name = take();
    EXPECT_EQ(0, QOVAShareSnapConfigDelete("/vol1/docs"));
    EXPECT_EQ("(absent)", setting("docs"));
    EXPECT_EQ("true", setting("other"));
    EXPECT_TRUE(stands(name));
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/docs"));
}

TEST_F(ShareOp, ConfigDeleteTellsWhyItFailed) {
    const testkit::Fault split("QOVAShareNamePathGet");
    EXPECT_EQ(-1, QOVAShareSnapConfigDelete("/vol1/docs"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get share name and path from /vol1/docs [0x2A00 "));
    ASSERT_EQ(0, QOVAShareSnapConfSet("docs", "local_time_format", "false"));
    const testkit::Fault lock("QLIBCFileLockTimeByFile");
    EXPECT_EQ(-1, QOVAShareSnapConfigDelete("/vol1/docs"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to delete sharesnap config section(docs) [0x0400 "));
}

TEST_F(ShareOp, DataDeleteTakesEverything) {
    const Names names = takeSome(3);
    ASSERT_EQ(1, QOVAShareSnapSysLockIncrement(share, names[1].c_str(), "backup")); // held or not
    ASSERT_EQ(0, SnapMetaSectionDel(share, names[2].c_str(), 1));                   // lost by the metadata or not
    ASSERT_TRUE(testkit::exists("/vol1/docs/@eaDir"));
    ASSERT_TRUE(testkit::exists(snapDir() + "/desktop.ini"));
    EXPECT_EQ(0, QOVAShareSnapDataDelete("/vol1/docs")) << testkit::logText();
    EXPECT_FALSE(testkit::exists("/vol1/docs"));
    EXPECT_FALSE(testkit::exists(snapDir()));
    EXPECT_FALSE(testkit::exists(metaPath()));
    EXPECT_TRUE(testkit::exists("/vol1/@sharesnap"));
}

TEST_F(ShareOp, DataDeleteTakesAHiddenSnapshotToo) {
    (void)take({{"hide", "true"}});
    EXPECT_EQ(0, QOVAShareSnapDataDelete("/vol1/docs"));
    EXPECT_FALSE(testkit::exists(snapDir()));
}

TEST_F(ShareOp, DataDeleteOfAShareWithoutSnapshots) {
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(share));
    ASSERT_TRUE(testkit::exists("/vol1/docs/@eaDir"));
    EXPECT_EQ(0, QOVAShareSnapDataDelete("/vol1/docs")) << testkit::logText();
    EXPECT_FALSE(testkit::exists("/vol1/docs"));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/docs"));
}

// Settings of a snapshot that never came to be, say.
TEST_F(ShareOp, DataDeleteTakesAMetadataFileWithoutASnapshotDirectory) {
    const Hash hash(Pairs{{"hide", "false"}});
    ASSERT_EQ(0, QOVAShareSnapMetaSectionAdd(share, "GMT-1999.01.01-00.00.00", hash.get()));
    ASSERT_TRUE(testkit::exists(metaPath()));
    ASSERT_FALSE(testkit::exists(snapDir()));
    EXPECT_EQ(0, QOVAShareSnapDataDelete("/vol1/docs")) << testkit::logText();
    EXPECT_FALSE(testkit::exists("/vol1/docs"));
    EXPECT_FALSE(testkit::exists(metaPath()));
    EXPECT_FALSE(testkit::exists(snapDir()));
}

TEST_F(ShareOp, DataDeleteAsksForTheAttributesOfThePathAsItWasSplit) {
    (void)take();
    ASSERT_TRUE(testkit::exists("/vol1/docs/@eaDir"));
    Names asked;
    using Remove = int(const char *, int, int64_t *);
    const testkit::Replacement<Remove> removal("QOVAEARemove", [&](const char *path, int flags, int64_t *flag) {
        asked.push_back(std::string(path) + " " + std::to_string(flags) + " " + std::to_string(*flag));
        // With the snapshots gone and the share still there.
        EXPECT_FALSE(testkit::exists(snapDir()));
        EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/docs"));
        const int outcome = testkit::real<Remove>("QOVAEARemove")(path, flags, flag);
        EXPECT_FALSE(testkit::exists("/vol1/docs/@eaDir"));
        return outcome;
    });
    EXPECT_EQ(0, QOVAShareSnapDataDelete("/vol1//docs/"));
    EXPECT_EQ(Names{"/vol1/docs 3 1"}, asked);
}

TEST_F(ShareOp, DataDeleteOfAnEmptySnapshotDirectoryHandsOverTheEmptyList) {
    const std::string name = take();
    ASSERT_EQ(0, remove({name}));
    int length = -1;
    using Delete = int(const char *, const QLIBCSZLIST *);
    const testkit::Replacement<Delete> deletion(
        "QOVABtrfsDeleteSubvolListFaultTolerant", [&](const char *directory, const QLIBCSZLIST *list) {
            length = list->nItem;
            return testkit::real<Delete>("QOVABtrfsDeleteSubvolListFaultTolerant")(directory, list);
        });
    EXPECT_EQ(0, QOVAShareSnapDataDelete("/vol1/docs"));
    EXPECT_EQ(0, length);
    EXPECT_FALSE(testkit::exists(snapDir()));
}

TEST_F(ShareOp, DataDeleteBearsAMetadataFileThatStays) {
    (void)take();
    const testkit::Fault unlinking("unlink", 0);
    EXPECT_EQ(0, QOVAShareSnapDataDelete("/vol1/docs"));
    EXPECT_TRUE(unlinking.met());
    EXPECT_TRUE(testkit::exists(metaPath()));
    EXPECT_FALSE(testkit::exists("/vol1/docs"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to delete metafile of share [docs] [0x"));
}

TEST_F(ShareOp, DataDeleteStopsWhereItFails) {
    const std::string name = take();
    struct Step {
        const char *symbol;
        size_t nth;
        const char *line;
        unsigned int code;
    };
    const std::vector<Step> steps{
        {"QOVAShareNamePathGet", 1, "Failed to get share name and path from /vol1/docs [0x2A00 ", 0x2A00},
        {"QOVAShareGet", 1, "Failed to get share (docs)[0x2A00 ", 0x2A00},
        {"QLIBCPopen", 1, "Failed to list snapshots for share [docs][0x", 0x2A00},
        {"QOVABtrfsDeleteSubvolListFaultTolerant", 1, "Faild to delete subvolumes.[0x2A00 ", 0x2A00},
        {"remove", 1, "Failed to remove snapshot directory /vol1/@sharesnap/docs file desktop.ini (Input/output error)",
         0x3900},
        {"QOVABtrfsDeleteSubvolFaultTolerant", 1,
         "Failed to delete subvolume /vol1/@sharesnap/docs err:(Input/output error) [0x2A00 ", 0x3900},
        {"QOVAEARemove", 1, "failed to remove share [docs] eaDir", 0x2A00},
        {"QOVABtrfsDeleteSubvolFaultTolerant", 1, "Failed to delete btrfs subvolume [/vol1/docs] [0x2A00 ", 0x2A00},
    };
    for (const Step &step : steps) {
        SCOPED_TRACE(step.line);
        testkit::logClear();
        const testkit::Fault fault(step.symbol, step.nth, EIO);
        EXPECT_EQ(-1, QOVAShareSnapDataDelete("/vol1/docs"));
        EXPECT_TRUE(fault.met());
        EXPECT_EQ(step.code, QLIBCErrGet());
        EXPECT_TRUE(testkit::logged(LOG_ERR, step.line));
        EXPECT_TRUE(testkit::exists("/vol1/docs"));
        EXPECT_TRUE(testkit::exists(metaPath())); // it goes last
    }
    EXPECT_EQ(0, QOVAShareSnapDataDelete("/vol1/docs")); // and the call can be made again
}

TEST_F(ShareOp, DataDeleteNeedsTheRecord) {
    ASSERT_EQ(0, QOVAShareRecordRemove("docs"));
    EXPECT_EQ(-1, QOVAShareSnapDataDelete("/vol1/docs"));
    EXPECT_TRUE(testkit::exists("/vol1/docs"));
}

TEST_F(ShareOp, RenameMovesAllThatIsKept) {
    ASSERT_EQ(0, QOVAShareSnapConfSet("docs", "local_time_format", "false"));
    const Names names = takeSome(2);
    const std::string text = meta();
    ASSERT_EQ(0, rename()) << testkit::logText();
    EXPECT_EQ("(absent)", setting("docs"));
    EXPECT_EQ("false", setting("files"));
    EXPECT_FALSE(testkit::exists("/vol1/docs"));
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/files"));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/docs"));
    EXPECT_FALSE(testkit::exists(metaPath()));
    EXPECT_EQ(text, testkit::readFile("/vol1/@sharesnap/@files.meta"));
    const Record moved("files", "/vol1/files");
    List list;
    ASSERT_EQ(0, QOVAShareSnapList(moved.get(), list.address(), nullptr));
    EXPECT_EQ(names, list.names());
    int count = 0; // it lies on the directory and goes with it
    EXPECT_EQ(0, QOVAShareSnapGetSnapCount(moved.get(), &count, 0));
    EXPECT_EQ(2, count);
}

TEST_F(ShareOp, RenameToATakenMetadataFileChangesNothing) {
    ASSERT_EQ(0, QOVAShareSnapConfSet("docs", "local_time_format", "false"));
    const Names names = takeSome(2);
    const std::string text = meta();
    ASSERT_TRUE(testkit::writeFile("/vol1/@sharesnap/@files.meta", "[GMT-1999.01.01-00.00.00]\n"));
    EXPECT_EQ(-1, rename());
    EXPECT_EQ(0x0800U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "meta rename fail (docs -> files) [0x0800 "));
    expectOldName(names, text);
    EXPECT_EQ("[GMT-1999.01.01-00.00.00]\n", testkit::readFile("/vol1/@sharesnap/@files.meta"));
}

TEST_F(ShareOp, RenameToATakenSnapshotDirectoryMovesTheRestBack) {
    ASSERT_EQ(0, QOVAShareSnapConfSet("docs", "local_time_format", "false"));
    const Names names = takeSome(2);
    const std::string text = meta();
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@sharesnap/files"));
    EXPECT_EQ(-1, rename());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "snap dir rename fail (docs -> files) [0xE700 "));
    expectOldName(names, text);
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/@files.meta"));
}

TEST_F(ShareOp, RenameWhoseDataCannotMoveMovesAllThreeBack) {
    ASSERT_EQ(0, QOVAShareSnapConfSet("docs", "local_time_format", "false"));
    const Names names = takeSome(2);
    const std::string text = meta();
    ASSERT_TRUE(testkit::makeDirectories("/vol1/files/full")); // in the way
    EXPECT_EQ(-1, rename());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to rename /vol1/docs to /vol1/files\n"));
    expectOldName(names, text);
}

TEST_F(ShareOp, RenameOfAShareWithoutSnapshotsLeavesAnEmptyDirectoryWhenItFails) {
    ASSERT_EQ(0, QOVAShareSnapConfSet("docs", "local_time_format", "false"));
    ASSERT_TRUE(testkit::makeDirectories("/vol1/files/full"));
    EXPECT_EQ(-1, rename());
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/@sharesnap/docs"));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/files"));
    EXPECT_EQ("false", setting("docs"));
}

TEST_F(ShareOp, RenameStopsBeforeAnyChangeWhenTheSettingsCannotMove) {
    ASSERT_EQ(0, QOVAShareSnapConfSet("docs", "local_time_format", "false"));
    const Names names = takeSome(1);
    const std::string text = meta();
    {
        const testkit::Fault lock("QLIBCFileLockTimeByFile");
        EXPECT_EQ(-1, rename());
        EXPECT_TRUE(testkit::logged(LOG_ERR, "sharesnap config share rename fail (docs -> files) [0x0400 "));
    }
    expectOldName(names, text);
}

// The share stands half moved then, and the line is all that tells.
TEST_F(ShareOp, RenameTellsOfSettingsThatCannotMoveBack) {
    ASSERT_EQ(0, QOVAShareSnapConfSet("docs", "local_time_format", "false"));
    const Names names = takeSome(1);
    const std::string text = meta();
    ASSERT_TRUE(testkit::writeFile("/vol1/@sharesnap/@files.meta", "[GMT-1999.01.01-00.00.00]\n"));
    {
        int locks = 0; // on the settings: they move, and are to move back
        using Lock = int(const char *, int, int, int *);
        const testkit::Replacement<Lock> lock(
            "QLIBCFileLockTimeByFile", [&](const char *path, int mode, int seconds, int *fd) {
                if (std::string(path).find("sharesnap_conf") != std::string::npos && ++locks == 2) {
                    setCode(0x0400);
                    return 0;
                }
                return testkit::real<Lock>("QLIBCFileLockTimeByFile")(path, mode, seconds, fd);
            });
        EXPECT_EQ(-1, rename());
    }
    EXPECT_TRUE(testkit::logged(LOG_ERR, "meta rename fail (docs -> files) [0x0800 "));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to rollback sharesnap conf (files -> docs) [0x0400 "));
    EXPECT_EQ("(absent)", setting("docs"));
    EXPECT_EQ("false", setting("files"));
    EXPECT_EQ(text, meta());
    EXPECT_EQ(names, standing());
}

// Each step back is tried, whatever became of the one before.
TEST_F(ShareOp, RenameTriesEachStepBack) {
    ASSERT_EQ(0, QOVAShareSnapConfSet("docs", "local_time_format", "false"));
    const std::string name = take();
    ASSERT_TRUE(testkit::makeDirectories("/vol1/files/full"));
    // The renames of the library: metadata, directory, data (which fails by itself), directory back, metadata back.
    using Rename = int(const char *, const char *);
    const testkit::Replacement<Rename> renaming("rename", [](const char *from, const char *to) {
        const bool back = std::string(from).find("files") != std::string::npos;
        if (back && std::string(from).rfind("/vol1/@sharesnap/", 0) == 0) {
            errno = EIO;
            return -1;
        }
        return testkit::real<Rename>("rename")(from, to);
    });
    EXPECT_EQ(-1, rename());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to rollback snapdir share (files -> docs) [0x"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to rollback snap metafile (files -> docs) [0x"));
    EXPECT_EQ("false", setting("docs"));
    EXPECT_EQ("(absent)", setting("files"));
}

} // namespace
