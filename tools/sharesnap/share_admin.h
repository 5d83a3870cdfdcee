// Adding shares, renaming them and taking them away.
#pragma once

#include <string>

namespace command {

struct ShareAddition {
    std::string name;
    std::string path;
    std::string description;
    bool existing = false;
    bool encrypted = false;
};

struct ShareRemoval {
    std::string name;
    bool clean = false;
    bool data = false; // the files and all snapshots, too
    bool yes = false;
};

struct ShareRenaming {
    std::string name;
    std::string newName;
    bool finish = false; // an interrupted rename
    bool undo = false;
};

// They give the exit status, or throw a Failure that has changed nothing, or (exitInPart) says what it has changed.
[[nodiscard]] int addShare(const ShareAddition &addition);
[[nodiscard]] int removeShare(const ShareRemoval &removal);
// The share with its files and snapshots.
[[nodiscard]] int eraseShare(const ShareRemoval &removal);
[[nodiscard]] int renameShare(const ShareRenaming &renaming);

// Throws a Failure (usage) for what can't be the name of a share.
void checkShareName(const std::string &name);
// Throws a Failure (refused) when a share of that name exists.
void requireFreeName(const std::string &name, const std::string &what);

} // namespace command
