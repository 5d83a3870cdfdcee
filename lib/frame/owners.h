// Owners for what is released on every path. Destructors accept null and keep errno.
#ifndef SHARESNAP_FRAME_OWNERS_H
#define SHARESNAP_FRAME_OWNERS_H

#include <sharesnap/platform/error.h>
#include <sharesnap/platform/mresult.h>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace sharesnap {

// Puts errno back at the end of a scope.
class ErrnoKeeper {
public:
    ErrnoKeeper() : nErrno_(errno) {}
    ~ErrnoKeeper() { errno = nErrno_; }
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;
    [[nodiscard]] int value() const { return nErrno_; }

private:
    int nErrno_;
};

// Saves the code of the register; restore() sets it again, with the place of the restoring call, after noisy work.
class ErrorKeeper {
public:
    ErrorKeeper() : uCode_(QLIBCErrGet()) {}
    [[nodiscard]] unsigned int code() const { return uCode_; }
    void restore(const char *szFile, int nLine) const { QLIBCErrSetEx(uCode_, szFile, nLine); }

private:
    unsigned int uCode_;
};

// A list or hash moves when it grows: pass `&owner` where the platform takes the address, `owner.get()` to read.
template <typename T, void (*Free)(T *)>
class Owner {
public:
    Owner() = default;
    explicit Owner(T *p) : p_(p) {}
    ~Owner() { reset(nullptr); }
    Owner(const Owner &) = delete;
    Owner &operator=(const Owner &) = delete;
    T **operator&() { return &p_; }
    [[nodiscard]] T *get() const { return p_; }
    [[nodiscard]] T *operator->() const { return p_; }
    explicit operator bool() const { return p_ != nullptr; }
    void reset(T *p) {
        if (p_ != nullptr) {
            const ErrnoKeeper keeper;
            Free(p_);
        }
        p_ = p;
    }
    [[nodiscard]] T *release() {
        T *p = p_;
        p_ = nullptr;
        return p;
    }

private:
    T *p_ = nullptr;
};

inline void FreeMemory(char *sz) {
    std::free(sz);
}
inline void CloseStream(FILE *pStream) {
    (void)std::fclose(pStream); /* read streams only: nothing can be lost */
}

using ListOwner = Owner<QLIBCSZLIST, QLIBCSzListFree>;
using HashOwner = Owner<QLIBCSZHASH, QLIBCSzHashFree>;
using ShareOwner = Owner<QOVASHARE, QOVAShareFree>;
using MResultOwner = Owner<QLIBCMRESULT, QLIBCMResultFree>;
using TextOwner = Owner<char, FreeMemory>;
using ReadStreamOwner = Owner<FILE, CloseStream>;

class DescriptorOwner {
public:
    explicit DescriptorOwner(int nFd = -1) : nFd_(nFd) {}
    ~DescriptorOwner() {
        if (nFd_ >= 0) {
            const ErrnoKeeper keeper;
            (void)::close(nFd_); // opened for reading: nothing can be lost
        }
    }
    DescriptorOwner(const DescriptorOwner &) = delete;
    DescriptorOwner &operator=(const DescriptorOwner &) = delete;
    [[nodiscard]] int get() const { return nFd_; }
    explicit operator bool() const { return nFd_ >= 0; }

private:
    int nFd_;
};

} // namespace sharesnap
#endif
