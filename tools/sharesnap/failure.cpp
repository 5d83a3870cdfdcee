#include "failure.h"

#include "text.h"

#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/error.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace command {
namespace {

struct Code {
    unsigned int code;
    const char *name;
    int exitStatus;
    const char *meaning;
    const char *next; // %s is the share's name
};

constexpr char logHint[] = "the system log tells more: journalctl -t sharesnap";

constexpr Code codes[] = {
    {SNAP_ERR_OUT_OF_MEMORY, "SNAP_ERR_OUT_OF_MEMORY", exitFailed, "there is no memory left", "try again"},
    {SNAP_ERR_BUSY, "SNAP_ERR_BUSY", exitFailed, "another program holds the lock for too long",
     "try again in a moment"},
    {SNAP_ERR_META_ACCESS, "SNAP_ERR_META_ACCESS", exitFailed, "the share's list of snapshots can't be reached",
     "if it is missing, `sharesnap sync %s` makes it again from the volume"},
    {SNAP_ERR_ALREADY_EXISTS, "SNAP_ERR_ALREADY_EXISTS", exitRefused, "the name is taken", "choose another name"},
    {SNAP_ERR_OPEN_FAILED, "SNAP_ERR_OPEN_FAILED", exitFailed, "a file can't be opened", logHint},
    {SNAP_ERR_READ_FAILED, "SNAP_ERR_READ_FAILED", exitFailed, "the list of snapshots can't be read", logHint},
    {SNAP_ERR_WRITE_FAILED, "SNAP_ERR_WRITE_FAILED", exitFailed, "the list of snapshots can't be written",
     "see to the volume, then run `sharesnap sync %s`"},
    {SNAP_ERR_CREATE_FAILED, "SNAP_ERR_CREATE_FAILED", exitFailed, "a directory or file can't be made", logHint},
    {SNAP_ERR_BAD_PARAMETER, "SNAP_ERR_BAD_PARAMETER", exitFailed, "an argument was refused", logHint},
    {SNAP_ERR_SNAPSHOT_LIMIT, "SNAP_ERR_SNAPSHOT_LIMIT", exitRefused, "the limit of snapshots is reached",
     "delete old ones (sharesnap delete %s --older-than 30d), or raise max_snapshots_per_share in "
     "/etc.defaults/qovainfo.conf"},
    {SNAP_ERR_NO_SUCH_KEY, "SNAP_ERR_NO_SUCH_KEY", exitNotFound, "there is no such key", ""},
    {SNAP_ERR_NO_SUCH_SECTION, "SNAP_ERR_NO_SUCH_SECTION", exitNotFound, "there is no such section",
     "`sharesnap list %s --hidden` shows what there is"},
    {SNAP_ERR_SECTION_EXISTS, "SNAP_ERR_SECTION_EXISTS", exitFailed, "a snapshot of that second exists in the list",
     "try again; if that fails, run `sharesnap sync %s`"},
    {SNAP_ERR_QUOTA_EXCEEDED, "SNAP_ERR_QUOTA_EXCEEDED", exitRefused, "the share's quota is used up",
     "raise the quota of share %s, or free space in it"},
    {SNAP_ERR_RENAME_FAILED, "SNAP_ERR_RENAME_FAILED", exitFailed, "the list of snapshots can't be replaced",
     "see to the volume, then run `sharesnap sync %s`"},
    {SNAP_ERR_NO_SPACE, "SNAP_ERR_NO_SPACE", exitFailed, "the volume is full", "free space on the volume"},
    {SNAP_ERR_OPERATION_FAILED, "SNAP_ERR_OPERATION_FAILED", exitFailed, "a step failed", logHint},
    {SNAP_ERR_TIME_LIMIT, "SNAP_ERR_TIME_LIMIT", exitFailed, "it took too long", "try again"},
    {SNAP_ERR_REMOVE_FAILED, "SNAP_ERR_REMOVE_FAILED", exitFailed, "something can't be removed", logHint},
    {SNAP_ERR_SHARE_FORBIDDEN, "SNAP_ERR_SHARE_FORBIDDEN", exitRefused, "snapshots of this share are forbidden",
     "take sharesnap:forbidden out of the record of share %s"},
    {SNAP_ERR_SYSTEM_SNAPSHOT_LIMIT, "SNAP_ERR_SYSTEM_SNAPSHOT_LIMIT", exitRefused,
     "the system's limit of snapshots is reached",
     "delete old snapshots of any share, or raise max_snapshots_per_system in /etc.defaults/qovainfo.conf"},
    {SNAP_ERR_VOLUME_INFO, "SNAP_ERR_VOLUME_INFO", exitFailed, "the volume can't be read", "see whether it is mounted"},
    {SNAP_ERR_NOT_A_DIRECTORY, "SNAP_ERR_NOT_A_DIRECTORY", exitFailed,
     "something else stands where a directory belongs", logHint},
    {SNAP_ERR_EA_DIR_UNAVAILABLE, "SNAP_ERR_EA_DIR_UNAVAILABLE", exitFailed, "the share's @eaDir can't be used",
     "see what stands at @eaDir in share %s"},
    {SNAP_ERR_META_PATH, "SNAP_ERR_META_PATH", exitFailed, "there is no place for the list of snapshots", logHint},
    {SNAP_ERR_BAD_FILE_TYPE, "SNAP_ERR_BAD_FILE_TYPE", exitFailed, "something else stands where a file of ours belongs",
     logHint},
    {SNAP_ERR_TOO_MANY_ATTRIBUTES, "SNAP_ERR_TOO_MANY_ATTRIBUTES", exitRefused,
     "a snapshot holds 64 attributes at most", "take some away first (sharesnap attr unset)"},
    {SNAP_ERR_UNSUPPORTED, "SNAP_ERR_UNSUPPORTED", exitRefused, "the share doesn't allow that", logHint},
    {SNAP_ERR_LOW_RESERVED_SPACE, "SNAP_ERR_LOW_RESERVED_SPACE", exitRefused,
     "the volume has less than the 100 MB free that are kept in reserve", "free space on the volume"},
    {SNAP_ERR_ATTR_TOO_LONG, "SNAP_ERR_ATTR_TOO_LONG", exitUsage, "a key has 63 bytes at most, a value 511",
     "shorten it"},
    {SNAP_ERR_SNAPSHOT_EXISTS, "SNAP_ERR_SNAPSHOT_EXISTS", exitFailed, "a snapshot of that second exists", "try again"},
};

const Code *find(unsigned int code) {
    for (const Code &entry : codes) {
        if (entry.code == code) {
            return &entry;
        }
    }
    return nullptr;
}

std::string hex(unsigned int code) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%04X", code);
    return text;
}

std::string withName(const char *next, const QOVASHARE &share) {
    std::string text = next;
    const size_t place = text.find("%s");
    return place == std::string::npos ? text : text.replace(place, 2, printable(share.szName));
}

bool isPermission(int error) {
    return error == EACCES || error == EPERM;
}

} // namespace

Failure::Failure(int exitStatus, std::string message, std::string next)
    : exitStatus_(exitStatus), message_(std::move(message)), next_(std::move(next)) {}

void forgetCause() {
    QLIBCErrSetEx(0, "", 0);
    errno = 0;
}

Cause causeNow() {
    const int error = errno;
    return {QLIBCErrGet(), error};
}

std::string codeName(unsigned int code) {
    const Code *entry = find(code);
    return entry != nullptr ? entry->name : "code " + hex(code);
}

Failure libraryFailure(const std::string &what, const QOVASHARE &share, Cause cause) {
    if (geteuid() != 0 && (cause.code == 0 || isPermission(cause.error) || cause.code == SNAP_ERR_OPEN_FAILED)) {
        return {exitRefused, what + ": no permission", "run it as root"};
    }
    const Code *entry = find(cause.code);
    if (entry == nullptr) {
        std::string reason = cause.code == 0 ? "no reason was given" : "code " + hex(cause.code);
        return {exitFailed, what + ": " + reason, logHint};
    }
    std::string reason = entry->meaning;
    // errno belongs to the failure only where the code names a system call.
    const bool fromSystem = cause.code == SNAP_ERR_OPEN_FAILED || cause.code == SNAP_ERR_CREATE_FAILED ||
                            cause.code == SNAP_ERR_OPERATION_FAILED;
    if (fromSystem && cause.error != 0) {
        reason += std::string(", ") + std::strerror(cause.error);
    }
    if (cause.code == SNAP_ERR_SNAPSHOT_LIMIT) {
        reason += " (" + std::to_string(QOVAShareSnapMaximumGet()) + " a share)";
    }
    const int exitStatus = fromSystem && isPermission(cause.error) ? +exitRefused : entry->exitStatus;
    return {exitStatus, what + ": " + reason + " [" + entry->name + ", " + hex(cause.code) + "]",
            withName(entry->next, share)};
}

std::string named(const QOVASHARE &share) {
    return "share " + quoted(share.szName) + " (" + printable(share.szPath) + ")";
}

std::string quoted(const std::string &text) {
    return "\"" + printable(text) + "\"";
}

void complain(const std::string &message, const std::string &next) {
    std::string text = "sharesnap: " + message + "\n";
    if (!next.empty()) {
        text += "  next: " + next + "\n";
    }
    (void)std::fflush(stdout);              // so that both keep their order where they go to one place
    (void)std::fputs(text.c_str(), stderr); // there is nowhere else to say it
}

void requireRoot(const std::string &what) {
    if (geteuid() != 0) {
        throw Failure(exitRefused, what + ": no permission, only root can do that", "run it as root");
    }
}

} // namespace command
