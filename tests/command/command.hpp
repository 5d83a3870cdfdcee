// Runs the built command from a test, as an administrator would.
#pragma once

#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/process.hpp"
#include "support/sandbox.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace commandtest {

enum ExitStatus { done = 0, failed = 1, usage = 2, notFound = 3, refused = 4, inPart = 10 };

using Arguments = std::vector<std::string>;

inline testkit::ProcessResult sharesnap(const Arguments &arguments) {
    Arguments whole = {SHARESNAP_COMMAND};
    whole.insert(whole.end(), arguments.begin(), arguments.end());
    return testkit::runProcessApart(whole);
}

inline std::string told(const testkit::ProcessResult &result) {
    return "exit " + std::to_string(result.exitStatus) + "\nout: " + result.output + "\nerr: " + result.errors;
}

// The command ended with that status, and said so: data on success alone, a message whenever it failed.
inline testing::AssertionResult ends(const testkit::ProcessResult &result, int status) {
    if (result.exitStatus != status) {
        return testing::AssertionFailure() << "wanted exit " << status << ", got " << told(result);
    }
    if (status != done && result.errors.compare(0, 11, "sharesnap: ") != 0) {
        return testing::AssertionFailure() << "no message: " << told(result);
    }
    return testing::AssertionSuccess();
}

// The message has all these parts.
inline testing::AssertionResult says(const testkit::ProcessResult &result, const std::vector<std::string> &parts) {
    for (const std::string &part : parts) {
        if (result.errors.find(part) == std::string::npos) {
            return testing::AssertionFailure() << "no \"" << part << "\" in the message: " << told(result);
        }
    }
    return testing::AssertionSuccess();
}

// Runs it with --json and gives the document; null when it failed or printed no JSON.
inline nlohmann::json document(Arguments arguments) {
    arguments.emplace_back("--json");
    const testkit::ProcessResult result = sharesnap(arguments);
    nlohmann::json parsed = nlohmann::json::parse(result.output, nullptr, false);
    if (parsed.is_discarded()) {
        ADD_FAILURE() << "no JSON: " << told(result);
        return {};
    }
    return parsed;
}

// Lines of a text without their ends.
inline std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> all;
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        all.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return all;
}

// A volume at /vol1 with the share docs, registered by the command itself.
class CommandTest : public testkit::AnyVolumeTest {
protected:
    void SetUp() override {
        AnyVolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol1/docs"}), done));
    }

    // Takes a snapshot and gives its name.
    static std::string take(const Arguments &options = {}, const std::string &share = "docs") {
        Arguments arguments = {"create", share};
        arguments.insert(arguments.end(), options.begin(), options.end());
        const testkit::ProcessResult result = sharesnap(arguments);
        EXPECT_TRUE(ends(result, done));
        const std::vector<std::string> printed = lines(result.output);
        EXPECT_EQ(1U, printed.size()) << told(result);
        return printed.empty() ? "" : printed[0];
    }

    // Names that a listing shows, in its order.
    static std::vector<std::string> listed(const Arguments &options = {}, const std::string &share = "docs") {
        Arguments arguments = {"list", share};
        arguments.insert(arguments.end(), options.begin(), options.end());
        std::vector<std::string> names;
        nlohmann::json listing = document(arguments);
        for (const auto &snapshot : listing["snapshots"]) {
            names.push_back(snapshot["name"]);
        }
        return names;
    }

    static std::string snapshotPath(const std::string &snapshot, const std::string &share = "docs") {
        return "/vol1/@sharesnap/" + share + "/" + snapshot;
    }

    // Writes a share's list of snapshots, so that a test has any names and attributes it wants.
    static void writeList(const std::string &text, const std::string &share = "docs") {
        ASSERT_TRUE(testkit::writeFile("/vol1/@sharesnap/@" + share + ".meta", text));
    }
};

// The same on the real storage core alone.
class CommandOnVolumeTest : public CommandTest {
protected:
    void SetUp() override {
        if (testkit::Sandbox::simulated()) {
            GTEST_SKIP() << "needs the real storage core";
        }
        CommandTest::SetUp();
    }
};

} // namespace commandtest
