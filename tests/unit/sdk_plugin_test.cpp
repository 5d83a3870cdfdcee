// Action plug-ins: which programs are run, with what, and who waits for them.
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"
#include "support/sandbox.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <pthread.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/plugin.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const std::string &scratch() {
    return testkit::Sandbox::scratch();
}

bool installAt(const std::string &path, const std::string &script, mode_t mode = 0755) {
    return testkit::makeDirectories(path.substr(0, path.rfind('/'))) &&
           testkit::writeFile(path, "#!/bin/sh\n" + script) && chmod(path.c_str(), mode) == 0;
}

bool install(const std::string &name, const std::string &script, mode_t mode = 0755) {
    return installAt("/etc/sharesnap/plugins/demo/" + name, script, mode);
}

bool installInUsr(const std::string &name, const std::string &script) {
    return installAt("/usr/lib/sharesnap/plugins/demo/" + name, script);
}

// A program that appends a word to the trace.
std::string traceScript(const std::string &word) {
    return "echo " + word + " >>" + scratch() + "/trace\n";
}

std::string trace() {
    return testkit::readFile(scratch() + "/trace");
}

bool appears(const std::string &path) {
    for (int round = 0; round < 3000; ++round) {
        if (testkit::exists(path)) {
            return true;
        }
        (void)usleep(10000);
    }
    return false;
}

// Gone, or a zombie that whoever took it over hasn't fetched yet.
bool ends(const std::string &pid) {
    for (int round = 0; round < 3000; ++round) {
        const std::string status = testkit::readFile("/proc/" + pid + "/stat");
        if (status.empty() || status.find(") Z ") != std::string::npos) {
            return true;
        }
        (void)usleep(10000);
    }
    return false;
}

struct PluginExit {
    void operator()(QLIBPLUGIN *plugin) const { QLIBPluginExit(plugin); }
};
using PluginPointer = std::unique_ptr<QLIBPLUGIN, PluginExit>;

PluginPointer openPlugin(const char *name = "demo") {
    QLIBPLUGIN *plugin = nullptr;
    EXPECT_EQ(0, QLIBPluginSDKInit(name, name, &plugin));
    return PluginPointer(plugin);
}

int hasPrograms() {
    return QLIBPluginHasInit(openPlugin().get());
}

// The environment that a program began with, by the kernel's record of it.
std::vector<std::string> environmentSeen(const std::string &path) {
    std::vector<std::string> variables;
    std::string text = testkit::readFile(path);
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\0', at);
        variables.push_back(text.substr(at, end - at));
        at = end == std::string::npos ? text.size() : end + 1;
    }
    return variables;
}

// What takes another's name when this process is about to fork.
struct Exchange {
    std::string from;
    std::string to;
    bool done;
};
Exchange exchange;

class Plugin : public testkit::SandboxTest {};
class PluginSafety : public testkit::SandboxTest {};

constexpr int pre = QLIB_PLUGIN_PHASE_PRE;
constexpr int post = QLIB_PLUGIN_PHASE_POST;

} // namespace

TEST_F(Plugin, WithoutProgramsThereIsNothingToRun) {
    const PluginPointer plugin = openPlugin();
    ASSERT_NE(nullptr, plugin);
    EXPECT_EQ(0, QLIBPluginHasInit(plugin.get()));
    EXPECT_EQ(0, QLIBPluginAction(pre, plugin.get()));
    EXPECT_EQ(0, QLIBPluginHasInit(nullptr));
}

TEST_F(Plugin, ProgramsRunInTheOrderOfTheirNames) {
    ASSERT_TRUE(install("30-last", traceScript("last")));
    ASSERT_TRUE(install("10-first", traceScript("first")));
    ASSERT_TRUE(installInUsr("20-middle", traceScript("middle")));
    const PluginPointer plugin = openPlugin();
    EXPECT_NE(0, QLIBPluginHasInit(plugin.get()));
    EXPECT_EQ(0, QLIBPluginAction(pre, plugin.get()));
    EXPECT_EQ("first\nmiddle\nlast\n", trace());
}

TEST_F(Plugin, AdministratorsFileHidesThePackagesOne) {
    ASSERT_TRUE(installInUsr("changed", traceScript("package")));
    ASSERT_TRUE(install("changed", traceScript("administrator")));
    ASSERT_TRUE(installInUsr("off", traceScript("off")));
    ASSERT_TRUE(install("off", "", 0644));
    ASSERT_TRUE(installInUsr("linked", traceScript("linked")));
    ASSERT_EQ(0, symlink("/dev/null", "/etc/sharesnap/plugins/demo/linked"));
    const PluginPointer plugin = openPlugin();
    EXPECT_EQ(0, QLIBPluginAction(pre, plugin.get()));
    EXPECT_EQ("administrator\n", trace());
}

TEST_F(Plugin, ProgramsOfAnotherNameAreNotRun) {
    ASSERT_TRUE(install("a", traceScript("demo")));
    ASSERT_TRUE(installAt("/etc/sharesnap/plugins/other/b", traceScript("other")));
    EXPECT_EQ(0, QLIBPluginAction(pre, openPlugin("other").get()));
    EXPECT_EQ("other\n", trace());
}

TEST_F(Plugin, GetsPhaseActionAndVariablesAndNothingElse) {
    const std::string out = scratch() + "/environment";
    ASSERT_TRUE(install("a", "cat /proc/$$/environ >" + out + "\necho \"$#/$1/$2\" >>" + scratch() + "/trace\n"));
    const PluginPointer plugin = openPlugin();
    ASSERT_EQ(0, QLIBPluginSetArg(plugin.get(), "SHARE_NAME", "old"));
    ASSERT_EQ(0, QLIBPluginSetArg(plugin.get(), "SNAPSHOT", "one two "));
    ASSERT_EQ(0, QLIBPluginSetArg(plugin.get(), "SHARE_NAME", "my docs\n$(id)"));
    ASSERT_EQ(0, QLIBPluginSetArgByInt(plugin.get(), "RESULT", -2));
    ASSERT_EQ(0, QLIBPluginSetArg(plugin.get(), "ACTION", "CREATE"));
    ASSERT_EQ(0, QLIBPluginAction(pre, plugin.get()));
    const std::vector<std::string> expected = {"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                                               "LC_ALL=C",
                                               "SHARE_NAME=my docs\n$(id)",
                                               "SNAPSHOT=one two ",
                                               "RESULT=-2",
                                               "ACTION=CREATE"};
    EXPECT_EQ(expected, environmentSeen(out));
    ASSERT_EQ(0, QLIBPluginSetBlocking(plugin.get(), 1));
    ASSERT_EQ(0, QLIBPluginAction(post, plugin.get()));
    EXPECT_EQ("2/pre/CREATE\n2/post/CREATE\n", trace());
}

TEST_F(Plugin, ProgramThatIsNoScriptRuns) {
    ASSERT_TRUE(testkit::makeDirectories("/etc/sharesnap/plugins/demo"));
    for (const char *program : {"true", "false"}) {
        const std::string target = std::string("/etc/sharesnap/plugins/demo/") + program;
        ASSERT_TRUE(testkit::writeFile(target, testkit::readFile(std::string("/bin/") + program)));
        ASSERT_EQ(0, chmod(target.c_str(), 0755));
        EXPECT_EQ(std::string(program) == "true" ? 0 : -1, QLIBPluginAction(pre, openPlugin().get())) << program;
        ASSERT_EQ(0, unlink(target.c_str()));
    }
}

TEST_F(Plugin, VariablesOfAPostActionAreForgottenAfterwards) {
    ASSERT_TRUE(install("a", "echo \"${SHARE_NAME-none}\" >>" + scratch() + "/trace\n"));
    const PluginPointer plugin = openPlugin();
    ASSERT_EQ(0, QLIBPluginSetBlocking(plugin.get(), 1));
    ASSERT_EQ(0, QLIBPluginSetArg(plugin.get(), "SHARE_NAME", "docs"));
    EXPECT_EQ(0, QLIBPluginAction(pre, plugin.get()));
    EXPECT_EQ(0, QLIBPluginAction(post, plugin.get()));
    EXPECT_EQ(0, QLIBPluginAction(post, plugin.get()));
    EXPECT_EQ("docs\ndocs\nnone\n", trace());
}

TEST_F(Plugin, LongValueIsCutBehindABlank) {
    ASSERT_TRUE(install("a", "printf '%s/%s/%s' ${#SNAPSHOT} \"${SNAPSHOT_CUT-none}\" ${#SHARE_NAME} >" + scratch() +
                                 "/trace\n"));
    const PluginPointer plugin = openPlugin();
    std::string names;
    while (names.size() < 200000) {
        names += "GMT-2026.01.02-03.04.05 ";
    }
    ASSERT_EQ(0, QLIBPluginSetArg(plugin.get(), "SNAPSHOT", names.c_str()));
    ASSERT_EQ(0, QLIBPluginSetArg(plugin.get(), "SHARE_NAME", "docs"));
    EXPECT_EQ(0, QLIBPluginAction(pre, plugin.get()));
    EXPECT_EQ(std::to_string((131072 - 10) / 24 * 24) + "/1/4", trace());
}

TEST_F(Plugin, KeysThatSteerLoaderOrShellAreRefused) {
    const PluginPointer plugin = openPlugin();
    for (const char *key :
         {"LD_PRELOAD", "LD_LIBRARY_PATH", "PATH", "LC_ALL", "IFS", "ENV", "BASH_ENV", "", "A B", "A=B", "A\nB"}) {
        QLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(-1, QLIBPluginSetArg(plugin.get(), key, "x")) << key;
        EXPECT_EQ(0x0D00U, QLIBCErrGet()) << key;
    }
    EXPECT_EQ(-1, QLIBPluginSetArgByInt(plugin.get(), "PATH", 1));
}

TEST_F(Plugin, PreIsWaitedFor) {
    ASSERT_TRUE(install("a", "sleep 0.3\n" + traceScript("done")));
    EXPECT_EQ(0, QLIBPluginAction(pre, openPlugin().get()));
    EXPECT_EQ("done\n", trace());
}

TEST_F(Plugin, PostIsWaitedForWhenBlocking) {
    ASSERT_TRUE(install("a", "sleep 0.3\n" + traceScript("done") + "exit 3\n"));
    const PluginPointer plugin = openPlugin();
    ASSERT_EQ(0, QLIBPluginSetBlocking(plugin.get(), 1));
    EXPECT_EQ(-1, QLIBPluginAction(post, plugin.get()));
    EXPECT_EQ("done\n", trace());
}

TEST_F(Plugin, PostIsNotWaitedForOtherwise) {
    const std::string gate = scratch() + "/gate";
    ASSERT_EQ(0, mkfifo(gate.c_str(), 0600));
    ASSERT_TRUE(install("a", "read word <" + gate + "\necho $word >" + scratch() + "/part\nmv " + scratch() + "/part " +
                                 scratch() + "/word\nexit 3\n"));
    const PluginPointer plugin = openPlugin();
    EXPECT_EQ(0, QLIBPluginAction(post, plugin.get())); // returns although the program can't end yet
    EXPECT_FALSE(testkit::exists(scratch() + "/word"));
    ASSERT_TRUE(testkit::writeFile(gate, "through\n"));
    ASSERT_TRUE(appears(scratch() + "/word"));
    EXPECT_EQ("through\n", testkit::readFile(scratch() + "/word"));
}

TEST_F(Plugin, FailingOneGivesMinusOneAndTheOthersRun) {
    ASSERT_TRUE(install("a", traceScript("a")));
    ASSERT_TRUE(install("b", traceScript("b") + "exit 1\n"));
    ASSERT_TRUE(install("c", traceScript("c") + "kill -9 $$\n"));
    ASSERT_TRUE(installAt("/etc/sharesnap/plugins/demo/d", ""));
    ASSERT_TRUE(testkit::writeFile("/etc/sharesnap/plugins/demo/d", "#!/no/such/interpreter\n"));
    ASSERT_TRUE(install("e", traceScript("e")));
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, QLIBPluginAction(pre, openPlugin().get()));
    EXPECT_EQ(0x2A00U, QLIBCErrGet());
    EXPECT_EQ("a\nb\nc\ne\n", trace());
}

TEST_F(Plugin, OutputAndInputAreNowhere) {
    ASSERT_TRUE(install("a", "for n in 0 1 2; do readlink /proc/$$/fd/$n; done >" + scratch() + "/trace\npwd >>" +
                                 scratch() + "/trace\numask >>" + scratch() + "/trace\n"));
    const mode_t before = umask(077);
    EXPECT_EQ(0, QLIBPluginAction(pre, openPlugin().get()));
    (void)umask(before);
    // The loop's own output is a file; so is descriptor 1 while it runs.
    EXPECT_EQ("/dev/null\n" + scratch() + "/trace\n/dev/null\n/\n0022\n", trace());
}

TEST_F(Plugin, InheritsNoDescriptor) {
    const std::string secret = scratch() + "/secret";
    ASSERT_TRUE(testkit::writeFile(secret, "x"));
    const int leak = open(secret.c_str(), O_RDONLY);
    const int high = fcntl(leak, F_DUPFD, 200);
    ASSERT_GE(leak, 0);
    ASSERT_GE(high, 200);
    ASSERT_TRUE(install("a", "ls -l /proc/$$/fd >" + scratch() + "/list\n"));
    EXPECT_EQ(0, QLIBPluginAction(pre, openPlugin().get()));
    (void)close(leak);
    (void)close(high);
    const std::string list = testkit::readFile(scratch() + "/list");
    EXPECT_NE(std::string::npos, list.find("/dev/null"));
    EXPECT_EQ(std::string::npos, list.find("secret")) << list;
    EXPECT_EQ(std::string::npos, list.find(" 200 ")) << list;
}

TEST_F(Plugin, RunsWhenTheStandardDescriptorsAreClosed) {
    ASSERT_TRUE(install("a", "cat && echo out && " + traceScript("ran")));
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        (void)close(0);
        (void)close(1);
        (void)close(2);
        QLIBPLUGIN *plugin = nullptr;
        const bool opened = QLIBPluginSDKInit("demo", "demo", &plugin) == 0;
        _exit(opened && QLIBPluginAction(pre, plugin) == 0 ? 0 : 1);
    }
    EXPECT_EQ(0, testkit::waitForChild(child));
    EXPECT_EQ("ran\n", trace());
}

TEST_F(Plugin, SignalsAreAtTheirDefaults) {
    // Read by the shell itself, which blocks signals while it starts another program.
    ASSERT_TRUE(install("a", "while read key value; do case $key in SigBlk:|SigIgn:) echo $key $value;; esac; done "
                             "</proc/$$/status >" +
                                 scratch() + "/signals\n"));
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        (void)signal(SIGPIPE, SIG_IGN);
        (void)signal(SIGHUP, SIG_IGN);
        sigset_t all;
        sigfillset(&all);
        (void)sigprocmask(SIG_SETMASK, &all, nullptr);
        QLIBPLUGIN *plugin = nullptr;
        const bool opened = QLIBPluginSDKInit("demo", "demo", &plugin) == 0;
        const bool done = opened && QLIBPluginAction(pre, plugin) == 0;
        sigset_t now;
        (void)sigprocmask(SIG_SETMASK, nullptr, &now);
        _exit(done && sigismember(&now, SIGTERM) == 1 && sigismember(&now, SIGUSR1) == 1 ? 0 : 1);
    }
    EXPECT_EQ(0, testkit::waitForChild(child));
    EXPECT_EQ("SigBlk: 0000000000000000\nSigIgn: 0000000000000000\n", testkit::readFile(scratch() + "/signals"));
}

TEST_F(Plugin, ProgramThatIsWaitedForDiesWithItsStarter) {
    const std::string pidFile = scratch() + "/pid";
    ASSERT_TRUE(
        install("a", "echo $$ >" + pidFile + ".part\nmv " + pidFile + ".part " + pidFile + "\nexec sleep 1000\n"));
    const pid_t starter = fork();
    ASSERT_GE(starter, 0);
    if (starter == 0) {
        QLIBPLUGIN *plugin = nullptr;
        const bool opened = QLIBPluginSDKInit("demo", "demo", &plugin) == 0;
        _exit(opened && QLIBPluginAction(pre, plugin) == 0 ? 0 : 1);
    }
    const bool began = appears(pidFile);
    (void)kill(starter, SIGKILL);
    (void)testkit::waitForChild(starter);
    ASSERT_TRUE(began);
    std::string pid = testkit::readFile(pidFile);
    pid.pop_back();
    EXPECT_TRUE(ends(pid));
}

TEST_F(Plugin, ProgramThatIsNotWaitedForOutlivesItsStarter) {
    const std::string gate = scratch() + "/gate";
    ASSERT_EQ(0, mkfifo(gate.c_str(), 0600));
    ASSERT_TRUE(install("a", "read word <" + gate + "\necho $word >" + scratch() + "/part\nmv " + scratch() + "/part " +
                                 scratch() + "/word\n"));
    const pid_t starter = fork();
    ASSERT_GE(starter, 0);
    if (starter == 0) {
        QLIBPLUGIN *plugin = nullptr;
        const bool opened = QLIBPluginSDKInit("demo", "demo", &plugin) == 0;
        _exit(opened && QLIBPluginAction(post, plugin) == 0 ? 0 : 1);
    }
    EXPECT_EQ(0, testkit::waitForChild(starter));
    ASSERT_TRUE(testkit::writeFile(gate, "alive\n"));
    EXPECT_TRUE(appears(scratch() + "/word"));
}

TEST_F(Plugin, HandleHoldsNoDescriptor) {
    ASSERT_TRUE(install("a", "exit 0\n"));
    const size_t before = testkit::directoryNames("/proc/self/fd").size();
    const PluginPointer plugin = openPlugin();
    EXPECT_EQ(before, testkit::directoryNames("/proc/self/fd").size());
    EXPECT_EQ(0, QLIBPluginAction(pre, plugin.get()));
    EXPECT_EQ(before, testkit::directoryNames("/proc/self/fd").size());
}

TEST_F(Plugin, ExitAcceptsNullAndKeepsErrno) {
    errno = ENOTTY;
    QLIBPluginExit(nullptr);
    QLIBPLUGIN *plugin = nullptr;
    ASSERT_EQ(0, QLIBPluginSDKInit("demo", "demo", &plugin));
    errno = ENOSPC;
    QLIBPluginExit(plugin);
    EXPECT_EQ(ENOSPC, errno);
}

TEST_F(Plugin, UnusableArgumentsAreRefused) {
    QLIBPLUGIN *plugin = nullptr;
    for (const char *name : {"", "..", "../demo", "a/b", "a b", "demo."}) {
        EXPECT_EQ(-1, QLIBPluginSDKInit(name, "x", &plugin)) << name;
        EXPECT_EQ(nullptr, plugin);
    }
    EXPECT_EQ(-1, QLIBPluginSDKInit(nullptr, "x", &plugin));
    EXPECT_EQ(-1, QLIBPluginSDKInit("demo", "demo", nullptr));
    EXPECT_EQ(-1, QLIBPluginAction(pre, nullptr));
    EXPECT_EQ(-1, QLIBPluginSetBlocking(nullptr, 1));
    const PluginPointer good = openPlugin();
    EXPECT_EQ(-1, QLIBPluginAction(3, good.get()));
    EXPECT_EQ(-1, QLIBPluginAction(6, good.get()));
    EXPECT_EQ(-1, QLIBPluginSetArg(good.get(), nullptr, "x"));
    EXPECT_EQ(-1, QLIBPluginSetArg(good.get(), "A", nullptr));
    EXPECT_EQ(-1, QLIBPluginSetArgByInt(good.get(), nullptr, 1));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
}

TEST_F(PluginSafety, FilesThatOthersCouldChangeAreNotRun) {
    ASSERT_TRUE(install("group", traceScript("group"), 0775));
    ASSERT_TRUE(install("others", traceScript("others"), 0757));
    EXPECT_EQ(0, hasPrograms());
    EXPECT_EQ(2U, testkit::logCount(LOG_WARNING, "Not run, since others than root could change it: "
                                                 "/etc/sharesnap/plugins/demo/"));
    EXPECT_EQ(0, QLIBPluginAction(pre, openPlugin().get()));
    EXPECT_EQ("", trace());
}

TEST_F(PluginSafety, FilesOfOtherUsersAreNotRun) {
    ASSERT_TRUE(install("foreign", traceScript("foreign")));
    if (chown("/etc/sharesnap/plugins/demo/foreign", 1000, 0) != 0) {
        GTEST_SKIP() << "no other user can be had here";
    }
    EXPECT_EQ(0, hasPrograms());
    EXPECT_EQ(0, QLIBPluginAction(pre, openPlugin().get()));
    EXPECT_EQ("", trace());
}

TEST_F(PluginSafety, DirectoriesThatOthersCouldChangeAreNotRead) {
    ASSERT_TRUE(install("a", traceScript("a")));
    for (const char *directory : {"/etc/sharesnap", "/etc/sharesnap/plugins", "/etc/sharesnap/plugins/demo"}) {
        EXPECT_EQ(1, hasPrograms());
        ASSERT_EQ(0, chmod(directory, 0777));
        EXPECT_EQ(0, hasPrograms()) << directory;
        ASSERT_EQ(0, chmod(directory, 0775));
        EXPECT_EQ(0, hasPrograms()) << directory;
        ASSERT_EQ(0, chmod(directory, 0755));
    }
}

TEST_F(PluginSafety, LinksAreNotFollowed) {
    ASSERT_TRUE(installAt(scratch() + "/elsewhere/program", traceScript("followed")));
    ASSERT_TRUE(testkit::makeDirectories("/etc/sharesnap/plugins/demo"));
    ASSERT_EQ(0, symlink((scratch() + "/elsewhere/program").c_str(), "/etc/sharesnap/plugins/demo/link"));
    ASSERT_EQ(0, symlink((scratch() + "/elsewhere").c_str(), "/etc/sharesnap/plugins/other"));
    EXPECT_EQ(0, hasPrograms());
    EXPECT_EQ(0, QLIBPluginHasInit(openPlugin("other").get()));
}

// Another file takes the name in the last moment in which the program isn't running yet.
TEST_F(PluginSafety, FileExchangedBehindTheCheckIsNotRun) {
    ASSERT_EQ(0, pthread_atfork(
                     [] {
                         if (!exchange.from.empty()) {
                             exchange.done = rename(exchange.from.c_str(), exchange.to.c_str()) == 0;
                             exchange.from.clear();
                         }
                     },
                     nullptr, nullptr));
    for (const int phase : {pre, post}) {
        (void)unlink((scratch() + "/trace").c_str());
        ASSERT_TRUE(install("program", traceScript("checked")));
        ASSERT_TRUE(installAt("/etc/sharesnap/planted", traceScript("planted"), 0777));
        const PluginPointer plugin = openPlugin();
        ASSERT_EQ(0, QLIBPluginSetBlocking(plugin.get(), 1));
        exchange = {"/etc/sharesnap/planted", "/etc/sharesnap/plugins/demo/program", false};
        EXPECT_EQ(0, QLIBPluginAction(phase, plugin.get()));
        EXPECT_TRUE(exchange.done);
        EXPECT_EQ("checked\n", trace());
        // The next start meets the planted one at its check.
        (void)QLIBPluginAction(phase, plugin.get());
        EXPECT_EQ("checked\n", trace());
    }
    exchange = {};
}

TEST_F(PluginSafety, OtherNamesAndKindsAreNotRun) {
    for (const char *name : {".hidden", "backup~", "readme.txt", "a b", "program.dpkg-new"}) {
        ASSERT_TRUE(install(name, traceScript("name")));
    }
    ASSERT_TRUE(install("readme", traceScript("mode"), 0644));
    ASSERT_EQ(0, mkdir("/etc/sharesnap/plugins/demo/directory", 0755));
    ASSERT_EQ(0, mkfifo("/etc/sharesnap/plugins/demo/fifo", 0755));
    EXPECT_EQ(0, hasPrograms());
    EXPECT_EQ(0, QLIBPluginAction(pre, openPlugin().get()));
    EXPECT_EQ("", trace());
    EXPECT_TRUE(testkit::nothingFailed());
}
