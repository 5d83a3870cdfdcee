#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/log_capture.hpp"
#include "support/metadata_fixture.hpp"

#include <sharesnap/frame.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/file_operation.h>
#include <sharesnap/platform/subvolume.h>
#include <sharesnap/platform/volume.h>

#include <cstring>
#include <filesystem>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

using testkit::Names;

constexpr const char *iconText = "[.ShellClassInfo]\nIconFile=%SystemRoot%\\system32\\SHELL32.dll\nIconIndex=117\n";

// A share on a volume on which the library has made nothing yet.
class Directories : public testkit::VolumeTest {
protected:
    void SetUp() override {
        VolumeTest::SetUp();
        if (!IsSkipped()) {
            ASSERT_EQ("", testkit::makeShare("docs"));
            docs_ = testkit::getShare("docs");
            ASSERT_NE(nullptr, docs_);
            QLIBCErrSetEx(0, "", 0);
        }
    }

    [[nodiscard]] const QOVASHARE *docs() const { return docs_.get(); }

    int top(int create) {
        path_[0] = '\0';
        return SnapGetOrCreateSubvolume(docs(), "@sharesnap", path_, sizeof(path_), create);
    }
    int own(int create) {
        path_[0] = '\0';
        return QOVAShareSnapGetOrCreateSnapDir(docs(), path_, sizeof(path_), create);
    }
    [[nodiscard]] const char *path() const { return path_; }

    static bool isSubvolume(const std::string &path) { return QOVABtrfsIsSubVol(path.c_str()) == 1; }

    // Names on the volume that begin so, with seconds behind a dot.
    static std::vector<std::string> movedAside(const std::string &directory, const std::string &name) {
        std::vector<std::string> found;
        for (const std::string &entry : testkit::directoryNames(directory)) {
            if (entry.rfind(name + ".", 0) == 0 &&
                entry.find_first_not_of("0123456789", name.size() + 1) == std::string::npos) {
                found.push_back(directory + "/" + entry);
            }
        }
        return found;
    }

private:
    testkit::SharePointer docs_;
    char path_[4096] = "";
};

TEST_F(Directories, AreMadeOnDemandOnly) {
    EXPECT_EQ(0, top(0));
    EXPECT_STREQ("/vol1/@sharesnap", path());
    EXPECT_EQ(0, own(0));
    EXPECT_STREQ("/vol1/@sharesnap/docs", path());
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap"));
    EXPECT_EQ(1, own(1));
    EXPECT_STREQ("/vol1/@sharesnap/docs", path());
    EXPECT_TRUE(isSubvolume("/vol1/@sharesnap"));
    EXPECT_TRUE(isSubvolume("/vol1/@sharesnap/docs"));
    EXPECT_EQ(1, own(0));
    EXPECT_EQ(1, own(1));
    EXPECT_EQ(1, top(0));
}

TEST_F(Directories, ANewShareDirectoryShowsAsASystemFolder) {
    ASSERT_EQ(1, own(1));
    const std::string icon = "/vol1/@sharesnap/docs/desktop.ini";
    EXPECT_EQ(iconText, testkit::readFile(icon));
    struct stat info = {};
    ASSERT_EQ(0, stat(icon.c_str(), &info));
    EXPECT_EQ(0666u, info.st_mode & 07777u);
    char value[64] = "";
    EXPECT_GT(getxattr("/vol1/@sharesnap/docs", "user.DOSATTRIB", value, sizeof(value) - 1), 0);
    EXPECT_STREQ("0x14", value);
    std::memset(value, 0, sizeof(value));
    EXPECT_GT(getxattr(icon.c_str(), "user.DOSATTRIB", value, sizeof(value) - 1), 0);
    EXPECT_STREQ("0x6", value);
}

TEST_F(Directories, ANewShareDirectoryIsToLoadNoUserQuota) {
    ASSERT_EQ(1, top(1));
    const testkit::Fault refused("ioctl", 0, EOPNOTSUPP); // as every stock kernel does
    EXPECT_EQ(1, own(1));
    EXPECT_EQ(1u, refused.calls());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to set path [/vol1/@sharesnap/docs] NoLoadUsrQuota Attr.[0x2A00 "));
    EXPECT_TRUE(testkit::exists("/vol1/@sharesnap/docs/desktop.ini"));
    EXPECT_EQ(1, own(1)); // one that stands isn't asked again
    EXPECT_EQ(1u, refused.calls());
}

TEST_F(Directories, AnExistingShareDirectoryIsNotRepaired) {
    ASSERT_EQ(1, own(1));
    ASSERT_EQ(0, unlink("/vol1/@sharesnap/docs/desktop.ini"));
    ASSERT_EQ(1, own(1));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/docs/desktop.ini"));
}

TEST_F(Directories, WithoutTheSystemAttributeADirectoryIsUsableAndHasNoIcon) {
    const testkit::Fault fault("QOVASmbAttributeSet", 1, ENOSYS);
    EXPECT_EQ(1, own(1));
    EXPECT_TRUE(isSubvolume("/vol1/@sharesnap/docs"));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/docs/desktop.ini"));
    EXPECT_EQ(0x2A00u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to set path [/vol1/@sharesnap/docs] ArchiveBut F_SETSMB_SYSTEM.["));
}

TEST_F(Directories, AnIconWithoutTheAttributeIsWrittenAllTheSame) {
    const testkit::Fault fault("QOVASmbAttributeSet", 2, ENOSYS);
    EXPECT_EQ(1, own(1));
    EXPECT_EQ(iconText, testkit::readFile("/vol1/@sharesnap/docs/desktop.ini"));
    EXPECT_EQ(0x2A00u, QLIBCErrGet());
}

TEST_F(Directories, APlainDirectoryInTheWayIsMovedAside) {
    ASSERT_EQ(0, mkdir("/vol1/@sharesnap", 0755));
    ASSERT_TRUE(testkit::writeFile("/vol1/@sharesnap/precious", "kept"));
    EXPECT_EQ(0, top(0)); // only a creation clears its place
    EXPECT_TRUE(testkit::exists("/vol1/@sharesnap/precious"));
    EXPECT_EQ(1, top(1));
    EXPECT_TRUE(isSubvolume("/vol1/@sharesnap"));
    const std::vector<std::string> aside = movedAside("/vol1", "@sharesnap");
    ASSERT_EQ(1u, aside.size());
    EXPECT_EQ("kept", testkit::readFile(aside.front() + "/precious"));
}

TEST_F(Directories, AFileInTheWayOfAShareIsMovedAside) {
    ASSERT_EQ(1, top(1));
    ASSERT_TRUE(testkit::writeFile("/vol1/@sharesnap/docs", "kept"));
    EXPECT_EQ(1, own(1));
    EXPECT_TRUE(isSubvolume("/vol1/@sharesnap/docs"));
    const std::vector<std::string> aside = movedAside("/vol1/@sharesnap", "docs");
    ASSERT_EQ(1u, aside.size());
    EXPECT_EQ("kept", testkit::readFile(aside.front()));
}

TEST_F(Directories, NothingIsReplacedByMovingAside) {
    const testkit::FixedTime clock(1700000000);
    ASSERT_TRUE(testkit::writeFile("/vol1/@sharesnap.1700000000", "kept"));
    ASSERT_TRUE(testkit::writeFile("/vol1/@sharesnap", "in the way"));
    EXPECT_EQ(0, top(1));
    EXPECT_EQ("kept", testkit::readFile("/vol1/@sharesnap.1700000000"));
    EXPECT_EQ("in the way", testkit::readFile("/vol1/@sharesnap"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to rename dir [/vol1/@sharesnap] to [/vol1/@sharesnap.1700000000]["));
}

TEST_F(Directories, ALoserOfTheRaceForTheTopFindsTheWinnersSubvolume) {
    const testkit::Replacement<int(const char *)> winner("QOVABtrfsCreateSubVol", [](const char *path) {
        (void)testkit::real<int(const char *)>("QOVABtrfsCreateSubVol")(path); // the other process
        return -1;
    });
    EXPECT_EQ(1, top(1));
}

TEST_F(Directories, ALoserOfTheRaceForAShareFails) {
    ASSERT_EQ(1, top(1));
    const testkit::Replacement<int(const char *)> winner("QOVABtrfsCreateSubVol", [](const char *path) {
        (void)testkit::real<int(const char *)>("QOVABtrfsCreateSubVol")(path);
        errno = EEXIST;
        return -1;
    });
    EXPECT_EQ(0, own(1));
    EXPECT_EQ(0x0C00u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to subvol /vol1/@sharesnap/docs, errno=17/File exists\n"));
}

TEST_F(Directories, AFailedCreationOfTheTopFailsTheShare) {
    const testkit::Fault fault("QOVABtrfsCreateSubVol", 0);
    EXPECT_EQ(0, top(1));
    EXPECT_EQ(0x0C00u, QLIBCErrGet());
    EXPECT_EQ(-1, own(1));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to create @sharesnap subvolume [0x0C00 snapshot_directories.cpp:"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to access Btrfs share docs snapshot directory [0x0C00 "));
}

TEST_F(Directories, AnEncryptedShareHasADirectoryOfItsOwnForm) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@safe@")); // where the data is
    ASSERT_EQ(0, mkdir("/vol1/safe", 0755));             // where it is seen
    ASSERT_EQ("", testkit::addShare("safe", "/vol1/safe", 0x03));
    const testkit::SharePointer safe = testkit::getShare("safe");
    ASSERT_NE(nullptr, safe);
    safe->uStatus = 0x03;
    char text[4096];
    EXPECT_EQ(1, QOVAShareSnapGetOrCreateSnapDir(safe.get(), text, sizeof(text), 1));
    EXPECT_STREQ("/vol1/@sharesnap/@safe@", text);
    EXPECT_TRUE(isSubvolume("/vol1/@sharesnap/@safe@"));
    EXPECT_EQ(0, ShareSubvolumePathGet(safe.get(), text, sizeof(text)));
    EXPECT_STREQ("/vol1/@safe@", text);
    EXPECT_EQ(0, ShareSubvolumePathGet(docs(), text, sizeof(text)));
    EXPECT_STREQ("/vol1/docs", text);
    EXPECT_EQ(-1, ShareSubvolumePathGet(docs(), text, 5));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to copy share subvolume path"));
}

TEST_F(Directories, ANameInAtSignsIsNotTakenForAnEncryptedShare) {
    ASSERT_EQ("", testkit::makeShare("@odd@"));
    const testkit::SharePointer odd = testkit::getShare("@odd@");
    ASSERT_NE(nullptr, odd);
    char text[4096];
    EXPECT_EQ(1, QOVAShareSnapGetOrCreateSnapDir(odd.get(), text, sizeof(text), 1));
    EXPECT_STREQ("/vol1/@sharesnap/@odd@", text); // the same as that of the encrypted share odd
}

TEST_F(Directories, ChecksArguments) {
    char text[64];
    EXPECT_EQ(-1, SnapGetOrCreateSubvolume(nullptr, "@sharesnap", text, sizeof(text), 0));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != pShare)=[0]"));
    EXPECT_EQ(-1, SnapGetOrCreateSubvolume(docs(), nullptr, text, sizeof(text), 0));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != szDir)=[0]"));
    EXPECT_EQ(-1, SnapGetOrCreateSubvolume(docs(), "@sharesnap", nullptr, sizeof(text), 0));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != szPath)=[0]"));
    EXPECT_EQ(-1, SnapGetOrCreateSubvolume(docs(), "@sharesnap", text, 0, 0));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (0 < cbPath)=[0]"));
    testkit::logClear();
    EXPECT_EQ(-1, SnapGetOrCreateSubvolumeWithShare(nullptr, "@sharesnap", text, sizeof(text), 0));
    EXPECT_EQ(-1, SnapGetOrCreateDirWithShare(nullptr, "plain", text, sizeof(text), 0));
    EXPECT_EQ(-1, QOVAShareSnapGetOrCreateSnapDir(nullptr, text, sizeof(text), 0));
    EXPECT_EQ(-1, QOVAShareSnapGetOrCreateSnapDir(docs(), nullptr, sizeof(text), 0));
    EXPECT_EQ(-1, QOVAShareSnapGetOrCreateSnapDir(docs(), text, 0, 0));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logLines().empty()) << testkit::logText();
}

TEST_F(Directories, APathThatWouldBeCutIsRefusedAndNothingMade) {
    char text[12];
    EXPECT_EQ(-1, SnapGetOrCreateSubvolume(docs(), "@sharesnap", text, sizeof(text), 1));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
    EXPECT_EQ((std::vector<std::string>{"docs"}), testkit::directoryNames("/vol1"));
}

TEST_F(Directories, PlainOnesAreMadeOnDemandToo) {
    char text[4096];
    EXPECT_EQ(0, QOVAShareSnapGetOrCreateDir(docs(), "plain", text, sizeof(text), 0));
    EXPECT_STREQ("/vol1/plain", text);
    EXPECT_EQ(0, SnapGetOrCreateDirWithShare(docs(), "plain", text, sizeof(text), 0));
    EXPECT_STREQ("/vol1/plain/docs", text);
    EXPECT_FALSE(testkit::exists("/vol1/plain"));
    EXPECT_EQ(1, SnapGetOrCreateDirWithShare(docs(), "plain", text, sizeof(text), 1));
    EXPECT_TRUE(testkit::isDirectory("/vol1/plain/docs"));
    EXPECT_EQ(1, SnapGetOrCreateDirWithShare(docs(), "plain", text, sizeof(text), 0));
    EXPECT_EQ(1, QOVAShareSnapGetOrCreateDir(docs(), "plain", text, sizeof(text), 1));

    ASSERT_TRUE(testkit::writeFile("/vol1/file", ""));
    EXPECT_EQ(-1, QOVAShareSnapGetOrCreateDir(docs(), "file", text, sizeof(text), 1));
    EXPECT_EQ(0xA000u, QLIBCErrGet());
    EXPECT_EQ(-1, SnapGetOrCreateDirWithShare(docs(), "file", text, sizeof(text), 1));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to create @sharesnap directory [0xA000 "));
    EXPECT_EQ(-1, SnapGetOrCreateDirWithShare(docs(), "file", text, sizeof(text), 0));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get @sharesnap path [0xA000 "));
}

TEST_F(Directories, AMkdirThatFailsGivesZeroUnlessAnotherProcessWasFaster) {
    char text[4096];
    {
        const testkit::Fault fault("mkdir", 0, ENOSPC);
        EXPECT_EQ(0, QOVAShareSnapGetOrCreateDir(docs(), "plain", text, sizeof(text), 1));
        EXPECT_EQ(0x0C00u, QLIBCErrGet());
        EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to mkdir [/vol1/plain], errno=28/No space left on device\n"));
    }
    const testkit::Fault faster("mkdir", 0, EEXIST);
    EXPECT_EQ(1, QOVAShareSnapGetOrCreateDir(docs(), "plain", text, sizeof(text), 1));
}

TEST_F(Directories, PathsOfSnapshots) {
    char text[4096] = "";
    EXPECT_EQ(0, QOVAShareSnapGetSnapPath(docs(), "GMT-2026.01.02-03.04.05", text, sizeof(text)));
    EXPECT_STREQ("/vol1/@sharesnap/docs/GMT-2026.01.02-03.04.05", text);
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap")); // a look makes nothing
    ASSERT_EQ(1, own(1));
    EXPECT_EQ(0, QOVAShareSnapGetSnapPath(docs(), "a", text, sizeof(text)));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/@sharesnap/docs/a"));
    EXPECT_EQ(1, QOVAShareSnapGetSnapPath(docs(), "a", text, sizeof(text)));
    EXPECT_STREQ("/vol1/@sharesnap/docs/a", text);
    ASSERT_EQ(0, mkdir("/vol1/@sharesnap/docs/plain", 0755));
    EXPECT_EQ(-1, QOVAShareSnapGetSnapPath(docs(), "plain", text, sizeof(text)));
    EXPECT_EQ(-1, QOVAShareSnapGetSnapPath(docs(), "desktop.ini", text, sizeof(text)));
}

TEST_F(Directories, PathsOfSnapshotsCheckArguments) {
    char text[64];
    EXPECT_EQ(-1, QOVAShareSnapGetSnapPath(nullptr, "a", text, sizeof(text)));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != pShare)=[0]"));
    EXPECT_EQ(-1, QOVAShareSnapGetSnapPath(docs(), nullptr, text, sizeof(text)));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != szSnapshot)=[0]"));
    EXPECT_EQ(-1, QOVAShareSnapGetSnapPath(docs(), "a", nullptr, sizeof(text)));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != szBuf)=[0]"));
    EXPECT_EQ(-1, QOVAShareSnapGetSnapPath(docs(), "a", text, 0));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (0 < cbBuf)=[0]"));
}

TEST_F(Directories, MoveWithTheirShare) {
    ASSERT_EQ("", testkit::makeShare("other"));
    const testkit::SharePointer other = testkit::getShare("other");
    ASSERT_EQ(1, own(1));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/@sharesnap/docs/a"));
    EXPECT_EQ(0, SnapshotDirRename(docs(), other.get()));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/docs"));
    EXPECT_TRUE(isSubvolume("/vol1/@sharesnap/other/a"));
    // A second one finds the target taken, and makes the old directory no more.
    EXPECT_EQ(-1, SnapshotDirRename(docs(), other.get()));
    EXPECT_EQ(0xE700u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "New snapshot directory /vol1/@sharesnap/other already exist ["));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/docs"));
    EXPECT_EQ(-1, SnapshotDirRename(nullptr, other.get()));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
}

TEST_F(Directories, AShareWithoutSnapshotsMovesLikeAnyOther) {
    ASSERT_EQ("", testkit::makeShare("other"));
    const testkit::SharePointer other = testkit::getShare("other");
    EXPECT_EQ(0, SnapshotDirRename(docs(), other.get()));
    EXPECT_TRUE(isSubvolume("/vol1/@sharesnap/other"));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/docs"));
}

TEST_F(Directories, TheVolumesListGivesTheSharesNames) {
    ASSERT_EQ("", testkit::makeShare("docs2"));
    const testkit::SharePointer alike = testkit::getShare("docs2");
    char text[4096];
    ASSERT_EQ(1, QOVAShareSnapGetOrCreateSnapDir(alike.get(), text, sizeof(text), 1));
    ASSERT_EQ(1, own(1));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/@sharesnap/docs/GMT-2026.01.02-03.04.05"));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/@sharesnap/docs/with blanks \xc3\xbc"));
    ASSERT_EQ(0, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/@sharesnap/docs/nest"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@sharesnap/docs/nest/inner"));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs2", "/vol1/@sharesnap/docs2/other"));
    Names names;
    EXPECT_EQ(0, BtrfsListSnaps(docs(), names.address()));
    EXPECT_EQ((std::vector<std::string>{"GMT-2026.01.02-03.04.05", "with blanks \xc3\xbc", "nest", "nest/inner"}),
              names.all());
    EXPECT_EQ(-1, BtrfsListSnaps(nullptr, names.address()));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
}

TEST_F(Directories, AToolThatCannotBeStartedIsNoEmptyList) {
    const testkit::Fault fault("QLIBCPopen", 1, ENOENT);
    Names names;
    EXPECT_EQ(-1, BtrfsListSnaps(docs(), names.address()));
    EXPECT_TRUE(testkit::logged(
        LOG_ERR, "Failed to do [/sbin/btrfs subvolume list '/vol1' 2>/dev/null], err=No such file or directory"));
}

// What a list prints, line for line.
FILE *printed(const std::string &text) {
    FILE *stream = std::tmpfile();
    std::fputs(text.c_str(), stream);
    std::rewind(stream);
    return stream;
}

TEST_F(Directories, LinesThatTellOfNoSubvolumeOfTheShareAreSkipped) {
    const std::string start = "ID 300 gen 12 top level 5 path ";
    const std::string text = "garbage\n\n" + start + "docs\n" + start + "@sharesnap/docs2/a\n" + start +
                             "@sharesnap/docs/a\nID x gen 1 top level 5 path @sharesnap/docs/b\n" +
                             // The rest of a line beyond the limit is no line of its own.
                             "junk" + std::string(1019, ' ') + start + "@sharesnap/docs/forged\n" + start +
                             "@sharesnap/docs/last";
    const testkit::Replacement<FILE *(const char *, const char *, char *const *)> tool(
        "QLIBCPopen", [&](const char *, const char *, char *const *) { return printed(text); });
    const testkit::Replacement<int(FILE *)> close("QLIBCPclose", [](FILE *stream) { return std::fclose(stream); });
    Names names;
    EXPECT_EQ(0, BtrfsListSnaps(docs(), names.address()));
    EXPECT_EQ((std::vector<std::string>{"a", "last"}), names.all());
}

TEST_F(Directories, FactsOfASnapshot) {
    testkit::Pairs facts = {{"kept", "x"}};
    EXPECT_EQ(-1, SnapFillSubvolInfo(docs(), "a", facts.address())); // no directory
    ASSERT_EQ(1, own(1));
    EXPECT_GT(0, SnapFillSubvolInfo(docs(), "a", facts.address()));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to fill subvol info by path[/vol1/@sharesnap/docs/a]["));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/@sharesnap/docs/a"));
    EXPECT_EQ(0, SnapFillSubvolInfo(docs(), "a", facts.address()));
    EXPECT_EQ("false", facts.all()["hide"]);
    EXPECT_EQ("x", facts.all()["kept"]);
    EXPECT_FALSE(facts.all()["ruuid"].empty());
    EXPECT_EQ(-1, SnapFillSubvolInfo(nullptr, "a", facts.address()));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != pShare)=[0]"));
    EXPECT_EQ(-1, SnapFillSubvolInfo(docs(), nullptr, facts.address()));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != szSnapName)=[0]"));
    EXPECT_EQ(-1, SnapFillSubvolInfo(docs(), "a", nullptr));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (NULL != ppHash)=[0]"));
}

TEST_F(Directories, TheQuotaFlagKeepsAllOtherFlags) {
    ASSERT_EQ(1, top(1));
    constexpr unsigned long getFlags = 0x80089419;
    constexpr unsigned long setFlags = 0x4008941A;
    uint64_t word = 0x2; // read-only
    std::vector<unsigned long> requests;
    const testkit::Replacement<int(int, unsigned long, void *)> kernel(
        "ioctl", [&](int, unsigned long request, void *argument) {
            requests.push_back(request);
            auto *flags = static_cast<uint64_t *>(argument);
            (request == getFlags ? *flags : word) = request == getFlags ? word : *flags;
            return 0;
        });
    EXPECT_EQ(0, BtrfsSubvolNoLoadUsrQuotaAttrSet("/vol1/@sharesnap", 1));
    EXPECT_EQ(0x200000002u, word);
    EXPECT_EQ(0, BtrfsSubvolNoLoadUsrQuotaAttrSet("/vol1/@sharesnap", 0));
    EXPECT_EQ(0x2u, word);
    EXPECT_EQ((std::vector<unsigned long>{getFlags, setFlags, getFlags, setFlags}), requests);
}

TEST_F(Directories, TheQuotaFlagReportsEachFailure) {
    const testkit::Leftovers before;
    EXPECT_EQ(-1, BtrfsSubvolNoLoadUsrQuotaAttrSet("/vol1/absent", 1));
    EXPECT_EQ(0x0900u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get subvolume ["));
    for (const size_t nth : {1U, 2U}) {
        const testkit::Fault fault("ioctl", nth, EOPNOTSUPP);
        EXPECT_EQ(-1, BtrfsSubvolNoLoadUsrQuotaAttrSet("/vol1/docs", 1));
        EXPECT_EQ(0x2A00u, QLIBCErrGet());
    }
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get subvolume flags.\n"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to set subvolume flags.\n"));
    EXPECT_EQ("", before.compare());
}

// The directories below /run. The share database has its lock there, too, so that one may stand already.
void clearRun() {
    std::filesystem::remove_all("/run/lock/sharesnap");
    std::filesystem::remove_all("/run/sharesnap");
}

TEST_F(Directories, BelowRunAreMadeWithTheModeGiven) {
    clearRun();
    const mode_t mask = umask(0);
    EXPECT_EQ(1, QOVAShareSnapCreateRunLockShareSnapDir());
    EXPECT_EQ(1, QOVAShareSnapCreateTmpShareSnapDir("ignored"));
    EXPECT_EQ(1, QOVAShareSnapCreateTmpShareSnapDir(nullptr));
    umask(mask);
    for (const char *path : {"/run/lock/sharesnap", "/run/sharesnap"}) {
        struct stat info = {};
        ASSERT_EQ(0, stat(path, &info)) << path;
        EXPECT_EQ(0777u, info.st_mode & 07777u) << path;
    }
}

TEST_F(Directories, BelowRunAreRefusedWhereSomethingElseStands) {
    clearRun();
    ASSERT_TRUE(testkit::writeFile("/run/lock/sharesnap", ""));
    ASSERT_TRUE(testkit::writeFile("/run/sharesnap", ""));
    EXPECT_EQ(-1, QOVAShareSnapCreateRunLockShareSnapDir());
    EXPECT_EQ(0xA000u, QLIBCErrGet());
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, QOVAShareSnapCreateTmpShareSnapDir(nullptr));
    EXPECT_EQ(0xA000u, QLIBCErrGet());
    EXPECT_EQ(-1, QOVAShareSnapLockMetaFile(docs(), 1));
}

TEST_F(Directories, BelowRunALinkIsNotFollowed) {
    clearRun();
    const std::string planted = testkit::Sandbox::scratch() + "/planted";
    ASSERT_EQ(0, mkdir(planted.c_str(), 0777));
    ASSERT_EQ(0, symlink(planted.c_str(), "/run/lock/sharesnap"));
    EXPECT_EQ(-1, QOVAShareSnapCreateRunLockShareSnapDir());
    EXPECT_EQ(0xA000u, QLIBCErrGet());
    EXPECT_EQ(-1, QOVAShareSnapLockMetaFile(docs(), 1));
    EXPECT_TRUE(testkit::directoryNames(planted).empty());
}

TEST_F(Directories, TheLockDirectoryMustBeADirectory) {
    ASSERT_EQ(1, QOVAShareSnapCreateRunLockShareSnapDir());
    ASSERT_TRUE(testkit::writeFile("/run/lock/sharesnap/sharesnap_meta_lock", ""));
    EXPECT_EQ(-1, QOVAShareSnapLockMetaFile(docs(), 0));
    EXPECT_EQ(0xA000u, QLIBCErrGet());
}

TEST_F(Directories, FileChecks) {
    ASSERT_TRUE(testkit::writeFile("/run/file", ""));
    EXPECT_EQ(1, ShareSnapCheckFileExist("/run/file"));
    EXPECT_EQ(-1, ShareSnapCheckFileExist("/run"));
    EXPECT_EQ(0, ShareSnapCheckFileExist("/run/absent"));
    EXPECT_EQ(0, ShareSnapCheckFileExist("/run/file/below"));
    EXPECT_EQ(1, ShareSnapCheckDirExist("/run"));
    EXPECT_EQ(-1, ShareSnapCheckDirExist("/run/file"));
    EXPECT_EQ(0, ShareSnapCheckDirExist("/run/absent"));
    EXPECT_EQ(0, ShareSnapCheckDirExist(nullptr));
    EXPECT_EQ(0, ShareSnapCheckFileExist(nullptr));
}

} // namespace
