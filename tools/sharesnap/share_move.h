// Bringing a rename that was begun to one of its two ends.
#pragma once

#include "rename_intent.h"

namespace command {

// Everything that stands under the old name goes to the new one, or with `undo` the other way round; then the note of the
// rename is removed. Each step looks at what stands, so an interrupted call is simply made again. A part that stands under
// both names is refused. `first` says that the rename began in this run, so that the tree can't know of it yet. Gives the
// exit status, or throws a Failure; the note then stays.
[[nodiscard]] int endRename(const RenameIntent &intent, bool undo, bool first = false);

// Where a share's settings stand, for a message.
[[nodiscard]] std::string settingsPlace(const std::string &name);

// The file of a share's holds, and whether there are any in it. Throws a Failure for a file that can't be read.
[[nodiscard]] std::string holdsPlace(const std::string &name);
[[nodiscard]] bool holdsStandAt(const std::string &path);

} // namespace command
