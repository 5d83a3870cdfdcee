#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/log_capture.hpp"
#include "support/metadata_fixture.hpp"

#include <sharesnap/frame.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/file_lock.h>

#include <cstdio>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using testkit::Names;
using testkit::Pairs;
using Section = std::pair<std::string, std::map<std::string, std::string>>;

class MetaScanner : public testkit::SandboxTest {
protected:
    // All sections of a text, up to the first result that isn't positive. That result is kept.
    std::vector<Section> scan(const std::string &text) {
        const std::string path = testkit::Sandbox::scratch() + "/text";
        EXPECT_TRUE(testkit::writeFile(path, text));
        FILE *stream = std::fopen(path.c_str(), "re");
        std::vector<Section> sections;
        char name[1024];
        Pairs pairs;
        for (;;) {
            last = SnapFileGetNextSection(stream, name, sizeof(name), pairs.address());
            if (last <= 0) {
                break;
            }
            EXPECT_EQ(static_cast<size_t>(last), pairs.all().size());
            sections.emplace_back(name, pairs.all());
        }
        std::fclose(stream);
        return sections;
    }

    int last = 0;
};

TEST_F(MetaScanner, GivesSectionAfterSection) {
    EXPECT_EQ((std::vector<Section>{{"a", {{"k", "1"}, {"l", ""}}}, {"b c", {{"k", "x=y"}}}}),
              scan("[a]\nk=1\nl=\n[b c]\nk=x=y\n"));
    EXPECT_EQ(0, last);
}

TEST_F(MetaScanner, AnEmptyFileHasNone) {
    EXPECT_TRUE(scan("").empty());
    EXPECT_EQ(0, last);
}

TEST_F(MetaScanner, TheLastLineNeedsNoLineFeed) {
    EXPECT_EQ((std::vector<Section>{{"a", {{"k", "1"}, {"l", "2"}}}}), scan("[a]\nk=1\nl=2"));
}

TEST_F(MetaScanner, IgnoresLinesBeforeTheFirstHeaderAndLinesWithoutEquals) {
    EXPECT_EQ((std::vector<Section>{{"a", {{"k", "1"}}}}), scan("stray=1\n\ntext\n[a]\n\nno pair\nk=1\n\n"));
}

TEST_F(MetaScanner, OfAKeyThatStandsTwiceTheLastIsSeen) {
    EXPECT_EQ((std::vector<Section>{{"a", {{"k", "2"}}}}), scan("[a]\nk=1\nk=2\n"));
}

TEST_F(MetaScanner, AnEmptySectionEndsTheReading) {
    EXPECT_EQ((std::vector<Section>{{"a", {{"k", "v"}}}}), scan("[a]\nk=v\n[b]\n[c]\nk=v\n"));
    EXPECT_EQ(0, last);
}

TEST_F(MetaScanner, ABracketEndsASectionEvenInALineThatIsNoHeader) {
    EXPECT_EQ((std::vector<Section>{{"a", {{"k", "1"}}}, {"b", {{"k", "3"}}}}),
              scan("[a]\nk=1\n[no header\nlost=2\n[b]\nk=3\n"));
    // A bracket further on is text.
    EXPECT_EQ((std::vector<Section>{{"a", {{"k", "[1]"}, {" [l]", "2"}}}}), scan("[a]\nk=[1]\n [l]=2\n"));
}

TEST_F(MetaScanner, LongAndBinaryLinesPass) {
    const std::string value(100000, 'x');
    std::string text = "[a]\nk=" + value + "\n";
    text += std::string("nul\0=1\n", 7);
    EXPECT_EQ((std::vector<Section>{{"a", {{"k", value}}}}), scan(text));
    EXPECT_EQ((std::vector<Section>{{"\xff\xfe", {{"\xc3\xbc", "\x01"}}}}), scan("[\xff\xfe]\n\xc3\xbc=\x01\n"));
}

TEST_F(MetaScanner, ANameTooLongForTheBufferFails) {
    EXPECT_TRUE(scan("[" + std::string(1024, 'n') + "]\nk=1\n").empty());
    EXPECT_EQ(-1, last);
    EXPECT_EQ(1u, scan("[" + std::string(1023, 'n') + "]\nk=1\n").size());
}

TEST_F(MetaScanner, RefusesNullArgumentsWithoutALine) {
    char name[16];
    Pairs pairs;
    QLIBCSZHASH *none = nullptr;
    FILE *stream = std::fopen("/dev/null", "re");
    EXPECT_EQ(-1, SnapFileGetNextSection(nullptr, name, sizeof(name), pairs.address()));
    EXPECT_EQ(-1, SnapFileGetNextSection(stream, nullptr, sizeof(name), pairs.address()));
    EXPECT_EQ(-1, SnapFileGetNextSection(stream, name, sizeof(name), nullptr));
    EXPECT_EQ(-1, SnapFileGetNextSection(stream, name, sizeof(name), &none));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logLines().empty()) << testkit::logText();
    std::fclose(stream);
}

TEST_F(MetaScanner, AReadErrorGivesWhatWasGathered) {
    const testkit::Fault fault("getdelim", 3);
    const testkit::Fault alias("__getdelim", 3);
    EXPECT_EQ((std::vector<Section>{{"a", {{"k", "1"}}}}), scan("[a]\nk=1\nl=2\n[b]\nk=3\n"));
    EXPECT_EQ(0, last);
    EXPECT_TRUE(fault.met() || alias.met());
}

class MetaList : public testkit::MetadataTest {};

TEST_F(MetaList, AZeroLengthFileIsAnEmptyList) {
    writeMeta("");
    EXPECT_TRUE(listed().empty());
}

TEST_F(MetaList, StopsWithSuccessAtAnEmptySection) {
    writeMeta("[a]\nk=v\n[b]\n[c]\nk=v\n");
    EXPECT_EQ((std::vector<std::string>{"a"}), listed());
    writeMeta("[a]\n[b]\nk=v\n");
    EXPECT_TRUE(listed().empty());
}

TEST_F(MetaList, KeepsTheCallersNamesInFront) {
    writeMeta("[a]\nk=v\n");
    Names names = {"earlier", "and this"};
    EXPECT_EQ(0, QOVAShareSnapList(docs(), names.address(), nullptr));
    EXPECT_EQ((std::vector<std::string>{"earlier", "and this", "a"}), names.all());
}

TEST_F(MetaList, GivesHiddenOnesToo) {
    writeMeta("[a]\nhide=true\n[b]\nhide=false\n");
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), listed());
}

TEST_F(MetaList, ANameThatCannotBeReadFailsAndKeepsTheEarlierOnes) {
    writeMeta("[a]\nk=v\n[" + std::string(2000, 'n') + "]\nk=v\n");
    Names names;
    EXPECT_EQ(-1, QOVAShareSnapList(docs(), names.address(), nullptr));
    EXPECT_EQ((std::vector<std::string>{"a"}), names.all());
}

TEST_F(MetaList, ChecksItsArguments) {
    Names names;
    EXPECT_EQ(-1, QOVAShareSnapList(nullptr, names.address(), nullptr));
    EXPECT_TRUE(testkit::loggedMatch(
        LOG_ERR, "^snapshot_list\\.cpp:[0-9]+ Invaild Argument \\(\\(\\(void \\*\\)0\\) != pShare\\)=\\[0\\]$"));
    EXPECT_EQ(-1, QOVAShareSnapList(docs(), nullptr, nullptr));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (NULL != ppListSnap)=[0]"));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
}

TEST_F(MetaList, SharesTheLockWithOtherReaders) {
    writeMeta("[a]\nk=v\n");
    const testkit::CallCount locks("QLIBCFileLockTimeByFile");
    int mode = -1;
    int seconds = -1;
    std::string path;
    const testkit::Replacement<int(const char *, int, int, int *)> seen(
        "QLIBCFileLockTimeByFile", [&](const char *file, int how, int wait, int *fd) {
            path = file;
            mode = how;
            seconds = wait;
            return testkit::real<int(const char *, int, int, int *)>("QLIBCFileLockTimeByFile")(file, how, wait, fd);
        });
    EXPECT_EQ((std::vector<std::string>{"a"}), listed());
    EXPECT_EQ("/run/lock/sharesnap/sharesnap_meta_lock/docs.lock", path);
    EXPECT_EQ(0, mode);
    EXPECT_EQ(10, seconds);
}

// What happens to the effective user, which is one of the whole process: each in a process of its own.
class MetaListAsUser : public testkit::MetadataTest {
protected:
    void SetUp() override {
        MetadataTest::SetUp();
        if (!IsSkipped() && geteuid() != 0) {
            GTEST_SKIP() << "needs root";
        }
        if (!IsSkipped() && testkit::Sandbox::kind() != testkit::Sandbox::Kind::root) {
            GTEST_SKIP() << "needs a second user";
        }
    }

    struct Outcome {
        int result = 0;
        unsigned int user = 0;
        unsigned int code = 0;
    };

    // Lists as an ordinary user. The lock directories are there already.
    Outcome listAs(uid_t user) {
        (void)listed();
        QLIBCErrSetEx(0, "", 0);
        Names names;
        EXPECT_EQ(0, seteuid(user));
        Outcome outcome;
        outcome.result = QOVAShareSnapList(docs(), names.address(), nullptr);
        outcome.user = geteuid();
        outcome.code = QLIBCErrGet();
        EXPECT_EQ(0, seteuid(0));
        return outcome;
    }
};

TEST_F(MetaListAsUser, GivesThePrivilegeBackAfterTheLock) {
    writeMeta("[a]\nk=v\n");
    const Outcome outcome = listAs(1234);
    EXPECT_EQ(0, outcome.result);
    EXPECT_EQ(1234u, outcome.user);
}

TEST_F(MetaListAsUser, ReadsTheFileAsTheCaller) {
    writeMeta("[a]\nk=v\n");
    ASSERT_EQ(0, chmod(metaPath, 0600));
    const Outcome outcome = listAs(1234);
    EXPECT_EQ(-1, outcome.result);
    EXPECT_EQ(1234u, outcome.user);
    EXPECT_EQ(0x0900u, outcome.code);
}

TEST_F(MetaListAsUser, StaysRootWhenTheLockFails) {
    writeMeta("[a]\nk=v\n");
    (void)listed();
    const testkit::Fault busy("QLIBCFileLockTimeByFile", 2, 0, 0, 0x0400);
    const Outcome outcome = listAs(1234);
    EXPECT_TRUE(busy.met());
    EXPECT_EQ(-1, outcome.result);
    EXPECT_EQ(0u, outcome.user);
    EXPECT_EQ(0x0400u, outcome.code);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to lock meta file ["));
}

TEST_F(MetaListAsUser, FailsWhenThePrivilegeCannotBeGivenBack) {
    writeMeta("[a]\nk=v\n");
    const testkit::Leftovers before;
    const testkit::Fault stuck("seteuid", 2);
    const Outcome outcome = listAs(1234);
    EXPECT_TRUE(stuck.met());
    EXPECT_EQ(-1, outcome.result);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to reset effective user id from root to user. "));
    EXPECT_EQ("", before.compare());
}

class NameLookup : public testkit::MetadataTest {
protected:
    ~NameLookup() override {
        setenv("TZ", "UTC0", 1);
        tzset();
    }

    // The name and the result of a look-up of the latest.
    std::pair<int, std::string> latest() {
        char name[255] = "untouched";
        const int result = QOVAShareSnapGetLatest(docs(), name, sizeof(name));
        return {result, name};
    }
    std::pair<int, std::string> at(time_t time) {
        char name[255] = "untouched";
        const int result = QOVAShareSnapNameGetByTime(docs(), name, sizeof(name), time);
        return {result, name};
    }
    using Found = std::pair<int, std::string>;

    static constexpr time_t instant = 1767323045; // 2026-01-02 03:04:05 UTC
};

TEST_F(NameLookup, AnEmptyShareHasNoLatest) {
    EXPECT_EQ((Found{0, "untouched"}), latest());
    writeMeta("");
    EXPECT_EQ((Found{0, "untouched"}), latest());
}

TEST_F(NameLookup, HiddenOnesAreNoLatest) {
    writeMeta("[GMT-2026.01.02-03.04.05]\nhide=true\n");
    EXPECT_EQ((Found{0, "untouched"}), latest());
}

TEST_F(NameLookup, TheLatestIsFoundByTimeNotByText) {
    writeMeta("[GMT-2026.01.02-09.00.00]\nhide=false\n[GMT+08-2026.01.02-10.00.00]\nhide=false\n"
              "[GMT-2026.01.01-00.00.00]\nhide=false\n");
    EXPECT_EQ((Found{1, "GMT-2026.01.02-09.00.00"}), latest());
}

TEST_F(NameLookup, OfTwoWithOneInstantTheFirstListedIsLatest) {
    writeMeta("[GMT+08-2026.01.02-11.04.05]\nhide=false\n[GMT-2026.01.02-03.04.05]\nhide=false\n");
    EXPECT_EQ((Found{1, "GMT+08-2026.01.02-11.04.05"}), latest());
    writeMeta("[GMT-2026.01.02-03.04.05]\nhide=false\n[GMT+08-2026.01.02-11.04.05]\nhide=false\n");
    EXPECT_EQ((Found{1, "GMT-2026.01.02-03.04.05"}), latest());
}

TEST_F(NameLookup, ForeignNamesArePassedOver) {
    writeMeta("[before the upgrade]\nhide=false\n[GMT-2026.01.02-03.04.05]\nhide=false\n[zz]\nhide=false\n");
    EXPECT_EQ((Found{1, "GMT-2026.01.02-03.04.05"}), latest());
    writeMeta("[before the upgrade]\nhide=false\n");
    EXPECT_EQ((Found{-1, "untouched"}), latest());
}

TEST_F(NameLookup, FindsASnapshotOnTheVolumeByTheLocalNameFirst) {
    setenv("TZ", "<+08>-8", 1);
    takeSubvolume("GMT+08-2026.01.02-11.04.05", true); // without a section, and hidden
    EXPECT_EQ((Found{0, "GMT+08-2026.01.02-11.04.05"}), at(instant));
    takeSubvolume("GMT-2026.01.02-03.04.05");
    EXPECT_EQ((Found{0, "GMT+08-2026.01.02-11.04.05"}), at(instant));
    setenv("TZ", "UTC0", 1);
    EXPECT_EQ((Found{0, "GMT-2026.01.02-03.04.05"}), at(instant));
}

TEST_F(NameLookup, FindsOneOfAnotherZoneInTheMetadata) {
    writeMeta(
        "[odd]\nhide=false\n[GMT-05-2026.01.01-22.04.05]\nhide=false\n[GMT+0530-2026.01.02-08.34.05]\nhide=false\n");
    EXPECT_EQ((Found{0, "GMT-05-2026.01.01-22.04.05"}), at(instant));
    EXPECT_EQ((Found{-1, "untouched"}), at(instant + 1));
}

TEST_F(NameLookup, FindsNoHiddenOneInTheMetadata) {
    writeMeta("[GMT-05-2026.01.01-22.04.05]\nhide=true\n");
    EXPECT_EQ((Found{-1, "untouched"}), at(instant));
}

TEST_F(NameLookup, RefusesNullArguments) {
    char name[255];
    EXPECT_EQ(-1, QOVAShareSnapNameGetByTime(nullptr, name, sizeof(name), instant));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, QOVAShareSnapNameGetByTime(docs(), nullptr, sizeof(name), instant));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
}

} // namespace
