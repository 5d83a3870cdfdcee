// A share to measure on.
#pragma once

#include <sharesnap/platform/share.h>

#include <cstddef>
#include <string>

namespace bench {

// Makes the subvolume /vol1/<name> with that many small files and its record, and gives the record, for good.
[[nodiscard]] const QOVASHARE &makeShare(const std::string &name, int files);

// The name of a snapshot of second `number` after the year 2001 began.
[[nodiscard]] std::string snapshotName(int number);

// A section of eight pairs for that snapshot.
[[nodiscard]] std::string section(const std::string &snapshot);

// Path of the share's snapshot directory, made when it is missing; of a snapshot in it; of its list.
[[nodiscard]] std::string snapshotDirectory(const QOVASHARE &share);
[[nodiscard]] std::string snapshotPath(const QOVASHARE &share, const std::string &snapshot);
[[nodiscard]] std::string listPath(const QOVASHARE &share);

// How many sections a plain loop with `getdelim` and a hash finds: what one reading of a list costs at least.
[[nodiscard]] size_t plainList(const std::string &path);

// Takes snapshots with nothing around them and writes their sections and the counter: numbers first to last.
void plantSnapshots(const QOVASHARE &share, int first, int last);

} // namespace bench
