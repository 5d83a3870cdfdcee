// Which directories of a simulated volume are subvolumes.
//
// A simulated volume is a tmpfs mounted at a path of one component. A subvolume on it is a plain directory; what makes
// it one is a file in /run/simulated, named by the directory's device and inode, so that a rename doesn't matter. The
// storage core and the program that answers for /sbin/btrfs both read it.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace simulated {

struct Facts {
    std::string uuid;
    std::string parentUuid; // empty for one that was made empty
    time_t created = 0;
    bool readOnly = false; // told, not enforced
    bool hidden = false;
    unsigned long id = 0; // from 256, in the order of making; never used twice
};

// The facts of a subvolume; nothing for anything else. The link itself is looked at, never what it leads to.
[[nodiscard]] std::optional<Facts> factsOf(const std::string &path);

// Makes a directory a subvolume, or changes its facts. False with errno.
[[nodiscard]] bool keepFacts(const std::string &path, const Facts &facts);

// Facts of a new subvolume: an identity of its own and the time.
[[nodiscard]] std::optional<Facts> newFacts();

void forgetFacts(const struct stat &directory);

// A file of the registry that belongs to a subvolume, such as the queue of what was deleted from it.
[[nodiscard]] std::string fileOf(const struct stat &directory, const std::string &purpose);

// Whether a directory lies on a simulated volume.
[[nodiscard]] bool isOnSimulatedVolume(const std::string &path);

struct Mount {
    std::string point;
    std::string type;
    std::string source;
};

// What is mounted at paths of one component, the uppermost of each path only, in the table's order.
[[nodiscard]] std::vector<Mount> mountsAtDepthOne();

// Whether that mount is taken for a Btrfs volume.
[[nodiscard]] bool isSimulatedVolume(const Mount &mount);

} // namespace simulated
