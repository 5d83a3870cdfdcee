// Memory runs out at each allocation in turn: no exception reaches the caller, the failure has its code, and what was
// there before is there afterwards.
#include "sdk_journal_socket.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/sandbox.hpp"

#include <cstdlib>
#include <functional>
#include <new>
#include <sharesnap/platform/account.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/event_log.h>
#include <sharesnap/platform/notification.h>
#include <sharesnap/platform/plugin.h>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/share_admin.h>
#include <sys/stat.h>

namespace {

// How many allocations of this thread still succeed; negative: all of them.
thread_local long allowed = -1;
thread_local bool refused = false;

} // namespace

// The platform's libraries allocate through these, since a program's definitions come before all others.
void *operator new(size_t size) {
    if (allowed == 0) {
        refused = true;
        throw std::bad_alloc();
    }
    if (allowed > 0) {
        --allowed;
    }
    void *memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void *memory) noexcept {
    std::free(memory);
}

void operator delete(void *memory, size_t /*size*/) noexcept {
    std::free(memory);
}

namespace {

class OutOfMemory : public testkit::SandboxTest {
protected:
    // Runs the operation with the first, second ... allocation refused until it meets no refusal. Gives the number of
    // refusals. An operation that comes to its result without the refused memory is judged like one that had it.
    static size_t sweep(const std::function<int()> &operation, const std::function<void(int)> &afterRefusal) {
        for (long number = 0; number < 10000; ++number) {
            QLIBCErrSetEx(0, "", 0);
            refused = false;
            allowed = number;
            const int result = operation();
            allowed = -1;
            if (!refused) {
                EXPECT_EQ(0, result);
                return static_cast<size_t>(number);
            }
            if (result != 0) {
                EXPECT_EQ(-1, result) << "allocation " << number + 1;
                EXPECT_EQ(0x0200U, QLIBCErrGet()) << "allocation " << number + 1;
            }
            afterRefusal(result);
        }
        ADD_FAILURE() << "endless";
        return 0;
    }
};

constexpr const char *databaseFile = "/etc/sharesnap/shares.conf";

QOVASHARE record(const char *name, const char *path, const char *description) {
    QOVASHARE share = {};
    share.szName = const_cast<char *>(name);
    share.szPath = const_cast<char *>(path);
    share.szDesc = const_cast<char *>(description);
    return share;
}
constexpr const char *longDescription = "a description that is too long to be kept inside of a string object itself";

} // namespace

TEST_F(OutOfMemory, LookUpOfAShare) {
    ASSERT_EQ("", testkit::addShare("docs", "/vol1/deep/enough/for/an/allocation/of/its/own", 0x02));
    QOVASHARE *share = nullptr;
    const size_t points = sweep([&] { return QOVAShareGet("docs", &share); },
                                [&](int result) {
                                    EXPECT_EQ(result != 0, share == nullptr);
                                    QOVAShareFree(share);
                                    share = nullptr;
                                });
    QOVAShareFree(share);
    EXPECT_GT(points, 3U);
}

TEST_F(OutOfMemory, EnumerationOfShares) {
    ASSERT_EQ("", testkit::addShare("docs", "/vol1/deep/enough/for/an/allocation/of/its/own"));
    ASSERT_EQ("", testkit::addShare("music", "/vol2/music"));
    QLIBCSZLIST *list = QLIBCSzListAlloc(512);
    const size_t points = sweep([&] { return QOVAShareEnum(&list, 0x301); }, [&](int) { QLIBCSzListRemoveAll(list); });
    EXPECT_EQ(2, list->nItem);
    QLIBCSzListFree(list);
    EXPECT_GT(points, 3U);
}

TEST_F(OutOfMemory, ChangeOfARecordIsMadeOrNot) {
    ASSERT_EQ("", testkit::addShare("docs", "/vol1/docs"));
    const std::string before = testkit::readFile(databaseFile);
    const QOVASHARE added = record("music", "/vol1/music", longDescription);
    const size_t points = sweep([&] { return QOVAShareRecordAdd(&added); },
                                [&](int result) {
                                    if (result != 0) {
                                        EXPECT_EQ(before, testkit::readFile(databaseFile));
                                    } else {
                                        EXPECT_EQ(0, QOVAShareRecordRemove("music"));
                                    }
                                });
    EXPECT_GT(points, 3U);
    const QOVASHARE changed = record("docs", "/vol1/docs", longDescription);
    sweep([&] { return QOVAShareRecordSet(&changed); }, [&](int) { EXPECT_NE(nullptr, testkit::getShare("docs")); });
    EXPECT_STREQ(longDescription, testkit::getShare("docs")->szDesc);
    EXPECT_EQ(std::vector<std::string>{"shares.conf"}, testkit::directoryNames("/etc/sharesnap"));
}

TEST_F(OutOfMemory, LookUpOfAnAccount) {
    QOVAUSER *user = nullptr;
    const size_t points = sweep([&] { return QOVAUserGet("root", &user); },
                                [&](int result) {
                                    EXPECT_EQ(result != 0, user == nullptr);
                                    QOVAUserFree(user);
                                    user = nullptr;
                                });
    QOVAUserFree(user);
    EXPECT_GT(points, 0U);
}

TEST_F(OutOfMemory, PluginActionFromBeginningToEnd) {
    const std::string program = "/etc/sharesnap/plugins/demo/a-program-with-a-long-name";
    ASSERT_TRUE(testkit::makeDirectories("/etc/sharesnap/plugins/demo"));
    ASSERT_TRUE(testkit::writeFile(program, "#!/bin/sh\ntest \"$SHARE_DESCRIPTION\" = '" +
                                                std::string(longDescription) + "'\n"));
    ASSERT_EQ(0, chmod(program.c_str(), 0755));
    const size_t descriptors = testkit::directoryNames("/proc/self/fd").size();
    const size_t points = sweep(
        [&] {
            QLIBPLUGIN *plugin = nullptr;
            int result = QLIBPluginSDKInit("demo", "demo", &plugin);
            result = result == 0 ? QLIBPluginSetArg(plugin, "SHARE_DESCRIPTION", longDescription) : result;
            result = result == 0 ? QLIBPluginAction(QLIB_PLUGIN_PHASE_PRE, plugin) : result;
            QLIBPluginExit(plugin);
            return result;
        },
        [&](int) { EXPECT_EQ(descriptors, testkit::directoryNames("/proc/self/fd").size()); });
    EXPECT_GT(points, 10U);
}

TEST_F(OutOfMemory, EventIsWrittenWholeOrNotAtAll) {
    const testkit::JournalSocket journal;
    const size_t points = sweep(
        [] {
            return QOVALogSet1(9, 1, 0x13C00001, "alice", "GMT-2026.01.02-03.04.05", "docs",
                               static_cast<char *>(nullptr));
        },
        [&](int result) { EXPECT_EQ(result == 0 ? 1U : 0U, journal.entries().size()); });
    EXPECT_GT(points, 3U);
    EXPECT_EQ(1U, journal.entries().size());
}

TEST_F(OutOfMemory, Notification) {
    QLIBCSZHASH *hash = QLIBCSzHashAlloc(512);
    ASSERT_EQ(0, QLIBCSzHashSetValue(&hash, "%SHARE%", longDescription));
    const size_t points =
        sweep([&] { return QOVASysNotifySendNotifiction("Tag", &hash); }, [&](int) { EXPECT_EQ(1, hash->nPair); });
    QLIBCSzHashFree(hash);
    EXPECT_GT(points, 3U);
}
