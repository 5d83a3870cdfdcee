// One share's section of the database file: from pairs to a record and back.
#ifndef SHARESNAP_PLATFORM_QOVASDK_SHARE_SECTION_H
#define SHARESNAP_PLATFORM_QOVASDK_SHARE_SECTION_H

#include "qovasdk/share_provider.h"

#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>

namespace QovaPlatform {

// Owners that pass the address on, since lists and hashes move when they grow.
class HashOwner {
public:
    HashOwner();
    ~HashOwner() { QLIBCSzHashFree(hash_); }
    HashOwner(const HashOwner &) = delete;
    HashOwner &operator=(const HashOwner &) = delete;
    [[nodiscard]] QLIBCSZHASH **address() { return &hash_; }
    [[nodiscard]] const QLIBCSZHASH *get() const { return hash_; }

private:
    QLIBCSZHASH *hash_;
};

class ListOwner {
public:
    ListOwner();
    ~ListOwner() { QLIBCSzListFree(list_); }
    ListOwner(const ListOwner &) = delete;
    ListOwner &operator=(const ListOwner &) = delete;
    [[nodiscard]] QLIBCSZLIST **address() { return &list_; }
    [[nodiscard]] const QLIBCSZLIST *get() const { return list_; }

private:
    QLIBCSZLIST *list_;
};

// False when the record can't be used: it has no path that a share could have.
[[nodiscard]] bool entryFromPairs(const std::string &name, const QLIBCSZHASH *pairs, ShareEntry *entry);

// The pairs of a record. Those of `old` that no field of the record stands for come along; `old` may be null.
void pairsFromEntry(const ShareEntry &entry, const QLIBCSZHASH *old, HashOwner *pairs);

} // namespace QovaPlatform

#endif
