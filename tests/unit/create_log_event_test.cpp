// The events of creations and deletions, and the limit of snapshots of a share.
#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/error.h>

#include <climits>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"

namespace {

struct Event {
    int type = 0;
    int level = 0;
    unsigned int number = 0;
    std::vector<std::string> texts;
};

class SnapEvent : public testkit::SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        share_.szName = name_;
        share_.szPath = path_;
    }

    // Writes the event of a failure with that code in the register, and checks that the code is left alone.
    std::string textOf(unsigned int code) {
        QLIBCErrSetEx(code, "other.cpp", 5);
        events_.clear();
        EXPECT_EQ(0, QOVAShareSnapCreateLogSet(&share_, nullptr, "alice", 0));
        EXPECT_EQ(code, QLIBCErrGet());
        if (events_.size() != 1 || events_[0].texts.size() != 3) {
            return "(no event)";
        }
        EXPECT_EQ(9, events_[0].type);
        EXPECT_EQ(3, events_[0].level);
        EXPECT_EQ(0x13C00002U, events_[0].number);
        EXPECT_EQ("alice", events_[0].texts[0]);
        EXPECT_EQ("docs", events_[0].texts[1]);
        return events_[0].texts[2];
    }

    char name_[8] = "docs";
    char path_[16] = "/vol12/docs";
    QOVASHARE share_{};
    std::vector<Event> events_;
    int answer_ = 0;
    testkit::Replacement<int(int, int, unsigned int, const char *const *)> log_{
        "QOVALogSet1", [this](int type, int level, unsigned int number, const char *const *texts) {
            Event event{type, level, number, {}};
            for (; *texts != nullptr; ++texts) {
                event.texts.emplace_back(*texts);
            }
            events_.push_back(event);
            QLIBCErrSetEx(0x2A00, "noise.cpp", 1);
            return answer_;
        }};
};

using Texts = std::vector<std::string>;

TEST_F(SnapEvent, SuccessfulCreationNamesActorSnapshotAndShare) {
    QLIBCErrSetEx(0x2200, "other.cpp", 5);
    EXPECT_EQ(0, QOVAShareSnapCreateLogSet(&share_, "GMT-2026.01.02-03.04.05", "alice", 1));
    ASSERT_EQ(1U, events_.size());
    EXPECT_EQ(9, events_[0].type);
    EXPECT_EQ(1, events_[0].level);
    EXPECT_EQ(0x13C00001U, events_[0].number);
    EXPECT_EQ((Texts{"alice", "GMT-2026.01.02-03.04.05", "docs"}), events_[0].texts);
    EXPECT_EQ(0x2200U, QLIBCErrGet());
}

TEST_F(SnapEvent, FailedCreationIsToldByItsCode) {
    EXPECT_EQ("System busy", textOf(0x0400));
    const std::string limits = "The number of snapshot reaches share limit 1024 or system limit 65536.";
    EXPECT_EQ(limits, textOf(0x1500));
    EXPECT_EQ(limits, textOf(0x6E00));
    EXPECT_EQ("Share used size reaches the limit of share quota ", textOf(0x2400));
    EXPECT_EQ("Available volume size is insufficient", textOf(0x2900));
    EXPECT_EQ("Reserved space 100 MB from [Volume 12] is not enough", textOf(0xE400));
    for (const unsigned int code : {0x0000U, 0x2A00U, 0xE700U, 0xD900U}) {
        EXPECT_EQ("Operation failed", textOf(code));
    }
}

TEST_F(SnapEvent, LimitsComeFromTheSystemsSettings) {
    ASSERT_TRUE(testkit::writeFile("/etc.defaults/qovainfo.conf",
                                   "max_snapshots_per_share=\"7\"\nmax_snapshots_per_system=\"4294967296\"\n"));
    EXPECT_EQ("The number of snapshot reaches share limit 7 or system limit 4294967296.", textOf(0x1500));
}

TEST_F(SnapEvent, VolumeThatHasNoNumberGivesNoEvent) {
    for (const char *symbol : {"VolumePathParseEx", "QOVAVolIDParse"}) {
        const testkit::Fault fault(symbol);
        QLIBCErrSetEx(0xE400, "other.cpp", 5);
        EXPECT_EQ(-1, QOVAShareSnapCreateLogSet(&share_, nullptr, "alice", 0));
        EXPECT_TRUE(fault.met());
        EXPECT_EQ(0xE400U, QLIBCErrGet());
    }
    EXPECT_TRUE(events_.empty());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to parse volume path from [/vol12/docs]"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to parse volume id from [/vol12]"));
}

TEST_F(SnapEvent, MissingArgumentsOfACreationGiveNoEvent) {
    const auto refused = [](int outcome) {
        const bool right = outcome == -1 && QLIBCErrGet() == 0x2900;
        QLIBCErrSetEx(0x2900, "other.cpp", 5);
        return right;
    };
    QLIBCErrSetEx(0x2900, "other.cpp", 5);
    EXPECT_TRUE(refused(QOVAShareSnapCreateLogSet(nullptr, "snap", "alice", 1)));
    EXPECT_TRUE(refused(QOVAShareSnapCreateLogSet(&share_, "snap", nullptr, 1)));
    EXPECT_TRUE(refused(QOVAShareSnapCreateLogSet(&share_, nullptr, "alice", 1)));
    EXPECT_TRUE(events_.empty());
    EXPECT_EQ(3U, testkit::logCount(LOG_ERR, "Bad Parameter.[0x2900 other.cpp:5]"));
}

TEST_F(SnapEvent, CodeStaysWhenTheEventCannotBeWritten) {
    answer_ = -1;
    QLIBCErrSetEx(0x1500, "other.cpp", 5);
    EXPECT_EQ(-1, QOVAShareSnapCreateLogSet(&share_, nullptr, "alice", 0));
    EXPECT_EQ(0x1500U, QLIBCErrGet());
    EXPECT_EQ(-1, QOVAShareSnapDeleteLogSet(&share_, "alice", "snap", 0));
    EXPECT_EQ(0x1500U, QLIBCErrGet());
}

TEST_F(SnapEvent, DeletionsHaveTheirOwnNumbers) {
    QLIBCErrSetEx(0x2900, "other.cpp", 5);
    EXPECT_EQ(0, QOVAShareSnapDeleteLogSet(&share_, "alice", "GMT-2026.01.02-03.04.05", 2));
    EXPECT_EQ(0, QOVAShareSnapDeleteLogSet(&share_, "alice", "GMT-2026.01.02-03.04.05", 0));
    EXPECT_EQ(0x2900U, QLIBCErrGet());
    EXPECT_STREQ("snapshot_delete.cpp", QLIBCErrorGetFile());
    ASSERT_EQ(2U, events_.size());
    EXPECT_EQ(0x13C00003U, events_[0].number);
    EXPECT_EQ(0x13C00004U, events_[1].number);
    for (const Event &event : events_) {
        EXPECT_EQ(9, event.type);
        EXPECT_EQ(1, event.level);
        EXPECT_EQ((Texts{"alice", "docs", "GMT-2026.01.02-03.04.05"}), event.texts);
    }
}

TEST_F(SnapEvent, MissingArgumentsOfADeletionGiveNoEvent) {
    QLIBCErrSetEx(0x2900, "other.cpp", 5);
    EXPECT_EQ(-1, QOVAShareSnapDeleteLogSet(nullptr, "alice", "snap", 1));
    EXPECT_EQ(-1, QOVAShareSnapDeleteLogSet(&share_, nullptr, "snap", 1));
    EXPECT_EQ(-1, QOVAShareSnapDeleteLogSet(&share_, "alice", nullptr, 1));
    EXPECT_EQ(0x2900U, QLIBCErrGet());
    EXPECT_TRUE(events_.empty());
    EXPECT_EQ(3U, testkit::logCount(LOG_ERR, "Bad Parameter.[0x2900 "));
}

TEST_F(SnapEvent, LimitOfAShareIsADecimalNumber) {
    EXPECT_EQ(1024, QOVAShareSnapMaximumGet());
    const auto with = [](const std::string &value) {
        EXPECT_TRUE(testkit::writeFile("/etc.defaults/qovainfo.conf", "max_snapshots_per_share=\"" + value + "\"\n"));
        return QOVAShareSnapMaximumGet();
    };
    EXPECT_EQ(256, with("256"));
    EXPECT_EQ(12, with("12 snapshots"));
    EXPECT_EQ(10, with("010"));
    EXPECT_EQ(0, with("0x10"));
    EXPECT_EQ(0, with("many"));
    EXPECT_EQ(-1, with("-1"));
    EXPECT_EQ(INT_MAX, with("99999999999999999999"));
    EXPECT_TRUE(testkit::writeFile("/etc.defaults/qovainfo.conf", "other=\"1\"\n"));
    EXPECT_EQ(1024, QOVAShareSnapMaximumGet());
}

} // namespace
