// What the file system knows and does about a single subvolume beyond what the platform offers.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace command {

// Numbers of transactions, which grow with each change of the file system.
struct SubvolumeState {
    std::uint64_t generation; // of the last change in it, as far as it is written out
    std::uint64_t madeIn;     // in which it was made
    std::array<std::uint8_t, 16> uuid;
    std::array<std::uint8_t, 16> parent; // what it is a snapshot of
};

// Nothing when nothing stands there any more, and on a file system other than Btrfs, which has no such numbers. Throws a
// Failure, also on a Btrfs that can't tell them: then nobody knows what was changed.
[[nodiscard]] std::optional<SubvolumeState> stateOf(const std::string &path);

// Writes out what is on its way to the disk. Throws a Failure.
void writeOut(const std::string &path);

// From now on nobody changes the subvolume but through files that are open for writing already. Does nothing where the
// file system has no such flag. Throws a Failure.
void makeReadOnly(const std::string &path);

// Limits what the subvolume may refer to, in bytes. Quotas have to be on. Throws a Failure.
void limitSize(const std::string &path, std::uint64_t bytes);

} // namespace command
