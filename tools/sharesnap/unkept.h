// Data that are about to go, and what of them no snapshot holds.
#pragma once

#include <cstdint>
#include <sharesnap/platform/share.h>
#include <string>

namespace command {

// Takes a snapshot of the subvolume into the share's list unless there is nothing in it that isn't in a snapshot of the
// list already: it is an untouched copy, or nothing in it changed since a snapshot of it was taken, or since `known`, the
// generation of a state that is kept. Gives the snapshot's name, empty when there was no need of one. Throws a Failure.
[[nodiscard]] std::string keepUnkept(const QOVASHARE &share, const std::string &path, std::uint64_t known,
                                     const std::string &description);

} // namespace command
