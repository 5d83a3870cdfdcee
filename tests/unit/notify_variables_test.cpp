// Notices about a share: their variables and their failures.
#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/error.h>

#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "support/faults.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

class SnapNotify : public testkit::SandboxTest {
protected:
    void TearDown() override { QLIBCSzHashFree(hash_); }

    QLIBCSZHASH *hash_ = QLIBCSzHashAlloc(512);
    Pairs sent_;
    std::string tag_;
    testkit::Replacement<int(char *, size_t)> host_{"QOVALnxGetHostname", [](char *text, size_t size) {
                                                        EXPECT_EQ(64U, size);
                                                        (void)std::snprintf(text, size, "server");
                                                        return 0;
                                                    }};
    testkit::Replacement<int(const char *, QLIBCSZHASH **)> send_{
        "QOVASysNotifySendNotifiction", [this](const char *tag, QLIBCSZHASH **hash) {
            tag_ = tag;
            QLIBCSZLIST *keys = QLIBCSzListAlloc(512);
            (void)QLIBCSzHashEnumKey(*hash, &keys);
            for (int i = 0; i < keys->nItem; ++i) {
                const char *key = QLIBCSzListGet(keys, i);
                sent_.emplace_back(key, QLIBCSzHashGetValue(*hash, key));
            }
            QLIBCSzListFree(keys);
            return 0;
        }};
};

const Pairs theFour{{"%HOSTNAME%", "server"},
                    {"%SHARE%", "docs"},
                    {"DESKTOP_NOTIFY_TITLE", "snapmgr:app_title"},
                    {"DESKTOP_NOTIFY_CLASSNAME", "QOVA.QDS.DisasterRecovery.Application"}};

TEST_F(SnapNotify, SendsTheFourVariables) {
    EXPECT_EQ(0, QOVAShareSnapSendNotification("SnapFailed", "docs", nullptr));
    EXPECT_EQ("SnapFailed", tag_);
    EXPECT_EQ(theFour, sent_);
}

TEST_F(SnapNotify, CallersHashKeepsThemAndItsOwn) {
    ASSERT_EQ(0, QLIBCSzHashSetValue(&hash_, "%SHARE%", "another"));
    ASSERT_EQ(0, QLIBCSzHashSetValue(&hash_, "%COUNT%", "3"));
    EXPECT_EQ(0, QOVAShareSnapSendNotification("SnapFailed", "docs", &hash_));
    EXPECT_STREQ("docs", QLIBCSzHashGetValue(hash_, "%SHARE%"));
    EXPECT_STREQ("3", QLIBCSzHashGetValue(hash_, "%COUNT%"));
    for (const auto &pair : theFour) {
        EXPECT_STREQ(pair.second.c_str(), QLIBCSzHashGetValue(hash_, pair.first.c_str()));
    }
    EXPECT_EQ(5U, sent_.size());
}

TEST_F(SnapNotify, MissingArgumentsAreRefused) {
    EXPECT_EQ(-1, QOVAShareSnapSendNotification(nullptr, "docs", nullptr));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    EXPECT_EQ(-1, QOVAShareSnapSendNotification("SnapFailed", nullptr, nullptr));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != tag)=[0]\n"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (NULL != szShareName)=[0]\n"));
    EXPECT_EQ("", tag_);
}

TEST_F(SnapNotify, FirstVariableThatCannotBeSetIsNamed) {
    const std::vector<std::string> named{"%HOSTNAME%", "%SHARE%", "%DESKTOP_NOTIFY_TITLE%",
                                         "%DESKTOP_NOTIFY_CLASSNAME%"};
    for (size_t i = 0; i < named.size(); ++i) {
        const testkit::Fault fault("QLIBCSzHashSetValue", i + 1);
        EXPECT_EQ(-1, QOVAShareSnapSendNotification("SnapFailed", "docs", nullptr));
        EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to set value " + named[i] + "[0x0200 "));
    }
    EXPECT_EQ("", tag_);
}

TEST_F(SnapNotify, FailuresAreTold) {
    {
        const testkit::Fault fault("QLIBCSzHashAlloc");
        EXPECT_EQ(-1, QOVAShareSnapSendNotification("SnapFailed", "docs", nullptr));
        EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to alloc hash[0x0200 "));
    }
    {
        const testkit::Fault fault("QOVASysNotifySendNotifiction");
        EXPECT_EQ(-1, QOVAShareSnapSendNotification("SnapFailed", "docs", nullptr));
        EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to QOVASysNotifySendNotifiction with tag [SnapFailed][0x2A00 "));
    }
    const testkit::Fault fault("QOVALnxGetHostname", 1, EIO);
    EXPECT_EQ(-1, QOVAShareSnapSendNotification("SnapFailed", "docs", nullptr));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "QOVALnxGetHostname failed. errno=[0x0005][0x2A00 "));
}

} // namespace
