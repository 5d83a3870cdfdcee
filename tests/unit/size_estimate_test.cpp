// Estimates by the file system's tool, stored sizes, and their failures.
#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/error.h>

#include <algorithm>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
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

using Texts = std::vector<std::string>;

class SnapSize : public testkit::SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        QLIBCErrSetEx(0, "", 0);
    }

    void TearDown() override {
        QLIBCSzListFree(paths_);
        QLIBCSzListFree(sources_);
    }

    void push(QLIBCSZLIST **list, const std::string &text) { ASSERT_GT(QLIBCSzListPush(list, text.c_str()), 0); }

    int estimate(const std::string &output) {
        output_ = output;
        push(&paths_, "/vol1/@sharesnap/docs/a");
        return QOVAShareSnapCalculateTotalSize(paths_, nullptr, nullptr, &size_, nullptr);
    }

    QLIBCSZLIST *paths_ = QLIBCSzListAlloc(512);
    QLIBCSZLIST *sources_ = QLIBCSzListAlloc(512);
    uint64_t size_ = 77;
    std::string output_;
    Texts command_;
    int closed_ = 0;
    int status_ = 0;
    bool starts_ = true;

    testkit::Replacement<FILE *(const char *, const char *, char *const *)> open_{
        "QLIBCPopenv", [this](const char *program, const char *mode, char *const *arguments) -> FILE * {
            if (!starts_) {
                QLIBCErrSetEx(0x2A00, "process.cpp", 9);
                return nullptr;
            }
            EXPECT_STREQ("/sbin/btrfs", program);
            EXPECT_STREQ("r", mode);
            command_.clear();
            for (; *arguments != nullptr; ++arguments) {
                command_.emplace_back(*arguments);
            }
            FILE *stream = std::tmpfile();
            EXPECT_EQ(output_.size(), std::fwrite(output_.data(), 1, output_.size(), stream));
            std::rewind(stream);
            return stream;
        }};
    testkit::Replacement<int(FILE *)> close_{"QLIBCPclose", [this](FILE *stream) {
                                                 ++closed_;
                                                 (void)std::fclose(stream);
                                                 return status_;
                                             }};
};

TEST_F(SnapSize, IsTheToolsNumber) {
    EXPECT_EQ(0, estimate("At subvol a\nAbout:18446744073709551615\n"));
    EXPECT_EQ(18446744073709551615ULL, size_);
    EXPECT_EQ((Texts{"/sbin/btrfs", "send", "-es", "/vol1/@sharesnap/docs/a"}), command_);
    EXPECT_EQ(1, closed_);
}

TEST_F(SnapSize, LastOfTwoNumbersCounts) {
    EXPECT_EQ(0, estimate("About:10\nAbout:20\n"));
    EXPECT_EQ(20U, size_);
}

TEST_F(SnapSize, ExitStatusOfTheToolIsNotRead) {
    status_ = 1;
    EXPECT_EQ(0, estimate("About:10\n"));
}

TEST_F(SnapSize, OutputWithoutANumberFailsWithoutACode) {
    for (const char *output : {"", "About\n", "about:10\n", " About:10\n", "About:many\n", "Total:10\n"}) {
        EXPECT_EQ(-1, estimate(output)) << output;
        EXPECT_EQ(0U, QLIBCErrGet()) << output;
        EXPECT_EQ(77U, size_) << output;
    }
    EXPECT_EQ(6, closed_);
}

TEST_F(SnapSize, LongLinesAreTriedInPieces) {
    EXPECT_EQ(0, estimate(std::string(1023, 'x') + "About:30\n"));
    EXPECT_EQ(30U, size_);
}

TEST_F(SnapSize, ArgumentsComeInTheToolsOrder) {
    push(&paths_, "/s/one");
    push(&paths_, "/s/two");
    push(&sources_, "/c/one");
    push(&sources_, "/c/two");
    output_ = "About:1\n";
    EXPECT_EQ(0, QOVAShareSnapCalculateTotalSize(paths_, sources_, "/s/parent", &size_, nullptr));
    EXPECT_EQ(
        (Texts{"/sbin/btrfs", "send", "-es", "-p", "/s/parent", "-c", "/c/one", "-c", "/c/two", "/s/one", "/s/two"}),
        command_);
}

TEST_F(SnapSize, NoCloneSourceAndAnEmptyListAreTheSame) {
    push(&paths_, "/s/one");
    output_ = "About:1\n";
    EXPECT_EQ(0, QOVAShareSnapCalculateTotalSize(paths_, sources_, nullptr, &size_, nullptr));
    const Texts withEmpty = command_;
    EXPECT_EQ(0, QOVAShareSnapCalculateTotalSize(paths_, nullptr, nullptr, &size_, nullptr));
    EXPECT_EQ(withEmpty, command_);
}

TEST_F(SnapSize, EmptyListRunsNoTool) {
    FILE *stream = nullptr;
    EXPECT_EQ(0, QOVAShareSnapCalculateTotalSize(paths_, nullptr, nullptr, &size_, &stream));
    EXPECT_EQ(77U, size_);
    EXPECT_EQ(nullptr, stream);
    EXPECT_TRUE(command_.empty());
}

TEST_F(SnapSize, StreamIsHandedOverUnread) {
    push(&paths_, "/s/one");
    output_ = "About:1\n";
    FILE *stream = nullptr;
    ASSERT_EQ(0, QOVAShareSnapCalculateTotalSize(paths_, nullptr, nullptr, &size_, &stream));
    ASSERT_NE(nullptr, stream);
    EXPECT_EQ(77U, size_);
    EXPECT_EQ(0, closed_);
    char line[64] = "";
    EXPECT_NE(nullptr, std::fgets(line, sizeof(line), stream));
    EXPECT_STREQ("About:1\n", line);
    (void)std::fclose(stream);
}

TEST_F(SnapSize, MissingArgumentsAreRefused) {
    EXPECT_EQ(-1, QOVAShareSnapCalculateTotalSize(nullptr, nullptr, nullptr, &size_, nullptr));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, QOVAShareSnapCalculateTotalSize(paths_, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != pListSnapPath)=[0]\n"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (NULL != totalSize || NULL != ppFile)=[0]\n"));
}

TEST_F(SnapSize, ToolThatCannotBeStartedIsToldUnderTheFunctionsName) {
    push(&paths_, "/s/one");
    starts_ = false;
    EXPECT_EQ(-1, QOVAShareSnapCalculateTotalSize(paths_, nullptr, nullptr, &size_, nullptr));
    EXPECT_TRUE(testkit::loggedMatch(LOG_ERR,
                                     "^QOVAShareSnapCalculateTotalSize,[0-9]+ Failed to open calculate snapshot "
                                     "size\\[0x2A00 process\\.cpp:9\\]$"));
}

TEST_F(SnapSize, MemoryThatIsNotToBeHadIsTold) {
    if (!canFailMemory()) {
        GTEST_SKIP() << "memory belongs to the sanitizer";
    }
    push(&paths_, "/s/one");
    const testkit::Fault fault("calloc");
    EXPECT_EQ(-1, QOVAShareSnapCalculateTotalSize(paths_, nullptr, nullptr, &size_, nullptr));
    EXPECT_EQ(0x0200U, QLIBCErrGet());
    EXPECT_TRUE(command_.empty());
}

TEST_F(SnapSize, StoredSizeNeedsItsArguments) {
    char text[16] = "/vol1/docs";
    QOVASHARE share = {};
    share.szName = text;
    share.szPath = text;
    EXPECT_EQ(-1, QOVAShareGetSnapSize(nullptr, "a", &size_));
    EXPECT_EQ(-1, QOVAShareGetSnapSize(&share, nullptr, &size_));
    EXPECT_EQ(-1, QOVAShareGetSnapSize(&share, "a", nullptr));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    EXPECT_EQ(77U, size_);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != pShare)=[0]\n"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != szSnapshot)=[0]\n"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (NULL != ullSnapshotSize)=[0]\n"));
}

} // namespace
