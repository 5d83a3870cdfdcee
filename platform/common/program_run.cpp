#include "common/program_run.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace QovaPlatform {
namespace {

// What the kernel takes for one variable, name, '=' and end included (32 pages).
constexpr size_t variableLimit = 128U * 1024U;
constexpr int programDescriptor = 3;

// Everything that the child needs, made before the fork: the child itself may not allocate.
class Prepared {
public:
    Prepared(const Program &program, const ProgramCall &call)
        : arguments_(call.arguments()), environment_(call.environment()) {
        arguments_.insert(arguments_.begin(), program.path);
        fill(arguments_, &argv);
        fill(environment_, &envp);
        std::array<char, 2> magic = {};
        script = pread(program.file.Get(), magic.data(), magic.size(), 0) == 2 && magic[0] == '#' && magic[1] == '!';
        file = program.file.Get();
    }

    std::vector<char *> argv;
    std::vector<char *> envp;
    bool script = false;
    int file = -1;

private:
    static void fill(std::vector<std::string> &texts, std::vector<char *> *pointers) {
        for (std::string &text : texts) {
            pointers->push_back(text.data());
        }
        pointers->push_back(nullptr);
    }

    std::vector<std::string> arguments_;
    std::vector<std::string> environment_;
};

// No signal reaches a child before it has put away our handlers.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        (void)pthread_sigmask(SIG_SETMASK, &all, &old_); // fails for bad arguments only
    }
    ~SignalsBlocked() { (void)pthread_sigmask(SIG_SETMASK, &old_, nullptr); }
    SignalsBlocked(const SignalsBlocked &) = delete;
    SignalsBlocked &operator=(const SignalsBlocked &) = delete;

private:
    sigset_t old_ = {};
};

// From here to the exec only calls that are allowed between fork and exec of a process with threads.

void resetSignals() {
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number) {
        (void)sigaction(number, &standard, nullptr); // some can't be changed and needn't
    }
    sigset_t none;
    sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
}

bool arrangeDescriptors(int file) {
    // Out of the way of 0 to 3, which may be free in this process.
    const int high = fcntl(file, F_DUPFD, programDescriptor + 1);
    const int null = open("/dev/null", O_RDWR);
    if (high < 0 || null < 0 || dup2(null, 0) < 0 || dup2(null, 1) < 0 || dup2(null, 2) < 0 ||
        dup2(high, programDescriptor) < 0) {
        return false;
    }
    closefrom(programDescriptor + 1);
    return true;
}

[[noreturn]] void executeInChild(const Prepared &prepared) {
    resetSignals();
    umask(022);
    // An interpreter opens its script by the descriptor, so there it has to stay.
    if (chdir("/") == 0 && arrangeDescriptors(prepared.file) &&
        (prepared.script || fcntl(programDescriptor, F_SETFD, FD_CLOEXEC) == 0)) {
        (void)fexecve(programDescriptor, prepared.argv.data(), prepared.envp.data());
    }
    _exit(127);
}

// Where the caller ignores SIGCHLD nothing is told of a child that has ended: then it is what unknown says.
bool waitForSuccess(pid_t pid, bool unknown) {
    int status = 0;
    pid_t ended = 0;
    do {
        ended = waitpid(pid, &status, 0);
    } while (ended < 0 && errno == EINTR);
    return ended == pid ? WIFEXITED(status) && WEXITSTATUS(status) == 0 : unknown;
}

} // namespace

ProgramCall::ProgramCall(std::vector<std::string> arguments) : arguments_(std::move(arguments)) {}

bool ProgramCall::mayBeSet(const std::string &name) {
    static const std::array<const char *, 8> fixed = {"PATH",     "LC_ALL",    "IFS", "ENV",
                                                      "BASH_ENV", "SHELLOPTS", "PS4", "GCONV_PATH"};
    if (name.empty() || name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_") !=
                            std::string::npos) {
        return false;
    }
    return name.compare(0, 3, "LD_") != 0 && std::find(fixed.begin(), fixed.end(), name) == fixed.end();
}

void ProgramCall::store(const std::string &name, std::string value) {
    for (auto &variable : variables_) {
        if (variable.first == name) {
            variable.second = std::move(value);
            return;
        }
    }
    variables_.emplace_back(name, std::move(value));
}

bool ProgramCall::setVariable(const std::string &name, const std::string &value) {
    if (!mayBeSet(name)) {
        return false;
    }
    const size_t room = variableLimit - std::min(variableLimit, name.size() + 2);
    if (value.size() <= room) {
        store(name, value);
        return true;
    }
    const size_t blank = value.rfind(' ', room - 1);
    store(name, value.substr(0, blank == std::string::npos ? room : blank + 1));
    store(name + "_CUT", "1");
    return true;
}

std::vector<std::string> ProgramCall::environment() const {
    std::vector<std::string> environment = {"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                                            "LC_ALL=C"};
    for (const auto &variable : variables_) {
        environment.push_back(variable.first + "=" + variable.second);
    }
    return environment;
}

bool runProgram(const Program &program, const ProgramCall &call) {
    const Prepared prepared(program, call);
    const pid_t starter = getpid();
    pid_t pid = -1;
    {
        const SignalsBlocked blocked;
        pid = fork();
        if (pid == 0) {
            // Asked for too late when the starter is gone by now: then another process is our parent.
            if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != starter) {
                _exit(127);
            }
            executeInChild(prepared);
        }
    }
    return pid > 0 && waitForSuccess(pid, false);
}

bool startProgram(const Program &program, const ProgramCall &call) {
    const Prepared prepared(program, call);
    pid_t pid = -1;
    {
        const SignalsBlocked blocked;
        pid = fork();
        if (pid == 0) {
            // The program itself is a child of this short-lived one, so nobody has to wait for it.
            (void)setsid();
            const pid_t detached = fork();
            if (detached == 0) {
                executeInChild(prepared);
            }
            _exit(detached < 0 ? 1 : 0);
        }
    }
    return pid > 0 && waitForSuccess(pid, true);
}

} // namespace QovaPlatform
