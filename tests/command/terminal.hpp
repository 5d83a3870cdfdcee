// A command with a terminal of its own: what a person at it would see, and what the person types.
#pragma once

#include "command.hpp"
#include "support/argument_vector.hpp"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace commandtest {

class Terminal {
public:
    // Starts the command with these arguments; it finds the terminal at its input, its output and its messages.
    explicit Terminal(const Arguments &arguments) {
        own_ = openTerminal();
        if (own_ < 0 || unlockpt(own_) != 0) {
            return;
        }
        // Asked for by the terminal itself: the names below /dev/pts may be another place's here.
        const int other = ioctl(own_, TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (other < 0 || !makePlain(other)) {
            return;
        }
        testkit::ArgumentVector argv(SHARESNAP_COMMAND, arguments);
        child_ = fork();
        if (child_ == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
                if (dup2(other, stream) < 0) {
                    _exit(98);
                }
            }
            (void)execv(SHARESNAP_COMMAND, argv.data());
            _exit(97);
        }
        (void)close(other); // the end of the command is the end of what can be read
    }

    ~Terminal() {
        stop();
        if (own_ >= 0) {
            (void)close(own_);
        }
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    [[nodiscard]] bool runs() const { return child_ > 0; }

    // True when the text has come; false when the command ended, or four minutes passed, without it.
    [[nodiscard]] bool shows(const std::string &text) {
        while (all_.find(text) == std::string::npos) {
            if (!readMore()) {
                return false;
            }
        }
        return true;
    }

    void type(const std::string &text) {
        EXPECT_EQ(static_cast<ssize_t>(text.size()), write(own_, text.data(), text.size()));
    }

    // The end of input, as Ctrl-D at the beginning of a line tells it.
    void typeEnd() { type("\x04"); }

    // Waits for the command's end and gives its exit status; -1 when it was killed, or had to be after that time.
    [[nodiscard]] int exitStatus() {
        while (readMore()) {}
        const int status = stop();
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // Everything that was written, with what was wiped off again.
    [[nodiscard]] const std::string &written() const { return all_; }

    // The lines as they stand on the screen in the end.
    [[nodiscard]] std::vector<std::string> screen() const {
        const std::string wipe = "\r\033[K";
        std::vector<std::string> shown = {""};
        for (size_t at = 0; at < all_.size();) {
            if (all_.compare(at, wipe.size(), wipe) == 0) {
                shown.back().clear();
                at += wipe.size();
            } else if (all_[at++] == '\n') {
                shown.emplace_back();
            } else {
                shown.back() += all_[at - 1];
            }
        }
        return shown;
    }

private:
    // A container's /dev may lack terminals: then they come from a place of the sandbox's own.
    static int openTerminal() {
        constexpr int flags = O_RDWR | O_NOCTTY | O_CLOEXEC;
        const int terminal = posix_openpt(flags);
        if (terminal >= 0) {
            return terminal;
        }
        const std::string place = testkit::Sandbox::scratch() + "/terminals";
        if (mkdir(place.c_str(), 0755) == 0 &&
            mount("sandbox", place.c_str(), "devpts", 0, "newinstance,ptmxmode=0600") != 0) {
            return -1;
        }
        return open((place + "/ptmx").c_str(), flags);
    }

    // Neither echoes nor changes anything, but still takes lines from the keyboard.
    static bool makePlain(int terminal) {
        termios settings = {};
        if (tcgetattr(terminal, &settings) != 0) {
            return false;
        }
        settings.c_oflag &= ~static_cast<tcflag_t>(OPOST);
        settings.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHOE | ECHOK | ECHONL);
        return tcsetattr(terminal, TCSANOW, &settings) == 0;
    }

    // False when there is nothing more to come.
    bool readMore() {
        const auto rest =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - std::chrono::steady_clock::now());
        pollfd waiting = {own_, POLLIN, 0};
        if (child_ <= 0 || rest.count() <= 0 || poll(&waiting, 1, static_cast<int>(rest.count())) <= 0) {
            return false;
        }
        char piece[4096];
        const ssize_t count = read(own_, piece, sizeof(piece));
        if (count <= 0) {
            ended_ = true; // the other side is closed
            return false;
        }
        all_.append(piece, static_cast<size_t>(count));
        return true;
    }

    int stop() {
        if (child_ <= 0) {
            return -1;
        }
        if (!ended_) {
            (void)kill(child_, SIGKILL);
        }
        const int status = testkit::waitForChild(child_);
        child_ = -1;
        return status;
    }

    std::chrono::steady_clock::time_point deadline_ = std::chrono::steady_clock::now() + std::chrono::minutes(4);
    std::string all_;
    bool ended_ = false;
    int own_ = -1;
    pid_t child_ = -1;
};

} // namespace commandtest
