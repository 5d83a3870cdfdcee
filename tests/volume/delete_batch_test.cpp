// A batch of snapshots is deleted: results by name, counter, metadata, plug-ins.
#include "volume/lifecycle.hpp"

#include <sys/stat.h>

using namespace lifecycle;

namespace {

enum { GONE = 0, SURVIVED = 0x2A00, NOT_FOUND = 0xA100, LOCKED = 0xF400 };
using Codes = std::vector<int>;

class SnapDelete : public Fixture {
protected:
    // Rewrites the metadata as an editor would.
    void editMeta(const std::string &text) const { ASSERT_TRUE(testkit::writeFile(metaPath(), text)); }

    static std::string section(const std::string &name, const std::string &pairs = "hide=false\n") {
        return "[" + name + "]\n" + pairs;
    }
};

TEST_F(SnapDelete, TakesSubvolumesSectionsAndCount) {
    const Names names = takeSome(4);
    EXPECT_EQ(0, remove({names[1], names[3]}));
    EXPECT_EQ((Codes{GONE, GONE}), codes);
    EXPECT_EQ((Names{names[0], names[2]}), standing());
    EXPECT_EQ((Names{names[0], names[2]}), sections());
    EXPECT_EQ(2, storedCount());
    EXPECT_EQ(0U, testkit::logCount(LOG_ERR, "elete")) << testkit::logText();
}

TEST_F(SnapDelete, RefusesNullArguments) {
    const List list(Names{"a"});
    QLIBCMRESULT *entries = QLIBCMResultAlloc();
    EXPECT_EQ(-1, QOVAShareSnapDelete(nullptr, list.get(), &entries));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    setCode(0);
    EXPECT_EQ(-1, QOVAShareSnapDelete(share, nullptr, &entries));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    setCode(0);
    EXPECT_EQ(-1, QOVAShareSnapDelete(share, list.get(), nullptr));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != pShare)=[0]\n"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != pListSnap)=[0]\n"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (NULL != ppMResult)=[0]\n"));
    QLIBCMResultFree(entries);
}

TEST_F(SnapDelete, EmptyListIsDoneWithoutPlugins) {
    (void)take();
    ASSERT_EQ("", installPlugin("ears", recordingScript("ears")));
    const testkit::CallCount opened("QLIBPluginSDKInit");
    EXPECT_EQ(0, remove({}));
    EXPECT_EQ(0U, opened.calls());
}

TEST_F(SnapDelete, EmptyListLeavesARecordOfNoEntries) {
    const List list;
    QLIBCMRESULT *entries = QLIBCMResultInit(QLIBCMResultAlloc(), 2, 0x1500);
    ASSERT_NE(nullptr, entries);
    EXPECT_EQ(0, QOVAShareSnapDelete(share, list.get(), &entries));
    int code = 77;
    EXPECT_GT(0, QLIBCMResultGetCoreErrorByIndex(entries, 0, &code));
    EXPECT_EQ(1, QLIBCMResultCoreSuccess(entries));
    QLIBCMResultFree(entries);
}

TEST_F(SnapDelete, RefusesHeldSnapshotsAndDeletesTheOthers) {
    const Names names = takeSome(3);
    ASSERT_EQ(1, QOVAShareSnapSysLockIncrement(share, names[1].c_str(), "backup"));
    EXPECT_EQ(-1, remove(names));
    EXPECT_EQ((Codes{GONE, LOCKED, GONE}), codes);
    EXPECT_EQ(Names{names[1]}, standing());
    EXPECT_EQ(Names{names[1]}, sections());
    EXPECT_EQ(1, storedCount());
    ASSERT_EQ(1, QOVAShareSnapSysLockDecrement(share, names[1].c_str(), "backup"));
    EXPECT_EQ(0, remove({names[1]}));
}

TEST_F(SnapDelete, TouchesNothingWhenAllAreHeld) {
    ASSERT_EQ("", installPlugin("ears", "[ $1$ACTION = postDELETE ] || exit 0\n" + recordingScript("ears")));
    const Names names = takeSome(2);
    const std::string before = meta();
    for (const std::string &name : names) {
        ASSERT_EQ(1, QOVAShareSnapSysLockIncrement(share, name.c_str(), "backup"));
    }
    const testkit::CallCount opened("fopen64");
    EXPECT_EQ(-1, remove(names));
    EXPECT_EQ((Codes{LOCKED, LOCKED}), codes);
    EXPECT_EQ(before, meta());
    EXPECT_EQ(0U, opened.calls());
    const std::string record = recorded("ears", "post");
    EXPECT_EQ("", variable(record, "SNAPSHOT"));
    EXPECT_EQ("-1", variable(record, "RESULT"));
}

TEST_F(SnapDelete, NameWithoutASectionIsNotFoundAndItsSubvolumeStays) {
    const Names names = takeSome(2);
    ASSERT_EQ(0, SnapMetaSectionDel(share, names[0].c_str(), 1));
    EXPECT_EQ(-1, remove({names[0], "GMT-1999.01.01-00.00.00", names[1]}));
    EXPECT_EQ((Codes{NOT_FOUND, NOT_FOUND, GONE}), codes);
    EXPECT_EQ(Names{names[0]}, standing());
}

TEST_F(SnapDelete, SectionWithoutASubvolumeIsNotFoundAndDropped) {
    const Names names = takeSome(3);
    ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant((snapDir() + "/" + names[1]).c_str()));
    EXPECT_EQ(-1, remove({names[0], names[1]}));
    EXPECT_EQ((Codes{GONE, NOT_FOUND}), codes);
    EXPECT_EQ(Names{names[2]}, sections());
    EXPECT_EQ(2, storedCount()); // only what was deleted here counts
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to check share [docs] snapshot [" + names[1] + "] is subvol[0x"));
}

TEST_F(SnapDelete, HiddenSnapshotGoesWithoutTheCounter) {
    const std::string visible = take();
    const std::string hidden = take({{"hide", "true"}});
    EXPECT_EQ(0, remove({hidden}));
    EXPECT_EQ(Names{visible}, standing());
    EXPECT_EQ(1, storedCount());
}

TEST_F(SnapDelete, SectionWithoutTheHideKeyCountsAsVisible) {
    const Names names = takeSome(2);
    ASSERT_EQ(0, QOVAShareSnapAttrDelete(share, names[0].c_str(), "hide"));
    EXPECT_EQ(0, remove({names[0]}));
    EXPECT_EQ(1, storedCount());
    EXPECT_EQ(Names{names[1]}, standing());
}

TEST_F(SnapDelete, OnlyTheExactWordFalseIsVisible) {
    const Names names = takeSome(2);
    editMeta(section(names[0], "hide=False\n") + section(names[1]));
    EXPECT_EQ(0, remove({names[0]}));
    EXPECT_EQ(2, storedCount());
}

TEST_F(SnapDelete, AttributeLockRefusesNothing) {
    const std::string name = take({{"lock", "true"}});
    EXPECT_EQ(0, remove({name}));
    EXPECT_EQ(Names{}, standing());
}

TEST_F(SnapDelete, TheSameNameTwiceHasOneOutcomeTwice) {
    ASSERT_EQ("", installPlugin("ears", "[ $1$ACTION = postDELETE ] || exit 0\n" + recordingScript("ears")));
    const Names names = takeSome(2);
    EXPECT_EQ(0, remove({names[0], names[0]}));
    EXPECT_EQ((Codes{GONE, GONE}), codes);
    EXPECT_EQ(1, storedCount());
    EXPECT_EQ(names[0] + " " + names[0] + " ", variable(recorded("ears", "post"), "SNAPSHOT"));
}

TEST_F(SnapDelete, CommentsOutliveTheirSectionAndTextAheadOfTheFirstDoesNot) {
    const Names names = takeSome(3);
    editMeta("; a comment ahead\nlost text\n\n" + section(names[0], "hide=false\n# kept 0\n; kept 1\ndesc=x\n") +
             section(names[1], "hide=false\n # not a comment\ndesc=y\n") + section(names[2], "hide=false\ndesc=z"));
    EXPECT_EQ(0, remove({names[1]}));
    EXPECT_EQ("; a comment ahead\n" + section(names[0], "hide=false\n# kept 0\n; kept 1\ndesc=x\n") +
                  section(names[2], "hide=false\ndesc=z"),
              meta());
    EXPECT_EQ(0, remove({names[0]}));
    EXPECT_EQ("; a comment ahead\n# kept 0\n; kept 1\n" + section(names[2], "hide=false\ndesc=z"), meta());
}

TEST_F(SnapDelete, CommentOfADroppedSectionHangsInTheOneBefore) {
    const Names names = takeSome(2);
    editMeta(section(names[0]) + section(names[1], "hide=false\n# about the second\n"));
    EXPECT_EQ(0, remove({names[1]}));
    EXPECT_EQ(section(names[0], "hide=false\n# about the second\n"), meta());
}

TEST_F(SnapDelete, LinesOfAnyLengthAreCopied) {
    const Names names = takeSome(2);
    const std::string text = section(names[0], "hide=false\nlong=" + std::string(300000, 'x') + "\n");
    editMeta(text + section(names[1]));
    EXPECT_EQ(0, remove({names[1]}));
    EXPECT_EQ(text, meta());
}

TEST_F(SnapDelete, NewFileHasOwnerGroupAndModeOfTheOld) {
    const Names names = takeSome(2);
    ASSERT_EQ(0, chown(metaPath().c_str(), 1234, 4321));
    ASSERT_EQ(0, chmod(metaPath().c_str(), 02640));
    struct stat before = {};
    ASSERT_EQ(0, stat(metaPath().c_str(), &before));
    ASSERT_EQ(0, remove({names[0]}));
    struct stat after = {};
    ASSERT_EQ(0, stat(metaPath().c_str(), &after));
    EXPECT_NE(before.st_ino, after.st_ino);
    EXPECT_EQ(1234U, after.st_uid);
    EXPECT_EQ(4321U, after.st_gid);
    EXPECT_EQ(02640U, after.st_mode & 07777);
}

TEST_F(SnapDelete, MemberOfANamesPrefixStays) {
    const std::string name = take();
    const std::string meta_ = meta();
    editMeta(meta_ + section(name + "x") + section("x" + name));
    EXPECT_EQ(0, remove({name}));
    EXPECT_EQ((Names{name + "x", "x" + name}), sections());
}

TEST_F(SnapDelete, ShareWithoutMetadataHasNothingToDelete) {
    EXPECT_EQ(-1, remove({"GMT-2026.01.02-03.04.05"}));
    EXPECT_EQ(Codes{SURVIVED}, codes);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to access metadata file on share [docs] [0x"));
    EXPECT_FALSE(testkit::exists(metaPath()));
}

TEST_F(SnapDelete, RefusesADeniedAction) {
    const std::string name = take();
    BlackList.pEntry = &BlackList;
    BlackList.uMask = SNAP_DELETE;
    const int outcome = remove({name});
    BlackList = {};
    EXPECT_EQ(-1, outcome);
    EXPECT_EQ(0xD900U, QLIBCErrGet());
    EXPECT_EQ(Codes{SURVIVED}, codes);
    EXPECT_TRUE(stands(name));
}

TEST_F(SnapDelete, PluginsHearTheListBeforeAndTheDeletedAfter) {
    const Names names = takeSome(3);
    ASSERT_EQ("", installPlugin("ears", recordingScript("ears")));
    ASSERT_EQ(1, QOVAShareSnapSysLockIncrement(share, names[0].c_str(), "backup"));
    EXPECT_EQ(-1, remove({names[0], "nothing", names[2]}));
    EXPECT_EQ((Codes{LOCKED, NOT_FOUND, GONE}), codes);
    EXPECT_EQ(names[0] + " nothing " + names[2] + " ", variable(recorded("ears", "pre"), "SNAPSHOT"));
    EXPECT_EQ("DELETE", variable(recorded("ears", "pre"), "ACTION"));
    EXPECT_EQ("0", variable(recorded("ears", "pre"), "RESULT"));
    EXPECT_EQ(names[2] + " ", variable(recorded("ears", "post"), "SNAPSHOT"));
    EXPECT_EQ("-1", variable(recorded("ears", "post"), "RESULT"));
}

TEST_F(SnapDelete, FailingPreStopsTheBatch) {
    const std::string name = take();
    const std::string before = meta();
    ASSERT_EQ("", installPlugin("grumpy", "[ $1 = pre ] && exit 3\n" + recordingScript("grumpy")));
    EXPECT_EQ(-1, remove({name}));
    EXPECT_EQ(Codes{SURVIVED}, codes);
    EXPECT_EQ(before, meta());
    EXPECT_TRUE(stands(name));
    EXPECT_EQ(1, storedCount());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to execute share snapshot plugin (PRE)"));
    EXPECT_EQ("", variable(recorded("grumpy", "post"), "SNAPSHOT"));
    EXPECT_EQ("-1", variable(recorded("grumpy", "post"), "RESULT"));
}

TEST_F(SnapDelete, HandleOfThePluginsStaysOpen) {
    const std::string name = take();
    const testkit::CallCount closed("QLIBPluginExit");
    EXPECT_EQ(0, remove({name}));
    EXPECT_EQ(0U, closed.calls());
}

// The counter is recounted under the lock that the deletion itself holds.
TEST_F(SnapDelete, MissingCounterIsCountedAnew) {
    const Names names = takeSome(3);
    ASSERT_EQ(0, removexattr(snapDir().c_str(), "user.snapcount"));
    EXPECT_EQ(0, remove({names[0]}));
    EXPECT_EQ(2, storedCount());
    EXPECT_EQ(0U, testkit::logCount(LOG_ERR, "Failed to lock"));
}

// Names that lead out of the snapshot directory, in the list and in forged sections.
TEST_F(SnapDelete, NothingOutsideTheSnapshotDirectoryIsDeleted) {
    const std::string name = take();
    ASSERT_EQ("", testkit::makeShare("other"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@sharesnap/other"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@sharesnap/other/snap"));
    const Names forged{"",
                       ".",
                       "..",
                       "../other/snap",
                       "../../other",
                       "/vol1/other",
                       "./" + name,
                       name + "/..",
                       name + "/../" + name,
                       name + "//",
                       "../docs"};
    std::string text = meta();
    for (const std::string &each : forged) {
        text += section(each);
    }
    editMeta(text);
    EXPECT_EQ(-1, remove(forged));
    EXPECT_EQ(Codes(forged.size(), NOT_FOUND), codes);
    EXPECT_TRUE(stands(name));
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/@sharesnap/other/snap"));
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/other"));
    EXPECT_EQ(1, QOVABtrfsIsSubVol(snapDir().c_str()));
    EXPECT_EQ(1, storedCount());
}

TEST_F(SnapDelete, SymbolicLinkInASnapshotLeadsNowhere) {
    ASSERT_EQ("", testkit::makeShare("other"));
    ASSERT_EQ(0, symlink("/vol1/other", "/vol1/docs/link"));
    ASSERT_EQ(0, symlink("/vol1", "/vol1/docs/up"));
    const std::string name = take();
    const Names forged{name + "/link", name + "/up/other"};
    editMeta(meta() + section(forged[0]) + section(forged[1]));
    EXPECT_EQ(-1, remove(forged));
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/other"));
    EXPECT_TRUE(stands(name));
    EXPECT_EQ(1, storedCount());
}

TEST_F(SnapDelete, CountsWhatTheFileSystemStillCleans) {
    const Names names = takeSome(3);
    uint32_t count = 77;
    EXPECT_EQ(0, QOVAShareSnapDeletingCountGet("/vol1/docs", &count)) << testkit::logText();
    EXPECT_EQ(0U, count);
    using Get = int(const char *, QLIBCSZHASH **);
    const testkit::Replacement<Get> queue("QOVABtrfsDeletedSubvolGet", [](const char *subvolume, QLIBCSZHASH **hash) {
        EXPECT_STREQ("/vol1/docs", subvolume);
        (void)QLIBCSzHashSetValue(hash, "258", "");
        (void)QLIBCSzHashSetValue(hash, "259", "");
        return 0;
    });
    EXPECT_EQ(2, QOVAShareSnapDeletingCountGet("/vol1/docs", &count));
    EXPECT_EQ(2U, count);
    EXPECT_EQ(2, QOVAShareSnapDeletingCountGet("/vol1/docs/", &count));
}

TEST_F(SnapDelete, QueuesEachSnapshotBeforeItGoes) {
    const Names names = takeSome(2);
    Names queued;
    bool stood = true;
    using Add = int(const char *, const char *);
    const testkit::Replacement<Add> add("QOVABtrfsDeletedSubvolAdd", [&](const char *subvolume, const char *path) {
        queued.push_back(std::string(subvolume) + " " + path);
        stood = stood && QOVABtrfsIsSubVol(path) == 1;
        return -1; // and a failure doesn't keep it
    });
    EXPECT_EQ(0, remove(names));
    EXPECT_EQ((Names{"/vol1/docs " + snapDir() + "/" + names[0], "/vol1/docs " + snapDir() + "/" + names[1]}), queued);
    EXPECT_TRUE(stood);
    EXPECT_EQ(2U, testkit::logCount(LOG_ERR, "Failed to add subvol [/vol1/docs] to deleted subvol list[0x"));
}

TEST_F(SnapDelete, CountOfTheDeletingKnowsItsShares) {
    uint32_t count = 77;
    EXPECT_EQ(-1, QOVAShareSnapDeletingCountGet("/vol1/unknown", &count));
    EXPECT_EQ(0U, count);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invalid share path [/vol1/unknown]"));
    EXPECT_EQ(-1, QOVAShareSnapDeletingCountGet(nullptr, &count));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    EXPECT_EQ(-1, QOVAShareSnapDeletingCountGet("/vol1/docs", nullptr));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != szSharePath)=[0]\n"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (NULL != cDeletingCount)=[0]\n"));
    const testkit::Fault fault("QLIBShareIsExist");
    EXPECT_EQ(-1, QOVAShareSnapDeletingCountGet("/vol1/docs", &count));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to check if share [docs] exists[0x2A00 "));
}

} // namespace
