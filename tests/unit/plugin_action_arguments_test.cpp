// What plug-ins are told, and when nothing is told.
#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/plugin.h>

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"

namespace {

// A sanitizer and a memory checker keep memory to themselves.
bool canFailMemory() {
    const std::vector<std::string> symbols = testkit::faultSymbols();
    return std::find(symbols.begin(), symbols.end(), "calloc") != symbols.end() &&
           testkit::readFile("/proc/self/maps").find("vgpreload") == std::string::npos;
}

using Set = std::vector<std::pair<std::string, std::string>>;

// A handle that has something to run, on a facility that keeps what it is given.
class PluginAction : public testkit::SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        if (!IsSkipped()) {
            ASSERT_EQ(0, QOVAShareSnapshotPluginInit(&plugin_)); // nothing is installed
            share_.szName = name_;
            share_.szPath = path_;
            newShare_.szName = newName_;
            newShare_.szPath = newPath_;
            list_ = QLIBCSzListAlloc(512);
            QLIBCErrSetEx(0, "", 0);
        }
    }

    void TearDown() override {
        QLIBPluginExit(plugin_);
        QLIBCSzListFree(list_);
    }

    void push(const std::string &name) { ASSERT_GT(QLIBCSzListPush(&list_, name.c_str()), 0); }

    int send(int phase = SNAP_PHASE_PRE, int result = 0, const char *action = "DELETE") {
        return QOVAShareSnapshotPluginAction(phase, plugin_, &share_, withNew_ ? &newShare_ : nullptr,
                                             withList_ ? list_ : nullptr, action, result);
    }

    std::string value(const std::string &key) const {
        for (const auto &pair : set_) {
            if (pair.first == key) {
                return pair.second;
            }
        }
        return "(absent)";
    }

    char name_[8] = "docs";
    char path_[16] = "/vol1/docs";
    char newName_[8] = "copy";
    char newPath_[16] = "/vol1/copy";
    QOVASHARE share_{};
    QOVASHARE newShare_{};
    bool withNew_ = false;
    bool withList_ = true;
    QLIBCSZLIST *list_ = nullptr;
    QLIBPLUGIN *plugin_ = nullptr;
    Set set_;
    std::vector<int> phases_;
    int installed_ = 1;

    testkit::Replacement<int(const QLIBPLUGIN *)> something_{"QLIBPluginHasInit",
                                                             [this](const QLIBPLUGIN *) { return installed_; }};
    testkit::Replacement<int(QLIBPLUGIN *, const char *, const char *)> texts_{
        "QLIBPluginSetArg",
        [this](QLIBPLUGIN *, const char *key, const char *text) { return set_.emplace_back(key, text), 0; }};
    testkit::Replacement<int(QLIBPLUGIN *, const char *, int)> numbers_{
        "QLIBPluginSetArgByInt", [this](QLIBPLUGIN *, const char *key, int number) {
            return set_.emplace_back(key, std::to_string(number)), 0;
        }};
    testkit::Replacement<int(int, QLIBPLUGIN *)> actions_{
        "QLIBPluginAction", [this](int phase, QLIBPLUGIN *) { return phases_.push_back(phase), 7; }};
};

TEST_F(PluginAction, ArgumentsComeInTheirOrder) {
    push("GMT-2026.01.02-03.04.05");
    withNew_ = true;
    EXPECT_EQ(7, send(SNAP_PHASE_POST, -2, "CLONE_SNAP")); // what the facility gives
    EXPECT_EQ((Set{{"SHARE_NAME", "docs"},
                   {"SHARE_PATH", "/vol1/docs"},
                   {"NEW_SHARE_NAME", "copy"},
                   {"NEW_SHARE_PATH", "/vol1/copy"},
                   {"SNAPSHOT", "GMT-2026.01.02-03.04.05 "},
                   {"RESULT", "-2"},
                   {"ACTION", "CLONE_SNAP"},
                   {"ENC_STATUS", "0"}}),
              set_);
    EXPECT_EQ(std::vector<int>{5}, phases_);
}

TEST_F(PluginAction, ThreeNamesHaveABlankBehindEach) {
    push("one");
    push("two words");
    push("drei größere");
    (void)send();
    EXPECT_EQ("one two words drei größere ", value("SNAPSHOT"));
}

TEST_F(PluginAction, LongestNamesFit) {
    std::string expected;
    for (int i = 0; i < 50; ++i) {
        push(std::string(254, static_cast<char>('a' + i % 26)));
        expected += std::string(254, static_cast<char>('a' + i % 26)) + " ";
    }
    (void)send();
    EXPECT_EQ(expected, value("SNAPSHOT"));
}

TEST_F(PluginAction, TooLongANameIsCutWithinItsRoom) {
    push(std::string(1000, 'x'));
    (void)send();
    EXPECT_EQ(std::string(255, 'x'), value("SNAPSHOT"));
}

TEST_F(PluginAction, EmptyListGivesAnEmptyTextAndNoListNone) {
    (void)send();
    EXPECT_EQ("", value("SNAPSHOT"));
    set_.clear();
    withList_ = false;
    (void)send();
    EXPECT_EQ("(absent)", value("SNAPSHOT"));
}

TEST_F(PluginAction, NewSharesMissingFieldsAreLeftOut) {
    withNew_ = true;
    newShare_.szName = nullptr;
    (void)send();
    EXPECT_EQ("(absent)", value("NEW_SHARE_NAME"));
    EXPECT_EQ("/vol1/copy", value("NEW_SHARE_PATH"));
    set_.clear();
    newShare_.szName = newName_;
    newShare_.szPath = nullptr;
    (void)send();
    EXPECT_EQ("copy", value("NEW_SHARE_NAME"));
    EXPECT_EQ("(absent)", value("NEW_SHARE_PATH"));
}

TEST_F(PluginAction, EncryptionIsToldByTwoBits) {
    const std::vector<std::pair<unsigned int, std::string>> cases{{0x00, "0"}, {0x01, "0"}, {0x02, "2"}, {0x03, "1"},
                                                                  {0xFC, "0"}, {0xFF, "1"}, {0xFE, "2"}};
    for (const auto &each : cases) {
        set_.clear();
        share_.uStatus = each.first;
        (void)send();
        EXPECT_EQ(each.second, value("ENC_STATUS")) << each.first;
    }
}

TEST_F(PluginAction, NullHandleFailsWithoutACode) {
    EXPECT_EQ(-1, QOVAShareSnapshotPluginAction(SNAP_PHASE_PRE, nullptr, &share_, nullptr, list_, "DELETE", 0));
    EXPECT_EQ(0U, QLIBCErrGet());
}

TEST_F(PluginAction, RefusesMissingAndEmptyArguments) {
    char empty[1] = "";
    const auto refused = [this](const QOVASHARE *share, const char *action) {
        QLIBCErrSetEx(0, "", 0);
        return QOVAShareSnapshotPluginAction(SNAP_PHASE_PRE, plugin_, share, nullptr, list_, action, 0) == -1 &&
               QLIBCErrGet() == 0x0D00;
    };
    EXPECT_TRUE(refused(nullptr, "DELETE"));
    EXPECT_TRUE(refused(&share_, nullptr));
    for (char *text : {static_cast<char *>(nullptr), empty}) {
        QOVASHARE other = share_;
        other.szName = text;
        EXPECT_TRUE(refused(&other, "DELETE"));
        other = share_;
        other.szPath = text;
        EXPECT_TRUE(refused(&other, "DELETE"));
    }
    EXPECT_TRUE(set_.empty());
    EXPECT_TRUE(phases_.empty());
}

TEST_F(PluginAction, WithoutPluginsNothingIsLookedAt) {
    installed_ = 0;
    EXPECT_EQ(0, QOVAShareSnapshotPluginAction(SNAP_PHASE_PRE, plugin_, nullptr, nullptr, nullptr, nullptr, 0));
    EXPECT_EQ(0U, QLIBCErrGet());
    EXPECT_TRUE(phases_.empty());
}

TEST_F(PluginAction, AnyFailingSetEndsIt) {
    withNew_ = true;
    push("one");
    for (size_t nth = 1; nth <= 6; ++nth) {
        const testkit::Fault fault("QLIBPluginSetArg", nth);
        EXPECT_EQ(-1, send()) << nth;
        EXPECT_TRUE(fault.met()) << nth;
    }
    for (size_t nth = 1; nth <= 2; ++nth) {
        const testkit::Fault fault("QLIBPluginSetArgByInt", nth);
        EXPECT_EQ(-1, send()) << nth;
        EXPECT_TRUE(fault.met()) << nth;
    }
    EXPECT_TRUE(phases_.empty());
}

TEST_F(PluginAction, MemoryThatIsNotToBeHadIsTold) {
    if (!canFailMemory()) {
        GTEST_SKIP() << "memory belongs to the sanitizer";
    }
    push("one");
    const testkit::Fault fault("calloc");
    EXPECT_EQ(-1, send());
    EXPECT_TRUE(fault.met());
    EXPECT_EQ(0x0200U, QLIBCErrGet());
    EXPECT_TRUE(phases_.empty());
}

TEST_F(PluginAction, InitOpensTheFacilityUnderItsName) {
    std::vector<std::string> names;
    {
        const testkit::Replacement<int(const char *, const char *, QLIBPLUGIN **)> init(
            "QLIBPluginSDKInit", [&](const char *name, const char *label, QLIBPLUGIN **) {
                names = {name, label};
                return 0;
            });
        QLIBPLUGIN *plugin = nullptr;
        EXPECT_EQ(0, QOVAShareSnapshotPluginInit(&plugin));
    }
    EXPECT_EQ((std::vector<std::string>{"share_snapshot", "share_snapshot"}), names);
    EXPECT_EQ(-1, QOVAShareSnapshotPluginInit(nullptr));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    const testkit::Fault fault("QLIBPluginSDKInit");
    QLIBPLUGIN *plugin = nullptr;
    EXPECT_EQ(-1, QOVAShareSnapshotPluginInit(&plugin));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to do plugin init[0x2A00 "));
}

} // namespace
