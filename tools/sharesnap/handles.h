// Owners of the platform's lists, hashes and records.
#pragma once

#include <sharesnap/platform/mresult.h>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>

#include <string>
#include <utility>
#include <vector>

namespace command {

// Lists and hashes move when they grow: pass address() where a call may add, get() where it only reads.
template <typename T, void (*Release)(T *)>
class Handle {
public:
    Handle() = default;
    explicit Handle(T *object) : object_(object) {}
    Handle(Handle &&other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Handle &operator=(Handle &&other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
    ~Handle() { Release(object_); }

    [[nodiscard]] T **address() { return &object_; }
    [[nodiscard]] T *get() const { return object_; }
    [[nodiscard]] T *operator->() const { return object_; }
    [[nodiscard]] T &operator*() const { return *object_; }

private:
    T *object_ = nullptr;
};

using List = Handle<QLIBCSZLIST, QLIBCSzListFree>;
using Hash = Handle<QLIBCSZHASH, QLIBCSzHashFree>;
using Share = Handle<QOVASHARE, QOVAShareFree>;
using Results = Handle<QLIBCMRESULT, QLIBCMResultFree>;

using Pairs = std::vector<std::pair<std::string, std::string>>;

// Empty ones. Throw std::bad_alloc.
[[nodiscard]] List newList();
[[nodiscard]] Hash newHash();
[[nodiscard]] Results newResults();

[[nodiscard]] List listOf(const std::vector<std::string> &items);
[[nodiscard]] std::vector<std::string> itemsOf(const List &list);
[[nodiscard]] Pairs pairsOf(const QLIBCSZHASH *hash);

void setValue(Hash &hash, const std::string &key, const std::string &value);

} // namespace command
