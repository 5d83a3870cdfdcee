#include "rename_guard.h"

#include "failure.h"
#include "text.h"

#include <algorithm>

namespace command {

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

SettledNames::SettledNames(const std::vector<std::string> &names) : lock_(MoveLock::together) {
    requireNoInterruptedRename(names);
}

void requireNoNoteOf(const std::string &name) {
    if (namesUnderRename().count(name) != 0) {
        (void)SettledNames({name});
    }
}

std::string interruptedText(const RenameIntent &intent) {
    return "a rename of share " + quoted(intent.oldName) + " to " + quoted(intent.newName) + " was interrupted";
}

std::string howToSettle(const RenameIntent &intent) {
    const std::string command = "`sharesnap share rename " + printable(intent.oldName);
    return command + " --finish` or " + command + " --undo`";
}

} // namespace command
