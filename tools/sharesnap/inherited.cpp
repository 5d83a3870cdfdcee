#include "inherited.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace command {
namespace {

// Opened the wrong way round: reading or writing fails as on a closed stream, so that output doesn't get lost unseen.
void occupy(int fd) {
    if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) {
        return;
    }
    // The lowest free number is this one, since those below are occupied.
    if (open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) != fd) {
        std::_Exit(1); // nothing can be said
    }
}

} // namespace

void mendInheritedState() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        occupy(fd);
    }
    // How a child ended could not be asked for otherwise.
    (void)std::signal(SIGCHLD, SIG_DFL); // it can't fail for this signal
}

} // namespace command
