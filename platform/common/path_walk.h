/* Opening of paths without following symbolic links. */
#ifndef SHARESNAP_PLATFORM_COMMON_PATH_WALK_H
#define SHARESNAP_PLATFORM_COMMON_PATH_WALK_H

#include "common/descriptor.h"

#include <string>

namespace QovaPlatform {

/* The directory and the last component of a path, trailing slashes left out. The directory of "/a" is "/", that of "a"
   is ".". False for a path without a last component ("/", "", "a/.", "a/.."). */
[[nodiscard]] bool SplitPath(const std::string &szPath, std::string &szDirectory, std::string &szName);

/* Whether one of the components is "..". */
[[nodiscard]] bool HasParentComponent(const char *szPath);

/* Opens a path none of whose components may be a symbolic link (ELOOP; with O_PATH | O_NOFOLLOW the last one may, and
   is what is opened). Paths with ".." are refused with EINVAL. O_CLOEXEC is added. */
[[nodiscard]] Descriptor OpenWithoutLinks(const char *szPath, int nFlags);

/* The same for a relative path that must stay beneath the open directory and on its mount. */
[[nodiscard]] Descriptor OpenBeneath(int nDirectory, const char *szPath, int nFlags);

/* A directory opened by OpenWithoutLinks and the name of something in it, made out of a path. Not open on failure, with
   errno; EINVAL for a path that can't be used. */
struct ParentAndName {
    Descriptor directory;
    std::string szName;
};
[[nodiscard]] ParentAndName OpenParent(const char *szPath);

} // namespace QovaPlatform

#endif
