// How the command fails: an exit status, what couldn't be done and why, and what to do next.
#pragma once

#include <sharesnap/platform/share.h>

#include <exception>
#include <string>

namespace command {

enum ExitStatus {
    exitDone = 0,
    exitFailed = 1,
    exitUsage = 2,
    exitNotFound = 3,
    exitRefused = 4, // held, forbidden, a limit, no permission, not Btrfs
    exitInPart = 10
};

class Failure : public std::exception {
public:
    Failure(int exitStatus, std::string message, std::string next = "");

    [[nodiscard]] int exitStatus() const { return exitStatus_; }
    [[nodiscard]] const std::string &message() const { return message_; }
    [[nodiscard]] const std::string &next() const { return next_; }
    [[nodiscard]] const char *what() const noexcept override { return message_.c_str(); }

private:
    int exitStatus_;
    std::string message_;
    std::string next_;
};

// What a failed call of the library left behind. It is taken right after the call: the next call changes it.
struct Cause {
    unsigned int code;
    int error; // errno
};

// Empties the error register and errno, so that what is found afterwards belongs to the call that follows.
void forgetCause();
[[nodiscard]] Cause causeNow();

// "SNAP_ERR_BUSY"; a code that has no name gives "code 0x1234".
[[nodiscard]] std::string codeName(unsigned int code);

// The failure for a library call. `what` says what couldn't be done and names share, snapshot and path.
[[nodiscard]] Failure libraryFailure(const std::string &what, const QOVASHARE &share, Cause cause);

// "share "docs" (/vol1/docs)", the way every message names a share.
[[nodiscard]] std::string named(const QOVASHARE &share);

// `text` in quotes, fit for a terminal.
[[nodiscard]] std::string quoted(const std::string &text);

// Writes "sharesnap: ..." to standard error, and what to do next on a line of its own.
void complain(const std::string &message, const std::string &next = "");

// Refuses with exit status 4 unless the caller is root.
void requireRoot(const std::string &what);

} // namespace command
