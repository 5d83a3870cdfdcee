#include <grp.h>
#include <pwd.h>
#include <sharesnap/config.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/quota.h>
#include <sharesnap/platform/share_admin.h>
#include <sharesnap/platform/subvolume.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <string>

#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/lock_holder.hpp"
#include "support/log_capture.hpp"

namespace {

constexpr char kEaDir[] = "/vol1/docs/@eaDir";
constexpr char kDirectory[] = "/vol1/docs/@eaDir/sharesnap_share_configuration";
constexpr char kFile[] = "/vol1/docs/@eaDir/sharesnap_share_configuration/share_configuration";

// Two users and a group that every Debian system has.
constexpr char kLists[] = "daemon,@staff,bin";

class ShareInfo : public testkit::VolumeTest {
protected:
    void SetUp() override {
        VolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_EQ("", testkit::makeShare("docs"));
        fields_ = {"docs", "What we write", "/vol1/docs", "", kLists, "@staff"};
        refresh();
        daemon_ = std::to_string(getpwnam("daemon")->pw_uid);
        bin_ = std::to_string(getpwnam("bin")->pw_uid);
        staff_ = std::to_string(getgrnam("staff")->gr_gid);
    }

    void refresh() {
        share_.szName = fields_[0].data();
        share_.szDesc = fields_[1].data();
        share_.szPath = fields_[2].data();
        share_.szDenyList = fields_[3].data();
        share_.szRWList = fields_[4].data();
        share_.szROList = fields_[5].data();
        share_.nBrowseable = 1;
        share_.nFtpPrivilege = 3;
        share_.uStatus = 0x100;
    }

    std::map<std::string, std::string> fromShare(uint32_t mask) {
        QLIBCSZHASH *hash = QLIBCSzHashAlloc(1024);
        EXPECT_EQ(0, QOVAShareSnapShareInfoGetFromShare(&share_, &hash, mask));
        QLIBCSZLIST *keys = QLIBCSzListAlloc(1024);
        QLIBCSzHashEnumKey(hash, &keys);
        std::map<std::string, std::string> pairs;
        for (int i = 0; i < keys->nItem; ++i) {
            const char *key = QLIBCSzListGet(keys, i);
            pairs[key] = QLIBCSzHashGetValue(hash, key);
        }
        QLIBCSzListFree(keys);
        QLIBCSzHashFree(hash);
        return pairs;
    }

    std::vector<std::string> fields_;
    QOVASHARE share_{};
    std::string daemon_;
    std::string bin_;
    std::string staff_;
};

TEST_F(ShareInfo, CapturesEverySetting) {
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(&share_));
    EXPECT_EQ(
        "[share_info]\ndesc=What we write\nstatus=256\nbrowseable=1\ncow=true\ncompression=false\nftp_privilege=3\n"
        "share_quota=0\nuser_deny=\ngroup_deny=\nuser_ro=\ngroup_ro=" +
            staff_ + "\nuser_rw=" + daemon_ + "," + bin_ + "\ngroup_rw=" + staff_ + "\n",
        testkit::readFile(kFile));
    struct stat st {};
    ASSERT_EQ(0, stat(kDirectory, &st));
    EXPECT_EQ(0644u, st.st_mode & 07777);
    EXPECT_TRUE(testkit::nothingFailed());
}

TEST_F(ShareInfo, MaskSelects) {
    EXPECT_TRUE(fromShare(0).empty());
    EXPECT_TRUE(fromShare(0x100).empty());
    EXPECT_EQ((std::map<std::string, std::string>{{"desc", "What we write"}}), fromShare(SHARE_INFO_DESC));
    EXPECT_EQ(6u, fromShare(SHARE_INFO_PRIVILEGE).size());
    EXPECT_EQ(13u, fromShare(SHARE_INFO_ALL).size());
}

TEST_F(ShareInfo, AccountsThatAreGoneDropOut) {
    fields_[4] = "no-such-user,@no-such-group";
    fields_[5] = "daemon,@staff";
    refresh();
    auto pairs = fromShare(SHARE_INFO_PRIVILEGE);
    EXPECT_EQ("", pairs["user_rw"]);
    EXPECT_EQ("", pairs["group_rw"]);
    EXPECT_EQ(daemon_, pairs["user_ro"]);
    EXPECT_EQ(staff_, pairs["group_ro"]);
}

TEST_F(ShareInfo, SecondCaptureReplacesTheFirst) {
    ASSERT_TRUE(testkit::makeDirectories(kDirectory));
    ASSERT_TRUE(testkit::writeFile(kFile, "[share_info]\ndesc=old\ngone=1\n"));
    fields_[1] = "new";
    refresh();
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(&share_));
    const std::string text = testkit::readFile(kFile);
    EXPECT_EQ(0u, text.find("[share_info]\ndesc=new\n"));
    EXPECT_EQ(std::string::npos, text.find("gone"));
    EXPECT_EQ(std::string::npos, text.find("[share_info]", 1));
}

TEST_F(ShareInfo, CopiesTheQuotaDatabaseIfThereIsOne) {
    {
        const testkit::CallCount checks("QOVAQuotaIsEnough");
        const testkit::CallCount copies("QOVAFileCopy");
        ASSERT_EQ(0, QOVAShareSnapShareInfoSet(&share_));
        EXPECT_EQ(0u, checks.calls());
        EXPECT_EQ(0u, copies.calls());
    }
    EXPECT_EQ(1u, testkit::directoryNames(kDirectory).size());
    char database[4096];
    ASSERT_EQ(0, QOVAQuotaDbPathGet("/vol1/docs", database, sizeof(database)));
    const std::string path = database;
    ASSERT_TRUE(testkit::makeDirectories(path.substr(0, path.rfind('/'))));
    ASSERT_TRUE(testkit::writeFile(path, "limits"));
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(&share_));
    char copy[4096];
    ASSERT_EQ(0, QOVAShareSnapUserQuotaDBPathGet(&share_, copy, sizeof(copy)));
    EXPECT_EQ("limits", testkit::readFile(copy));
    EXPECT_EQ(0u, std::string(copy).find(kDirectory));
}

TEST_F(ShareInfo, FullQuotaRefusesTheCapture) {
    char database[4096];
    ASSERT_EQ(0, QOVAQuotaDbPathGet("/vol1/docs", database, sizeof(database)));
    const std::string path = database;
    ASSERT_TRUE(testkit::makeDirectories(path.substr(0, path.rfind('/'))));
    ASSERT_TRUE(testkit::writeFile(path, "limits"));
    const testkit::Replacement<int(unsigned int, const char *, uint64_t)> full(
        "QOVAQuotaIsEnough", [](unsigned int, const char *base, uint64_t bytes) {
            EXPECT_STREQ("/vol1/docs", base);
            EXPECT_EQ(6u, bytes);
            return 0;
        });
    EXPECT_EQ(-1, QOVAShareSnapShareInfoSet(&share_));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Quota is not enough for share(docs)["));
}

TEST_F(ShareInfo, FileInTheDirectorysPlaceFailsTheCapture) {
    ASSERT_TRUE(testkit::makeDirectories(kEaDir));
    ASSERT_TRUE(testkit::writeFile(kDirectory, "x"));
    EXPECT_EQ(-1, QOVAShareSnapShareInfoSet(&share_));
    EXPECT_EQ(unsigned{SNAP_ERR_BAD_FILE_TYPE}, QLIBCErrGet());
}

TEST_F(ShareInfo, FileInThePlaceOfEaDirFailsTheCapture) {
    ASSERT_TRUE(testkit::writeFile(kEaDir, "x"));
    EXPECT_EQ(-1, QOVAShareSnapShareInfoSet(&share_));
    EXPECT_EQ(unsigned{SNAP_ERR_EA_DIR_UNAVAILABLE}, QLIBCErrGet());
}

TEST_F(ShareInfo, PlantedLinksAreNotFollowed) {
    const std::string elsewhere = testkit::Sandbox::scratch() + "/elsewhere";
    ASSERT_TRUE(testkit::makeDirectories(elsewhere));
    ASSERT_EQ(0, symlink(elsewhere.c_str(), kEaDir));
    EXPECT_EQ(-1, QOVAShareSnapShareInfoSet(&share_));
    ASSERT_EQ(0, unlink(kEaDir));
    ASSERT_TRUE(testkit::makeDirectories(kEaDir));
    ASSERT_EQ(0, symlink(elsewhere.c_str(), kDirectory));
    EXPECT_EQ(-1, QOVAShareSnapShareInfoSet(&share_));
    ASSERT_EQ(0, unlink(kDirectory));
    ASSERT_TRUE(testkit::makeDirectories(kDirectory));
    ASSERT_EQ(0, symlink((elsewhere + "/file").c_str(), kFile));
    EXPECT_EQ(-1, QOVAShareSnapShareInfoSet(&share_));
    EXPECT_TRUE(testkit::directoryNames(elsewhere).empty());
}

TEST_F(ShareInfo, LinkPlantedInTheLastMomentIsNotFollowed) {
    const std::string elsewhere = testkit::Sandbox::scratch() + "/elsewhere";
    ASSERT_TRUE(testkit::makeDirectories(elsewhere));
    ASSERT_TRUE(testkit::makeDirectories(kEaDir));
    const testkit::Replacement<int(const char *, mode_t)> race("mkdir", [&](const char *path, mode_t mode) {
        if (std::string(path) == kDirectory) {
            EXPECT_EQ(0, symlink(elsewhere.c_str(), path));
        }
        return testkit::real<int(const char *, mode_t)>("mkdir")(path, mode);
    });
    EXPECT_EQ(-1, QOVAShareSnapShareInfoSet(&share_));
    EXPECT_EQ(unsigned{SNAP_ERR_BAD_FILE_TYPE}, QLIBCErrGet());
    EXPECT_TRUE(testkit::directoryNames(elsewhere).empty());
}

TEST_F(ShareInfo, ClearLeavesAPlainShareAlone) {
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(&share_));
    QOVAShareSnapShareInfoClear(&share_);
    EXPECT_TRUE(testkit::exists(kFile));
    QOVAShareSnapShareInfoClear(nullptr);
    EXPECT_EQ(unsigned{SNAP_ERR_BAD_PARAMETER}, QLIBCErrGet());
}

TEST_F(ShareInfo, ClearRemovesTheCaptureOfAnEncryptedShare) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@docs@"));
    share_.uStatus = QOVA_SHARE_STATUS_ENCRYPTED;
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(&share_));
    const std::string directory = "/vol1/@docs@/@eaDir/sharesnap_share_configuration";
    EXPECT_TRUE(testkit::exists(directory + "/share_configuration"));
    QOVAShareSnapShareInfoClear(&share_);
    EXPECT_TRUE(testkit::directoryNames("/vol1/@docs@").empty());
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(&share_));
    ASSERT_TRUE(testkit::writeFile("/vol1/@docs@/@eaDir/other", "x"));
    QOVAShareSnapShareInfoClear(&share_);
    EXPECT_EQ(std::vector<std::string>{"other"}, testkit::directoryNames("/vol1/@docs@/@eaDir"));
    EXPECT_TRUE(testkit::logged(LOG_ERR,
                                "failed to remove share @eaDir directory [/vol1/@docs@/@eaDir], err:Directory not "
                                "empty"));
}

TEST_F(ShareInfo, TellsWhetherASnapshotHoldsACapture) {
    EXPECT_EQ(-1, QOVAShareSnapHasShareInfoFile(&share_, "GMT-2026.01.02-03.04.05"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get snap path for share [docs] or not exist["));
    char directory[4096];
    ASSERT_EQ(1, QOVAShareSnapGetOrCreateSnapDir(&share_, directory, sizeof(directory), 1));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/@sharesnap/docs/before"));
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(&share_));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/@sharesnap/docs/after"));
    EXPECT_EQ(0, QOVAShareSnapHasShareInfoFile(&share_, "before"));
    EXPECT_EQ(1, QOVAShareSnapHasShareInfoFile(&share_, "after"));
}

TEST_F(ShareInfo, WaitsForTheLockAndGivesUp) {
    testkit::LockHolder holder("/run/lock/sharesnap/sharesnap_share_configuration_lock/docs.lock", 0);
    EXPECT_EQ(-1, QOVAShareSnapShareInfoSet(&share_));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to lock share [docs] snapshot configuration lock file[0x0400 "));
}

// A copy in the place of an account file, for the sandbox alone: /etc isn't a layer of its own on every kernel.
class AccountFile {
public:
    explicit AccountFile(std::string path) : path_(std::move(path)) {
        const std::string copy = testkit::Sandbox::scratch() + path_.substr(path_.rfind('/'));
        EXPECT_TRUE(testkit::writeFile(copy, testkit::readFile(path_)));
        placed_ = mount(copy.c_str(), path_.c_str(), "none", MS_BIND, nullptr) == 0;
    }
    AccountFile(const AccountFile &) = delete;
    AccountFile &operator=(const AccountFile &) = delete;
    ~AccountFile() { EXPECT_TRUE(!placed_ || umount2(path_.c_str(), MNT_DETACH) == 0) << path_; }

    // The account keeps its id.
    void rename(const std::string &from, const std::string &to) const {
        ASSERT_TRUE(placed_) << path_;
        std::string text = "\n" + testkit::readFile(path_);
        const size_t at = text.find("\n" + from + ":");
        ASSERT_NE(std::string::npos, at) << path_;
        text.replace(at + 1, from.size(), to);
        ASSERT_TRUE(testkit::writeFile(path_, text.substr(1)));
    }

private:
    std::string path_;
    bool placed_ = false;
};

class ShareInfoRead : public ShareInfo {
protected:
    void SetUp() override {
        ShareInfo::SetUp();
        if (!IsSkipped()) {
            ASSERT_TRUE(testkit::makeDirectories(kDirectory));
        }
    }

    void TearDown() override {
        std::free(info_);
        ShareInfo::TearDown();
    }

    void read(const std::string &text) {
        ASSERT_TRUE(testkit::writeFile(kFile, text));
        ASSERT_EQ(0, QOVAShareSnapShareInfoGet(&share_, &info_));
        ASSERT_NE(nullptr, info_);
    }

    QOVAShareSnapShareInfo *info_ = nullptr;
};

TEST_F(ShareInfoRead, GivesBackWhatWasCaptured) {
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(&share_));
    ASSERT_EQ(0, QOVAShareSnapShareInfoGet(&share_, &info_));
    EXPECT_STREQ("What we write", info_->szDesc);
    EXPECT_STREQ("", info_->szDenyList);
    EXPECT_STREQ("daemon,bin,@staff", info_->szRWList);
    EXPECT_STREQ("@staff", info_->szROList);
    EXPECT_EQ(1, info_->nBrowseable);
    EXPECT_EQ(3, info_->nFtpPrivilege);
    EXPECT_EQ(1, info_->blCow);
    EXPECT_EQ(0, info_->blCompression);
    EXPECT_EQ(0xFFu, info_->uMask);
    // One allocation: the strings lie behind the record.
    EXPECT_EQ(reinterpret_cast<char *>(info_ + 1), info_->szDesc);
    EXPECT_EQ(info_->szDesc + strlen(info_->szDesc) + 1, info_->szDenyList);
    EXPECT_EQ(info_->szDenyList + 1, info_->szRWList);
}

TEST_F(ShareInfoRead, ListWhoseAccountsHaveAllGoneIsEmpty) {
    fields_[4] = "no-such-user,@no-such-group";
    refresh();
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(&share_));
    EXPECT_NE(std::string::npos, testkit::readFile(kFile).find("\nuser_rw=\ngroup_rw=\n"));
    ASSERT_EQ(0, QOVAShareSnapShareInfoGet(&share_, &info_));
    EXPECT_STREQ("", info_->szRWList);
}

TEST_F(ShareInfoRead, EmptyListsAreEmptyAndNotNull) {
    read("[share_info]\nuser_ro=\ngroup_ro=\n");
    ASSERT_NE(nullptr, info_->szROList);
    EXPECT_STREQ("", info_->szROList);
    EXPECT_EQ(unsigned{SHARE_INFO_PRIVILEGE}, info_->uMask);
    EXPECT_EQ(nullptr, info_->szDesc);
    EXPECT_EQ(nullptr, info_->szDenyList);
}

TEST_F(ShareInfoRead, HalfAListSetsItsBitAlone) {
    read("[share_info]\nuser_rw=0\n");
    EXPECT_EQ(nullptr, info_->szRWList);
    EXPECT_EQ(unsigned{SHARE_INFO_PRIVILEGE}, info_->uMask);
}

TEST_F(ShareInfoRead, StatusTakesTheFrozenBitsAlone) {
    share_.uStatus = 0x4000 | 0x20;
    read("[share_info]\nstatus=" + std::to_string(0x100 | 0x03) + "\n");
    EXPECT_EQ(0x4000u | 0x100u, info_->uStatus);
}

TEST_F(ShareInfoRead, EachFrozenBitIsTakenAndNoOther) {
    constexpr uint32_t frozen = 0x20 | 0x80 | 0x100 | 0x200 | 0x400 | 0x800 | 0x1000;
    const auto merged = [this](uint32_t live, uint32_t stored) {
        share_.uStatus = live;
        QLIBCSZHASH *hash = QLIBCSzHashAlloc(64);
        EXPECT_LE(0, QLIBCSzHashSetValue(&hash, "status", std::to_string(stored).c_str()));
        QOVAShareSnapShareInfo *record = nullptr;
        EXPECT_EQ(0, QOVAShareSnapShareInfoGetByHash(&share_, hash, &record));
        QLIBCSzHashFree(hash);
        const uint32_t status = record != nullptr ? record->uStatus : ~live;
        std::free(record);
        return status;
    };
    for (int i = 0; i < 32; ++i) {
        const uint32_t bit = uint32_t{1} << i;
        SCOPED_TRACE("bit " + std::to_string(i));
        const bool isFrozen = (frozen & bit) != 0;
        EXPECT_EQ(isFrozen ? bit : 0, merged(0, bit));
        EXPECT_EQ(isFrozen ? 0 : bit, merged(bit, 0));
        // Among all others, too.
        EXPECT_EQ(isFrozen ? frozen & ~bit : frozen, merged(0, ~bit));
        EXPECT_EQ(isFrozen ? ~frozen : ~frozen & ~bit, merged(~bit, 0));
    }
}

TEST_F(ShareInfoRead, StatusIsZeroWithoutTheKey) {
    read("[share_info]\ndesc=x\n");
    EXPECT_EQ(0u, info_->uStatus);
}

TEST_F(ShareInfoRead, UnknownAndBadIdsDropOut) {
    read("[share_info]\nuser_rw=4000000000," + daemon_ + ",12x,\ngroup_rw=4000000001," + staff_ + "\n");
    EXPECT_STREQ("daemon,@staff", info_->szRWList);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to strtoul() with value [12x]["));
}

TEST_F(ShareInfoRead, RenamedAccountsComeUnderTheirPresentNames) {
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(&share_));
    const AccountFile users("/etc/passwd");
    const AccountFile groups("/etc/group");
    ASSERT_NO_FATAL_FAILURE(users.rename("daemon", "spirit"));
    ASSERT_NO_FATAL_FAILURE(groups.rename("staff", "crew"));
    ASSERT_EQ(0, QOVAShareSnapShareInfoGet(&share_, &info_));
    EXPECT_STREQ("spirit,bin,@crew", info_->szRWList);
    EXPECT_STREQ("@crew", info_->szROList);
}

// A group's name goes through 255 bytes with its mark and its end, a user's is taken whole.
TEST_F(ShareInfoRead, LongGroupNameIsCut) {
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(&share_));
    const AccountFile users("/etc/passwd");
    const AccountFile groups("/etc/group");
    const std::string longName(300, 'g');
    ASSERT_NO_FATAL_FAILURE(users.rename("bin", longName));
    ASSERT_NO_FATAL_FAILURE(groups.rename("staff", longName.substr(0, 253)));
    ASSERT_EQ(0, QOVAShareSnapShareInfoGet(&share_, &info_));
    EXPECT_EQ("daemon," + longName + ",@" + longName.substr(0, 253), info_->szRWList); // just fits
    std::free(info_);
    info_ = nullptr;
    ASSERT_NO_FATAL_FAILURE(groups.rename(longName.substr(0, 253), longName));
    ASSERT_EQ(0, QOVAShareSnapShareInfoGet(&share_, &info_));
    EXPECT_EQ("daemon," + longName + ",@" + longName.substr(0, 253), info_->szRWList);
}

TEST_F(ShareInfoRead, EmptyIdTextsAreNotRoot) {
    read("[share_info]\nuser_rw=,,\ngroup_rw=\n");
    EXPECT_STREQ("", info_->szRWList);
}

TEST_F(ShareInfoRead, EmptySectionGivesAnEmptyRecord) {
    read("[share_info]\n");
    EXPECT_EQ(0u, info_->uMask);
    EXPECT_EQ(0u, info_->uStatus);
}

TEST_F(ShareInfoRead, OtherSectionGivesAnEmptyRecord) {
    read("[other]\ndesc=x\n");
    EXPECT_EQ(0u, info_->uMask);
}

TEST_F(ShareInfoRead, MissingFileFails) {
    EXPECT_EQ(-1, QOVAShareSnapShareInfoGet(&share_, &info_));
    EXPECT_EQ(unsigned{SNAP_ERR_OPEN_FAILED}, QLIBCErrGet());
    EXPECT_EQ(nullptr, info_);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get share [docs] snapshot configuration infomation from file["));
}

TEST_F(ShareInfoRead, RecordInHandIsRefusedAndKept) {
    QLIBCSZHASH *hash = QLIBCSzHashAlloc(64);
    QOVAShareSnapShareInfo old{};
    QOVAShareSnapShareInfo *record = &old;
    EXPECT_EQ(-1, QOVAShareSnapShareInfoGetByHash(&share_, hash, &record));
    EXPECT_EQ(&old, record);
    EXPECT_EQ(unsigned{SNAP_ERR_BAD_PARAMETER}, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (NULL == *ppShareInfo)=[0]\n"));
    EXPECT_EQ(-1, QOVAShareSnapShareInfoGetByHash(&share_, nullptr, &info_));
    EXPECT_EQ(-1, QOVAShareSnapShareInfoGetByHash(nullptr, hash, &info_));
    EXPECT_EQ(-1, QOVAShareSnapShareInfoGetByHash(&share_, hash, nullptr));
    EXPECT_EQ(-1, QOVAShareSnapShareInfoGet(nullptr, &info_));
    EXPECT_EQ(0, QOVAShareSnapShareInfoGetByHash(&share_, hash, &info_));
    EXPECT_EQ(0u, info_->uMask);
    QLIBCSzHashFree(hash);
}

TEST_F(ShareInfoRead, ReadsWhatASnapshotFroze) {
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(&share_));
    char directory[4096];
    ASSERT_EQ(1, QOVAShareSnapGetOrCreateSnapDir(&share_, directory, sizeof(directory), 1));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/@sharesnap/docs/then"));
    fields_[1] = "Changed since";
    fields_[2] = "/vol1/@sharesnap/docs/then";
    refresh();
    ASSERT_EQ(0, QOVAShareSnapShareInfoGet(&share_, &info_));
    EXPECT_STREQ("What we write", info_->szDesc);
}

} // namespace
