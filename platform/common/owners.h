// Owners of the platform's lists and hashes. Both move when they grow, so the owner's address is what is passed on.
#ifndef SHARESNAP_PLATFORM_COMMON_OWNERS_H
#define SHARESNAP_PLATFORM_COMMON_OWNERS_H

#include <new>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>

namespace QovaPlatform {

// Throws bad_alloc when there is no memory for an empty one.
template <typename Container, Container *(*Allocate)(size_t), void (*Free)(Container *)>
class ContainerOwner {
public:
    ContainerOwner() : container_(Allocate(1024)) {
        if (container_ == nullptr) {
            throw std::bad_alloc();
        }
    }
    ~ContainerOwner() { Free(container_); }
    ContainerOwner(const ContainerOwner &) = delete;
    ContainerOwner &operator=(const ContainerOwner &) = delete;
    [[nodiscard]] Container **address() { return &container_; }
    [[nodiscard]] const Container *get() const { return container_; }

private:
    Container *container_;
};

using HashOwner = ContainerOwner<QLIBCSZHASH, QLIBCSzHashAlloc, QLIBCSzHashFree>;
using ListOwner = ContainerOwner<QLIBCSZLIST, QLIBCSzListAlloc, QLIBCSzListFree>;

} // namespace QovaPlatform

#endif
