// Child programs, and the listing of subvolumes that is taken whole.
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/process.h>

#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/process.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// How often poll, when there is nothing for a moment, or a sleep is to let an hour go; the clock goes on by as much.
std::atomic<int> s_idlePolls{0};
std::atomic<long> s_secondsAhead{0};

constexpr long HOUR = 3600;

std::string readAll(FILE *pStream) {
    std::string text;
    char rgBuf[4096];
    size_t cbRead = 0;
    while ((cbRead = fread(rgBuf, 1, sizeof(rgBuf), pStream)) > 0) {
        text.append(rgBuf, cbRead);
    }
    return text;
}

std::string ownOutputOf(const std::string &program, const std::vector<std::string> &arguments, int nStatus = 0) {
    std::vector<char *> vector{const_cast<char *>(program.c_str())};
    for (const std::string &argument : arguments) {
        vector.push_back(const_cast<char *>(argument.c_str()));
    }
    vector.push_back(nullptr);
    FILE *pStream = QLIBCPopenv(program.c_str(), "r", vector.data());
    if (pStream == nullptr) {
        return "no stream";
    }
    std::string text = readAll(pStream);
    EXPECT_EQ(nStatus, QLIBCPclose(pStream));
    return text;
}

class Process : public testkit::SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        QLIBCErrSetEx(0, "", 0);
    }
};

// Puts a script in the place of the Btrfs tool.
class BtrfsListing : public Process {
protected:
    void TearDown() override {
        s_idlePolls = 0;
        s_secondsAhead = 0;
        if (m_blMounted) {
            EXPECT_EQ(0, umount2(SHARESNAP_BTRFS_TOOL, MNT_DETACH));
        }
    }

    void tool(const std::string &body) {
        const std::string script = testkit::Sandbox::scratch() + "/tool";
        ASSERT_TRUE(testkit::writeFile(script, "#!/bin/sh\n" + body));
        ASSERT_EQ(0, chmod(script.c_str(), 0755));
        if (!m_blMounted) {
            ASSERT_EQ(0, mount(script.c_str(), SHARESNAP_BTRFS_TOOL, "none", MS_BIND, nullptr)) << strerror(errno);
            m_blMounted = true;
        }
    }

    // The listing, or why there is none.
    static std::string listing() {
        QLIBCErrSetEx(0, "", 0);
        errno = 0;
        FILE *pStream =
            QLIBCPopen("/sbin/btrfs", "r", "subvolume", "list", "/vol1", static_cast<const char *>(nullptr));
        if (pStream == nullptr) {
            const unsigned int uCode = QLIBCErrGet();
            EXPECT_NE(0, errno);
            EXPECT_TRUE(uCode != 0 && uCode != 0x2300 && uCode != 0xE700 && uCode != 0x2E00) << uCode;
            return "none";
        }
        std::string text = readAll(pStream);
        EXPECT_EQ(0, QLIBCPclose(pStream));
        return text;
    }

    bool m_blMounted = false;
};

} // namespace

// The program's own definitions serve the libraries, too.
extern "C" int poll(pollfd *pEntries, nfds_t nEntries, int nTimeout) {
    static const auto real = reinterpret_cast<int (*)(pollfd *, nfds_t, int)>(dlsym(RTLD_NEXT, "poll"));
    if (s_idlePolls > 0) {
        const int nReady = real(pEntries, nEntries, 300);
        if (nReady != 0) {
            return nReady;
        }
        --s_idlePolls;
        s_secondsAhead += HOUR;
        return 0;
    }
    return real(pEntries, nEntries, nTimeout);
}

extern "C" int nanosleep(const timespec *pWanted, timespec *pLeft) {
    static const auto real = reinterpret_cast<int (*)(const timespec *, timespec *)>(dlsym(RTLD_NEXT, "nanosleep"));
    if (s_idlePolls > 0) {
        --s_idlePolls;
        s_secondsAhead += HOUR;
        return 0;
    }
    return real(pWanted, pLeft);
}

extern "C" int clock_gettime(clockid_t clock, timespec *pTime) noexcept {
    static const auto real = reinterpret_cast<int (*)(clockid_t, timespec *)>(dlsym(RTLD_NEXT, "clock_gettime"));
    const int nResult = real(clock, pTime);
    if (clock == CLOCK_MONOTONIC) {
        pTime->tv_sec += s_secondsAhead;
    }
    return nResult;
}

TEST_F(Process, GivesTheOutputAndTheExitStatus) {
    FILE *pStream = QLIBCPopen("/bin/sh", "r", "-c", "echo one; echo two; exit 7", static_cast<char *>(nullptr));
    ASSERT_NE(nullptr, pStream);
    EXPECT_NE(0, fcntl(fileno(pStream), F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ("one\ntwo\n", readAll(pStream));
    EXPECT_EQ(7, QLIBCPclose(pStream));
}

TEST_F(Process, PassesArgumentsAsTheyAre) {
    EXPECT_EQ("a b\n$HOME\n*\n'\n\n", ownOutputOf("/usr/bin/printf", {"%s\\n", "a b", "$HOME", "*", "'", ""}));
}

TEST_F(Process, ArgumentZeroIsTheProgramsOrTheVectors) {
    FILE *pStream = QLIBCPopen("/bin/sh", "r", "-c", "echo $0", static_cast<char *>(nullptr));
    ASSERT_NE(nullptr, pStream);
    EXPECT_EQ("/bin/sh\n", readAll(pStream));
    EXPECT_EQ(0, QLIBCPclose(pStream));
    char szName[] = "another name";
    char szOption[] = "-c";
    char szText[] = "echo $0";
    char *const rgszArg[] = {szName, szOption, szText, nullptr};
    pStream = QLIBCPopenv("/bin/sh", "r", rgszArg);
    ASSERT_NE(nullptr, pStream);
    EXPECT_EQ("another name\n", readAll(pStream));
    EXPECT_EQ(0, QLIBCPclose(pStream));
}

TEST_F(Process, TheEnvironmentIsFixed) {
    ASSERT_EQ(0, setenv("LD_PRELOAD_OF_A_USER", "evil", 1));
    ASSERT_EQ(0, setenv("PATH", "/tmp", 1));
    const std::string environment = ownOutputOf("/usr/bin/env", {});
    ASSERT_EQ(0, unsetenv("LD_PRELOAD_OF_A_USER"));
    EXPECT_EQ("PATH=/usr/sbin:/usr/bin:/sbin:/bin\nLC_ALL=C\n", environment);
}

TEST_F(Process, TheChildHasNothingOfOursButItsOutput) {
    const int fdStray = open("/dev/null", O_RDONLY); // not closed on exec
    ASSERT_GE(fdStray, 3);
    const std::string listed = ownOutputOf("/bin/sh", {"-c", "ls -l /proc/$$/fd; exit 0"});
    close(fdStray);
    std::istringstream lines(listed);
    std::string line;
    std::vector<std::string> descriptors;
    while (std::getline(lines, line)) {
        const size_t nArrow = line.find(" -> ");
        if (nArrow != std::string::npos) {
            const size_t nBegin = line.rfind(' ', nArrow - 1) + 1;
            descriptors.push_back(line.substr(nBegin, line.find(':', nArrow) - nBegin));
        }
    }
    EXPECT_EQ((std::vector<std::string>{"0 -> /dev/null", "1 -> pipe", "2 -> /dev/null"}), descriptors) << listed;
}

TEST_F(Process, TheChildHasDefaultSignals) {
    (void)signal(SIGPIPE, SIG_IGN);
    (void)signal(SIGTERM, SIG_IGN);
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigaddset(&blocked, SIGUSR1);
    ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &blocked, &before));
    const std::string status = ownOutputOf("/bin/grep", {"-E", "^Sig(Blk|Ign):", "/proc/self/status"});
    ASSERT_EQ(0, pthread_sigmask(SIG_SETMASK, &before, nullptr));
    (void)signal(SIGPIPE, SIG_DFL);
    (void)signal(SIGTERM, SIG_DFL);
    unsigned long ulBlocked = 1;
    unsigned long ulIgnored = 1;
    ASSERT_EQ(2, sscanf(status.c_str(), "SigBlk:\t%lx\nSigIgn:\t%lx", &ulBlocked, &ulIgnored)) << status;
    EXPECT_EQ(0UL, ulBlocked);
    EXPECT_EQ(0UL, ulIgnored & 0x7fffffffUL); // signals 32 and 33 are the C library's own
}

TEST_F(Process, AProgramThatCantBeStartedGivesNoStream) {
    const std::string text = testkit::Sandbox::scratch() + "/text";
    ASSERT_TRUE(testkit::writeFile(text, "no program"));
    for (const std::string &program : {testkit::Sandbox::scratch() + "/absent", text, testkit::Sandbox::scratch()}) {
        QLIBCErrSetEx(0, "", 0);
        errno = 0;
        EXPECT_EQ(nullptr, QLIBCPopen(program.c_str(), "r", static_cast<char *>(nullptr))) << program;
        EXPECT_NE(0, errno);
        EXPECT_EQ(0x2A00U, QLIBCErrGet());
    }
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)); // no child is left
    EXPECT_EQ(ECHILD, errno);
}

TEST_F(Process, NamesWithoutASlashAreNotLookedUp) {
    EXPECT_EQ(nullptr, QLIBCPopen("true", "r", static_cast<char *>(nullptr)));
}

TEST_F(Process, RefusesBadArguments) {
    char szName[] = "/bin/true";
    char *const rgszArg[] = {szName, nullptr};
    char *const rgszNone[] = {nullptr};
    EXPECT_EQ(nullptr, QLIBCPopenv("/bin/true", "w", rgszArg));
    EXPECT_EQ(nullptr, QLIBCPopenv("/bin/true", nullptr, rgszArg));
    EXPECT_EQ(nullptr, QLIBCPopenv(nullptr, "r", rgszArg));
    EXPECT_EQ(nullptr, QLIBCPopenv("/bin/true", "r", nullptr));
    EXPECT_EQ(nullptr, QLIBCPopenv("/bin/true", "r", rgszNone));
    EXPECT_EQ(nullptr, QLIBCPopen(nullptr, "r", static_cast<char *>(nullptr)));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    EXPECT_EQ(-1, QLIBCExecv("/bin/true", rgszArg, 1));
    EXPECT_EQ(-1, QLIBCExecv(nullptr, rgszArg, 0));
}

TEST_F(Process, CloseKnowsWhichChildBelongsToWhichStream) {
    std::vector<FILE *> streams;
    for (int i = 0; i < 8; ++i) {
        const std::string script = "echo " + std::to_string(i) + "; exit " + std::to_string(i + 10);
        streams.push_back(QLIBCPopen("/bin/sh", "r", "-c", script.c_str(), static_cast<char *>(nullptr)));
        ASSERT_NE(nullptr, streams.back());
    }
    for (const int i : {3, 0, 7, 1, 2, 6, 5, 4}) {
        EXPECT_EQ(std::to_string(i) + "\n", readAll(streams[static_cast<size_t>(i)]));
        EXPECT_EQ(i + 10, QLIBCPclose(streams[static_cast<size_t>(i)]));
    }
}

TEST_F(Process, CloseLeavesForeignStreamsAlone) {
    FILE *pForeign = fopen("/dev/null", "re");
    ASSERT_NE(nullptr, pForeign);
    EXPECT_EQ(-1, QLIBCPclose(pForeign));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    EXPECT_EQ(0, fclose(pForeign));
    EXPECT_EQ(-1, QLIBCPclose(nullptr));
}

TEST_F(Process, CloseTellsOfAChildThatASignalEnded) {
    FILE *pStream = QLIBCPopen("/bin/sh", "r", "-c", "kill -KILL $$", static_cast<char *>(nullptr));
    ASSERT_NE(nullptr, pStream);
    EXPECT_EQ(-1, QLIBCPclose(pStream));
    EXPECT_NE(0U, QLIBCErrGet());
}

TEST_F(Process, AnEarlyCloseEndsAWriter) {
    FILE *pStream = QLIBCPopen("/usr/bin/yes", "r", static_cast<char *>(nullptr));
    ASSERT_NE(nullptr, pStream);
    char rgLine[8];
    EXPECT_NE(nullptr, fgets(rgLine, sizeof(rgLine), pStream));
    EXPECT_EQ(-1, QLIBCPclose(pStream)); // by the broken pipe
}

TEST_F(Process, WorksWithoutStandardDescriptors) {
    const pid_t pid = fork();
    if (pid == 0) {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        _exit(ownOutputOf("/bin/sh", {"-c", "cat; echo text"}) == "text\n" ? 0 : 1);
    }
    EXPECT_EQ(0, testkit::waitForChild(pid));
}

TEST_F(Process, ThreadsRunProgramsSideBySide) {
    std::vector<std::thread> threads;
    for (int nThread = 0; nThread < 4; ++nThread) {
        threads.emplace_back([nThread] {
            for (int i = 0; i < 10; ++i) {
                const std::string number = std::to_string(nThread * 100 + i);
                EXPECT_EQ(number + "\n", ownOutputOf("/bin/echo", {number}));
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

TEST_F(Process, ExecGivesTheExitStatus) {
    const auto run = [](std::vector<std::string> command) {
        std::vector<char *> vector;
        for (std::string &part : command) {
            vector.push_back(part.data());
        }
        vector.push_back(nullptr);
        return QLIBCExecv(command.front().c_str(), vector.data(), 0);
    };
    EXPECT_EQ(0, run({"/bin/true"}));
    EXPECT_EQ(0U, QLIBCErrGet());
    EXPECT_EQ(5, run({"/bin/sh", "-c", "exit 5"}));
    EXPECT_EQ(0x2A00U, QLIBCErrGet());
    EXPECT_EQ(-1, run({"/bin/sh", "-c", "kill -TERM $$"}));
    EXPECT_EQ(-1, run({testkit::Sandbox::scratch() + "/absent"}));
    const std::string tree = testkit::Sandbox::scratch() + "/a/b";
    ASSERT_TRUE(testkit::makeDirectories(tree));
    EXPECT_EQ(0, run({"/bin/rm", "-rf", testkit::Sandbox::scratch() + "/a"}));
    EXPECT_FALSE(testkit::exists(testkit::Sandbox::scratch() + "/a"));
}

TEST_F(BtrfsListing, IsHandedOutWithoutItsMark) {
    tool("echo \"$0 $*\"; echo 'ID 256 gen 7 top level 5 path docs'; echo '# end of list'");
    EXPECT_EQ(std::string(SHARESNAP_BTRFS_TOOL) + " subvolume list /vol1\nID 256 gen 7 top level 5 path docs\n",
              listing());
}

TEST_F(BtrfsListing, AMarkAloneIsAnEmptyVolume) {
    tool("echo '# end of list'");
    EXPECT_EQ("", listing());
}

TEST_F(BtrfsListing, WithoutTheMarkThereIsNone) {
    for (const char *szBody : {"", "exit 0", "echo ID", "printf '# end of list'", "echo x; echo '# end of list '",
                               "echo 'x# end of list'", "echo '# end of list'; echo more", "echo '# end of list'; echo",
                               "printf '# end of lis\\n'", "echo ' # end of list'"}) {
        tool(szBody);
        EXPECT_EQ("none", listing()) << szBody;
    }
}

TEST_F(BtrfsListing, OnlyTheLastMarkIsTakenOff) {
    tool("echo '# end of list'; echo '# end of list'");
    EXPECT_EQ("# end of list\n", listing());
}

TEST_F(BtrfsListing, AFailedToolGivesNone) {
    for (const char *szBody : {"echo ID; echo '# end of list'; exit 1", "echo '# end of list'; kill -KILL $$"}) {
        tool(szBody);
        EXPECT_EQ("none", listing()) << szBody;
    }
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    EXPECT_EQ(ECHILD, errno);
}

TEST_F(BtrfsListing, TakesALongListing) {
    tool("i=0; while [ $i -lt 20000 ]; do echo \"ID $i gen 7 top level 5 path @sharesnap/docs/snapshot-$i\"; "
         "i=$((i+1)); done; echo '# end of list'");
    const std::string text = listing();
    EXPECT_EQ(20000, std::count(text.begin(), text.end(), '\n'));
    EXPECT_EQ(text.size() - 1, text.rfind('\n'));
    EXPECT_EQ(std::string::npos, text.find('#'));
}

TEST_F(BtrfsListing, AToolThatHangsIsKilled) {
    for (const char *szBody :
         {"exec sleep 1000", "echo ID; exec sleep 1000", "echo '# end of list'; exec sleep 1000 >/dev/null"}) {
        tool(szBody);
        s_idlePolls = 1;
        EXPECT_EQ("none", listing()) << szBody;
        s_idlePolls = 0;
        EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
        EXPECT_EQ(ECHILD, errno);
    }
}

TEST_F(BtrfsListing, OtherUsesOfTheToolAreReadAsTheyCome) {
    tool("echo About:42; exit 3");
    FILE *pStream = QLIBCPopen("/sbin/btrfs", "r", "send", "-es", "/vol1/x", static_cast<char *>(nullptr));
    ASSERT_NE(nullptr, pStream);
    EXPECT_EQ("About:42\n", readAll(pStream));
    EXPECT_EQ(3, QLIBCPclose(pStream));
}

TEST_F(BtrfsListing, ClosingALateReadListingGivesItsStatus) {
    tool("echo ID; echo '# end of list'");
    FILE *pStream = QLIBCPopen("/sbin/btrfs", "r", "subvolume", "list", "/vol1", static_cast<char *>(nullptr));
    ASSERT_NE(nullptr, pStream);
    EXPECT_EQ(0, QLIBCPclose(pStream)); // not read at all
}
