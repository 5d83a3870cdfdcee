#include "common/path_walk.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>

namespace QovaPlatform {

namespace {

Descriptor OpenAt2(int nDirectory, const char *szPath, int nFlags, unsigned long long ullResolve) {
    open_how how = {};
    how.flags = static_cast<unsigned long long>(nFlags) | O_CLOEXEC;
    how.resolve = ullResolve;
    for (;;) {
        const long lResult = syscall(SYS_openat2, nDirectory, szPath, &how, sizeof(how));
        // EAGAIN: a rename or mount elsewhere disturbed the walk; the kernel asks to try again.
        if (0 <= lResult || (errno != EINTR && errno != EAGAIN)) {
            return Descriptor(static_cast<int>(lResult));
        }
    }
}

} // namespace

bool SplitPath(const std::string &szPath, std::string &szDirectory, std::string &szName) {
    const size_t uEnd = szPath.find_last_not_of('/');
    if (uEnd == std::string::npos) {
        return false;
    }
    const size_t uSlash = szPath.find_last_of('/', uEnd);
    const size_t uStart = uSlash == std::string::npos ? 0 : uSlash + 1;
    szName = szPath.substr(uStart, uEnd + 1 - uStart);
    if (szName == "." || szName == "..") {
        return false;
    }
    if (uSlash == std::string::npos) {
        szDirectory = ".";
    } else {
        const size_t uDirectoryEnd = szPath.find_last_not_of('/', uSlash);
        szDirectory = uDirectoryEnd == std::string::npos ? "/" : szPath.substr(0, uDirectoryEnd + 1);
    }
    return true;
}

bool HasParentComponent(const char *szPath) {
    while (*szPath != '\0') {
        while (*szPath == '/') {
            ++szPath;
        }
        const size_t cbComponent = strcspn(szPath, "/");
        if (cbComponent == 2 && szPath[0] == '.' && szPath[1] == '.') {
            return true;
        }
        szPath += cbComponent;
    }
    return false;
}

Descriptor OpenWithoutLinks(const char *szPath, int nFlags) {
    if (HasParentComponent(szPath)) {
        errno = EINVAL;
        return Descriptor();
    }
    return OpenAt2(AT_FDCWD, szPath, nFlags, RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS);
}

Descriptor OpenBeneath(int nDirectory, const char *szPath, int nFlags) {
    if (HasParentComponent(szPath)) {
        errno = EINVAL;
        return Descriptor();
    }
    return OpenAt2(nDirectory, szPath, nFlags,
                   RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV);
}

ParentAndName OpenParent(const char *szPath) {
    ParentAndName result;
    std::string szDirectory;
    if (!SplitPath(szPath, szDirectory, result.szName)) {
        errno = EINVAL;
        return result;
    }
    result.directory = OpenWithoutLinks(szDirectory.c_str(), O_RDONLY | O_DIRECTORY);
    return result;
}

} // namespace QovaPlatform
