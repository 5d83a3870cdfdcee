#include "lock_holder.hpp"

#include "files.hpp"
#include "process.hpp"

#include <sharesnap/platform/file_lock.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace testkit {
namespace {

constexpr int secondsToWait = 30; // for a lock that the test expects to be free

[[noreturn]] void hold(const std::string &path, int mode, int orders, int answers) {
    QLIBCFileCloseLock(); // what the test itself holds isn't ours
    int lock = -1;
    const char answer = QLIBCFileLockTimeByFile(path.c_str(), mode, secondsToWait, &lock) != 0 ? '1' : '0';
    if (write(answers, &answer, 1) != 1 || answer != '1') {
        _exit(1);
    }
    int milliseconds = 0;
    ssize_t count = 0;
    while ((count = read(orders, &milliseconds, sizeof(milliseconds))) < 0 && errno == EINTR) {}
    if (count == ssize_t(sizeof(milliseconds)) && milliseconds > 0) {
        usleep(static_cast<useconds_t>(milliseconds) * 1000);
    }
    _exit(QLIBCFileUnlockByFile(lock) != 0 ? 0 : 1);
}

} // namespace

LockHolder::LockHolder(const std::string &path, int mode) {
    int orders[2];
    int answers[2];
    if (!makeDirectories(path.substr(0, path.rfind('/'))) ||
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, orders) != 0) {
        return;
    }
    orders_ = orders[1];
    if (pipe2(answers, O_CLOEXEC) != 0) {
        close(orders[0]);
        return;
    }
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(orders[1]);
        close(answers[0]);
        hold(path, mode, orders[0], answers[1]);
    }
    close(orders[0]);
    close(answers[1]);
    char answer = '0';
    while (pid_ > 0 && read(answers[0], &answer, 1) < 0 && errno == EINTR) {}
    close(answers[0]);
    holds_ = answer == '1';
}

LockHolder::~LockHolder() {
    release();
}

void LockHolder::tell(int milliseconds) {
    if (orders_ >= 0) {
        (void)send(orders_, &milliseconds, sizeof(milliseconds), MSG_NOSIGNAL); // a holder may be gone
        close(orders_);
        orders_ = -1;
    }
}

void LockHolder::release() {
    tell(0);
    if (pid_ > 0) {
        (void)waitForChild(pid_);
        pid_ = -1;
    }
    holds_ = false;
}

void LockHolder::releaseAfter(std::chrono::milliseconds wait) {
    tell(static_cast<int>(wait.count()));
}

} // namespace testkit
