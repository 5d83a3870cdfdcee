#include "stand_in.h"

#include "failure.h"
#include "share_lookup.h"
#include "text.h"

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
    return pathStands(standInPath(volume, share));
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
