// The program that stands in for the Btrfs tool, over a real tool of the test's own making: a script that is mounted in
// the place of the real one.
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/process.hpp"
#include "support/sandbox.hpp"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using testkit::ProcessResult;

namespace {

constexpr const char *REAL = "/usr/bin/btrfs";

std::string number(uint64_t value, size_t bytes) {
    std::string text;
    for (size_t i = 0; i < bytes; ++i) {
        text.push_back(char(value >> (8 * i)));
    }
    return text;
}

std::string attribute(unsigned type, const std::string &value) {
    return number(type, 2) + number(value.size(), 2) + value;
}

std::string record(unsigned command, const std::string &body) {
    return number(body.size(), 4) + number(command, 2) + number(0, 4) + body;
}

std::string header(unsigned version = 1) {
    return std::string("btrfs-stream\0", 13) + number(version, 4);
}

std::string extent(const std::string &path, uint64_t offset, uint64_t size) {
    return record(22, attribute(15, path) + attribute(18, number(offset, 8)) + attribute(4, number(size, 8)));
}

class ToolOverAnother : public testkit::SandboxTest {
protected:
    void SetUp() override {
        testkit::SandboxTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        if (testkit::Sandbox::simulated()) {
            GTEST_SKIP() << "simulated volumes have a Btrfs program of their own";
        }
        if (!testkit::exists(REAL)) {
            GTEST_SKIP() << "there is no " << REAL;
        }
        m_directory = testkit::Sandbox::scratch();
    }

    void TearDown() override {
        if (m_mounted) {
            EXPECT_EQ(0, umount2(REAL, MNT_DETACH));
        }
    }

    // Makes the real tool a script.
    void makeReal(const std::string &script, mode_t mode = 0755) {
        const std::string file = m_directory + "/btrfs";
        if (!m_mounted) {
            ASSERT_TRUE(testkit::writeFile(file, ""));
            ASSERT_EQ(0, mount(file.c_str(), REAL, nullptr, MS_BIND, nullptr));
            m_mounted = true;
        }
        ASSERT_TRUE(testkit::writeFile(file, "#!/bin/sh\n" + script + "\n"));
        ASSERT_EQ(0, chmod(file.c_str(), mode));
    }

    // Makes it a tool that prints a stream.
    void makeSender(const std::string &stream, const std::string &end = "exit 0") {
        ASSERT_TRUE(testkit::writeFile(m_directory + "/stream", stream));
        makeReal("cat '" + m_directory + "/stream'\n" + end);
    }

    static ProcessResult run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), SHARESNAP_BTRFS_TOOL);
        return testkit::runProcessApart(arguments);
    }

    static void expectRefused() {
        const ProcessResult result = run({"send", "-es", "/snap"});
        EXPECT_NE(0, result.exitStatus);
        EXPECT_EQ("", result.output);
    }

    std::string m_directory;
    bool m_mounted = false;
};

TEST_F(ToolOverAnother, PassesArgumentsAsTheyCame) {
    makeReal("echo \"$#\"; for a in \"$@\"; do echo \"<$a>\"; done; exit 7");
    const ProcessResult result = run({"subvolume", "find-new", "a b", "", "*", "$x", "-p"});
    EXPECT_EQ(7, result.exitStatus) << result.errors;
    EXPECT_EQ("7\n<subvolume>\n<find-new>\n<a b>\n<>\n<*>\n<$x>\n<-p>\n", result.output);
    EXPECT_EQ("2\n<send>\n</snap>\n", run({"send", "/snap"}).output);
    EXPECT_EQ("4\n<subvolume>\n<list>\n<-s>\n</vol1>\n", run({"subvolume", "list", "-s", "/vol1"}).output);
    EXPECT_EQ("0\n", run({}).output);
}

TEST_F(ToolOverAnother, AsksForAStreamWithoutData) {
    makeReal("printf '<%s>' \"$@\" >'" + m_directory + "/asked'; exit 1");
    EXPECT_NE(0, run({"send", "-es", "-p", "/a b", "-c", "/c", "/snap 1", "/snap2"}).exitStatus);
    EXPECT_EQ("<send><-q><-e><--no-data><-p></a b><-c></c></snap 1></snap2>",
              testkit::readFile(m_directory + "/asked"));
}

TEST_F(ToolOverAnother, CountsExtentsAsTheWritesTheyStandFor) {
    const std::string frame = header() + record(1, attribute(15, "snap")) + record(21, "");
    const auto expected = [&](uint64_t writes, uint64_t data, size_t path) {
        return "About:" + std::to_string(frame.size() + writes * (10 + 4 + path + 4 + 8 + 4) + data) + "\n";
    };
    const auto estimate = [&](const std::string &records) {
        makeSender(header() + record(1, attribute(15, "snap")) + records + record(21, ""));
        return run({"send", "-es", "/snap"}).output;
    };
    EXPECT_EQ(expected(0, 0, 0), estimate(""));
    EXPECT_EQ(expected(1, 1, 4), estimate(extent("file", 0, 1)));
    EXPECT_EQ(expected(1, 49152, 4), estimate(extent("file", 4096, 49152)));
    EXPECT_EQ(expected(2, 49153, 4), estimate(extent("file", 0, 49153)));
    EXPECT_EQ(expected(3, 49152 + 49153, 4), estimate(extent("file", 0, 49152) + extent("file", 49152, 49153)));
    EXPECT_EQ(expected(100, 100 * 49152, 4000), estimate(extent(std::string(4000, 'p'), 0, 100 * 49152)));
    EXPECT_EQ(expected((uint64_t(1) << 40) / 49152 + 1, uint64_t(1) << 40, 1),
              estimate(extent("f", 0, uint64_t(1) << 40)));
}

TEST_F(ToolOverAnother, RefusesWhatIsNoWholeStream) {
    const std::string good = header() + record(1, attribute(15, "snap")) + extent("file", 0, 10) + record(21, "");
    makeSender(good);
    ASSERT_EQ(0, run({"send", "-es", "/snap"}).exitStatus);
    std::vector<std::string> bad = {"",
                                    "some text that is no stream",
                                    std::string(100000, '\0'),
                                    std::string(100000, '\xFF'),
                                    header(2) + record(21, ""),
                                    header(3),
                                    good.substr(0, 5),
                                    good + "x",
                                    record(1, attribute(15, "snap")),
                                    header() + number(0xFFFFFFFF, 4) + std::string(100, 'x'),
                                    header() + record(22, attribute(15, "file")),
                                    header() + record(22, attribute(4, "12")),
                                    header() + record(22, number(4, 2) + number(200, 2))};
    for (size_t length = 14; length < good.size(); ++length) {
        bad.push_back(good.substr(0, length));
    }
    for (const std::string &stream : bad) {
        makeSender(stream);
        SCOPED_TRACE(testing::PrintToString(stream.substr(0, 60)));
        expectRefused();
    }
}

TEST_F(ToolOverAnother, FailsWithAToolThatFailed) {
    const std::string good = header() + record(1, attribute(15, "snap")) + record(21, "");
    makeSender(good, "exit 1");
    expectRefused();
    makeSender(good, "kill -9 $$");
    expectRefused();
}

TEST_F(ToolOverAnother, FailsWithoutATool) {
    makeReal("exit 0", 0644);
    expectRefused();
    const ProcessResult result = run({"filesystem", "show"});
    EXPECT_EQ(127, result.exitStatus);
    EXPECT_NE(std::string::npos, result.errors.find(REAL));
}

} // namespace
