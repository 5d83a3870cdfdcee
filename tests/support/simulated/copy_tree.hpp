// Copying and removing what stands in a subvolume.
#pragma once

#include <string>

namespace simulated {

// Copies the contents of a directory into an empty one: files, links, owners, modes, times, user attributes. A nested
// subvolume becomes an empty directory, as in a snapshot of Btrfs. False with errno.
[[nodiscard]] bool copyContents(const std::string &from, const std::string &to);

// Removes a directory with all that is in it, nested subvolumes too. False with errno.
[[nodiscard]] bool removeTree(const std::string &path);

} // namespace simulated
