// Paths of things in a directory, and the check that a snapshot's name can't lead out of one.
#ifndef SHARESNAP_LIFECYCLE_SNAPSHOT_PATH_H
#define SHARESNAP_LIFECYCLE_SNAPSHOT_PATH_H

#include <cstddef>
#include <cstdio>
#include <cstring>

namespace sharesnap {

inline constexpr size_t kPathSize = 4096;

// Writes "<directory>/<name>". A path that doesn't fit is refused: a cut one names something else.
[[nodiscard]] inline bool JoinPath(char *szBuf, size_t cbBuf, const char *szDirectory, const char *szName) {
    const int nLength = std::snprintf(szBuf, cbBuf, "%s/%s", szDirectory, szName);
    return nLength >= 0 && static_cast<size_t>(nLength) < cbBuf;
}

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
