// From names on the command line to shares and snapshots, with a clear refusal of what isn't there.
#pragma once

#include "handles.h"

#include <string>
#include <vector>

namespace command {

// Of the buffers for paths, in bytes.
inline constexpr size_t pathSize = 4096;

// The share's record. Throws a Failure: no such share, or the database can't be read.
[[nodiscard]] Share requireShare(const std::string &name);

// The same, and its volume is mounted, is Btrfs, and holds the share at its top. `what` says what is wanted
// ("can't list the snapshots of"), for the message.
[[nodiscard]] Share requireBtrfsShare(const std::string &name, const std::string &what);

// Throws a Failure when the database can't be read.
[[nodiscard]] bool hasRecord(const std::string &name);

// Names of all shares in the database's order.
[[nodiscard]] std::vector<std::string> shareNames();

// All pairs of a snapshot's section. Throws a Failure when the share's list doesn't have it.
[[nodiscard]] Hash requireSnapshot(const QOVASHARE &share, const std::string &snapshot);
[[nodiscard]] bool hasSnapshot(const QOVASHARE &share, const std::string &snapshot);

// Path of a snapshot that stands in the list and on the volume. Throws a Failure when either is missing.
[[nodiscard]] std::string requireSnapshotPath(const QOVASHARE &share, const std::string &snapshot,
                                              const std::string &what);

// Mount path of the share's volume. Throws a Failure when it isn't mounted.
[[nodiscard]] std::string volumeOf(const QOVASHARE &share, const std::string &what);
// The same for a path that no record has yet.
[[nodiscard]] std::string volumeOfPath(const std::string &path, const std::string &what);

// Path of the subvolume that holds the share's data.
[[nodiscard]] std::string dataPath(const QOVASHARE &share);

// Throws a Failure unless the share's data are a subvolume.
void requireDataSubvolume(const QOVASHARE &share, const std::string &what);

// Whether anything stands at the path, a dangling link too. Throws a Failure when that can't be told.
[[nodiscard]] bool pathStands(const std::string &path);
// Throws a Failure (refused), with what to do next, when anything stands at the path.
void requireNothingAt(const std::string &path, const std::string &what, const std::string &next);

// True when the share's volume is mounted and Btrfs.
[[nodiscard]] bool onBtrfs(const QOVASHARE &share);

[[nodiscard]] bool isEncrypted(const QOVASHARE &share);
// Throws a Failure (refused) for an encrypted share that is mounted: what is changed below a mount would get mixed up.
void requireLocked(const QOVASHARE &share, const std::string &what);

// Throws a Failure (refused) unless the path is "<volume>/<name>".
void requireTopOfVolume(const std::string &path, const std::string &volume, const std::string &what);

// Throws a Failure (usage) for a key or value that a list of settings or attributes can't hold.
void checkKey(const std::string &key);
void checkValue(const std::string &key, const std::string &value);

} // namespace command
