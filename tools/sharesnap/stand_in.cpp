#include "stand_in.h"

#include "failure.h"
#include "text.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace command {
namespace {

std::string howToClear(const std::string &volume, const std::string &share) {
    return "move it away, or remove it with: btrfs subvolume delete " + printable(standInPath(volume, share));
}

} // namespace

std::string standInPath(const std::string &volume, const std::string &share) {
    return volume + "/@restore-" + share;
}

bool standInIsLeft(const std::string &volume, const std::string &share) {
    const std::string path = standInPath(volume, share);
    struct stat status = {};
    if (lstat(path.c_str(), &status) == 0) {
        return true;
    }
    if (errno != ENOENT) {
        throw Failure(exitFailed, "can't look at " + printable(path) + ": " + std::strerror(errno));
    }
    return false;
}

void requireNoStandIn(const std::string &volume, const std::string &share, const std::string &what) {
    if (standInIsLeft(volume, share)) {
        throw Failure(exitRefused, what + ": " + standInText(volume, share), howToClear(volume, share));
    }
}

std::string standInText(const std::string &volume, const std::string &share) {
    return "what a restore left stands at " + printable(standInPath(volume, share));
}

std::string howToSettleStandIn(const std::string &volume, const std::string &share) {
    return "the next restore of share " + quoted(share) + " keeps it in a snapshot; or " + howToClear(volume, share);
}

} // namespace command
