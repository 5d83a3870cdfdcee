// The share database as its readers and writers see it.
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/process.hpp"
#include "support/sandbox.hpp"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/share_admin.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *databaseFile = "/etc/sharesnap/shares.conf";
constexpr const char *lockFile = "/run/lock/sharesnap/share_database.lock";

unsigned int codeNow() {
    return QLIBCErrGet();
}

void clearRegister() {
    QLIBCErrSetEx(0, "", 0);
}

// A record over texts of the test; nothing in it is freed.
QOVASHARE record(const char *name, const char *path) {
    QOVASHARE share = {};
    share.szName = const_cast<char *>(name);
    share.szPath = const_cast<char *>(path);
    share.nBrowseable = 1;
    return share;
}

std::vector<std::string> taken(QLIBCSZLIST *list) {
    std::vector<std::string> items;
    for (int index = 0; index < list->nItem; ++index) {
        items.emplace_back(QLIBCSzListGet(list, index));
    }
    QLIBCSzListFree(list);
    return items;
}

std::vector<std::string> allShares(unsigned int mask = 0x301) {
    QLIBCSZLIST *list = QLIBCSzListAlloc(512);
    EXPECT_EQ(0, QOVAShareEnum(&list, mask));
    return taken(list);
}

std::vector<std::string> sharesOn(const char *volume) {
    QLIBCSZLIST *list = QLIBCSzListAlloc(512);
    EXPECT_EQ(0, QOVAShareEnumByMntPathAndEnumType(&list, volume, 0x307));
    return taken(list);
}

class ShareDatabase : public testkit::SandboxTest {};
class ShareAdmin : public testkit::SandboxTest {};
class SharePath : public testkit::SandboxTest {};

using Names = std::vector<std::string>;

} // namespace

TEST_F(ShareAdmin, AddedRecordComesBackAsItWas) {
    QOVASHARE share = record("docs", "/vol1/docs");
    share.szDesc = const_cast<char *>("  Papers = all of them; #1 ");
    share.szDenyList = const_cast<char *>("guest");
    share.szRWList = const_cast<char *>("alice,@staff,bob");
    share.szROList = const_cast<char *>("@domain users");
    share.nBrowseable = 0;
    share.nFtpPrivilege = 7;
    share.uStatus = 0x120;
    ASSERT_EQ(0, QOVAShareRecordAdd(&share));

    const testkit::SharePointer found = testkit::getShare("docs");
    ASSERT_NE(nullptr, found);
    EXPECT_STREQ("docs", found->szName);
    EXPECT_STREQ("  Papers = all of them; #1 ", found->szDesc);
    EXPECT_STREQ("/vol1/docs", found->szPath);
    EXPECT_STREQ("guest", found->szDenyList);
    EXPECT_STREQ("alice,@staff,bob", found->szRWList);
    EXPECT_STREQ("@domain users", found->szROList);
    EXPECT_EQ(0, found->nBrowseable);
    EXPECT_EQ(7, found->nFtpPrivilege);
    EXPECT_EQ(0x120U, found->uStatus);
}

TEST_F(ShareAdmin, NullTextsCountAsEmpty) {
    const QOVASHARE share = record("docs", "/vol1/docs");
    ASSERT_EQ(0, QOVAShareRecordAdd(&share));
    const testkit::SharePointer found = testkit::getShare("docs");
    ASSERT_NE(nullptr, found);
    EXPECT_STREQ("", found->szDesc);
    EXPECT_STREQ("", found->szDenyList);
    EXPECT_STREQ("", found->szRWList);
    EXPECT_STREQ("", found->szROList);
}

TEST_F(ShareAdmin, TakenNameIsRefused) {
    const QOVASHARE share = record("docs", "/vol1/docs");
    const QOVASHARE other = record("docs", "/vol1/others");
    ASSERT_EQ(0, QOVAShareRecordAdd(&share));
    const std::string before = testkit::readFile(databaseFile);
    EXPECT_EQ(-1, QOVAShareRecordAdd(&other));
    EXPECT_EQ(0x0800U, codeNow());
    EXPECT_EQ(before, testkit::readFile(databaseFile));
}

TEST_F(ShareAdmin, NamesThatAreNoFileNamesAreRefused) {
    const std::string tooLong(256, 'n');
    for (const char *name : {"", ".", "..", "a/b", "/", "a\nb", "[a", "a]", tooLong.c_str()}) {
        const QOVASHARE share = record(name, "/vol1/docs");
        clearRegister();
        EXPECT_EQ(-1, QOVAShareRecordAdd(&share)) << name;
        EXPECT_EQ(0x0D00U, codeNow()) << name;
        EXPECT_EQ(-1, QOVAShareRecordRemove(name)) << name;
        EXPECT_EQ(-1, QOVAShareRecordRename(name, "good")) << name;
        EXPECT_EQ(-1, QOVAShareRecordRename("good", name)) << name;
    }
    EXPECT_FALSE(testkit::exists(databaseFile));
    const std::string longest(255, 'n');
    const QOVASHARE share = record(longest.c_str(), "/vol1/docs");
    EXPECT_EQ(0, QOVAShareRecordAdd(&share));
}

TEST_F(ShareAdmin, PathsThatLeadElsewhereAreRefused) {
    const std::string tooLong = "/vol1/" + std::string(4090, 'p');
    for (const char *path : {"", "docs", "vol1/docs", "/", "//", "/vol1/../etc", "/vol1/./docs", "/vol1/docs/..",
                             "/vol1/a\nb", tooLong.c_str()}) {
        const QOVASHARE share = record("docs", path);
        clearRegister();
        EXPECT_EQ(-1, QOVAShareRecordAdd(&share)) << path;
        EXPECT_EQ(0x0D00U, codeNow()) << path;
    }
    EXPECT_EQ(Names(), allShares());
}

TEST_F(ShareAdmin, LineFeedInATextIsRefused) {
    QOVASHARE share = record("docs", "/vol1/docs");
    share.szDesc = const_cast<char *>("first\n[root]\npath=/");
    EXPECT_EQ(-1, QOVAShareRecordAdd(&share));
    EXPECT_EQ(0x0D00U, codeNow());
    EXPECT_EQ(Names(), allShares());
}

TEST_F(ShareAdmin, SetKeepsWhatIsNotInARecord) {
    ASSERT_TRUE(testkit::writeFile(databaseFile, "# kept by hand\n"
                                                 "[docs]\n"
                                                 "\tPath = /vol1/docs\n"
                                                 "sharesnap:forbidden=yes\n"
                                                 "sharesnap:location=2\n"
                                                 "vfs objects=recycle\n"
                                                 "[music]\n"
                                                 "path=/vol1/music\n"));
    QOVASHARE share = record("docs", "/vol2/docs");
    share.szDesc = const_cast<char *>("moved");
    ASSERT_EQ(0, QOVAShareRecordSet(&share));

    const testkit::SharePointer found = testkit::getShare("docs");
    ASSERT_NE(nullptr, found);
    EXPECT_STREQ("/vol2/docs", found->szPath);
    EXPECT_STREQ("moved", found->szDesc);
    int forbidden = 0;
    EXPECT_EQ(0, QLIBShareIsForbiddenGet(found.get(), &forbidden));
    EXPECT_EQ(1, forbidden);
    EXPECT_EQ(2, QLIBShareLocTypeGet("/vol2/docs"));
    const std::string text = testkit::readFile(databaseFile);
    EXPECT_NE(std::string::npos, text.find("# kept by hand\n"));
    EXPECT_NE(std::string::npos, text.find("vfs objects=recycle\n"));
    EXPECT_EQ(std::string::npos, text.find("/vol1/docs"));
    EXPECT_EQ((Names{"docs", "music"}), allShares());
}

TEST_F(ShareAdmin, ChangesOfAMissingShareAre2200) {
    const QOVASHARE share = record("docs", "/vol1/docs");
    for (const bool withDatabase : {false, true}) {
        if (withDatabase) {
            ASSERT_EQ("", testkit::addShare("music", "/vol1/music"));
        }
        clearRegister();
        EXPECT_EQ(-1, QOVAShareRecordSet(&share));
        EXPECT_EQ(0x2200U, codeNow());
        clearRegister();
        EXPECT_EQ(-1, QOVAShareRecordRename("docs", "papers"));
        EXPECT_EQ(0x2200U, codeNow());
        clearRegister();
        EXPECT_EQ(-1, QOVAShareRecordRemove("docs"));
        EXPECT_EQ(0x2200U, codeNow());
    }
}

TEST_F(ShareAdmin, RenameKeepsPlaceAndPath) {
    ASSERT_EQ("", testkit::addShare("docs", "/vol1/docs", 0x02));
    ASSERT_EQ("", testkit::addShare("music", "/vol1/music"));
    ASSERT_EQ(0, QOVAShareRecordRename("docs", "papers"));
    EXPECT_EQ((Names{"papers", "music"}), allShares());
    const testkit::SharePointer found = testkit::getShare("papers");
    ASSERT_NE(nullptr, found);
    EXPECT_STREQ("papers", found->szName);
    EXPECT_STREQ("/vol1/docs", found->szPath);
    EXPECT_EQ(0x02U, found->uStatus);
    EXPECT_EQ(nullptr, testkit::getShare("docs"));
}

TEST_F(ShareAdmin, RenameToATakenNameChangesNothing) {
    ASSERT_EQ("", testkit::addShare("docs", "/vol1/docs"));
    ASSERT_EQ("", testkit::addShare("music", "/vol1/music"));
    const std::string before = testkit::readFile(databaseFile);
    EXPECT_EQ(-1, QOVAShareRecordRename("docs", "music"));
    EXPECT_EQ(0x0800U, codeNow());
    EXPECT_EQ(before, testkit::readFile(databaseFile));
}

TEST_F(ShareAdmin, RemoveTakesOneShareAway) {
    ASSERT_EQ("", testkit::addShare("docs", "/vol1/docs"));
    ASSERT_EQ("", testkit::addShare("music", "/vol1/music"));
    ASSERT_EQ(0, QOVAShareRecordRemove("docs"));
    EXPECT_EQ(Names{"music"}, allShares());
}

TEST_F(ShareAdmin, PathIsStoredPlain) {
    ASSERT_EQ("", testkit::addShare("docs", "//vol1///docs//"));
    const testkit::SharePointer found = testkit::getShare("docs");
    ASSERT_NE(nullptr, found);
    EXPECT_STREQ("/vol1/docs", found->szPath);
}

TEST_F(ShareAdmin, OthersThanRootAreRefusedAndMakeNoLockDirectory) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Without another user to become (in a user namespace) there is nothing to see here.
        if (seteuid(65534) != 0) {
            _exit(0);
        }
        const QOVASHARE share = record("docs", "/vol1/docs");
        const bool refused = QOVAShareRecordAdd(&share) == -1 && errno == EPERM && QLIBCErrGet() == 0x2A00;
        _exit(refused ? 0 : 1);
    }
    EXPECT_EQ(0, testkit::waitForChild(child));
    EXPECT_FALSE(testkit::exists("/run/lock/sharesnap"));
}

TEST_F(ShareAdmin, LinkInThePlaceOfTheDatabaseIsNotFollowed) {
    const std::string victim = testkit::Sandbox::scratch() + "/victim";
    ASSERT_TRUE(testkit::writeFile(victim, "[docs]\npath=/vol1/docs\n"));
    ASSERT_EQ(0, symlink(victim.c_str(), databaseFile));
    const QOVASHARE share = record("music", "/vol1/music");
    (void)QOVAShareRecordAdd(&share); // refused or not: the link's target stays as it is
    EXPECT_EQ("[docs]\npath=/vol1/docs\n", testkit::readFile(victim));
}

TEST_F(ShareDatabase, AbsentDatabaseHasNoShares) {
    clearRegister();
    EXPECT_EQ(Names(), allShares());
    EXPECT_EQ(Names(), sharesOn("/vol1"));
    EXPECT_EQ(0U, codeNow());
    int exists = 7;
    EXPECT_EQ(0, QLIBShareIsExist("docs", &exists));
    EXPECT_EQ(0, exists);
    EXPECT_EQ(0U, codeNow());
    QOVASHARE *share = nullptr;
    EXPECT_NE(0, QOVAShareGet("docs", &share));
    EXPECT_EQ(nullptr, share);
    EXPECT_EQ(0x2200U, codeNow());
}

TEST_F(ShareDatabase, LinesWrittenByHandAreUnderstood) {
    ASSERT_TRUE(testkit::writeFile(databaseFile, "; shares of this machine\n"
                                                 "[docs]\n"
                                                 "   Comment = Papers, all = of them \n"
                                                 "   PATH = /vol1/docs/ \n"
                                                 "   invalid users = guest , @temps\n"
                                                 "   write list = alice, @staff\n"
                                                 "   read list =\n"
                                                 "   browseable = No\n"
                                                 "   sharesnap:ftp_privilege = 3\n"
                                                 "   sharesnap:status = 2\n"));
    const testkit::SharePointer share = testkit::getShare("docs");
    ASSERT_NE(nullptr, share);
    EXPECT_STREQ("Papers, all = of them", share->szDesc);
    EXPECT_STREQ("/vol1/docs", share->szPath);
    EXPECT_STREQ("guest,@temps", share->szDenyList);
    EXPECT_STREQ("alice,@staff", share->szRWList);
    EXPECT_STREQ("", share->szROList);
    EXPECT_EQ(0, share->nBrowseable);
    EXPECT_EQ(3, share->nFtpPrivilege);
    EXPECT_EQ(0x02U, share->uStatus);
}

TEST_F(ShareDatabase, ShareIsBrowseableUnlessItSaysNo) {
    ASSERT_TRUE(testkit::writeFile(databaseFile, "[a]\npath=/vol1/a\n[b]\npath=/vol1/b\nbrowseable=maybe\n"
                                                 "[c]\npath=/vol1/c\nbrowsable=false\n"));
    EXPECT_EQ(1, testkit::getShare("a")->nBrowseable);
    EXPECT_EQ(1, testkit::getShare("b")->nBrowseable);
    EXPECT_EQ(0, testkit::getShare("c")->nBrowseable);
}

TEST_F(ShareDatabase, GetLeavesTheRegisterOnSuccess) {
    ASSERT_EQ("", testkit::addShare("docs", "/vol1/docs"));
    QLIBCErrSetEx(0xE700, "elsewhere.cpp", 12);
    ASSERT_NE(nullptr, testkit::getShare("docs"));
    EXPECT_EQ(0xE700U, QLIBCErrGet());
    EXPECT_STREQ("elsewhere.cpp", QLIBCErrorGetFile());
    EXPECT_EQ(12, QLIBCErrorGetLine());
}

TEST_F(ShareDatabase, EnumerationsKeepTheFilesOrderWhateverTheMask) {
    for (const char *name : {"zoo", "archive", "Music", "docs"}) {
        ASSERT_EQ("", testkit::addShare(name, std::string("/vol1/") + name));
    }
    const Names order = {"zoo", "archive", "Music", "docs"};
    for (const unsigned int mask : {0U, 1U, 0x301U, 0x307U, ~0U}) {
        EXPECT_EQ(order, allShares(mask));
    }
    EXPECT_EQ(order, sharesOn("/vol1"));
}

TEST_F(ShareDatabase, SharesOfAVolumeAreToldByWholeComponents) {
    ASSERT_EQ("", testkit::addShare("a", "/vol1/a"));
    ASSERT_EQ("", testkit::addShare("b", "/vol10/b"));
    ASSERT_EQ("", testkit::addShare("c", "/vol1/deep/c"));
    EXPECT_EQ((Names{"a", "c"}), sharesOn("/vol1"));
    EXPECT_EQ((Names{"a", "c"}), sharesOn("/vol1/"));
    EXPECT_EQ(Names{"b"}, sharesOn("/vol10"));
    EXPECT_EQ(Names(), sharesOn("/vol2"));
}

TEST_F(ShareDatabase, UnusableRecordsDoNotHideTheOthers) {
    ASSERT_TRUE(testkit::writeFile(databaseFile, "[nowhere]\ncomment=no path\n"
                                                 "[empty]\n"
                                                 "[../../etc]\npath=/vol1/etc\n"
                                                 "[relative]\npath=vol1/relative\n"
                                                 "[climber]\npath=/vol1/../etc\n"
                                                 "[docs]\npath=/vol1/docs\n"));
    clearRegister();
    EXPECT_EQ(Names{"docs"}, allShares());
    EXPECT_EQ(0U, codeNow());
    for (const char *name : {"nowhere", "empty", "relative", "climber"}) {
        QOVASHARE *share = nullptr;
        EXPECT_NE(0, QOVAShareGet(name, &share)) << name;
        EXPECT_EQ(nullptr, share);
        EXPECT_EQ(0x0A00U, codeNow()) << name;
        int exists = 0;
        EXPECT_EQ(0, QLIBShareIsExist(name, &exists));
        EXPECT_EQ(1, exists) << name;
    }
    QOVASHARE *share = nullptr;
    EXPECT_NE(0, QOVAShareGet("../../etc", &share));
    EXPECT_EQ(0x0D00U, codeNow());
    EXPECT_EQ(nullptr, share);
}

TEST_F(ShareDatabase, DatabaseThatCannotBeReadIsAFailure) {
    ASSERT_EQ(0, mkdir(databaseFile, 0755));
    QOVASHARE *share = nullptr;
    EXPECT_NE(0, QOVAShareGet("docs", &share));
    EXPECT_NE(0x2200U, codeNow());
    EXPECT_NE(0U, codeNow());
    QLIBCSZLIST *list = QLIBCSzListAlloc(512);
    EXPECT_EQ(-1, QOVAShareEnum(&list, 0x301));
    QLIBCSzListFree(list);
    int exists = 0;
    EXPECT_NE(0, QLIBShareIsExist("docs", &exists));
}

TEST_F(ShareDatabase, ForbiddenIsTheDatabasesWord) {
    ASSERT_TRUE(testkit::writeFile(databaseFile, "[a]\npath=/vol1/a\nsharesnap:forbidden=yes\n"
                                                 "[b]\npath=/vol1/b\nsharesnap:forbidden=no\n"
                                                 "[c]\npath=/vol1/c\n"));
    const std::vector<std::pair<const char *, int>> expected = {{"a", 1}, {"b", 0}, {"c", 0}, {"absent", 0}};
    for (const auto &[name, value] : expected) {
        const QOVASHARE share = record(name, "/elsewhere");
        int forbidden = -5;
        clearRegister();
        EXPECT_EQ(0, QLIBShareIsForbiddenGet(&share, &forbidden)) << name;
        EXPECT_EQ(value, forbidden) << name;
        EXPECT_EQ(0U, codeNow()) << name;
    }
}

TEST_F(ShareDatabase, LocationComesFromTheRecordWithThatPath) {
    ASSERT_TRUE(testkit::writeFile(databaseFile, "[a]\npath=/vol1/a\nsharesnap:location=0\n"
                                                 "[other]\npath=/vol1/b\nsharesnap:location=3\n"
                                                 "[b]\npath=/vol2/b\nsharesnap:location=2\n"
                                                 "[c]\npath=/vol1/c\nsharesnap:location=9\n"
                                                 "[d]\npath=/vol1/d\n"));
    clearRegister();
    EXPECT_EQ(0, QLIBShareLocTypeGet("/vol1/a"));
    EXPECT_EQ(0, QLIBShareLocTypeGet("/vol1/a/"));
    EXPECT_EQ(3, QLIBShareLocTypeGet("/vol1/b"));
    EXPECT_EQ(2, QLIBShareLocTypeGet("/vol2/b"));
    EXPECT_EQ(1, QLIBShareLocTypeGet("/vol1/c"));
    EXPECT_EQ(1, QLIBShareLocTypeGet("/vol1/d"));
    EXPECT_EQ(1, QLIBShareLocTypeGet("/vol1/nobody"));
    EXPECT_EQ(0U, codeNow());
    EXPECT_GT(0, QLIBShareLocTypeGet("relative"));
    EXPECT_EQ(0x0D00U, codeNow());
}

TEST_F(ShareDatabase, EncryptionIsTheRecordsBitAlone) {
    for (const auto &[status, expected] : std::vector<std::pair<unsigned int, int>>{{0, 0}, {1, 0}, {2, 1}, {3, 1}}) {
        QOVASHARE share = record("docs", "/vol1/docs");
        share.uStatus = status;
        int encrypted = -1;
        EXPECT_EQ(0, QLIBShareIsEncryptionGet(&share, &encrypted));
        EXPECT_EQ(expected, encrypted);
    }
}

TEST_F(ShareDatabase, UnlockedBitIsNeverStored) {
    ASSERT_EQ("", testkit::addShare("docs", "/vol1/docs", 0x03));
    ASSERT_EQ("", testkit::addShare("plain", "/vol1/plain", 0x01));
    EXPECT_EQ(0x02U, testkit::getShare("docs")->uStatus);
    EXPECT_EQ(0x00U, testkit::getShare("plain")->uStatus);
}

// A view whose program doesn't answer: the kernel's side of a mount without anybody on the other end.
TEST_F(ShareDatabase, UnlockedIsToldWithoutAskingTheMountedView) {
    const std::string path = testkit::Sandbox::scratch() + "/pay \\roll\tslips";
    ASSERT_EQ(0, mkdir(path.c_str(), 0755));
    const int fuse = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fuse < 0) {
        GTEST_SKIP() << "/dev/fuse can't be opened here";
    }
    const std::string options = "fd=" + std::to_string(fuse) + ",rootmode=40000,user_id=0,group_id=0";
    if (mount("/back end", path.c_str(), "fuse.gocryptfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
        (void)close(fuse);
        GTEST_SKIP() << "FUSE can't be mounted here";
    }
    EXPECT_EQ("", testkit::addShare("slips", path, 0x02));
    EXPECT_EQ("", testkit::addShare("same", path, 0x00));
    EXPECT_EQ(0x03U, testkit::getShare("slips")->uStatus);
    // The mount alone doesn't make a share encrypted: its record says what it is.
    EXPECT_EQ(0x00U, testkit::getShare("same")->uStatus);
    // A server that died leaves its mount behind; every access to it fails.
    (void)close(fuse);
    struct stat st = {};
    EXPECT_NE(0, stat(path.c_str(), &st));
    EXPECT_EQ(0x03U, testkit::getShare("slips")->uStatus);
    EXPECT_EQ(0, umount2(path.c_str(), MNT_DETACH));
    EXPECT_EQ(0x02U, testkit::getShare("slips")->uStatus);
}

TEST_F(ShareDatabase, OtherFileSystemsAtTheSharesPathDoNotUnlockIt) {
    const std::string path = testkit::Sandbox::scratch() + "/docs";
    ASSERT_EQ(0, mkdir(path.c_str(), 0755));
    ASSERT_EQ(0, mount("none", path.c_str(), "tmpfs", 0, nullptr));
    EXPECT_EQ("", testkit::addShare("docs", path, 0x02));
    EXPECT_EQ(0x02U, testkit::getShare("docs")->uStatus);
    EXPECT_EQ(0, umount2(path.c_str(), MNT_DETACH));
}

// A process that holds the database's lock until it is told to go.
class LockHolder {
public:
    LockHolder() {
        int held[2] = {};
        int done[2] = {};
        EXPECT_EQ(0, pipe(held));
        EXPECT_EQ(0, pipe(done));
        holder_ = fork();
        if (holder_ == 0) {
            (void)mkdir("/run/lock/sharesnap", 0777);
            int lock = -1;
            char byte = QLIBCFileLockTimeByFile(lockFile, 1, 5, &lock) != 0 ? 'y' : 'n';
            (void)close(done[1]);
            (void)!write(held[1], &byte, 1);
            (void)!read(done[0], &byte, 1); // ends when the other end is closed
            _exit(0);
        }
        (void)close(done[0]);
        (void)close(held[1]);
        char answer = 0;
        EXPECT_EQ(1, read(held[0], &answer, 1));
        EXPECT_EQ('y', answer);
        (void)close(held[0]);
        done_ = done[1];
    }
    ~LockHolder() {
        (void)close(done_);
        EXPECT_EQ(0, testkit::waitForChild(holder_));
    }
    LockHolder(const LockHolder &) = delete;
    LockHolder &operator=(const LockHolder &) = delete;

private:
    pid_t holder_ = -1;
    int done_ = -1;
};

TEST_F(ShareDatabase, ReadersDoNotWaitForAWriter) {
    ASSERT_EQ("", testkit::addShare("docs", "/vol1/docs"));
    const LockHolder writer; // goes only when the test is over
    const time_t start = time(nullptr);
    EXPECT_NE(nullptr, testkit::getShare("docs"));
    EXPECT_EQ(std::vector<std::string>{"docs"}, allShares());
    EXPECT_GT(9, time(nullptr) - start);
}

TEST_F(ShareAdmin, WriterGivesUpAfterTenSeconds) {
    ASSERT_EQ("", testkit::addShare("docs", "/vol1/docs"));
    const LockHolder other;
    const time_t start = time(nullptr);
    EXPECT_EQ(-1, QOVAShareRecordRemove("docs"));
    EXPECT_EQ(0x0400U, codeNow());
    EXPECT_LE(9, time(nullptr) - start);
    EXPECT_EQ(std::vector<std::string>{"docs"}, allShares());
}

TEST_F(ShareDatabase, ReadersSeeOneWholeGeneration) {
    ASSERT_EQ("", testkit::addShare("docs", "/vol1/even"));
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        int failed = 0;
        for (int round = 0; round < 100; ++round) {
            QOVASHARE share = record("docs", round % 2 == 0 ? "/vol1/odd" : "/vol1/even");
            share.szDesc = const_cast<char *>(round % 2 == 0 ? "odd" : "");
            failed += QOVAShareRecordSet(&share) == 0 ? 0 : 1;
        }
        _exit(failed == 0 ? 0 : 1);
    }
    int torn = 0;
    for (int round = 0; round < 300; ++round) {
        const testkit::SharePointer share = testkit::getShare("docs");
        const std::string seen = share == nullptr ? "none" : std::string(share->szPath) + share->szDesc;
        torn += seen == "/vol1/even" || seen == "/vol1/oddodd" ? 0 : 1;
    }
    EXPECT_EQ(0, torn);
    EXPECT_EQ(0, testkit::waitForChild(writer));
}

TEST_F(ShareDatabase, FreeAcceptsNullAndKeepsErrno) {
    errno = ENOTTY;
    QOVAShareFree(nullptr);
    EXPECT_EQ(ENOTTY, errno);
    ASSERT_EQ("", testkit::addShare("docs", "/vol1/docs"));
    QOVASHARE *share = nullptr;
    ASSERT_EQ(0, QOVAShareGet("docs", &share));
    errno = ENOSPC;
    QOVAShareFree(share);
    EXPECT_EQ(ENOSPC, errno);
}

TEST_F(ShareDatabase, NullArgumentsAreRefused) {
    QOVASHARE *share = nullptr;
    QLIBCSZLIST *list = nullptr;
    int number = 0;
    char text[64] = {};
    const QOVASHARE noName = {};
    EXPECT_NE(0, QOVAShareGet(nullptr, &share));
    EXPECT_NE(0, QOVAShareGet("docs", nullptr));
    EXPECT_EQ(-1, QOVAShareEnum(nullptr, 0));
    EXPECT_EQ(-1, QOVAShareEnum(&list, 0));
    EXPECT_EQ(-1, QOVAShareEnumByMntPathAndEnumType(&list, nullptr, 0));
    EXPECT_NE(0, QLIBShareIsExist(nullptr, &number));
    EXPECT_EQ(-1, QLIBShareIsForbiddenGet(nullptr, &number));
    EXPECT_EQ(-1, QLIBShareIsForbiddenGet(&noName, &number));
    EXPECT_EQ(-1, QLIBShareIsEncryptionGet(nullptr, &number));
    EXPECT_EQ(-1, QLIBShareEncryptPathGet(nullptr, text, sizeof(text)));
    EXPECT_GT(0, QLIBShareLocTypeGet(nullptr));
    EXPECT_EQ(-1, QOVAShareNamePathGet(nullptr, text, sizeof(text), text, sizeof(text)));
    EXPECT_EQ(-1, QOVAShareRecordAdd(nullptr));
    EXPECT_EQ(-1, QOVAShareRecordSet(nullptr));
    EXPECT_EQ(-1, QOVAShareRecordRename(nullptr, "a"));
    EXPECT_EQ(-1, QOVAShareRecordRename("a", nullptr));
    EXPECT_EQ(-1, QOVAShareRecordRemove(nullptr));
    EXPECT_EQ(0x0D00U, codeNow());
}

TEST_F(SharePath, IsSplitIntoNameAndPlainPath) {
    char name[1024] = {};
    char path[4096] = {};
    ASSERT_EQ(0, QOVAShareNamePathGet("/vol1/docs", name, sizeof(name), path, sizeof(path)));
    EXPECT_STREQ("docs", name);
    EXPECT_STREQ("/vol1/docs", path);
    ASSERT_EQ(0, QOVAShareNamePathGet("/vol1//my docs///", name, sizeof(name), path, sizeof(path)));
    EXPECT_STREQ("my docs", name);
    EXPECT_STREQ("/vol1/my docs", path);
    for (const char *bad : {"", "docs", "/", "/vol1/..", "/vol1/."}) {
        EXPECT_EQ(-1, QOVAShareNamePathGet(bad, name, sizeof(name), path, sizeof(path))) << bad;
    }
}

TEST_F(SharePath, BuffersTakeExactlyWhatFits) {
    char name[5] = {};
    char path[11] = {};
    EXPECT_EQ(0, QOVAShareNamePathGet("/vol1/docs", name, 5, path, 11));
    EXPECT_EQ(-1, QOVAShareNamePathGet("/vol1/docs", name, 4, path, 11));
    EXPECT_EQ(-1, QOVAShareNamePathGet("/vol1/docs", name, 5, path, 10));
    char backEnd[13] = {};
    EXPECT_EQ(0, QLIBShareEncryptPathGet("/vol1/docs", backEnd, 13));
    EXPECT_STREQ("/vol1/@docs@", backEnd);
    EXPECT_EQ(-1, QLIBShareEncryptPathGet("/vol1/docs", backEnd, 12));
    EXPECT_EQ(0x0D00U, codeNow());
}

TEST_F(SharePath, BackEndStandsBesideTheView) {
    char backEnd[4096] = {};
    EXPECT_EQ(0, QLIBShareEncryptPathGet("/vol1/docs/", backEnd, sizeof(backEnd)));
    EXPECT_STREQ("/vol1/@docs@", backEnd);
    EXPECT_EQ(0, QLIBShareEncryptPathGet("/vol1/deep/er", backEnd, sizeof(backEnd)));
    EXPECT_STREQ("/vol1/deep/@er@", backEnd);
    EXPECT_EQ(-1, QLIBShareEncryptPathGet("/", backEnd, sizeof(backEnd)));
    EXPECT_EQ(-1, QLIBShareEncryptPathGet("docs", backEnd, sizeof(backEnd)));
}
