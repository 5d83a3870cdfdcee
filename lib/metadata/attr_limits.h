// Limits of keys and values, one test for all writers.
#ifndef SHARESNAP_METADATA_ATTR_LIMITS_H
#define SHARESNAP_METADATA_ATTR_LIMITS_H

#include <sharesnap/metadata.h>

#include <cstring>

namespace sharesnap {

// The form of a pair in the metadata file.
constexpr char kPairFormat[] = "%s=%s\n";

[[nodiscard]] inline bool IsTooLong(const char *szKey, const char *szValue) {
    return strnlen(szKey, SNAP_ATTR_MAX_KEY + 1) > SNAP_ATTR_MAX_KEY ||
           strnlen(szValue, SNAP_ATTR_MAX_VALUE + 1) > SNAP_ATTR_MAX_VALUE;
}

} // namespace sharesnap

#endif
