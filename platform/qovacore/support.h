// What the families of libqovacore share: failing with a code, keeping errno, owning descriptors.
#ifndef QOVACORE_SUPPORT_H
#define QOVACORE_SUPPORT_H

#include <cerrno>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/szlist.h>
#include <string_view>
#include <unistd.h>

// Leaves a code in the error register with this place in the source, the file name without folders.
#define QOVACORE_SET_CODE(uCode) QLIBCErrSetEx((uCode), __FILE_NAME__, __LINE__)

// The same with errno set, for failures that no system call reported.
#define QOVACORE_SET_CODE_ERRNO(uCode, nErrno)           \
    do {                                                 \
        errno = (nErrno);                                \
        QLIBCErrSetEx((uCode), __FILE_NAME__, __LINE__); \
    } while (0)

namespace qovacore {

// Puts errno back when the scope ends: releasing things must not hide why an operation failed.
class ErrnoKeeper {
public:
    ErrnoKeeper() = default;
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;
    ~ErrnoKeeper() { errno = m_saved; }

private:
    int m_saved = errno;
};

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_fd(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : m_fd(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    ~UniqueFd() { reset(); }

    [[nodiscard]] int get() const { return m_fd; }
    [[nodiscard]] bool valid() const { return m_fd >= 0; }
    [[nodiscard]] int release() {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (m_fd >= 0) {
            const ErrnoKeeper keeper;
            (void)close(m_fd); // nothing was written through it that a later error could lose
        }
        m_fd = fd;
    }

private:
    int m_fd = -1;
};

// QLIBCSzListPush for a text of known length, to a list that is there.
[[nodiscard]] int pushText(QLIBCSZLIST **ppList, std::string_view text);
// The same for the two texts ahead of the sign at nSign and behind it. On failure the first may have been pushed.
[[nodiscard]] int pushPair(QLIBCSZLIST **ppList, std::string_view text, size_t nSign);

} // namespace qovacore

#endif
