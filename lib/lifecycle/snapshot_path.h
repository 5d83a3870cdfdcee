// The size of a path, and the check that a snapshot's name can't lead out of one.
#ifndef SHARESNAP_LIFECYCLE_SNAPSHOT_PATH_H
#define SHARESNAP_LIFECYCLE_SNAPSHOT_PATH_H

#include <cstddef>
#include <cstring>

namespace sharesnap {

inline constexpr size_t kPathSize = 4096;

// Names come from callers and out of files that may be forged. One that is empty or has an empty, "." or ".."
// component names the snapshot directory itself or something outside it. A name with slashes inside is fine: it is
// something nested in a snapshot.
[[nodiscard]] inline bool NameStaysInside(const char *szName) {
    for (const char *szPart = szName;; ++szPart) {
        const size_t cbPart = std::strcspn(szPart, "/");
        if (cbPart == 0 || (cbPart == 1 && szPart[0] == '.') || (cbPart == 2 && szPart[0] == '.' && szPart[1] == '.')) {
            return false;
        }
        szPart += cbPart;
        if (*szPart == '\0') {
            return true;
        }
    }
}

} // namespace sharesnap
#endif
