#include "rename_guard.h"

#include "failure.h"
#include "text.h"

#include <sharesnap/frame.h>
#include <sharesnap/platform/file_lock.h>

#include <algorithm>

namespace command {
namespace {

constexpr int lockSeconds = 10;

} // namespace

NamesLock::NamesLock(int seconds) {
    (void)QOVAShareSnapCreateRunLockShareSnapDir(); // the attempt to lock tells
    held_ = QLIBCFileLockTimeByFile("/run/lock/sharesnap/share_rename.lock", 0, seconds, &fd_) != 0;
}

NamesLock::~NamesLock() {
    if (held_) {
        (void)QLIBCFileUnlockByFile(fd_); // ends with the process at the latest
    }
}

std::vector<RenameIntent> interruptedRenames() {
    std::vector<RenameIntent> intents;
    for (const std::string &name : namesUnderRename()) {
        // A new name has no note of its own.
        if (const auto intent = name.empty() ? std::nullopt : readIntent(name)) {
            intents.push_back(*intent);
        }
    }
    return intents;
}

void requireNoInterruptedRename(const std::vector<std::string> &names) {
    const auto isOne = [&names](const std::string &name) {
        return std::find(names.begin(), names.end(), name) != names.end();
    };
    for (const RenameIntent &intent : interruptedRenames()) {
        if (isOne(intent.oldName) || isOne(intent.newName)) {
            throw Failure(exitRefused, interruptedText(intent), howToSettle(intent));
        }
    }
}

SettledNames::SettledNames(const std::vector<std::string> &names) : lock_(lockSeconds) {
    if (!lock_.held()) {
        throw Failure(exitFailed, "a rename or restore of a share is under way", "try again when it is done");
    }
    requireNoInterruptedRename(names);
}

std::string interruptedText(const RenameIntent &intent) {
    return "a rename of share " + quoted(intent.oldName) + " to " + quoted(intent.newName) + " was interrupted";
}

std::string howToSettle(const RenameIntent &intent) {
    const std::string command = "`sharesnap share rename " + printable(intent.oldName);
    return command + " --finish` or " + command + " --undo`";
}

} // namespace command
