// What `btrfs subvolume list` tells of a share's snapshots.
#ifndef SHARESNAP_FRAME_SUBVOLUME_LINE_H
#define SHARESNAP_FRAME_SUBVOLUME_LINE_H

#include <sharesnap/platform/share.h>

#include <cstddef>
#include <cstdio>

namespace sharesnap {

constexpr size_t kSubvolumeLineSize = 1024;

// Reads on to the next line that tells of a subvolume and copies the path from it, relative to the volume's top. Other
// lines are passed over. False at the end of the stream.
[[nodiscard]] bool NextSubvolumePath(FILE *pStream, char (&szPath)[kSubvolumeLineSize]);

// Whether the stream was read to its end. False, with 0x2A00, after a read error: what was seen is only a part, and the
// rest must not be taken for gone.
[[nodiscard]] bool EndsWhole(FILE *pStream);

// Writes what the paths of the share's snapshots begin with, relative to the volume's top: "@sharesnap/docs/". False
// when the share's encryption can't be told (logged) or the text doesn't fit.
[[nodiscard]] bool SnapshotPrefix(const QOVASHARE *pShare, char *szPrefix, size_t cbPrefix);

} // namespace sharesnap

#endif
