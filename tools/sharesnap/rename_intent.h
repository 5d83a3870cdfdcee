// The note of a share's rename, written before its first step and removed after its last: what an interrupted rename
// needs to be finished or undone.
#pragma once

#include <optional>
#include <set>
#include <string>

namespace command {

struct RenameIntent {
    std::string oldName;
    std::string newName;
    std::string oldPath; // as in the record, not that of an encrypted share's back end
    std::string newPath;
};

// Where the note of a rename from that name stands.
[[nodiscard]] std::string intentPath(const std::string &oldName);
// On disk when it returns. Throws a Failure.
void writeIntent(const RenameIntent &intent);
// Nothing when there is no rename under way from that name. Throws a Failure for a note that can't be read.
[[nodiscard]] std::optional<RenameIntent> readIntent(const std::string &oldName);
void removeIntent(const RenameIntent &intent);
// The old and the new names of all renames under way, interrupted ones among them. Changes nothing: a note that is being
// written gives its old name. Throws a Failure.
[[nodiscard]] std::set<std::string> namesUnderRename();

} // namespace command
