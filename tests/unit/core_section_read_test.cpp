// Reading of sectioned files and of flat ones, and the forms of a line.
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/section_file.h>

#include "core_owners.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using core::Hash;
using core::List;
using core::Texts;
using namespace std::string_literals;

namespace {

class SectionRead : public testkit::SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        m_path = testkit::Sandbox::scratch() + "/file.conf";
        QLIBCErrSetEx(0, "", 0);
    }

    void write(const std::string &text) { ASSERT_TRUE(testkit::writeFile(m_path, text)); }

    [[nodiscard]] const char *path() const { return m_path.c_str(); }

    // The value, or the code in words of numbers.
    [[nodiscard]] std::string value(const std::string &section, const std::string &key) const {
        char rgBuf[1024] = "untouched";
        if (QLIBCFileGetSectionValue(path(), section.c_str(), key.c_str(), rgBuf, sizeof(rgBuf)) == 0) {
            return rgBuf;
        }
        EXPECT_STREQ("untouched", rgBuf);
        return "code " + std::to_string(QLIBCErrGet());
    }

    [[nodiscard]] Texts sections() const {
        List list;
        EXPECT_EQ(0, QLIBCFileEnumSection(path(), &list));
        return list.items();
    }

    std::string m_path;
};

const std::string NO_SECTION = "code " + std::to_string(0x2200);
const std::string NO_KEY = "code " + std::to_string(0x2000);
const std::string NO_FILE = "code " + std::to_string(0x0900);

} // namespace

TEST_F(SectionRead, GivesThePairsOfOneSection) {
    write("[a]\nkey=value\nother=1=2\nempty=\n[b]\nkey=else\n");
    Hash hash;
    EXPECT_EQ(3, QLIBCFileGetSection(path(), "a", &hash));
    EXPECT_EQ((Texts{"key", "other", "empty"}), hash.keys());
    EXPECT_EQ("value", hash.at("key"));
    EXPECT_EQ("1=2", hash.at("other"));
    EXPECT_EQ("", hash.at("empty"));
    EXPECT_EQ(0U, QLIBCErrGet());
}

TEST_F(SectionRead, CountsThePairsOfTheSectionAlone) {
    write("[a]\nkey=value\nkey=later\nsecond=2\n");
    Hash hash({{"mine", "1"}, {"key", "old"}});
    EXPECT_EQ(2, QLIBCFileGetSection(path(), "a", &hash));
    EXPECT_EQ((Texts{"mine", "key", "second"}), hash.keys());
    EXPECT_EQ("later", hash.at("key"));
}

TEST_F(SectionRead, TellsAnEmptySectionFromAnAbsentOne) {
    write("[empty]\n[full]\nk=v\n");
    Hash hash;
    EXPECT_EQ(0, QLIBCFileGetSection(path(), "empty", &hash));
    EXPECT_EQ(0U, QLIBCErrGet());
    EXPECT_EQ(0, QLIBCFileGetSection(path(), "absent", &hash));
    EXPECT_EQ(0x2200U, QLIBCErrGet());
    EXPECT_EQ(0, hash.get()->nPair);
}

TEST_F(SectionRead, FailsWithoutAFile) {
    Hash hash;
    List list;
    EXPECT_EQ(-1, QLIBCFileGetSection(path(), "a", &hash));
    EXPECT_EQ(0x0900U, QLIBCErrGet());
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(NO_FILE, value("a", "k"));
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, QLIBCFileEnumSection(path(), &list));
    EXPECT_EQ(0x0900U, QLIBCErrGet());
}

TEST_F(SectionRead, GivesOneValueOrTheReason) {
    write("[a]\nkey=value\n[b]\n");
    EXPECT_EQ("value", value("a", "key"));
    EXPECT_EQ(NO_KEY, value("a", "other"));
    EXPECT_EQ(NO_KEY, value("b", "key"));
    EXPECT_EQ(NO_SECTION, value("c", "key"));
    EXPECT_EQ(NO_SECTION, value("", "key"));
}

TEST_F(SectionRead, CutsALongValueToTheBuffer) {
    write("[a]\nkey=0123456789\n");
    char rgBuf[5];
    EXPECT_EQ(0, QLIBCFileGetSectionValue(path(), "a", "key", rgBuf, sizeof(rgBuf)));
    EXPECT_STREQ("0123", rgBuf);
    char cOne = 'x';
    EXPECT_EQ(0, QLIBCFileGetSectionValue(path(), "a", "key", &cOne, 1));
    EXPECT_EQ('\0', cOne);
    EXPECT_EQ(-1, QLIBCFileGetSectionValue(path(), "a", "key", rgBuf, 0));
}

TEST_F(SectionRead, TheLastOfEqualKeysAndTheFirstOfEqualSectionsCount) {
    write("[a]\nk=1\nk=2\n[b]\nk=3\n[a]\nk=4\nonly=here\n");
    EXPECT_EQ("2", value("a", "k"));
    EXPECT_EQ(NO_KEY, value("a", "only"));
    EXPECT_EQ((Texts{"a", "b"}), sections());
}

TEST_F(SectionRead, TrimsNothing) {
    write("[ a ]\n key = value \n\"q\"=\"v\"\n[crlf]\r\nk=v\r\n");
    EXPECT_EQ(" value ", value(" a ", " key "));
    EXPECT_EQ("\"v\"", value(" a ", "\"q\""));
    EXPECT_EQ(NO_SECTION, value("a", "key"));
    EXPECT_EQ("v\r", value("crlf", "k"));
}

TEST_F(SectionRead, TakesTheNameUpToTheLastBracket) {
    write("[a]b]\nk=1\n[]\nk=2\n[c] behind\nk=3\n");
    EXPECT_EQ("1", value("a]b", "k"));
    EXPECT_EQ("2", value("", "k"));
    EXPECT_EQ("3", value("c", "k"));
}

TEST_F(SectionRead, AnyLineWithABracketInFrontEndsTheSection) {
    write("[a]\nk=1\n[broken\nl=2\n[b]\nk=3\n [c]\nm=4\n");
    EXPECT_EQ("1", value("a", "k"));
    EXPECT_EQ(NO_KEY, value("a", "l"));
    EXPECT_EQ(NO_SECTION, value("c", "m"));
    EXPECT_EQ("4", value("b", "m"));
    EXPECT_EQ((Texts{"a", "b"}), sections());
}

TEST_F(SectionRead, CommentsAndLinesWithoutSignAreNoPairs) {
    write("lost=1\n# [a]\n[a]\n;k=1\n#k=2\n\nnothing\n=empty key\nk=3\n");
    Hash hash;
    EXPECT_EQ(1, QLIBCFileGetSection(path(), "a", &hash));
    EXPECT_EQ("3", hash.at("k"));
    EXPECT_EQ((Texts{"a"}), sections());
}

TEST_F(SectionRead, TheLastLineNeedsNoLineFeed) {
    write("[a]\nk=v");
    EXPECT_EQ("v", value("a", "k"));
    write("[a]\nk=v\n[b]");
    EXPECT_EQ((Texts{"a", "b"}), sections());
    EXPECT_EQ(NO_KEY, value("b", "k"));
}

TEST_F(SectionRead, ALineEndsAtANulByte) {
    write("[a]\nk=v\0hidden\nx\0=1\n[b\0]\nl=1\n"s);
    Hash hash;
    EXPECT_EQ(1, QLIBCFileGetSection(path(), "a", &hash));
    EXPECT_EQ("v", hash.at("k"));
    EXPECT_EQ("v", value("a", "k"));
    EXPECT_EQ((Texts{"a"}), sections());
}

TEST_F(SectionRead, TakesLinesOfAnyLength) {
    const std::string longName(200000, 'n');
    const std::string longValue(3000000, 'v');
    write("[" + longName + "]\nk=" + longValue + "\n[b]\nk=short\n");
    Hash hash;
    EXPECT_EQ(1, QLIBCFileGetSection(path(), longName.c_str(), &hash));
    EXPECT_EQ(longValue, hash.at("k"));
    EXPECT_EQ("short", value("b", "k"));
    EXPECT_EQ((Texts{longName, "b"}), sections());
}

TEST_F(SectionRead, FindsSectionsAcrossItsBuffers) {
    std::string text;
    for (int i = 0; i < 5000; ++i) {
        text += "[section " + std::to_string(i) + "]\nkey=" + std::to_string(i) + "\n" +
                std::string(static_cast<size_t>(i % 97), '#') + "\n";
    }
    write(text);
    for (int i = 0; i < 5000; i += 7) {
        ASSERT_EQ(std::to_string(i), value("section " + std::to_string(i), "key"));
    }
    EXPECT_EQ(NO_SECTION, value("section 5000", "key"));
    EXPECT_EQ(5000U, sections().size());
}

TEST_F(SectionRead, AnEmptyFileHasNoSections) {
    write("");
    EXPECT_EQ(Texts{}, sections());
    EXPECT_EQ(NO_SECTION, value("a", "k"));
}

TEST_F(SectionRead, SeesEachStateOfAFileThatIsReplaced) {
    // Of the same size throughout, and often within one tick of the clock that stamps files.
    for (int i = 100; i < 400; ++i) {
        const std::string other = m_path + ".new";
        const std::string text = "[a]\nk=" + std::to_string(i) + "\n[b]\nk=" + std::to_string(i) + "\n";
        ASSERT_TRUE(testkit::writeFile(other, text));
        ASSERT_EQ(0, rename(other.c_str(), path()));
        for (int nRound = 0; nRound < 3; ++nRound) {
            ASSERT_EQ(std::to_string(i), value("a", "k"));
            ASSERT_EQ(std::to_string(i), value("b", "k"));
        }
    }
}

TEST_F(SectionRead, SeesEachStateOfAFileThatIsWrittenInPlace) {
    for (int i = 100; i < 400; ++i) {
        write(i % 2 == 0 ? "[a]\nk=" + std::to_string(i) + "\n[b]\nx=1\n"
                         : "[b]\nx=1\n[a]\nk=" + std::to_string(i) + "\n");
        ASSERT_EQ(std::to_string(i), value("a", "k"));
        ASSERT_EQ("1", value("b", "x"));
        ASSERT_EQ(std::to_string(i), value("a", "k"));
    }
}

TEST_F(SectionRead, SeesAChangeOfASettledFile) {
    write("[a]\nk=1\n[b]\nk=2\n");
    const timespec rgLongAgo[2] = {{1000000000, 0}, {1000000000, 0}};
    usleep(120000); // so that the file has settled: now readers may keep what they know of it
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ("1", value("a", "k"));
        ASSERT_EQ("2", value("b", "k"));
        ASSERT_EQ(NO_SECTION, value("c", "k"));
    }
    // Same size, same inode; even the time of modification is set back to what it was.
    struct stat before;
    ASSERT_EQ(0, stat(path(), &before));
    write("[a]\nk=3\n[c]\nk=4\n");
    const timespec rgTimes[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(0, utimensat(AT_FDCWD, path(), rgTimes, 0));
    EXPECT_EQ("3", value("a", "k"));
    EXPECT_EQ("4", value("c", "k"));
    EXPECT_EQ(NO_SECTION, value("b", "k"));
    ASSERT_EQ(0, utimensat(AT_FDCWD, path(), rgLongAgo, 0));
    EXPECT_EQ("3", value("a", "k"));
    ASSERT_EQ(0, unlink(path()));
    EXPECT_EQ(NO_FILE, value("a", "k"));
}

TEST_F(SectionRead, KeepsFilesApart) {
    const std::string other = m_path + ".other";
    write("[a]\nk=1\n");
    ASSERT_TRUE(testkit::writeFile(other, "[a]\nk=2\n"));
    usleep(120000);
    char rgBuf[16];
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ("1", value("a", "k"));
        ASSERT_EQ("1", value("a", "k"));
        ASSERT_EQ(0, QLIBCFileGetSectionValue(other.c_str(), "a", "k", rgBuf, sizeof(rgBuf)));
        ASSERT_STREQ("2", rgBuf);
        ASSERT_EQ(0, QLIBCFileGetSectionValue(other.c_str(), "a", "k", rgBuf, sizeof(rgBuf)));
        ASSERT_STREQ("2", rgBuf);
    }
}

TEST_F(SectionRead, ReadsOnlyTheSectionOfAFileThatHasSettled) {
    std::string text;
    for (int i = 0; i < 1000; ++i) {
        text += "[s" + std::to_string(i) + "]\nhide=false\nfill=" + std::string(30000, 'x') + "\n";
    }
    write(text);
    usleep(120000);
    const auto bytesRead = [] {
        const std::string io = testkit::readFile("/proc/self/io");
        const size_t nBegin = io.find("rchar: ");
        return nBegin == std::string::npos ? -1LL : std::stoll(io.substr(nBegin + 7));
    };
    const long long before = bytesRead();
    if (before < 0) {
        GTEST_SKIP() << "/proc/self/io isn't there";
    }
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ("false", value("s" + std::to_string(i), "hide"));
    }
    // Once to look, once for the index, and each section once: far from a thousand times 30 MB.
    EXPECT_LT(bytesRead() - before, 150000000LL);
}

TEST_F(SectionRead, ThreadsReadFilesOfTheirOwn) {
    std::vector<std::thread> threads;
    for (int nThread = 0; nThread < 4; ++nThread) {
        threads.emplace_back([this, nThread] {
            const std::string file = m_path + std::to_string(nThread);
            const std::string text = "[a]\nk=" + std::to_string(nThread) + "\n";
            EXPECT_TRUE(testkit::writeFile(file, text));
            for (int i = 0; i < 500; ++i) {
                char rgBuf[16] = "";
                EXPECT_EQ(0, QLIBCFileGetSectionValue(file.c_str(), "a", "k", rgBuf, sizeof(rgBuf)));
                EXPECT_EQ(std::to_string(nThread), rgBuf);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

TEST_F(SectionRead, FollowsNoLinkAndReadsNothingButFiles) {
    const std::string real = m_path + ".real";
    ASSERT_TRUE(testkit::writeFile(real, "[a]\nk=v\n"));
    ASSERT_EQ(0, symlink(real.c_str(), path()));
    EXPECT_EQ(NO_FILE, value("a", "k"));
    EXPECT_EQ(ELOOP, errno);
    ASSERT_EQ(0, unlink(path()));
    ASSERT_EQ(0, mkdir(path(), 0755));
    EXPECT_EQ(NO_FILE, value("a", "k"));
    ASSERT_EQ(0, rmdir(path()));
    ASSERT_EQ(0, mkfifo(path(), 0600)); // nobody writes to it: whoever opened it plainly would wait for ever
    EXPECT_EQ(NO_FILE, value("a", "k"));
    Hash hash;
    List list;
    EXPECT_EQ(-1, QLIBCFileGetSection(path(), "a", &hash));
    EXPECT_EQ(-1, QLIBCFileEnumSection(path(), &list));
}

TEST_F(SectionRead, LeavesNoDescriptorOpen) {
    write("[a]\nk=v\n");
    const int fdBefore = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, close(fdBefore));
    Hash hash;
    List list;
    char rgBuf[16];
    for (const char *szSection : {"a", "absent"}) {
        (void)QLIBCFileGetSection(path(), szSection, &hash);
        (void)QLIBCFileGetSectionValue(path(), szSection, "k", rgBuf, sizeof(rgBuf));
        (void)QLIBCFileEnumSection(path(), &list);
        (void)QLIBCFileGetKeyValue(path(), "k", rgBuf, sizeof(rgBuf), 0);
    }
    const int fdAfter = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(fdBefore, fdAfter);
    ASSERT_EQ(0, close(fdAfter));
}

TEST_F(SectionRead, RefusesNullArguments) {
    Hash hash;
    List list;
    char rgBuf[8];
    EXPECT_EQ(-1, QLIBCFileGetSection(nullptr, "a", &hash));
    EXPECT_EQ(-1, QLIBCFileGetSection(path(), nullptr, &hash));
    EXPECT_EQ(-1, QLIBCFileGetSection(path(), "a", nullptr));
    EXPECT_EQ(-1, QLIBCFileGetSectionValue(path(), "a", nullptr, rgBuf, sizeof(rgBuf)));
    EXPECT_EQ(-1, QLIBCFileGetSectionValue(path(), "a", "k", nullptr, 8));
    EXPECT_EQ(-1, QLIBCFileEnumSection(path(), nullptr));
    EXPECT_EQ(-1, QLIBCFileGetKeyValue(path(), nullptr, rgBuf, sizeof(rgBuf), 0));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
}

TEST_F(SectionRead, FlatFilesAreTrimmed) {
    write("# max=1\n  max = \"42\" \nname='a b'\nempty=\nodd=\"\n \"quoted\" = x\n[max]\n\tlast\t=1\r\nlast=2");
    char rgBuf[64];
    const auto get = [&](const char *szKey) {
        const int nResult = QLIBCFileGetKeyValue(path(), szKey, rgBuf, sizeof(rgBuf), 0);
        return nResult == 1 ? std::string(rgBuf) : "result " + std::to_string(nResult);
    };
    EXPECT_EQ("42", get("max"));
    EXPECT_EQ("a b", get("name"));
    EXPECT_EQ("", get("empty"));
    EXPECT_EQ("\"", get("odd"));
    EXPECT_EQ("x", get("quoted"));
    EXPECT_EQ("2", get("last"));
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ("result 0", get("absent"));
    EXPECT_EQ(0x2000U, QLIBCErrGet());
    char rgSmall[2];
    EXPECT_EQ(1, QLIBCFileGetKeyValue(path(), "max", rgSmall, sizeof(rgSmall), 0));
    EXPECT_STREQ("4", rgSmall);
}

TEST_F(SectionRead, FlatFilesThatCantBeReadFail) {
    char rgBuf[64];
    EXPECT_EQ(-1, QLIBCFileGetKeyValue(path(), "k", rgBuf, sizeof(rgBuf), 0));
    EXPECT_EQ(0x0900U, QLIBCErrGet());
    ASSERT_EQ(0, mkdir(path(), 0755));
    EXPECT_EQ(-1, QLIBCFileGetKeyValue(path(), "k", rgBuf, sizeof(rgBuf), 0));
    // The administrator may keep a flat file elsewhere.
    const std::string link = m_path + ".link";
    const std::string real = m_path + ".real";
    ASSERT_TRUE(testkit::writeFile(real, "k=v\n"));
    ASSERT_EQ(0, symlink(real.c_str(), link.c_str()));
    EXPECT_EQ(1, QLIBCFileGetKeyValue(link.c_str(), "k", rgBuf, sizeof(rgBuf), 0));
    EXPECT_STREQ("v", rgBuf);
}

TEST(SectionLine, AHeaderHasItsBracketsInPlace) {
    const auto isSection = [](const std::string &line) { return QLIBCIFileIsSection(line.data(), line.size()); };
    EXPECT_EQ(1, isSection("[a]\n"));
    EXPECT_EQ(1, isSection("[a]"));
    EXPECT_EQ(1, isSection("[]\n"));
    EXPECT_EQ(1, isSection("[a] x\r\n"));
    EXPECT_EQ(0, isSection(" [a]\n"));
    EXPECT_EQ(0, isSection("[a\n"));
    EXPECT_EQ(0, isSection("a]\n"));
    EXPECT_EQ(0, isSection("]["));
    EXPECT_EQ(0, isSection(""));
    EXPECT_EQ(0, isSection("[a\0]\n"s));
    EXPECT_EQ(0, QLIBCIFileIsSection("[a]\n", 2)); // the bracket lies behind the line
    EXPECT_EQ(0, QLIBCIFileIsSection(nullptr, 4));
}

TEST(SectionLine, MatchesTheWholeName) {
    const std::string line = "[GMT+08-2024.01.02-03.04.05]\n";
    EXPECT_EQ(1, QLIBCIFileMatchSection(line.data(), line.size(), "GMT+08-2024.01.02-03.04.05"));
    EXPECT_EQ(0, QLIBCIFileMatchSection(line.data(), line.size(), "GMT+08-2024.01.02-03.04.0"));
    EXPECT_EQ(0, QLIBCIFileMatchSection(line.data(), line.size(), "GMT+08-2024.01.02-03.04.055"));
    EXPECT_EQ(0, QLIBCIFileMatchSection(line.data(), line.size(), nullptr));
    EXPECT_EQ(0, QLIBCIFileMatchSection("k=v\n", 4, "k=v"));
}

TEST(SectionLine, CopiesTheNameWhenThereIsRoom) {
    char rgBuf[5] = "....";
    EXPECT_EQ(0, QLIBCFileParseSectionName("[abcd]\n", rgBuf, sizeof(rgBuf)));
    EXPECT_STREQ("abcd", rgBuf);
    EXPECT_EQ(-1, QLIBCFileParseSectionName("[abcde]\n", rgBuf, sizeof(rgBuf)));
    EXPECT_STREQ("abcd", rgBuf);
    EXPECT_EQ(-1, QLIBCFileParseSectionName("abc\n", rgBuf, sizeof(rgBuf)));
    EXPECT_EQ(-1, QLIBCFileParseSectionName("[a]", rgBuf, 0));
    EXPECT_EQ(-1, QLIBCFileParseSectionName(nullptr, rgBuf, sizeof(rgBuf)));
    EXPECT_EQ(0, QLIBCFileParseSectionName("[a]b]\r\n", rgBuf, sizeof(rgBuf)));
    EXPECT_STREQ("a]b", rgBuf);
}

TEST(SectionLine, SplitsAtTheFirstSign) {
    List list;
    EXPECT_EQ(0, QLIBCStrSepPair("key=a=b\n", &list));
    EXPECT_EQ(0, QLIBCStrSepPair("empty=\n", &list));
    EXPECT_EQ(0, QLIBCStrSepPair(" k = v \r\n", &list));
    EXPECT_EQ((Texts{"key", "a=b", "empty", "", " k ", " v \r"}), list.items());
    const std::string longKey(5000, 'k');
    EXPECT_EQ(0, QLIBCStrSepPair((longKey + "=" + longKey).c_str(), &list));
    EXPECT_EQ(longKey, QLIBCSzListGet(list.get(), 6));
    EXPECT_EQ(longKey, QLIBCSzListGet(list.get(), 7));
}

TEST(SectionLine, WhatIsNoPairPushesNothing) {
    List list;
    for (const char *szLine : {"", "\n", "nothing\n", "=v\n", "#k=v\n", ";k=v\n", "[k=v\n", "k\n=v"}) {
        EXPECT_EQ(-1, QLIBCStrSepPair(szLine, &list)) << szLine;
    }
    EXPECT_EQ(-1, QLIBCStrSepPair(nullptr, &list));
    EXPECT_EQ(0, list.get()->nItem);
}
