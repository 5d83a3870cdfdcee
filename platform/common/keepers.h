// Failing with a code, and what a call puts back at its end.
#ifndef SHARESNAP_PLATFORM_COMMON_KEEPERS_H
#define SHARESNAP_PLATFORM_COMMON_KEEPERS_H

#include <cerrno>
#include <sharesnap/platform/error.h>

// A code of the register with this place, the file's name without folders.
#define QOVA_SET_CODE(uCode) QLIBCErrSetEx((uCode), __FILE_NAME__, __LINE__)
// The result of a function whose argument can't be used: -1, with the code and errno.
#define QOVA_BAD_ARGUMENT() (QOVA_SET_CODE(SNAP_ERR_BAD_PARAMETER), errno = EINVAL, -1)

namespace QovaPlatform {

// Puts errno back at the end of a scope.
class ErrnoKeeper {
public:
    ErrnoKeeper() = default;
    ~ErrnoKeeper() { errno = saved_; }
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;

private:
    int saved_ = errno;
};

// The register as it was, for a call that may succeed although one beneath it failed.
class SavedRegister {
public:
    void restore() const { QLIBCErrSetEx(code_, file_, line_); }

private:
    unsigned int code_ = QLIBCErrGet();
    const char *file_ = QLIBCErrorGetFile();
    int line_ = QLIBCErrorGetLine();
};

} // namespace QovaPlatform

#endif
