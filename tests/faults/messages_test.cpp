// An administrator finds out from the system log what failed: each call of an operation fails once, and each line that is
// due for one of these failures is there, letter by letter.
#include "volume/lifecycle.hpp"

#include <cstdio>
#include <functional>
#include <grp.h>
#include <pwd.h>
#include <regex>
#include <set>
#include <sharesnap/config.h>
#include <sharesnap/platform/quota.h>
#include <sys/wait.h>

#include "support/bounded.hpp"

using namespace lifecycle;

namespace {

using Lines = std::set<std::string>;

// Without the place in the source that it begins with; what the register tells is shown as [], a process number as N.
std::string plain(const std::string &line) {
    static const std::regex code("\\[0x[0-9A-F]{4} [^\\]]*\\]");
    std::string text = std::regex_replace(line.substr(std::min(line.find(' '), line.size() - 1) + 1), code, "[]");
    static const std::regex process("PID([[(])[0-9]+");
    text = std::regex_replace(text, process, "PID$1N");
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

// All lines of failures that come when the calls of the operation fail, one in each run.
Lines linesOf(const std::function<void()> &prepare, const std::function<void()> &operation,
              std::vector<std::string> only = {}) {
    Lines lines;
    testkit::Sweep sweep;
    sweep.only = std::move(only);
    sweep.prepare = [&] {
        prepare();
        testkit::logClear();
        setCode(0);
    };
    sweep.operation = operation;
    sweep.check = [&](const testkit::FaultPoint &) {
        for (const testkit::LogLine &line : testkit::logLines()) {
            if (line.priority == LOG_ERR) {
                lines.insert(plain(line.text));
            }
        }
    };
    (void)sweep.run();
    return lines;
}

void expectAll(const Lines &lines, const std::vector<std::string> &wanted) {
    std::string all;
    for (const std::string &line : lines) {
        all += line + "\n";
    }
    for (const std::string &text : wanted) {
        EXPECT_EQ(1U, lines.count(text)) << text << "\nin:\n" << all;
    }
}

class Messages : public Fixture {
protected:
    void SetUp() override {
        Fixture::SetUp();
        if (IsSkipped()) {
            return;
        }
        record_.share.szRWList = list_;
        user_ = std::to_string(getpwnam("daemon")->pw_uid);
        group_ = std::to_string(getgrnam("staff")->gr_gid);
    }

    static void nothing() {}

    char list_[24] = "daemon,@staff";
    Record record_{"docs", "/vol1/docs"};
    const QOVASHARE *docs_ = record_.get();
    std::string user_;
    std::string group_;
};

TEST_F(Messages, OfACapture) {
    char database[4096];
    ASSERT_EQ(0, QOVAQuotaDbPathGet("/vol1/docs", database, sizeof(database)));
    const std::string path = database;
    ASSERT_TRUE(testkit::makeDirectories(path.substr(0, path.rfind('/'))));
    ASSERT_TRUE(testkit::writeFile(path, "limits"));
    const std::string directory = "/vol1/docs/@eaDir/sharesnap_share_configuration/";
    const std::string copy = directory + path.substr(path.rfind('/') + 1);
    expectAll(linesOf(nothing, [&] { (void)QOVAShareSnapShareInfoSet(docs_); }),
              {"Failed to alloc hash[]",
               "Failed to get encryption status of share [docs] []",
               "Failed to get @eaDir for docs []",
               "Failed to create configration file on share [docs] []",
               "Failed to lock share [docs] snapshot configuration lock file[]",
               "Failed to get share [docs] configration[]",
               "Out of memory []",
               "fail to strtok[]",
               "Failed to uids convert to string[]",
               "Failed to get share[docs] deny user and group[]",
               "Failed to get share[docs] quota",
               "Failed to set share [docs] key [desc] value [][]",
               "Failed to set share [docs] key [status] value [0][]",
               "Failed to set share [docs] key [user_rw] value [" + user_ + "][]",
               "Failed to set share [docs] key [group_rw] value [" + group_ + "][]",
               "Failed to set share [docs] key [share_quota] value [0][]",
               "Failed to remove share [docs] configuration to file [" + directory + "share_configuration] []",
               "Failed to add section [share_info] to file [" + directory + "share_configuration][]",
               "fail to QLIBCFileUnlockByFile of share [docs] snapshot configuration lock file[]",
               "Failed get user quota db path for share [docs][]",
               "Failed stat file [" + path + "][]",
               "Failed to get user quota db path in snapshot for share [docs][]",
               "Failed to copy usr quota db from [" + path + "] to [" + copy + "][]"});
}

TEST_F(Messages, OfACaptureOfAnEncryptedShare) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@docs@"));
    record_.share.uStatus = 0x02;
    expectAll(linesOf(nothing, [&] { (void)QOVAShareSnapShareInfoSet(docs_); }),
              {"get sahre [docs] encpath failed.[]", "Failed to get @eaDir for docs []",
               "Failed to set share [docs] key [status] value [2][]"});
    expectAll(
        linesOf([&] { ASSERT_EQ(0, QOVAShareSnapShareInfoSet(docs_)); }, [&] { QOVAShareSnapShareInfoClear(docs_); }),
        {"get sahre [docs] encpath failed.[]", "Failed to get encryption status of share [docs] []",
         "Failed to remove directory.",
         "failed to remove share config directory [/vol1/@docs@/@eaDir/sharesnap_share_configuration][]",
         "failed to remove share @eaDir directory [/vol1/@docs@/@eaDir], err:Input/output error"});
}

TEST_F(Messages, OfReadingACapture) {
    ASSERT_EQ(0, QOVAShareSnapShareInfoSet(docs_));
    const Lines lines = linesOf(nothing, [&] {
        QOVAShareSnapShareInfo *info = nullptr;
        (void)QOVAShareSnapShareInfoGet(docs_, &info);
        std::free(info);
    });
    expectAll(lines, {"Failed to alloc hash[]", "Failed to get share [docs] configuration path[]",
                      "Failed to lock share [docs] snapshot configuration lock file[]",
                      "Failed to get share [docs] snapshot configuration infomation[]",
                      "Failed to get share [docs] snapshot configuration infomation from file[]",
                      "fail to QLIBCFileUnlockByFile of share(docs) snapshot configuration lock file[]",
                      "QLIBCSzListAlloc failed[]", "Failed to get hash enum key from hash.[]", "Out of memory []",
                      "fail to strtok[]", "Failed to uids convert to string[]",
                      "Failed to validate user [" + user_ + "] group [" + group_ + "][]",
                      "Failed to validate user [] group [][]",
                      "Failed to set share [docs] snapshot configuration infomation from PHASH[]"});
    if (testkit::hasOwnMemory()) { // otherwise calloc can't be made to fail
        const size_t size = sizeof(QOVAShareSnapShareInfo) + sizeof("") * 3 + sizeof("daemon,@staff");
        expectAll(lines, {"NULL == *ppData, NULL == calloc(" + std::to_string(size) +
                          ", 1). errno=12/Cannot allocate memory"});
    }
}

TEST_F(Messages, OfSettings) {
    ASSERT_TRUE(testkit::makeDirectories("/usr/qova/etc/sharesnap"));
    expectAll(linesOf([] { (void)QOVAShareSnapConfDeleteShare("docs"); },
                      [] { (void)QOVAShareSnapConfSet("docs", "key", "value"); }),
              {"Failed to add sharesnap config section(docs) []",
               "Failed to unlock /run/lock/sharesnap/sharesnap_conf.lock"});
}

TEST_F(Messages, OfCounters) {
    const std::string lock = "/run/lock/sharesnap/sharesnap_snapcount_lock/docs.lock";
    ASSERT_EQ(1, QOVAShareSnapUpdateSnapCountEx(share, 1, 1));
    expectAll(linesOf([&] { storeCount(1); }, [&] { (void)QOVAShareSnapUpdateSnapCountEx(share, 1, 1); }),
              {"Fail to QLIBCFileLockTimeByFile: " + lock + "[]", "QLIBCFileUnlockByFile fail: " + lock + "[]",
               "Fail to setxattr on /vol1/@sharesnap/docs, name: user.snapcount, value: 2, strerror: No space left on "
               "device",
               "Fail to set ShareSnapCount of [docs] to 2."});
    expectAll(linesOf(nothing, [] { (void)QOVAShareSnapSyncGlobalSnapCount(); }),
              {"Fail in QLIBCSzListAlloc[]", "Fail in QOVAShareEnum[]", "Failed to get share (docs)[]",
               "Volpath of /vol1/docs not found []", "Fail to get mount volume info of path [/vol1/docs].[]",
               "Failed to get snapshot count of [docs]", "Failed to get share(docs) snapshot list []",
               "Failed to get metadata file for share [docs] []"});
}

TEST_F(Messages, OfAttributes) {
    const std::string name = take();
    const std::string file = "/run/lock/sharesnap/sharesnap_meta_lock/docs.lock";
    expectAll(linesOf(nothing, [&] { (void)QOVAShareSnapAttrSet(share, name.c_str(), "hide", "false"); }),
              {"QLIBCSzHashAlloc failed", "Failed to access metadata file on share [docs][]",
               "Failed to lock file [" + file + "] []", "Failed to lock meta file []",
               "Failed to get share(docs) snapshot(" + name + ") section []",
               "Failed to set key-value to share(docs) snapshot(" + name + ") section []",
               "Failed to get snapshot directory []",
               "Failed to set subvolume hide attribute on [/vol1/@sharesnap/docs/" + name + "] []",
               "fail to QLIBCFileUnlockByFile of share(docs) metadata[]"});
    const Hash hash(Pairs{{"hide", "false"}, {"desc", "text"}});
    expectAll(linesOf(nothing, [&] { (void)QOVAShareSnapAttrMultiSet(share, name.c_str(), hash.get()); }),
              {"Failed to enum attributes key of share(docs) snapshot(" + name + ") []", "Failed to lock meta file []",
               "Fail to QLIBCFileUnlockByFile of share(docs) metadata[]", "Failed to get snap dir of share[docs][]",
               "Fail to set attribute of snapshot [" + name + "][]"});
    expectAll(linesOf([&] { ASSERT_EQ(0, QOVAShareSnapAttrSet(share, name.c_str(), "desc", "text")); },
                      [&] { (void)QOVAShareSnapAttrDelete(share, name.c_str(), "desc"); }),
              {"Failed to alloc hash[]", "Meta file of share[docs] doesn't exist []",
               "Failed to get share [docs] metafile section [" + name + "] []", "Failed to lock meta file []",
               "Failed to delete share [docs] snapshot [" + name + "] attr [desc] []"});
    expectAll(linesOf(nothing,
                      [&] {
                          Hash all;
                          (void)QOVAShareSnapAttrList(share, name.c_str(), all.address());
                      }),
              {"Failed to access metadata file on share [docs] []", "Failed to lock meta file []",
               "Failed to get share [docs] metafile section [" + name + "] []"});
}

TEST_F(Messages, OfTheMetadataFile) {
    (void)take();
    const std::string other = "GMT-1999.01.01-00.00.00";
    const Record files("files", "/vol1/docs");
    const Hash hash(Pairs{{"hide", "false"}});
    expectAll(linesOf([&] { (void)unlink(metaPath().c_str()); },
                      [&] { (void)QOVAShareSnapMetaSectionAdd(share, other.c_str(), hash.get()); }),
              {"Failed to enum key-value pair", "Failed to create metadata directory on share [docs] []",
               "Failed to get eycrnption status of share [docs] []", "Failed to create [" + metaPath() + "]",
               "Failed to create metadata file on share [docs] []", "Failed to lock meta file []",
               "Failed to add section [" + other + "] to file [" + metaPath() + "][]"});
    const std::string text = meta(); // with the section that the last run added
    const auto reset = [&] {
        (void)unlink("/vol1/@sharesnap/@files.meta");
        ASSERT_TRUE(testkit::writeFile(metaPath(), text));
    };
    expectAll(linesOf(reset, [&] { (void)SnapMetaSectionDel(share, other.c_str(), 1); }),
              {"Can't access metadata file []", "Failed to get metadata directory []", "Failed to lock meta file []",
               "Failed to remove section: " + other + " from " + metaPath() + " []"});
    expectAll(linesOf(reset, [&] { (void)SnapMetaFileRename(share, files.get()); }),
              {"Failed to get orignal share docs meta file []", "Failed to get meta file path of share [files] []",
               "Failed to rename [" + metaPath() + "] to [/vol1/@sharesnap/@files.meta]"});
    expectAll(linesOf(reset, [&] { (void)SnapMetaFileDelete(share); }), {"Faile to unlink [" + metaPath() + "]"});
    expectAll(
        linesOf(reset,
                [&] {
                    List list;
                    (void)QOVAShareSnapList(share, list.address(), nullptr);
                }),
        {"Failed to get metadata file for share [docs] []", "Failed to alloc hash[]", "Failed to lock meta file []"});
}

TEST_F(Messages, OfTheSnapshotDirectory) {
    const Record files("files", "/vol1/docs");
    const auto reset = [] {
        for (const char *name : {"docs", "files"}) {
            const std::string path = std::string("/vol1/@sharesnap/") + name;
            (void)unlink((path + "/desktop.ini").c_str());
            (void)QOVABtrfsDeleteSubvolFaultTolerant(path.c_str());
        }
    };
    expectAll(linesOf(reset,
                      [&] {
                          char path[4096];
                          (void)QOVAShareSnapGetOrCreateSnapDir(share, path, sizeof(path), 1);
                      }),
              {"Failed to get eycrnption status of share [docs] []", "Failed to create @sharesnap subvolume []",
               "Failed to subvol /vol1/@sharesnap/docs, errno=5/Input/output error", "Failed to get subvolume []",
               "Failed to get subvolume flags.",
               "Failed to set path [/vol1/@sharesnap/docs] ArchiveBut F_SETSMB_SYSTEM.[]",
               "chmod failed for /vol1/@sharesnap/docs/desktop.ini. err:(Operation not permitted)",
               "Failed to access Btrfs share docs snapshot directory []"});
    expectAll(linesOf(reset, [&] { (void)SnapshotDirRename(share, files.get()); }),
              {"Failed to get new snapshot directory path []", "Failed to get @sharesnap path []",
               "Failed to get eycrnption status of share [files] []", "Original snapshot directory doesn't exist []",
               "Failed to rename /vol1/@sharesnap/docs to /vol1/@sharesnap/files []"});
}

TEST_F(Messages, OfTheDataOfAnEncryptedShare) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@docs@"));
    record_.share.uStatus = 0x02;
    expectAll(linesOf(nothing,
                      [&] {
                          char path[4096];
                          (void)ShareSubvolumePathGet(docs_, path, sizeof(path));
                          int type = 0;
                          (void)QOVAShareSnapCheckSupport(docs_, &type, 1);
                      }),
              {"Failed to get encryption status of share [docs] []", "Failed to get encrypt path for share [docs] []",
               "Failed to get encrypt path for share(docs) []", "Failed to get vol path of share(docs)[]",
               "Failed to fs type from path (/vol1)[]",
               "Failed to check subvol for path (/vol1/@docs@) err:(Input/output error)[]",
               "Failed get share forbidden status for share docs[]"});
}

TEST_F(Messages, OfTheQueueOfDeletedOnes) {
    ASSERT_EQ(0, remove({take()}));
    expectAll(linesOf(nothing,
                      [] {
                          uint32_t count = 0;
                          (void)QOVAShareSnapDeletingCountGet("/vol1/docs", &count);
                      }),
              {"Failed to alloc hash[]", "Failed to check if share [docs] exists[]", "Failed to get share (docs)[]",
               "Failed to get share subvol path of share [docs][]", "Failed to get deleted subvol of [/vol1/docs][]"});
}

TEST_F(Messages, OfADeletionWithoutMemory) {
    std::string name;
    const auto reset = [&] {
        ASSERT_EQ(0, QOVAShareSnapMetaSync(share));
        name = take();
    };
    expectAll(linesOf(reset, [&] { (void)remove({name}); }, {"QLIBCSzHashAlloc", "QLIBCSzHashSetValue"}),
              {"QLIBCSzHashAlloc failed", "Failed to add snapshot in hash.[]"});
}

TEST_F(Messages, OfTheRemovalOfAllData) {
    const auto reset = [&] {
        if (!testkit::exists("/vol1/docs")) {
            ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs"));
        }
        // Each run meets the same: a new directory with all that is put into it.
        (void)unlink((snapDir() + "/desktop.ini").c_str());
        (void)QOVABtrfsDeleteSubvolFaultTolerant(snapDir().c_str());
        char path[4096];
        ASSERT_EQ(1, QOVAShareSnapGetOrCreateSnapDir(share, path, sizeof(path), 1));
        ASSERT_TRUE(testkit::writeFile(metaPath(), ""));
    };
    expectAll(linesOf(reset, [] { (void)QOVAShareSnapDataDelete("/vol1/docs"); }),
              {"Failed to get share name and path from /vol1/docs []", "Failed to get share (docs)[]",
               "Failed to list snapshots for share [docs][]", "Failed to get snapshot directory from share [docs] []",
               "Faild to delete subvolumes.[]",
               "Failed to remove snapshot directory /vol1/@sharesnap/docs file desktop.ini (Input/output error)",
               "Failed to delete subvolume /vol1/@sharesnap/docs err:(Input/output error) []",
               "failed to remove share [docs] eaDir", "Failed to delete btrfs subvolume [/vol1/docs] []",
               "Failed to delete metafile of share [docs] []"});
}

TEST_F(Messages, OfARefreshedSection) {
    const std::string name = take();
    expectAll(linesOf([&] { ASSERT_EQ(0, QOVAShareSnapAttrSet(share, name.c_str(), "uuid", "wrong")); },
                      [&] { (void)QOVAShareSnapMetaSync(share); }),
              {"Failed to QLIBCSzListAlloc().[]", "Failed to QLIBCSzHashAlloc().[]",
               "Failed to get volume(/vol1) subvolume list form btrfs.[]", "Failed to find share(docs) snap list.[]",
               "Failed to get share(docs) snapshot list from metadata.[]",
               "Failed to get share(docs) snapshot(" + name + ") attr list.[]",
               "Failed to get share(docs) snapshot(" + name + ") info.[]", "Failed to get hash enum key from hash.[]",
               "Failed to set mulit attr share(docs) snapshot(" + name + ").[]",
               "Failed to change share(docs) snapshot(" + name + ") meta section.[]",
               "Failed to sync share(docs)'s snapshot count.[]", "Failed to sync share(docs) meta.[]"});
}

TEST_F(Messages, OfATaskInAProcessOfItsOwn) {
    Lines lines;
    const auto run = [&](const char *symbol, size_t nth, const TimeLimitTask &task, unsigned long seconds) {
        testkit::logClear();
        int status = 0;
        int outcome = 0;
        {
            const testkit::Fault fault(symbol, nth, EPERM);
            outcome = ShareSnapTimeLimitFork(seconds, &task, &status);
            EXPECT_EQ(fault.met() ? -1 : 0, outcome) << symbol; // a build calls one of two names
        }
        for (const testkit::LogLine &line : testkit::logLines()) {
            if (line.priority == LOG_ERR && line.pid == getpid()) {
                lines.insert(plain(line.text));
            }
        }
        while (waitpid(-1, nullptr, 0) > 0) {} // a child that couldn't be waited for
    };
    const TimeLimitTask ends{[](void *) { return 0; }, nullptr};
    for (const char *symbol : {"fcntl", "fcntl64", "sigaction", "fork", "waitpid"}) {
        run(symbol, 1, ends, 60);
    }
    // One that doesn't end by itself, and whose first signal can't be sent; the call before asks whether it is there.
    const TimeLimitTask stays{[](void *) {
                                  (void)alarm(60); // should nobody end it
                                  for (;;) {
                                      (void)pause();
                                  }
                                  return 0;
                              },
                              nullptr};
    run("kill", 2, stays, 1);
    EXPECT_EQ(0x2E00U, QLIBCErrGet());
    expectAll(lines, {"Set flag on pipe fd failed (1)", "Failed to sigaction(), errno:1",
                      "Failed to fork the new process, errno: 1", "Failed to waid PID[N], errno: 1",
                      "Failed to kill PID(N) with signal(15), errno: 1"});
}

// A caller's mistake is told by the name of what it left out.
TEST_F(Messages, OfMissingArguments) {
    char text[64] = "";
    Hash hash;
    QLIBCSZHASH *none = nullptr;
    const auto expectTold = [](const std::string &argument, const std::function<int()> &call) {
        testkit::logClear();
        setCode(0);
        EXPECT_EQ(-1, call()) << argument;
        EXPECT_EQ(0x0D00U, QLIBCErrGet()) << argument;
        EXPECT_EQ(1U, testkit::logCount(LOG_ERR, " Invaild Argument (" + argument + ")=[0]\n")) << testkit::logText();
    };
    expectTold("((void *)0) != szShareName", [&] { return QOVAShareSnapConfList(nullptr, hash.address()); });
    expectTold("((void *)0) != szShareName", [&] { return QOVAShareSnapConfGet(nullptr, "key", text, sizeof(text)); });
    expectTold("((void *)0) != szKey", [&] { return QOVAShareSnapConfGet("docs", nullptr, text, sizeof(text)); });
    expectTold("((void *)0) != szValue", [] { return QOVAShareSnapConfGet("docs", "key", nullptr, 64); });
    expectTold("((void *)0) != szShareName", [] { return QOVAShareSnapConfSet(nullptr, "key", "value"); });
    expectTold("((void *)0) != szOrigShareName", [] { return QOVAShareSnapConfUpdate(nullptr, "files", nullptr); });
    expectTold("((void *)0) != szShareName", [] { return QOVAShareSnapConfDeleteShare(nullptr); });
    expectTold("((void *)0) != ppList", [] { return QOVAShareSnapConfEnumSection(nullptr); });
    expectTold("((void *)0) != szTaskId",
               [&] { return QOVAShareSnapGetShareNameByTaskId(nullptr, text, sizeof(text)); });
    expectTold("NULL != szShareNameBuf", [] { return QOVAShareSnapGetShareNameByTaskId("42", nullptr, 64); });
    expectTold("((void *)0) != ppHash", [&] { return QOVAShareSnapShareInfoGetFromShare(docs_, nullptr, 1); });
    expectTold("NULL != *ppHash", [&] { return QOVAShareSnapShareInfoGetFromShare(docs_, &none, 1); });
    expectTold("((void *)0) != ppShareInfo",
               [&] { return QOVAShareSnapShareInfoGetByHash(docs_, hash.get(), nullptr); });
    expectTold("NULL != szShareSubvolPath", [&] { return ShareSubvolumePathGet(docs_, nullptr, 4096); });
}

} // namespace
