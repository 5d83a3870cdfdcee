// Lines of `btrfs subvolume list`.
#ifndef SHARESNAP_FRAME_SUBVOLUME_LINE_H
#define SHARESNAP_FRAME_SUBVOLUME_LINE_H

#include <cstddef>
#include <cstdio>

namespace sharesnap {

constexpr size_t kSubvolumeLineSize = 1024;

// Reads on to the next line that tells of a subvolume and copies the path from it, relative to the volume's top. Other
// lines are passed over. False at the end of the stream.
[[nodiscard]] bool NextSubvolumePath(FILE *pStream, char (&szPath)[kSubvolumeLineSize]);

} // namespace sharesnap

#endif
