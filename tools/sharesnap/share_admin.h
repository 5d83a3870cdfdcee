// Adding shares and taking them away.
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
};

// Both give the exit status, or throw a Failure that has changed nothing.
[[nodiscard]] int addShare(const ShareAddition &addition);
[[nodiscard]] int removeShare(const ShareRemoval &removal);

// Throws a Failure (usage) for what can't be the name of a share.
void checkShareName(const std::string &name);
// Throws a Failure (refused) when a share of that name exists.
void requireFreeName(const std::string &name, const std::string &what);

} // namespace command
