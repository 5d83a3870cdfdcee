// Hostile texts on their way to plug-ins: they arrive byte by byte, and nothing on the way takes them for more than bytes.
#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/plugin.h>
#include <sharesnap/platform/szlist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <map>
#include <string>

#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"
#include "support/sandbox.hpp"

namespace {

constexpr char kDirectory[] = "/etc/sharesnap/plugins/share_snapshot";

class HostilePlugin : public testkit::SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        // The kernel's record of the variables that the script began with, before its shell looked at any of them.
        const std::string script = "#!/bin/sh\ncat /proc/$$/environ > " + seen() + "\n";
        ASSERT_TRUE(testkit::makeDirectories(kDirectory));
        ASSERT_TRUE(testkit::writeFile(program(), script));
        ASSERT_EQ(0, chmod(program().c_str(), 0755));
    }

    static std::string seen() { return testkit::Sandbox::scratch() + "/seen"; }
    static std::string program() { return std::string(kDirectory) + "/ears"; }

    // Announces with these texts and gives the variables that the plug-in saw.
    std::map<std::string, std::string> announce(std::string name, std::string path, const std::string &snapshot,
                                                const std::string &action) {
        QLIBPLUGIN *plugin = nullptr;
        EXPECT_EQ(0, QOVAShareSnapshotPluginInit(&plugin));
        QOVASHARE share{};
        share.szName = name.data();
        share.szPath = path.data();
        QLIBCSZLIST *list = QLIBCSzListAlloc(512);
        (void)QLIBCSzListPush(&list, snapshot.c_str());
        result_ = QOVAShareSnapshotPluginAction(SNAP_PHASE_PRE, plugin, &share, &share, list, action.c_str(), 0);
        QLIBCSzListFree(list);
        QLIBPluginExit(plugin);
        std::map<std::string, std::string> variables;
        const std::string text = testkit::readFile(seen());
        for (size_t at = 0; at < text.size();) {
            const size_t end = text.find('\0', at);
            const std::string pair = text.substr(at, end - at);
            variables[pair.substr(0, pair.find('='))] = pair.substr(pair.find('=') + 1);
            at = end == std::string::npos ? text.size() : end + 1;
        }
        return variables;
    }

    int result_ = -1;
};

TEST_F(HostilePlugin, ShellCharactersArriveAsTheyAre) {
    const std::string mark = testkit::Sandbox::scratch() + "/run-by-a-shell";
    for (const std::string &text :
         {"$(touch " + mark + ")", "`touch " + mark + "`", "; touch " + mark + " #", "a && touch " + mark,
          "| touch " + mark, "> " + mark, "() { :; }; touch " + mark, std::string("'\"\\\\$IFS*?[a-z]~!{1,2}"),
          std::string("%s%n%x%1$s"), std::string("two\nlines\nLD_PRELOAD=/tmp/x.so"), std::string("=a=b="),
          std::string("-rf /"), std::string("\t \r tabs and blanks \x7f"), std::string("\xff\xfe\xc3\x28 no utf-8")}) {
        const std::map<std::string, std::string> seen = announce(text, "/vol1/" + text, text, "DELETE");
        EXPECT_EQ(0, result_) << text << "\n" << testkit::logText();
        EXPECT_EQ(text, seen.at("SHARE_NAME"));
        EXPECT_EQ("/vol1/" + text, seen.at("SHARE_PATH"));
        EXPECT_EQ(text, seen.at("NEW_SHARE_NAME"));
        EXPECT_EQ(text + " ", seen.at("SNAPSHOT"));
        EXPECT_EQ(0U, seen.count("LD_PRELOAD"));
        EXPECT_FALSE(testkit::exists(mark)) << text;
    }
}

TEST_F(HostilePlugin, EveryByteArrives) {
    std::string all;
    for (int byte = 1; byte < 256; ++byte) {
        all.push_back(static_cast<char>(byte));
    }
    const std::map<std::string, std::string> seen = announce(all, all, "snap", "DELETE");
    EXPECT_EQ(0, result_);
    EXPECT_EQ(all, seen.at("SHARE_NAME"));
    EXPECT_EQ(all, seen.at("SHARE_PATH"));
}

// The caller's own variables stay with the caller.
TEST_F(HostilePlugin, NothingOfTheCallersEnvironmentArrives) {
    ASSERT_EQ(0, setenv("SHARESNAP_HOSTILE", "$(id)", 1));
    ASSERT_EQ(0, setenv("BASH_ENV", "/tmp/hostile", 1));
    const std::map<std::string, std::string> seen = announce("docs", "/vol1/docs", "snap", "DELETE");
    (void)unsetenv("SHARESNAP_HOSTILE");
    (void)unsetenv("BASH_ENV");
    EXPECT_EQ(0, result_);
    EXPECT_EQ(0U, seen.count("SHARESNAP_HOSTILE"));
    EXPECT_EQ(0U, seen.count("BASH_ENV"));
    EXPECT_EQ("C", seen.at("LC_ALL"));
}

TEST_F(HostilePlugin, DirectoryThatUsersCanWriteToRunsNothingForASnapshot) {
    for (const char *directory : {"/etc/sharesnap", "/etc/sharesnap/plugins", kDirectory}) {
        ASSERT_EQ(0, chmod(directory, 0777));
        (void)announce("docs", "/vol1/docs", "snap", "DELETE");
        EXPECT_FALSE(testkit::exists(seen())) << directory;
        ASSERT_EQ(0, chmod(directory, 0755));
    }
    (void)announce("docs", "/vol1/docs", "snap", "DELETE");
    EXPECT_TRUE(testkit::exists(seen()));
}

} // namespace
