#include "progress.h"

#include <cstdio>
#include <unistd.h>

namespace command {

Progress::Progress() : terminal_(isatty(STDERR_FILENO) != 0) {}

void Progress::show(const std::string &text) {
    if (terminal_) {
        (void)std::fprintf(stderr, "\r\033[K%s", text.c_str()); // decoration: a failure doesn't matter
        (void)std::fflush(stderr);
        shown_ = true;
    }
}

void Progress::clear() {
    if (shown_) {
        (void)std::fputs("\r\033[K", stderr); // decoration
        shown_ = false;
    }
}

} // namespace command
