/* The hidden mark: an extended attribute for each hidden subvolume, on the directory that holds the subvolume. */
#include "subvolume_internal.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <sys/xattr.h>

namespace QovaPlatform {

namespace {

/* The name of an attribute holds 255 bytes, as many as that of a subvolume alone: a long one is cut and told apart by a
   number made of all its bytes. No short name has the length of a cut one. */
constexpr size_t LONGEST_PLAIN_NAME = 200;

std::string AttributeOf(const std::string &szName) {
    const std::string szPrefix = "trusted.sharesnap.hide.";
    if (szName.size() <= LONGEST_PLAIN_NAME) {
        return szPrefix + szName;
    }
    uint64_t ullHash = 14695981039346656037ULL; // FNV-1a
    for (const char c : szName) {
        ullHash = (ullHash ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
    }
    char szHash[20];
    (void)snprintf(szHash, sizeof(szHash), "~%016llx", static_cast<unsigned long long>(ullHash));
    return szPrefix + szName.substr(0, LONGEST_PLAIN_NAME) + szHash;
}

} // namespace

int HiddenMarkGet(int nDirectory, const std::string &szName) {
    if (0 <= fgetxattr(nDirectory, AttributeOf(szName).c_str(), nullptr, 0)) {
        return 1;
    }
    return errno == ENODATA ? 0 : -1;
}

int HiddenMarkSet(int nDirectory, const std::string &szName) {
    return fsetxattr(nDirectory, AttributeOf(szName).c_str(), "1", 1, 0);
}

int HiddenMarkClear(int nDirectory, const std::string &szName) {
    const int nMarked = HiddenMarkGet(nDirectory, szName);
    if (nMarked < 1) {
        return nMarked;
    }
    return fremovexattr(nDirectory, AttributeOf(szName).c_str()) == 0 || errno == ENODATA ? 0 : -1;
}

} // namespace QovaPlatform
