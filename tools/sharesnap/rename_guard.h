// Interrupted renames stand in the way of whatever else would give or take away one of their names.
#pragma once

#include "move_lock.h"
#include "rename_intent.h"

#include <string>
#include <vector>

namespace command {

// Renames that were interrupted. The caller holds the lock: a note that is just being written looks like one that an
// interruption left. Throws a Failure.
[[nodiscard]] std::vector<RenameIntent> interruptedRenames();

// Throws a Failure (refused) when one of the names is the old or the new one of an interrupted rename: what is done under
// it now would be taken for the renamed share when the rename is settled. The caller holds the lock.
void requireNoInterruptedRename(const std::vector<std::string> &names);

// The same for verbs that rename nothing themselves: waits some seconds for renames to end, and keeps them away as long
// as it lives.
class SettledNames {
public:
    explicit SettledNames(const std::vector<std::string> &names);

private:
    MoveLock lock_;
};

// The same for verbs that may not wait for what goes on with other shares, and have nothing to keep away: without a note
// of that name the lock isn't touched. A rename that is under way is waited for some seconds.
void requireNoNoteOf(const std::string &name);

// "a rename of share "docs" to "files" was interrupted", and the commands that settle it.
[[nodiscard]] std::string interruptedText(const RenameIntent &intent);
[[nodiscard]] std::string howToSettle(const RenameIntent &intent);

} // namespace command
