/* The commands in which this program differs from the one of the Btrfs tools. */
#ifndef SHARESNAP_TOOLS_BTRFS_COMMANDS_H
#define SHARESNAP_TOOLS_BTRFS_COMMANDS_H

#include <string>
#include <vector>

namespace BtrfsTool {

/* Where the Btrfs tools keep theirs. */
inline constexpr const char REAL_BTRFS[] = "/usr/bin/btrfs";

/* subvolume list PATH: one line "ID %u gen %u top level %u path %s" a subvolume below the top of the volume that holds
   the path, and a line "# end of list" behind the last. Exit status. */
[[nodiscard]] int ListSubvolumes(const char *szPath);

/* send -es ARGUMENT...: the line "About:N", N the bytes of the stream that send -e with these arguments makes. Exit
   status. */
[[nodiscard]] int EstimateSend(const std::vector<const char *> &arguments);

} // namespace BtrfsTool

#endif
