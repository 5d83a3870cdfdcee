// Shares that a volume's tree has though no record names them any more, or one that lies on another volume, and though
// none of their snapshots is on the volume: what is left when a share went while the tree couldn't be rewritten.
#pragma once

#include <string>
#include <vector>

namespace command {

// The mounted Btrfs volumes that have a tree. Throws a Failure: they can't be found out.
[[nodiscard]] std::vector<std::string> volumesWithTree();

// The names of such shares in the tree of a volume. One that is being renamed is none of them. Throws a Failure: the
// tree, the shares or the notes of renames can't be read.
[[nodiscard]] std::vector<std::string> treeStrangers(const std::string &volume);

// Takes them out, and gives their names. The tree's lock is held while shares and renames are looked at: every verb
// changes these before it comes to the tree. Throws a Failure that has changed nothing.
[[nodiscard]] std::vector<std::string> dropTreeStrangers(const std::string &volume);

} // namespace command
