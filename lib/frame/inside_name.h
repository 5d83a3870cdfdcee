// The check that a snapshot's name can't lead out of the snapshot directory.
#ifndef SHARESNAP_FRAME_INSIDE_NAME_H
#define SHARESNAP_FRAME_INSIDE_NAME_H

#include <cstddef>
#include <cstring>

namespace sharesnap {

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
