#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/log_capture.hpp"
#include "support/metadata_fixture.hpp"

#include <sharesnap/frame.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/subvolume.h>

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using testkit::Names;
using testkit::Pairs;

class MetaFile : public testkit::MetadataTest {
protected:
    // Makes something that is no file out of the metadata path.
    static void blockPath() { ASSERT_EQ(0, mkdir(metaPath, 0755)); }
};

TEST_F(MetaFile, LiesBesideTheSnapshotDirectory) {
    char path[4096] = "";
    EXPECT_EQ(0, SnapMetaGetOrCreateFile(docs(), path, sizeof(path), 0));
    EXPECT_STREQ(metaPath, path);
    EXPECT_FALSE(testkit::exists(metaPath));
    EXPECT_EQ(1, SnapMetaGetOrCreateFile(docs(), path, sizeof(path), 1));
    struct stat info = {};
    ASSERT_EQ(0, stat(metaPath, &info));
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_EQ(0, info.st_size);
    EXPECT_EQ(0644u & ~022u, info.st_mode & 07777u);
}

TEST_F(MetaFile, AnEncryptedShareHasANameOfItsOwn) {
    ASSERT_EQ("", testkit::addShare("safe", "/vol1/safe", 0x03));
    const testkit::SharePointer safe = testkit::getShare("safe");
    ASSERT_NE(nullptr, safe);
    char path[4096] = "";
    EXPECT_EQ(0, SnapMetaGetOrCreateFile(safe.get(), path, sizeof(path), 0));
    EXPECT_STREQ("/vol1/@sharesnap/@safe@.meta", path);
}

TEST_F(MetaFile, AnExistingFileIsNeverEmptiedByItsMaker) {
    writeMeta("[a]\nk=v\n");
    // As a process sees it that looked just before another one made the file.
    int looks = 0;
    const testkit::Replacement<int(const char *, struct stat64 *)> late("stat64",
                                                                        [&looks](const char *, struct stat64 *) {
                                                                            ++looks;
                                                                            errno = ENOENT;
                                                                            return -1;
                                                                        });
    char path[4096] = "";
    EXPECT_EQ(1, SnapMetaGetOrCreateFile(docs(), path, sizeof(path), 1));
    EXPECT_LT(0, looks);
    EXPECT_EQ("[a]\nk=v\n", meta());
}

TEST_F(MetaFile, ALinkIsNotFollowedToMakeOne) {
    ASSERT_EQ(0, symlink("/run/elsewhere", metaPath));
    char path[4096] = "";
    EXPECT_EQ(0, SnapMetaGetOrCreateFile(docs(), path, sizeof(path), 1));
    EXPECT_EQ(0x0C00u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to create [/vol1/@sharesnap/@docs.meta]"));
    EXPECT_FALSE(testkit::exists("/run/elsewhere"));
}

TEST_F(MetaFile, RefusesBadArgumentsWithoutALine) {
    char path[4096] = "";
    EXPECT_EQ(-1, SnapMetaGetOrCreateFile(nullptr, path, sizeof(path), 0));
    EXPECT_EQ(-1, SnapMetaGetOrCreateFile(docs(), nullptr, sizeof(path), 0));
    EXPECT_EQ(-1, SnapMetaGetOrCreateFile(docs(), path, 0, 0));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logLines().empty()) << testkit::logText();
}

TEST_F(MetaFile, APathThatDoesNotFitIsRefused) {
    char path[16] = "";
    EXPECT_EQ(-1, SnapMetaGetOrCreateFile(docs(), path, sizeof(path), 1));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
}

TEST_F(MetaFile, WithoutAFileReadersFindNothing) {
    EXPECT_TRUE(listed().empty());
    EXPECT_EQ(0, SnapMetaFileDelete(docs()));
    ASSERT_EQ("", testkit::makeShare("other"));
    const testkit::SharePointer other = testkit::getShare("other");
    EXPECT_EQ(0, SnapMetaFileRename(docs(), other.get()));
    EXPECT_EQ(-1, SnapMetaSectionDel(docs(), "a", 1));
    EXPECT_EQ(0x0700u, QLIBCErrGet());
    EXPECT_FALSE(testkit::exists(metaPath));
}

TEST_F(MetaFile, AddsSectionsBehindTheOthers) {
    const Pairs first = {{"hide", "false"}, {"desc", "with = and blanks"}};
    const Pairs second = {{"hide", "true"}};
    EXPECT_EQ(0, QOVAShareSnapMetaSectionAdd(docs(), "b", first.get()));
    EXPECT_EQ(0, QOVAShareSnapMetaSectionAdd(docs(), "a name \xc3\xbc", second.get()));
    EXPECT_EQ((std::vector<std::string>{"b", "a name \xc3\xbc"}), listed());
    Pairs read;
    EXPECT_EQ(0, QOVAShareSnapAttrList(docs(), "b", read.address()));
    EXPECT_EQ(first.all(), read.all());
}

TEST_F(MetaFile, ASectionThatStandsIsLeftAlone) {
    const Pairs old = {{"desc", "old"}};
    const Pairs changed = {{"desc", "new"}};
    ASSERT_EQ(0, QOVAShareSnapMetaSectionAdd(docs(), "a", old.get()));
    EXPECT_EQ(-1, QOVAShareSnapMetaSectionAdd(docs(), "a", changed.get()));
    EXPECT_EQ(0x2300u, QLIBCErrGet());
    EXPECT_TRUE(testkit::loggedMatch(LOG_ERR,
                                     "^snapshot_meta\\.cpp:[0-9]+ Failed to add section \\[a\\] to file "
                                     "\\[/vol1/@sharesnap/@docs\\.meta\\], because section is exist\\.\\[0x2300 "
                                     "snapshot_meta\\.cpp:[0-9]+\\]$"));
    EXPECT_EQ("[a]\ndesc=old\n", meta());
}

TEST_F(MetaFile, TakesASectionAtItsLimits) {
    Pairs pairs = {{std::string(63, 'k'), std::string(511, 'v')}};
    for (int i = 1; i < 64; ++i) {
        pairs.set("key" + std::to_string(i), "");
    }
    EXPECT_EQ(0, QOVAShareSnapMetaSectionAdd(docs(), "a", pairs.get()));
    Pairs read;
    EXPECT_EQ(0, QOVAShareSnapAttrList(docs(), "a", read.address()));
    EXPECT_EQ(pairs.all(), read.all());
}

TEST_F(MetaFile, RefusesASectionBeyondItsLimitsAndMakesNoFile) {
    Pairs many;
    for (int i = 0; i < 65; ++i) {
        many.set("key" + std::to_string(i), "v");
    }
    EXPECT_EQ(-1, QOVAShareSnapMetaSectionAdd(docs(), "a", many.get()));
    EXPECT_EQ(0xC300u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Exceed share snapshot section maximum number 65"));
    testkit::logClear();
    const Pairs longKey = {{std::string(64, 'k'), "v"}};
    EXPECT_EQ(-1, QOVAShareSnapMetaSectionAdd(docs(), "a", longKey.get()));
    EXPECT_EQ(0xE600u, QLIBCErrGet());
    QLIBCErrSetEx(0, "", 0);
    const Pairs longValue = {{"k", std::string(512, 'v')}};
    EXPECT_EQ(-1, QOVAShareSnapMetaSectionAdd(docs(), "a", longValue.get()));
    EXPECT_EQ(0xE600u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logLines().empty()) << testkit::logText();
    EXPECT_FALSE(testkit::exists(metaPath));
}

TEST_F(MetaFile, ChecksTheArgumentsOfAnAdd) {
    const Pairs pairs;
    EXPECT_EQ(-1, QOVAShareSnapMetaSectionAdd(nullptr, "a", pairs.get()));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != pShare)=[0]"));
    EXPECT_EQ(-1, QOVAShareSnapMetaSectionAdd(docs(), nullptr, pairs.get()));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != szSnapName)=[0]"));
    EXPECT_EQ(-1, QOVAShareSnapMetaSectionAdd(docs(), "a", nullptr));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (NULL != pshHash)=[0]"));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
}

TEST_F(MetaFile, RemovesOneSection) {
    writeMeta("[a]\nk=1\n[b]\nk=2\n[c]\nk=3\n");
    EXPECT_EQ(0, SnapMetaSectionDel(docs(), "b", 1));
    EXPECT_EQ((std::vector<std::string>{"a", "c"}), listed());
    EXPECT_EQ(0, SnapMetaSectionDel(docs(), "a", 0));
    EXPECT_EQ((std::vector<std::string>{"c"}), listed());
    testkit::logClear();
    EXPECT_EQ(-1, SnapMetaSectionDel(docs(), "b", 1));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to remove section: b from /vol1/@sharesnap/@docs.meta ["));
    EXPECT_EQ(0, SnapMetaSectionDel(docs(), "c", 1));
    EXPECT_TRUE(testkit::exists(metaPath)); // the last section takes no file away
}

TEST_F(MetaFile, LocksForARemovalOnlyWhenAsked) {
    writeMeta("[a]\nk=1\n[b]\nk=2\n");
    const testkit::CallCount locks("QLIBCFileLockTimeByFile");
    const testkit::CallCount unlocks("QLIBCFileUnlockByFile");
    EXPECT_EQ(0, SnapMetaSectionDel(docs(), "a", 0));
    EXPECT_EQ(0u, locks.calls());
    EXPECT_EQ(0u, unlocks.calls());
    EXPECT_EQ(0, SnapMetaSectionDel(docs(), "b", 1));
    EXPECT_EQ(1u, locks.calls());
    EXPECT_EQ(1u, unlocks.calls());
}

TEST_F(MetaFile, GoesWithItsShare) {
    writeMeta("[a]\nk=1\n");
    EXPECT_EQ(0, SnapMetaFileDelete(docs()));
    EXPECT_FALSE(testkit::exists(metaPath));
    EXPECT_EQ(-1, SnapMetaFileDelete(nullptr));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
}

TEST_F(MetaFile, MovesWithItsShare) {
    ASSERT_EQ("", testkit::makeShare("other"));
    const testkit::SharePointer other = testkit::getShare("other");
    writeMeta("[a]\nk=1\n");
    EXPECT_EQ(0, SnapMetaFileRename(docs(), other.get()));
    EXPECT_FALSE(testkit::exists(metaPath));
    EXPECT_EQ("[a]\nk=1\n", testkit::readFile("/vol1/@sharesnap/@other.meta"));
    EXPECT_EQ(-1, SnapMetaFileRename(nullptr, other.get()));
    EXPECT_EQ(-1, SnapMetaFileRename(docs(), nullptr));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
}

TEST_F(MetaFile, NeverReplacesAnotherSharesFile) {
    ASSERT_EQ("", testkit::makeShare("other"));
    const testkit::SharePointer other = testkit::getShare("other");
    writeMeta("[a]\nk=1\n");
    ASSERT_TRUE(testkit::writeFile("/vol1/@sharesnap/@other.meta", "[b]\nk=2\n"));
    EXPECT_EQ(-1, SnapMetaFileRename(docs(), other.get()));
    EXPECT_EQ(0x0800u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Metafile /vol1/@sharesnap/@other.meta already exist "));
    EXPECT_EQ("[a]\nk=1\n", meta());
    EXPECT_EQ("[b]\nk=2\n", testkit::readFile("/vol1/@sharesnap/@other.meta"));
}

TEST_F(MetaFile, ADirectoryInItsPlaceFailsEveryFunctionAndStays) {
    blockPath();
    char path[4096] = "";
    Pairs pairs = {{"k", "v"}};
    char value[16] = "";
    Names names;
    ASSERT_EQ("", testkit::makeShare("other"));
    const testkit::SharePointer other = testkit::getShare("other");
    ASSERT_TRUE(testkit::writeFile("/vol1/@sharesnap/@other.meta", ""));
    const struct {
        const char *name;
        std::function<int()> call;
        unsigned int code;
    } calls[] = {
        {"get", [&] { return SnapMetaGetOrCreateFile(docs(), path, sizeof(path), 0); }, 0xC000},
        {"create", [&] { return SnapMetaGetOrCreateFile(docs(), path, sizeof(path), 1); }, 0xC000},
        {"add", [&] { return QOVAShareSnapMetaSectionAdd(docs(), "a", pairs.get()); }, 0xC000},
        {"attr get", [&] { return QOVAShareSnapAttrGet(docs(), "a", "k", value, sizeof(value)); }, 0xC000},
        {"attr list", [&] { return QOVAShareSnapAttrList(docs(), "a", pairs.address()); }, 0xC000},
        {"attr set", [&] { return QOVAShareSnapAttrSet(docs(), "a", "k", "v"); }, 0xC000},
        {"attr sets", [&] { return QOVAShareSnapAttrMultiSet(docs(), "a", pairs.get()); }, 0xC000},
        {"attr delete", [&] { return QOVAShareSnapAttrDelete(docs(), "a", "k"); }, 0xC000},
        {"rename from", [&] { return SnapMetaFileRename(docs(), other.get()); }, 0xC000},
        // These say in a code of their own that the file can't be reached, and log the cause.
        {"list", [&] { return QOVAShareSnapList(docs(), names.address(), nullptr); }, 0x0700},
        {"remove", [&] { return SnapMetaSectionDel(docs(), "a", 1); }, 0x0700},
        {"rename to", [&] { return SnapMetaFileRename(other.get(), docs()); }, 0xBE00},
    };
    for (const auto &one : calls) {
        testkit::logClear();
        QLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(-1, one.call()) << one.name;
        EXPECT_EQ(one.code, QLIBCErrGet()) << one.name;
        if (one.code != 0xC000) {
            EXPECT_TRUE(testkit::logged(LOG_ERR, "[0xC000 snapshot_meta.cpp:")) << one.name;
        }
    }
    EXPECT_EQ(0, SnapMetaFileDelete(docs()));
    EXPECT_TRUE(testkit::isDirectory(metaPath));
}

TEST_F(MetaFile, AFailedUnlockIsLoggedAndChangesNeitherResultNorCode) {
    const Pairs pairs = {{"k", "v"}};
    QLIBCErrSetEx(0x1500, "elsewhere", 1);
    {
        const testkit::Fault fault("QLIBCFileUnlockByFile");
        EXPECT_EQ(0, QOVAShareSnapMetaSectionAdd(docs(), "a", pairs.get()));
        EXPECT_TRUE(fault.met());
    }
    EXPECT_EQ(0x1500u, QLIBCErrGet());
    EXPECT_STREQ("elsewhere", QLIBCErrorGetFile());
    EXPECT_EQ(1u, testkit::logCount(LOG_ERR, "fail to QLIBCFileUnlockByFile of share(docs) metadata["));
    EXPECT_EQ((std::vector<std::string>{"a"}), listed());
}

TEST_F(MetaFile, AFullVolumeIsToldFromOtherFailures) {
    const Pairs pairs = {{"k", "v"}};
    const testkit::Fault full("QLIBCFileAddSection", 1, ENOSPC, -1, 0x0B00);
    const testkit::Fault broken("QLIBCFileAddSection", 2, EIO, -1, 0x0B00);
    EXPECT_EQ(-1, QOVAShareSnapMetaSectionAdd(docs(), "a", pairs.get()));
    EXPECT_EQ(0x2900u, QLIBCErrGet());
    EXPECT_EQ(-1, QOVAShareSnapMetaSectionAdd(docs(), "a", pairs.get()));
    EXPECT_EQ(0x0B00u, QLIBCErrGet());
}

TEST_F(MetaFile, AnOldFullVolumeIsNoReasonForWhatIsNoFailure) {
    const Pairs pairs = {{"k", "v"}};
    writeMeta("[a]\nk=v\n");
    QLIBCErrSetEx(0, "", 0);
    errno = ENOSPC;
    EXPECT_EQ(0, SnapFileSectionAdd(metaPath, "a", pairs.get(), nullptr)); // it stands
    EXPECT_EQ(0u, QLIBCErrGet());
    errno = ENOSPC;
    EXPECT_EQ(0, SnapFileSectionRemove(metaPath, "b"));
    EXPECT_EQ(0u, QLIBCErrGet());
    errno = ENOSPC;
    EXPECT_EQ(-1, SnapFileSectionSet(metaPath, "b", nullptr, pairs.get(), nullptr));
    EXPECT_EQ(0x2200u, QLIBCErrGet());
}

} // namespace
