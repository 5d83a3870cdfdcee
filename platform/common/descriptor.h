/* Owner of a file descriptor. Closing keeps errno, so that the reason of a failure outlives the clean-up. */
#ifndef SHARESNAP_PLATFORM_COMMON_DESCRIPTOR_H
#define SHARESNAP_PLATFORM_COMMON_DESCRIPTOR_H

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace QovaPlatform {

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int nFd) : m_nFd(nFd) {}
    Descriptor(Descriptor &&other) noexcept : m_nFd(std::exchange(other.m_nFd, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        if (this != &other) {
            Close();
            m_nFd = std::exchange(other.m_nFd, -1);
        }
        return *this;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() { Close(); }

    [[nodiscard]] bool IsOpen() const { return 0 <= m_nFd; }
    [[nodiscard]] int Get() const { return m_nFd; }
    [[nodiscard]] int Release() { return std::exchange(m_nFd, -1); }

    void Close() {
        if (0 <= m_nFd) {
            const int nSaved = errno;
            (void)close(m_nFd); // nothing can be done about it, and Linux has released the number either way
            errno = nSaved;
            m_nFd = -1;
        }
    }

private:
    int m_nFd = -1;
};

} // namespace QovaPlatform

#endif
