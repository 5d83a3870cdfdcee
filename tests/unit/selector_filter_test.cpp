#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/metadata_fixture.hpp"

#include <sharesnap/platform/error.h>

namespace {

using testkit::Chain;
using testkit::Names;
using testkit::Pairs;

constexpr int keep = 0;
constexpr int skip = 1;

int byTime(const char *name, std::string data) {
    return QOVAShareSnapTimeSelector(name, nullptr, data.data());
}

int byAttribute(const Pairs &section, std::string data) {
    return QOVAShareSnapAttrSelector("a", section.get(), data.data());
}

class Selector : public testkit::SandboxTest {};

TEST_F(Selector, TimeKeepsWhatTheOperatorsName) {
    const std::string older = "GMT-2024.05.01-11.59.59";
    const std::string same = "GMT+08-2024.05.01-20.00.00";
    const std::string newer = "GMT-2024.05.01-12.00.01";
    const std::string reference = "GMT-2024.05.01-12.00.00";
    const struct {
        const char *operators;
        int older, same, newer;
    } cases[] = {{">=", skip, keep, keep}, {"=>", skip, keep, keep}, {"<=", keep, keep, skip}, {">", skip, skip, keep},
                 {"<", keep, skip, skip},  {"=", skip, keep, skip},  {"<>", keep, skip, keep}, {"", skip, skip, skip}};
    for (const auto &one : cases) {
        EXPECT_EQ(one.older, byTime(older.c_str(), one.operators + reference)) << one.operators;
        EXPECT_EQ(one.same, byTime(same.c_str(), one.operators + reference)) << one.operators;
        EXPECT_EQ(one.newer, byTime(newer.c_str(), one.operators + reference)) << one.operators;
    }
    EXPECT_EQ(keep, byTime(newer.c_str(), reference + ">")); // an operator stands anywhere
}

TEST_F(Selector, TimeSkipsNamesAndDataThatHoldNoTime) {
    EXPECT_EQ(skip, byTime("daily", ">GMT-2024.05.01-12.00.00"));
    EXPECT_EQ(skip, byTime("GMT-daily", ">GMT-2024.05.01-12.00.00"));
    EXPECT_EQ(skip, byTime("GMT-2024.05.01-12.00.00", ">yesterday"));
    EXPECT_EQ(skip, byTime("GMT-2024.05.01-12.00.00", ">GMT-yesterday"));
    EXPECT_TRUE(testkit::nothingFailed());
    EXPECT_EQ(keep, byTime("before-GMT-2024.05.01-12.00.00", "=GMT-2024.05.01-12.00.00")); // from "GMT" on
}

TEST_F(Selector, AttributeExact) {
    const Pairs section = {{"hide", "false"}, {"desc", ""}, {"odd", "a=b"}};
    EXPECT_EQ(keep, byAttribute(section, "hide==false"));
    EXPECT_EQ(skip, byAttribute(section, "hide==fals"));
    EXPECT_EQ(skip, byAttribute(section, "hide==FALSE"));
    EXPECT_EQ(skip, byAttribute(section, "hide=="));
    EXPECT_EQ(keep, byAttribute(section, "desc=="));
    EXPECT_EQ(skip, byAttribute(section, "absent=="));
    EXPECT_EQ(skip, byAttribute(section, "absent==x"));
}

TEST_F(Selector, AttributeContainment) {
    const Pairs section = {{"hide", "false"}, {"desc", "the nightly one"}};
    EXPECT_EQ(keep, byAttribute(section, "hide=false"));
    EXPECT_EQ(keep, byAttribute(section, "desc=night"));
    EXPECT_EQ(skip, byAttribute(section, "desc=Night"));
    EXPECT_EQ(skip, byAttribute(section, "lock=true"));
}

TEST_F(Selector, AttributePresence) {
    const Pairs section = {{"take-by", "anybody"}, {"desc", ""}};
    EXPECT_EQ(keep, byAttribute(section, "take-by"));
    EXPECT_EQ(keep, byAttribute(section, "take-by="));
    EXPECT_EQ(keep, byAttribute(section, "desc"));
    EXPECT_EQ(skip, byAttribute(section, "lock"));
    EXPECT_EQ(skip, byAttribute(section, ""));
    EXPECT_EQ(skip, byAttribute(section, "="));
}

TEST_F(Selector, AttributeNegationTurnsEveryCase) {
    const Pairs section = {{"desc", "x"}};
    EXPECT_EQ(keep, byAttribute(section, "!hide==true"));
    EXPECT_EQ(keep, byAttribute(section, "!hide=true"));
    EXPECT_EQ(keep, byAttribute(section, "!hide"));
    EXPECT_EQ(skip, byAttribute(section, "!desc"));
    EXPECT_EQ(skip, byAttribute(section, "!desc==x"));
    EXPECT_EQ(keep, byAttribute(section, "!desc==y"));
    EXPECT_EQ(keep, byAttribute(section, "!"));
}

TEST_F(Selector, RunsOfEqualsAreOneSeparatorAndMakeTheTestExact) {
    const Pairs section = {{"desc", "ab"}};
    EXPECT_EQ(keep, byAttribute(section, "desc====ab"));
    EXPECT_EQ(keep, byAttribute(section, "==desc=ab")); // "==" anywhere
    EXPECT_EQ(skip, byAttribute(section, "==desc=a"));
    EXPECT_EQ(keep, byAttribute(section, "desc=a=b")); // what is behind a third token is dropped
    EXPECT_EQ(skip, byAttribute(section, "desc=a==b"));
}

TEST_F(Selector, AttributeDataIsComparedAsCutTo1023Bytes) {
    const std::string value(1023 - 5, 'v');
    const Pairs section = {{"key", value}};
    EXPECT_EQ(keep, byAttribute(section, "key==" + value + "and more"));
    EXPECT_EQ(skip, byAttribute(section, "key==" + value.substr(1) + "and more"));
}

TEST_F(Selector, CommonWantsNameAndUuidAsOneItem) {
    Names list = {"a=u1", "b=u2"};
    const Pairs first = {{"ruuid", "u1"}};
    const Pairs none = {{"hide", "false"}};
    EXPECT_EQ(keep, QOVAShareSnapCommonSelector("a", first.get(), list.get()));
    EXPECT_EQ(skip, QOVAShareSnapCommonSelector("b", first.get(), list.get()));
    EXPECT_EQ(skip, QOVAShareSnapCommonSelector("a", none.get(), list.get()));
}

TEST_F(Selector, NullArgumentsAreSkippedAndReported) {
    std::string data = "x";
    Pairs section;
    using Function = int (*)(const char *, const QLIBCSZHASH *, void *);
    for (const Function selector :
         {QOVAShareSnapTimeSelector, QOVAShareSnapAttrSelector, QOVAShareSnapCommonSelector}) {
        testkit::logClear();
        QLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(skip, selector(nullptr, section.get(), data.data()));
        EXPECT_EQ(0x0D00u, QLIBCErrGet());
        EXPECT_TRUE(testkit::loggedMatch(
            LOG_ERR,
            "^snapshot_filter\\.cpp:[0-9]+ Invaild Argument \\(\\(\\(void \\*\\)0\\) != szSnapName\\)=\\[0\\]$"));
        EXPECT_EQ(skip, selector("a", section.get(), nullptr));
        EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (0 != pData)=[0]"));
    }
    for (const Function selector : {QOVAShareSnapAttrSelector, QOVAShareSnapCommonSelector}) {
        testkit::logClear();
        EXPECT_EQ(skip, selector("a", nullptr, data.data()));
        EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != pHash)=[0]"));
    }
}

TEST_F(Selector, AddingChecksItsArguments) {
    QOVAShareSnapEnum *chain = nullptr;
    std::string data = "hide=false";
    EXPECT_EQ(-1, QOVAShareSnapSelectorAdd(nullptr, QOVAShareSnapAttrSelector, data.data()));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != ppQOVAShareSnapEnum)=[0]"));
    EXPECT_EQ(-1, QOVAShareSnapSelectorAdd(&chain, nullptr, data.data()));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != pSelector)=[0]"));
    EXPECT_EQ(-1, QOVAShareSnapSelectorAdd(&chain, QOVAShareSnapAttrSelector, nullptr));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (0 != pData)=[0]"));
    EXPECT_EQ(nullptr, chain);
}

TEST_F(Selector, AddingRefusesTimeDataWithoutATime) {
    Chain chain;
    ASSERT_EQ(0, chain.add(QOVAShareSnapAttrSelector, "yesterday")); // not checked for attributes
    const QOVAShareSnapEnum *before = chain.get();
    for (const char *data : {"yesterday", ">GMT-yesterday", ""}) {
        testkit::logClear();
        QLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(-1, chain.add(QOVAShareSnapTimeSelector, data)) << data;
        EXPECT_EQ(0x0D00u, QLIBCErrGet());
        EXPECT_EQ(before, chain.get());
        EXPECT_TRUE(testkit::nothingFailed());
    }
    EXPECT_EQ(0, chain.add(QOVAShareSnapTimeSelector, ">=GMT-2024.05.01-12.00.00"));
    EXPECT_EQ(before, chain.get()->pNext);
}

TEST_F(Selector, CheckLooksAtTheDataOfTheTimeSelectorAlone) {
    std::string time = ">=GMT-2024.05.01-12.00.00";
    EXPECT_EQ(0, SnapSelectorCheck(QOVAShareSnapTimeSelector, time.data()));
    for (std::string data : {"yesterday", ">GMT-yesterday", "", "2024.05.01-12.00.00"}) {
        EXPECT_EQ(-1, SnapSelectorCheck(QOVAShareSnapTimeSelector, data.data())) << data;
        EXPECT_EQ(0, SnapSelectorCheck(QOVAShareSnapAttrSelector, data.data())) << data;
        EXPECT_EQ(0, SnapSelectorCheck(QOVAShareSnapCommonSelector, data.data())) << data;
    }
    EXPECT_TRUE(testkit::nothingFailed());
}

TEST_F(Selector, FreeingAcceptsTheEmptyChain) {
    QOVAShareSnapEnumFree(nullptr);
}

// Selectors of a caller.

struct Calls {
    std::string order;
    int answer = 0;
    int count = 0;
    int answerAt = 0;
};

int noteFirst(const char *, const QLIBCSZHASH *, void *data) {
    auto *calls = static_cast<Calls *>(data);
    calls->order += "A";
    return keep;
}

int noteSecond(const char *, const QLIBCSZHASH *, void *data) {
    auto *calls = static_cast<Calls *>(data);
    calls->order += "B";
    return calls->answer;
}

int answerAt(const char *, const QLIBCSZHASH *, void *data) {
    auto *calls = static_cast<Calls *>(data);
    return ++calls->count == calls->answerAt ? calls->answer : keep;
}

TEST_F(Selector, TheChainRunsTheLastAddedFirstAndEndsAtTheFirstNo) {
    Calls calls;
    Chain chain;
    ASSERT_EQ(0, chain.addPointer(noteFirst, &calls));
    ASSERT_EQ(0, chain.addPointer(noteSecond, &calls));
    Pairs section;
    EXPECT_EQ(keep, QOVAShareSnapProcessSelector("a", chain.get(), section.get()));
    EXPECT_EQ("BA", calls.order);
    calls = {};
    calls.answer = skip;
    EXPECT_EQ(skip, QOVAShareSnapProcessSelector("a", chain.get(), section.get()));
    EXPECT_EQ("B", calls.order);
    calls.answer = 17;
    EXPECT_EQ(17, QOVAShareSnapProcessSelector("a", chain.get(), section.get()));
    EXPECT_EQ(keep, QOVAShareSnapProcessSelector("a", nullptr, section.get()));
}

class SelectorListing : public testkit::MetadataTest {
protected:
    void SetUp() override {
        MetadataTest::SetUp();
        if (!IsSkipped()) {
            writeMeta("[a]\nhide=false\n[b]\nhide=true\n[c]\ndesc=x\n[d]\nhide=false\n");
        }
    }
};

TEST_F(SelectorListing, ANullChainKeepsEverySection) {
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c", "d"}), listed());
}

TEST_F(SelectorListing, OnlyTheVisibleOnes) {
    Chain chain;
    ASSERT_EQ(0, chain.add(QOVAShareSnapAttrSelector, "hide=false"));
    EXPECT_EQ((std::vector<std::string>{"a", "d"}), listed(chain.get()));
}

TEST_F(SelectorListing, NamesWithoutATimeAreSkippedByTimeAndFailNothing) {
    writeMeta("[GMT-2026.01.02-03.04.05]\nk=v\n[before the upgrade]\nk=v\n[GMT-odd]\nk=v\n"
              "[GMT+08-2026.01.02-11.04.05]\nk=v\n[GMT-2026.01.02-03.04.04]\nk=v\n");
    testkit::logClear();
    Chain chain;
    ASSERT_EQ(0, chain.add(QOVAShareSnapTimeSelector, ">=GMT-2026.01.02-03.04.05"));
    EXPECT_EQ((std::vector<std::string>{"GMT-2026.01.02-03.04.05", "GMT+08-2026.01.02-11.04.05"}), listed(chain.get()));
    EXPECT_TRUE(testkit::nothingFailed());
}

TEST_F(SelectorListing, AllSelectorsMustAgree) {
    Chain chain;
    ASSERT_EQ(0, chain.add(QOVAShareSnapAttrSelector, "!hide==true"));
    ASSERT_EQ(0, chain.add(QOVAShareSnapAttrSelector, "desc"));
    EXPECT_EQ((std::vector<std::string>{"c"}), listed(chain.get()));
}

TEST_F(SelectorListing, TwoStopsWithSuccess) {
    Calls calls;
    calls.answer = 2;
    calls.answerAt = 3;
    Chain chain;
    ASSERT_EQ(0, chain.addPointer(answerAt, &calls));
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), listed(chain.get()));
}

TEST_F(SelectorListing, ThreeStopsWithFailureAndLeavesTheEarlierNames) {
    Calls calls;
    calls.answer = 3;
    calls.answerAt = 3;
    Chain chain;
    ASSERT_EQ(0, chain.addPointer(answerAt, &calls));
    Names names;
    EXPECT_EQ(-1, QOVAShareSnapList(docs(), names.address(), chain.get()));
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), names.all());
}

TEST_F(SelectorListing, AnyOtherAnswerSkips) {
    for (const int answer : {1, 4, -1}) {
        Calls calls;
        calls.answer = answer;
        calls.answerAt = 3;
        Chain chain;
        ASSERT_EQ(0, chain.addPointer(answerAt, &calls));
        EXPECT_EQ((std::vector<std::string>{"a", "b", "d"}), listed(chain.get())) << answer;
    }
}

} // namespace
