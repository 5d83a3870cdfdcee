#include "support/faults.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"

#include <sharesnap/frame.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>

namespace {

constexpr time_t instant = 1767323045; // 2026-01-02 03:04:05 UTC

// The time zone of a test; the next test has UTC again.
class NameForm : public testkit::SandboxTest {
protected:
    ~NameForm() override { setZone("UTC0"); }

    static void setZone(const char *zone) {
        setenv("TZ", zone, 1);
        tzset();
    }

    static std::string name(unsigned int local, time_t time = instant) {
        char text[255] = "";
        EXPECT_EQ(0, SnapNameGenerateByTime(text, sizeof(text), time, local));
        return text;
    }
};

// The time in a name, or -1 for one that is refused. (No test names the second before 1970.)
time_t timeOf(const std::string &name) {
    time_t time = 0;
    return QOVAShareSnapTimeGet(name.c_str(), &time) == 0 ? time : -1;
}

TEST_F(NameForm, IsUtcUnlessLocalIsExactlyOne) {
    setZone("<+08>-8");
    EXPECT_EQ("GMT-2026.01.02-03.04.05", name(0));
    EXPECT_EQ("GMT-2026.01.02-03.04.05", name(2));
    EXPECT_EQ("GMT+08-2026.01.02-11.04.05", name(1));
}

TEST_F(NameForm, ShowsTheMinutesOfAnOffsetOnlyWhereThereAreSome) {
    setZone("IST-5:30");
    EXPECT_EQ("GMT+0530-2026.01.02-08.34.05", name(1));
    EXPECT_EQ(28u, name(1).size());
    setZone("EST5");
    EXPECT_EQ("GMT-05-2026.01.01-22.04.05", name(1));
    EXPECT_EQ(26u, name(1).size());
    setZone("UTC0");
    EXPECT_EQ("GMT+00-2026.01.02-03.04.05", name(1));
}

TEST_F(NameForm, SeesAChangeOfTheZone) {
    setZone("EST5");
    EXPECT_EQ("GMT-05-2026.01.01-22.04.05", name(1));
    setenv("TZ", "<+08>-8", 1); // as a long-lived process sees it: nobody calls tzset for it
    EXPECT_EQ("GMT+08-2026.01.02-11.04.05", name(1));
}

TEST_F(NameForm, AnInstantHasOneTimeInEveryZone) {
    for (const char *zone : {"UTC0", "<+08>-8", "EST5", "IST-5:30", "<-0930>9:30", "<+14>-14"}) {
        setZone(zone);
        EXPECT_EQ(instant, timeOf(name(1))) << zone << ": " << name(1);
        EXPECT_EQ(instant, timeOf(name(0))) << zone << ": " << name(0);
    }
    EXPECT_EQ(timeOf("GMT-2026.01.02-03.04.05"), timeOf("GMT+08-2026.01.02-11.04.05"));
}

TEST_F(NameForm, SubtractsHoursAndMinutesOfAPositiveOffset) {
    EXPECT_EQ(instant - (5 * 3600 + 30 * 60), timeOf("GMT+0530-2026.01.02-03.04.05"));
    EXPECT_EQ(instant + (5 * 3600 + 30 * 60), timeOf("GMT-0530-2026.01.02-03.04.05"));
}

TEST_F(NameForm, TakesAnOffsetOutOfRangeAsItStands) {
    EXPECT_EQ(instant - 99 * 3600, timeOf("GMT+99-2026.01.02-03.04.05"));
}

TEST_F(NameForm, AcceptsAnyTrailingTextInTheUtcFormAlone) {
    EXPECT_EQ(instant, timeOf("GMT-2026.01.02-03.04.05.bak"));
    EXPECT_EQ(-1, timeOf("GMT+08-2026.01.02-11.04.05.bak"));
    EXPECT_EQ(-1, timeOf("GMT+0530-2026.01.02-08.34.05.bak"));
}

TEST_F(NameForm, UtcNamesTellWhatStrptimeAndTimegmSayOfThem) {
    const auto expected = [](const std::string &text) {
        tm parts = {};
        return strptime(text.c_str(), "GMT-%Y.%m.%d-%H.%M.%S", &parts) != nullptr ? timegm(&parts) : -1;
    };
    // Every day of every month, days that the month hasn't got among them, in years of all kinds.
    for (const int year : {1, 1900, 1969, 1970, 1972, 1999, 2000, 2001, 2004, 2026, 2100, 2400, 9999}) {
        for (int month = 0; month <= 13; ++month) {
            for (int day = 0; day <= 32; ++day) {
                char text[64];
                std::snprintf(text, sizeof(text), "GMT-%04d.%02d.%02d-%02d.59.%02d", year, month, day, day % 25,
                              day + 29);
                EXPECT_EQ(expected(text), timeOf(text)) << text;
            }
        }
    }
    for (const char *text : {"GMT-2026.01.02-24.00.00", "GMT-2026.01.02-23.60.00", "GMT-2026.01.02-23.59.60",
                             "GMT-2026.01.02-23.59.61", "GMT-2026.01.02-23.59.62", "GMT-2026.1.2-3.4.5",
                             "GMT- 2026.01.02-03.04.05", "GMT-2026.01.02-03.04.", "GMT-2026.01.02-03.04.5x"}) {
        EXPECT_EQ(expected(text), timeOf(text)) << text;
    }
}

TEST_F(NameForm, OfALocalNameTheLengthCountsAndNotItsDigits) {
    EXPECT_EQ(instant - 8 * 3600, timeOf("GMT+08-2026.1.2-3.4.5.bakk"));
    EXPECT_EQ(instant - (5 * 3600 + 30 * 60), timeOf("GMT+0530-2026.1.2-3.4.5.bakk"));
    EXPECT_EQ(-1, timeOf("GMT+08-2026.1.2-3.4.5"));
    EXPECT_EQ(-1, timeOf("GMT+08-2026.1.2-3.4.bakkkk"));
}

TEST_F(NameForm, ForeignNamesAreInvalidAndSaidAtDebugLevel) {
    for (const char *foreign :
         {"", "yesterday", "GMT", "GMT-2026.01.02", "GMT+08-2026.01.02-11.04", "2026.01.02-03.04.05",
          "GMT+xx-2026.01.02-11.04.05", "GMT+08-2026.13.02-11.04.05", "GMT+05xx-2026.01.02-08.34.05", "\xc3\xbc GMT"}) {
        testkit::logClear();
        QLIBCErrSetEx(0, "", 0);
        time_t time = 42;
        EXPECT_EQ(-1, QOVAShareSnapTimeGet(foreign, &time)) << foreign;
        EXPECT_EQ(42, time);
        EXPECT_EQ(0x2A00u, QLIBCErrGet()) << foreign;
        EXPECT_EQ(1u, testkit::logCount(LOG_DEBUG, std::string("Invalid snapshot name ") + foreign));
        EXPECT_TRUE(testkit::nothingFailed());
    }
}

TEST_F(NameForm, ABadSignFailsWithoutALineAndLeavesTheUncorrectedTime) {
    for (const char *name : {"GMT*08-2026.01.02-03.04.05", "GMT*0530-2026.01.02-03.04.05"}) {
        testkit::logClear();
        QLIBCErrSetEx(0, "", 0);
        time_t time = 0;
        EXPECT_EQ(-1, QOVAShareSnapTimeGet(name, &time));
        EXPECT_EQ(instant, time);
        EXPECT_EQ(0x2A00u, QLIBCErrGet());
        EXPECT_TRUE(testkit::logLines().empty()) << testkit::logText();
    }
}

TEST_F(NameForm, RefusesNullArgumentsWithoutALine) {
    time_t time = 0;
    EXPECT_EQ(-1, QOVAShareSnapTimeGet(nullptr, &time));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, QOVAShareSnapTimeGet("GMT-2026.01.02-03.04.05", nullptr));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, SnapNameGenerateByTime(nullptr, 255, instant, 0));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logLines().empty()) << testkit::logText();
}

TEST_F(NameForm, ATimeWithoutAYearFails) {
    char text[255] = "";
    for (const unsigned int local : {0U, 1U}) {
        QLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(-1, SnapNameGenerateByTime(text, sizeof(text), std::numeric_limits<time_t>::max(), local));
        EXPECT_EQ(0x2A00u, QLIBCErrGet());
    }
}

TEST_F(NameForm, ASmallBufferIsNotOverrun) {
    char text[32];
    std::memset(text, 'x', sizeof(text));
    EXPECT_EQ(0, SnapNameGenerateByTime(text, 8, instant, 0));
    EXPECT_EQ(std::string(24, 'x'), std::string(text + 8, 24));
}

} // namespace
