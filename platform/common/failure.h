/* From errno to the error register. */
#ifndef SHARESNAP_PLATFORM_COMMON_FAILURE_H
#define SHARESNAP_PLATFORM_COMMON_FAILURE_H

#include <cerrno>
#include <exception>
#include <new>
#include <sharesnap/platform/error.h>

namespace QovaPlatform {

/* The code that a failed system call leaves. A name conflict of a subvolume is 0x0800 here and never one of the two
   codes by which a snapshot's creator knows a conflict of its own. */
[[nodiscard]] inline unsigned int CodeOfErrno(int nErrno) {
    switch (nErrno) {
    case ENOMEM:
        return SNAP_ERR_OUT_OF_MEMORY;
    case EINVAL:
        return SNAP_ERR_BAD_PARAMETER;
    case EEXIST:
        return SNAP_ERR_ALREADY_EXISTS;
    case EDQUOT:
        return SNAP_ERR_QUOTA_EXCEEDED;
    case ENOSPC:
        return SNAP_ERR_NO_SPACE;
    default:
        return SNAP_ERR_OPERATION_FAILED;
    }
}

/* Runs the body of an exported function: no exception crosses the C boundary. */
template <typename Body>
[[nodiscard]] auto Guarded(const char *szFile, int nLine, decltype(std::declval<Body>()()) failure, Body &&body)
    -> decltype(body()) {
    try {
        return body();
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        QLIBCErrSetEx(SNAP_ERR_OUT_OF_MEMORY, szFile, nLine);
    } catch (const std::exception &) {
        errno = EINVAL;
        QLIBCErrSetEx(SNAP_ERR_OPERATION_FAILED, szFile, nLine);
    }
    return failure;
}

} // namespace QovaPlatform

/* Sets the code that belongs to errno, and keeps errno. */
#define QOVA_FAIL_ERRNO() QLIBCErrSetEx(QovaPlatform::CodeOfErrno(errno), __FILE_NAME__, __LINE__)
/* Sets errno and the code for an argument that can't be used. */
#define QOVA_FAIL_ARGUMENT(nErrno) (QLIBCErrSetEx(SNAP_ERR_BAD_PARAMETER, __FILE_NAME__, __LINE__), errno = (nErrno))

#endif
