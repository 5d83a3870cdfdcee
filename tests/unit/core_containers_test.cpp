// The error register, string list, string hash, multi-result, and splitting and joining of texts.
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/mresult.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>
#include <sharesnap/platform/text.h>

#include "core_owners.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

using core::Hash;
using core::List;
using core::Texts;

namespace {

// Calls of malloc that are to fail from now on; the program's own definition serves the libraries, too.
thread_local int t_failingMallocs = 0;

std::string numbered(const char *szWord, int nNumber) {
    return szWord + std::to_string(nNumber);
}

// Not so under a sanitizer and under valgrind, which bring allocators of their own.
bool canFailMalloc() {
    t_failingMallocs = 1;
    QLIBCSZLIST *pList = QLIBCSzListAlloc(64);
    t_failingMallocs = 0;
    QLIBCSzListFree(pList);
    return pList == nullptr;
}

#define SKIP_WITHOUT_FAILING_MALLOC()                                      \
    if (!canFailMalloc()) {                                                \
        GTEST_SKIP() << "the allocator of this run can't be made to fail"; \
    }

} // namespace

// Replaces the C library's for this program: fails as often as a test wants. A sanitizer's own allocator stays.
#if !defined(__SANITIZE_ADDRESS__)
extern "C" void *__libc_malloc(size_t cbSize);
extern "C" void *malloc(size_t cbSize) noexcept {
    if (t_failingMallocs > 0) {
        --t_failingMallocs;
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(cbSize);
}
#endif

TEST(ErrorRegister, IsEmptyInANewThread) {
    QLIBCErrSetEx(0x0400, "here.cpp", 12);
    std::thread([] {
        EXPECT_EQ(0U, QLIBCErrGet());
        EXPECT_STREQ("", QLIBCErrorGetFile());
        EXPECT_EQ(0, QLIBCErrorGetLine());
        QLIBCErrSetEx(0x0900, "there.cpp", 34);
    }).join();
    EXPECT_EQ(0x0400U, QLIBCErrGet());
    EXPECT_STREQ("here.cpp", QLIBCErrorGetFile());
    EXPECT_EQ(12, QLIBCErrorGetLine());
}

TEST(ErrorRegister, KeepsErrnoAndTheLastTriple) {
    errno = ENOSPC;
    QLIBCErrSetEx(0x2A00, "a.cpp", 1);
    QLIBCErrSetEx(0x0D00, "b.cpp", 2);
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    EXPECT_STREQ("b.cpp", QLIBCErrorGetFile());
    EXPECT_EQ(2, QLIBCErrorGetLine());
    EXPECT_EQ(ENOSPC, errno);
    QLIBCErrSetEx(0x0D00, nullptr, 3);
    EXPECT_STREQ("", QLIBCErrorGetFile());
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(0U, QLIBCErrGet());
}

TEST(StringList, KeepsCopiesInOrderWhileItGrows) {
    List list(1);
    for (int i = 0; i < 20000; ++i) {
        std::string item = numbered("item ", i);
        ASSERT_EQ(i + 1, QLIBCSzListPush(&list, item.c_str()));
        item.assign(item.size(), 'x');
    }
    ASSERT_EQ(20000, list.get()->nItem);
    for (int i = 0; i < 20000; ++i) {
        ASSERT_EQ(numbered("item ", i), QLIBCSzListGet(list.get(), i));
    }
}

TEST(StringList, MovesWhenItGrows) {
    List list(1);
    const QLIBCSZLIST *pBefore = list.get();
    bool blMoved = false;
    const std::string item(10000, 'm');
    for (int i = 0; i < 64 && !blMoved; ++i) {
        ASSERT_GT(QLIBCSzListPush(&list, item.c_str()), 0);
        blMoved = list.get() != pBefore;
    }
    EXPECT_TRUE(blMoved);
}

TEST(StringList, TakesItemsOfItsOwnAndEmptyOnes) {
    List list({"first", ""});
    for (int i = 0; i < 2000; ++i) {
        ASSERT_GT(QLIBCSzListPush(&list, QLIBCSzListGet(list.get(), 0)), 0);
    }
    EXPECT_STREQ("first", QLIBCSzListGet(list.get(), 2001));
    EXPECT_STREQ("", QLIBCSzListGet(list.get(), 1));
}

TEST(StringList, NothingIsPushedForNull) {
    List list({"one"});
    EXPECT_EQ(0, QLIBCSzListPush(&list, nullptr));
    EXPECT_EQ(1, list.get()->nItem);
}

TEST(StringList, GivesNullOutOfRange) {
    List list({"one"});
    EXPECT_EQ(nullptr, QLIBCSzListGet(list.get(), -1));
    EXPECT_EQ(nullptr, QLIBCSzListGet(list.get(), 1));
    EXPECT_EQ(nullptr, QLIBCSzListGet(nullptr, 0));
}

TEST(StringList, EmptiesAndFillsAgain) {
    List list({"one", "two"});
    QLIBCSzListRemoveAll(list.get());
    EXPECT_EQ(0, list.get()->nItem);
    EXPECT_EQ(-1, QLIBCSzListFind(list.get(), "one"));
    EXPECT_EQ(1, QLIBCSzListPush(&list, "three"));
    EXPECT_EQ(Texts{"three"}, list.items());
}

TEST(StringList, FindsTheFirstEqualItem) {
    const List list({"b", "a", "b", ""});
    EXPECT_EQ(0, QLIBCSzListFind(list.get(), "b"));
    EXPECT_EQ(1, QLIBCSzListFind(list.get(), "a"));
    EXPECT_EQ(3, QLIBCSzListFind(list.get(), ""));
    EXPECT_EQ(-1, QLIBCSzListFind(list.get(), "B"));
    EXPECT_EQ(-1, QLIBCSzListFind(list.get(), nullptr));
}

TEST(StringList, AndAndSubKeepTheOrderOfTheFirst) {
    const List first({"d", "b", "a", "c"});
    const List second({"a", "x", "d"});
    EXPECT_EQ((Texts{"d", "a"}), List(QLIBCSzListAnd(first.get(), second.get(), 4096)).items());
    EXPECT_EQ((Texts{"b", "c"}), List(QLIBCSzListSub(first.get(), second.get(), 4096)).items());
}

TEST(StringList, AndAndSubWithEmptyLists) {
    const List some({"a"});
    const List none({});
    EXPECT_EQ(Texts{}, List(QLIBCSzListAnd(some.get(), none.get(), 4096)).items());
    EXPECT_EQ(Texts{}, List(QLIBCSzListAnd(none.get(), some.get(), 4096)).items());
    EXPECT_EQ(Texts{"a"}, List(QLIBCSzListSub(some.get(), none.get(), 4096)).items());
    EXPECT_EQ(Texts{}, List(QLIBCSzListSub(none.get(), some.get(), 4096)).items());
    EXPECT_EQ(nullptr, QLIBCSzListAnd(nullptr, some.get(), 4096));
    EXPECT_EQ(nullptr, QLIBCSzListSub(some.get(), nullptr, 4096));
}

TEST(StringList, ComparesListsOfManyThousandsInOnePass) {
    // Compared each with each these would take minutes.
    List first(4096);
    List second(4096);
    for (int i = 0; i < 100000; ++i) {
        ASSERT_GT(QLIBCSzListPush(&first, numbered("snapshot-", i).c_str()), 0);
        ASSERT_GT(QLIBCSzListPush(&second, numbered("snapshot-", i + 99999).c_str()), 0);
    }
    EXPECT_EQ(1, List(QLIBCSzListAnd(first.get(), second.get(), 4096)).get()->nItem);
    EXPECT_EQ(99999, List(QLIBCSzListSub(first.get(), second.get(), 4096)).get()->nItem);
}

TEST(StringList, StaysAsItWasWithoutMemory) {
    SKIP_WITHOUT_FAILING_MALLOC();
    List list({"one"});
    const std::string large(100000, 'x');
    QLIBCErrSetEx(0, "", 0);
    t_failingMallocs = 1;
    EXPECT_EQ(-1, QLIBCSzListPush(&list, large.c_str()));
    EXPECT_EQ(0, t_failingMallocs);
    EXPECT_EQ(0x0200U, QLIBCErrGet());
    EXPECT_EQ(Texts{"one"}, list.items());
    t_failingMallocs = 1;
    EXPECT_EQ(nullptr, QLIBCSzListAlloc(512));
    EXPECT_EQ(nullptr, QLIBCSzListAlloc(std::numeric_limits<size_t>::max()));
    t_failingMallocs = 1;
    EXPECT_EQ(nullptr, QLIBCSzListAnd(list.get(), list.get(), 4096));
    t_failingMallocs = 0;
    EXPECT_EQ(2, QLIBCSzListPush(&list, large.c_str()));
}

TEST(StringList, FreeTakesNullAndKeepsErrno) {
    errno = ENOSPC;
    QLIBCSzListFree(nullptr);
    QLIBCSzListFree(QLIBCSzListAlloc(512));
    EXPECT_EQ(ENOSPC, errno);
}

TEST(StringHash, KeepsTheOrderOfInsertionAndTheLastValue) {
    Hash hash;
    EXPECT_EQ(0, QLIBCSzHashSetValue(&hash, "take-by", "admin"));
    EXPECT_EQ(0, QLIBCSzHashSetValue(&hash, "lock", "false"));
    EXPECT_EQ(0, QLIBCSzHashSetValue(&hash, "desc", ""));
    EXPECT_EQ(0, QLIBCSzHashSetValue(&hash, "lock", "a longer value than it had before"));
    EXPECT_EQ((Texts{"take-by", "lock", "desc"}), hash.keys());
    EXPECT_EQ("a longer value than it had before", hash.at("lock"));
    EXPECT_EQ(0, QLIBCSzHashSetValue(&hash, "lock", "no"));
    EXPECT_EQ("no", hash.at("lock"));
    EXPECT_EQ("", hash.at("desc"));
    EXPECT_EQ("admin", hash.at("take-by"));
    EXPECT_EQ(3, hash.get()->nPair);
    EXPECT_EQ(3, QLIBCSzHashPairNum(hash.get()));
    EXPECT_EQ(3, QLIBCSzHashGetLength(hash.get()));
}

TEST(StringHash, FindsEachOfManyPairsWhileItGrows) {
    Hash hash(1);
    for (int i = 0; i < 20000; ++i) {
        ASSERT_EQ(0, QLIBCSzHashSetValue(&hash, numbered("key", i).c_str(), numbered("value", i).c_str()));
        ASSERT_EQ(i + 1, hash.get()->nPair);
    }
    for (int i = 0; i < 20000; ++i) {
        ASSERT_EQ(numbered("value", i), hash.at(numbered("key", i)));
    }
    EXPECT_EQ("(absent)", hash.at("key20000"));
    EXPECT_EQ("(absent)", hash.at(""));
    EXPECT_EQ("key19999", hash.keys().back());
}

TEST(StringHash, MovesWhenItGrows) {
    Hash hash(1);
    const QLIBCSZHASH *pBefore = hash.get();
    ASSERT_EQ(0, QLIBCSzHashSetValue(&hash, "key", std::string(100000, 'v').c_str()));
    EXPECT_NE(pBefore, hash.get());
}

TEST(StringHash, TakesTextsOfItsOwn) {
    Hash hash(1);
    ASSERT_EQ(0, QLIBCSzHashSetValue(&hash, "key", "the value"));
    for (int i = 0; i < 500; ++i) {
        const char *szValue = QLIBCSzHashGetValue(hash.get(), "key");
        ASSERT_EQ(0, QLIBCSzHashSetValue(&hash, numbered("copy", i).c_str(), szValue));
    }
    EXPECT_EQ("the value", hash.at("copy499"));
    ASSERT_EQ(0, QLIBCSzHashSetValue(&hash, "key", QLIBCSzHashGetValue(hash.get(), "key") + 4));
    EXPECT_EQ("value", hash.at("key"));
}

TEST(StringHash, RemovesAndKeepsTheOrderOfTheOthers) {
    for (const int nPairs : {4, 16, 17, 18, 64, 1000}) {
        Hash hash;
        Texts expected;
        for (int i = 0; i < nPairs; ++i) {
            ASSERT_EQ(0, QLIBCSzHashSetValue(&hash, numbered("k", i).c_str(), numbered("v", i).c_str()));
        }
        for (int i = 0; i < nPairs; i += 2) {
            ASSERT_EQ(1, QLIBCSzHashRemoveKey(hash.get(), numbered("k", i).c_str()));
            ASSERT_EQ(0, QLIBCSzHashRemoveKey(hash.get(), numbered("k", i).c_str()));
        }
        for (int i = 1; i < nPairs; i += 2) {
            expected.push_back(numbered("k", i));
            ASSERT_EQ(numbered("v", i), hash.at(numbered("k", i)));
        }
        EXPECT_EQ(expected, hash.keys());
        ASSERT_EQ(0, QLIBCSzHashSetValue(&hash, "k0", "again"));
        EXPECT_EQ("k0", hash.keys().back());
        EXPECT_EQ("again", hash.at("k0"));
    }
}

TEST(StringHash, ReplacingOverAndOverNeedsNoMore) {
    Hash hash;
    for (int i = 0; i < 100000; ++i) {
        ASSERT_EQ(0, QLIBCSzHashSetValue(&hash, "key", std::string(static_cast<size_t>(i % 2000), 'x').c_str()));
        if (i % 3 == 0) {
            ASSERT_EQ(1, QLIBCSzHashRemoveKey(hash.get(), "key"));
        }
    }
    EXPECT_LE(QLIBCSzHashPairNum(hash.get()), 1);
}

TEST(StringHash, EmptyingAndFillingAgainAllocatesNothing) {
    SKIP_WITHOUT_FAILING_MALLOC();
    for (const int nPairs : {8, 40}) {
        Hash hash(4096);
        const auto fill = [&](int nRound) {
            QLIBCHashRemoveAll(hash.get());
            for (int i = 0; i < nPairs; ++i) {
                if (QLIBCSzHashSetValue(&hash, numbered("key", i).c_str(), numbered("v", nRound).c_str()) != 0) {
                    return false;
                }
            }
            return true;
        };
        ASSERT_TRUE(fill(0));
        t_failingMallocs = 1; // the short texts of the test itself need none
        for (int nRound = 1; nRound < 1000; ++nRound) {
            ASSERT_TRUE(fill(nRound));
        }
        EXPECT_EQ(1, t_failingMallocs);
        t_failingMallocs = 0;
        EXPECT_EQ("v999", hash.at(numbered("key", nPairs - 1)));
        EXPECT_EQ("(absent)", hash.at(numbered("key", nPairs)));
        EXPECT_EQ(nPairs, hash.get()->nPair);
    }
}

TEST(StringHash, HasNothingAfterBeingEmptied) {
    for (const int nPairs : {3, 100, 5000}) {
        Hash hash;
        for (int i = 0; i < nPairs; ++i) {
            ASSERT_EQ(0, QLIBCSzHashSetValue(&hash, numbered("k", i).c_str(), "v"));
        }
        QLIBCHashRemoveAll(hash.get());
        EXPECT_EQ(0, hash.get()->nPair);
        EXPECT_EQ("(absent)", hash.at("k0"));
        EXPECT_EQ(Texts{}, hash.keys());
        EXPECT_EQ(0, QLIBCSzHashSetValue(&hash, "k1", "new"));
        EXPECT_EQ("new", hash.at("k1"));
    }
}

TEST(StringHash, StaysAsItWasWithoutMemory) {
    SKIP_WITHOUT_FAILING_MALLOC();
    Hash hash;
    ASSERT_EQ(0, QLIBCSzHashSetValue(&hash, "key", "value"));
    const std::string large(100000, 'x');
    for (const char *szKey : {"key", "other"}) {
        QLIBCErrSetEx(0, "", 0);
        t_failingMallocs = 1;
        EXPECT_EQ(-1, QLIBCSzHashSetValue(&hash, szKey, large.c_str()));
        EXPECT_EQ(0, t_failingMallocs);
        EXPECT_EQ(0x0200U, QLIBCErrGet());
        EXPECT_EQ("value", hash.at("key"));
        EXPECT_EQ(1, hash.get()->nPair);
    }
    t_failingMallocs = 1;
    EXPECT_EQ(nullptr, QLIBCSzHashAlloc(1024));
    EXPECT_EQ(nullptr, QLIBCSzHashAlloc(std::numeric_limits<size_t>::max()));
    t_failingMallocs = 0;
}

TEST(StringHash, GoesWithoutAnIndexWhenThereIsNoMemoryForOne) {
    SKIP_WITHOUT_FAILING_MALLOC();
    Hash hash(65536);
    for (int i = 0; i < 100; ++i) {
        t_failingMallocs = 1;
        ASSERT_EQ(0, QLIBCSzHashSetValue(&hash, numbered("k", i).c_str(), numbered("v", i).c_str()));
    }
    t_failingMallocs = 0;
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(numbered("v", i), hash.at(numbered("k", i)));
    }
    ASSERT_EQ(0, QLIBCSzHashSetValue(&hash, "k7", "changed"));
    EXPECT_EQ("changed", hash.at("k7"));
    EXPECT_EQ(100, hash.get()->nPair);
}

TEST(StringHash, AcceptsNull) {
    errno = ENOSPC;
    QLIBCSzHashFree(nullptr);
    QLIBCHashRemoveAll(nullptr);
    QLIBCSzHashFree(QLIBCSzHashAlloc(1024));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ(0, QLIBCSzHashPairNum(nullptr));
    EXPECT_EQ(0, QLIBCSzHashGetLength(nullptr));
    EXPECT_EQ(nullptr, QLIBCSzHashGetValue(nullptr, "key"));
    Hash hash;
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, QLIBCSzHashSetValue(&hash, nullptr, "value"));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    EXPECT_EQ(-1, QLIBCSzHashSetValue(&hash, "key", nullptr));
    EXPECT_EQ(nullptr, QLIBCSzHashGetValue(hash.get(), nullptr));
    EXPECT_EQ(0, hash.get()->nPair);
}

TEST(MultiResult, StartsWithTheDefaultCode) {
    QLIBCMRESULT *pResult = QLIBCMResultAlloc();
    ASSERT_NE(nullptr, pResult);
    EXPECT_EQ(1, QLIBCMResultCoreSuccess(pResult));
    pResult = QLIBCMResultInit(pResult, 3, 0x2A00);
    ASSERT_NE(nullptr, pResult);
    EXPECT_EQ(0, QLIBCMResultCoreSuccess(pResult));
    int nCode = 1;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0, QLIBCMResultGetCoreErrorByIndex(pResult, i, &nCode));
        EXPECT_EQ(0x2A00, nCode);
        EXPECT_EQ(0, QLIBCMResultSetCoreError(pResult, i, 0));
    }
    EXPECT_EQ(1, QLIBCMResultCoreSuccess(pResult));
    EXPECT_EQ(0, QLIBCMResultSetCoreError(pResult, 2, 0xF400));
    EXPECT_EQ(0, QLIBCMResultCoreSuccess(pResult));
    EXPECT_EQ(0, QLIBCMResultGetCoreErrorByIndex(pResult, 2, &nCode));
    EXPECT_EQ(0xF400, nCode);
    QLIBCMResultFree(pResult);
}

TEST(MultiResult, RefusesAnIndexOutOfRange) {
    QLIBCMRESULT *pResult = QLIBCMResultInit(QLIBCMResultAlloc(), 2, 0);
    int nCode = 77;
    for (const int nIndex : {-1, 2, 1000}) {
        QLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(-1, QLIBCMResultSetCoreError(pResult, nIndex, 5));
        EXPECT_EQ(0x0D00U, QLIBCErrGet());
        EXPECT_EQ(-1, QLIBCMResultGetCoreErrorByIndex(pResult, nIndex, &nCode));
    }
    EXPECT_EQ(77, nCode);
    EXPECT_EQ(nullptr, QLIBCMResultInit(pResult, -1, 0));
    EXPECT_EQ(0, QLIBCMResultSetCoreError(pResult, 1, 0)); // the given record is still there
    QLIBCMResultFree(pResult);
    errno = ENOSPC;
    QLIBCMResultFree(nullptr);
    EXPECT_EQ(ENOSPC, errno);
}

TEST(MultiResult, CanBeUsedAgainAndForNothing) {
    QLIBCMRESULT *pResult = QLIBCMResultInit(QLIBCMResultAlloc(), 5, 0x2A00);
    pResult = QLIBCMResultInit(pResult, 0, 0x2A00);
    ASSERT_NE(nullptr, pResult);
    EXPECT_EQ(1, QLIBCMResultCoreSuccess(pResult));
    EXPECT_EQ(-1, QLIBCMResultSetCoreError(pResult, 0, 0));
    QLIBCMResultFree(pResult);
}

TEST(StrTok, DropsEmptyPieces) {
    List list({"before"});
    EXPECT_EQ(0, QLIBCStrTok(",1000,,1001,", ",", &list));
    EXPECT_EQ((Texts{"before", "1000", "1001"}), list.items());
    EXPECT_EQ(0, QLIBCStrTok("", ",", &list));
    EXPECT_EQ(0, QLIBCStrTok(",,,", ",", &list));
    EXPECT_EQ(3, list.get()->nItem);
    EXPECT_EQ(0, QLIBCStrTok(" a b ", ",", &list));
    EXPECT_STREQ(" a b ", QLIBCSzListGet(list.get(), 3));
}

TEST(StrTok, TakesTheSeparatorAsAWhole) {
    List list;
    EXPECT_EQ(0, QLIBCStrTok("a::b:c", "::", &list));
    EXPECT_EQ((Texts{"a", "b:c"}), list.items());
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, QLIBCStrTok("a", "", &list));
    EXPECT_EQ(-1, QLIBCStrTok(nullptr, ",", &list));
    EXPECT_EQ(-1, QLIBCStrTok("a", ",", nullptr));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
}

TEST(StrJoin, AllocatesEnlargesAndReuses) {
    const char *const rgszItem[] = {"alice", "bob", ""};
    char *szResult = nullptr;
    int cbResult = 0;
    ASSERT_EQ(0, QLIBCStrJoin(rgszItem, 1, ",", &szResult, &cbResult));
    EXPECT_STREQ("alice", szResult);
    EXPECT_GE(cbResult, 6);
    ASSERT_EQ(0, QLIBCStrJoin(rgszItem, 3, ", ", &szResult, &cbResult));
    EXPECT_STREQ("alice, bob, ", szResult);
    EXPECT_GE(cbResult, 13);
    const char *szBefore = szResult;
    ASSERT_EQ(0, QLIBCStrJoin(rgszItem, 0, ",", &szResult, &cbResult));
    EXPECT_STREQ("", szResult);
    EXPECT_EQ(szBefore, szResult);
    free(szResult);
}

TEST(StrJoin, GrowsWithManyItems) {
    std::vector<std::string> names;
    std::vector<const char *> items;
    std::string expected;
    for (int i = 0; i < 5000; ++i) {
        names.push_back(numbered("user", i));
        expected += (i > 0 ? "," : "") + names.back();
    }
    for (const std::string &name : names) {
        items.push_back(name.c_str());
    }
    char *szResult = nullptr;
    int cbResult = 0;
    ASSERT_EQ(0, QLIBCStrJoin(items.data(), 5000, ",", &szResult, &cbResult));
    EXPECT_EQ(expected, szResult);
    free(szResult);
}

TEST(StrJoin, FailsWithoutChangingTheResult) {
    const char *const rgszItem[] = {"alice", nullptr};
    char *szResult = strdup("old");
    int cbResult = 4;
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, QLIBCStrJoin(rgszItem, 2, ",", &szResult, &cbResult));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    EXPECT_EQ(-1, QLIBCStrJoin(rgszItem, -1, ",", &szResult, &cbResult));
    if (canFailMalloc()) {
        t_failingMallocs = 1;
        EXPECT_EQ(-1, QLIBCStrJoin(rgszItem, 1, ",", &szResult, &cbResult));
        EXPECT_EQ(0x0200U, QLIBCErrGet());
        t_failingMallocs = 0;
    }
    EXPECT_STREQ("old", szResult);
    EXPECT_EQ(4, cbResult);
    free(szResult);
}
