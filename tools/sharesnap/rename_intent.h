// The note of a share's rename, written before its first step and removed after its last: what an interrupted rename
// needs to be finished or undone.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace command {

struct RenameIntent {
    std::string oldName;
    std::string newName;
    std::string oldPath; // as in the record, not that of an encrypted share's back end
    std::string newPath;
};

// On disk when it returns. Throws a Failure.
void writeIntent(const RenameIntent &intent);
// Nothing when there is no rename under way from that name. Throws a Failure for a note that can't be read.
[[nodiscard]] std::optional<RenameIntent> readIntent(const std::string &oldName);
void removeIntent(const RenameIntent &intent);
// The old names of all renames under way.
[[nodiscard]] std::vector<std::string> pendingRenames();

} // namespace command
