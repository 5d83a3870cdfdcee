#include "handles.h"

#include <new>

namespace command {
namespace {

template <typename T>
T *notNull(T *object) {
    if (object == nullptr) {
        throw std::bad_alloc();
    }
    return object;
}

} // namespace

List newList() {
    return List(notNull(QLIBCSzListAlloc(1024)));
}

Hash newHash() {
    return Hash(notNull(QLIBCSzHashAlloc(1024)));
}

Results newResults() {
    return Results(notNull(QLIBCMResultAlloc()));
}

List listOf(const std::vector<std::string> &items) {
    List list = newList();
    for (const std::string &item : items) {
        if (QLIBCSzListPush(list.address(), item.c_str()) < 0) {
            throw std::bad_alloc();
        }
    }
    return list;
}

std::vector<std::string> itemsOf(const List &list) {
    std::vector<std::string> items;
    items.reserve(static_cast<size_t>(list->nItem));
    for (int i = 0; i < list->nItem; ++i) {
        items.emplace_back(QLIBCSzListGet(list.get(), i));
    }
    return items;
}

Pairs pairsOf(const QLIBCSZHASH *hash) {
    Pairs pairs;
    List keys = newList();
    if (QLIBCSzHashEnumKey(hash, keys.address()) < 0) {
        throw std::bad_alloc();
    }
    pairs.reserve(static_cast<size_t>(keys->nItem));
    for (int i = 0; i < keys->nItem; ++i) {
        const char *key = QLIBCSzListGet(keys.get(), i);
        const char *value = QLIBCSzHashGetValue(hash, key);
        pairs.emplace_back(key, value != nullptr ? value : "");
    }
    return pairs;
}

void setValue(Hash &hash, const std::string &key, const std::string &value) {
    if (QLIBCSzHashSetValue(hash.address(), key.c_str(), value.c_str()) < 0) {
        throw std::bad_alloc();
    }
}

} // namespace command
