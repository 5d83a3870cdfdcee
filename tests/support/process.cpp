#include "process.hpp"

#include "files.hpp"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" char **environ;

namespace testkit {
namespace {

// The streams of a child are files in memory: nothing can block, whatever the child prints.
class MemoryFile {
public:
    explicit MemoryFile(const std::string &text = "") : fd_(memfd_create("stream", MFD_CLOEXEC)) {
        if (fd_ < 0 || write(fd_, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
            lseek(fd_, 0, SEEK_SET) != 0) {
            std::perror("a file in memory");
            std::abort();
        }
    }
    MemoryFile(const MemoryFile &) = delete;
    MemoryFile &operator=(const MemoryFile &) = delete;
    ~MemoryFile() { close(fd_); }

    [[nodiscard]] int fd() const { return fd_; }

    [[nodiscard]] std::string text() const {
        std::string all;
        std::array<char, 65536> buffer;
        ssize_t count = 0;
        while ((count = pread(fd_, buffer.data(), buffer.size(), static_cast<off_t>(all.size()))) > 0) {
            all.append(buffer.data(), static_cast<size_t>(count));
        }
        return all;
    }

private:
    int fd_;
};

ProcessResult run(const std::vector<std::string> &command, int input, int output, int errors) {
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string &argument : command) {
        arguments.push_back(const_cast<char *>(argument.c_str()));
    }
    arguments.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errors, STDERR_FILENO);

    ProcessResult result;
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        result.output = command[0] + ": " + std::strerror(error);
        return result;
    }
    const int status = waitForChild(pid);
    if (WIFEXITED(status)) {
        result.exitStatus = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    return result;
}

} // namespace

ProcessResult runProcess(const std::vector<std::string> &command) {
    const MemoryFile input;
    // Both streams share one offset, so that the order is kept and nothing is overwritten.
    const MemoryFile output;
    ProcessResult result = run(command, input.fd(), output.fd(), output.fd());
    result.output += output.text();
    return result;
}

ProcessResult runProcessApart(const std::vector<std::string> &command, const std::string &input) {
    const MemoryFile in(input);
    const MemoryFile output;
    const MemoryFile errors;
    ProcessResult result = run(command, in.fd(), output.fd(), errors.fd());
    result.output += output.text();
    result.errors = errors.text();
    return result;
}

int waitForChild(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return status;
}

} // namespace testkit
