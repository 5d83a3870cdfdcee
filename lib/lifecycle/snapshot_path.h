// The size of a path, and the check that a snapshot's name can't lead out of one.
#ifndef SHARESNAP_LIFECYCLE_SNAPSHOT_PATH_H
#define SHARESNAP_LIFECYCLE_SNAPSHOT_PATH_H

#include <cstddef>

#include "frame/inside_name.h"

namespace sharesnap {

inline constexpr size_t kPathSize = 4096;

} // namespace sharesnap
#endif
