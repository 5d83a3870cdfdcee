// One share's section of the database file: from pairs to a record and back.
#ifndef SHARESNAP_PLATFORM_QOVASDK_SHARE_SECTION_H
#define SHARESNAP_PLATFORM_QOVASDK_SHARE_SECTION_H

#include "common/owners.h"
#include "qovasdk/share_provider.h"

namespace QovaPlatform {

// False when the record can't be used: it has no path that a share could have.
[[nodiscard]] bool entryFromPairs(const std::string &name, const QLIBCSZHASH *pairs, ShareEntry *entry);

// The pairs of a record. Those of `old` that no field of the record stands for come along; `old` may be null.
void pairsFromEntry(const ShareEntry &entry, const QLIBCSZHASH *old, HashOwner *pairs);

} // namespace QovaPlatform

#endif
