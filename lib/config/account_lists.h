// Lists of accounts: names in a share record, ids in a frozen configuration.
#ifndef SHARESNAP_CONFIG_ACCOUNT_LISTS_H
#define SHARESNAP_CONFIG_ACCOUNT_LISTS_H

#include "frame/owners.h"

namespace sharesnap {

// The two id texts of one list of names, and the sizes of their buffers.
struct IdTexts {
    TextOwner uids;
    TextOwner gids;
    int cbUids = 0;
    int cbGids = 0;
};

// Splits "alice,@staff" into the ids of its users and of its groups, joined by ','. An account that can't be resolved
// drops out. Both result texts may start null and are never null after a 0. 0 or -1.
[[nodiscard]] int ShareNamesToIds(const char *szStr, char **szUidsResult, int *pcbUidsResultSize, char **szGidsResult,
                                  int *pcbGidsResultSize);

// The way back: users first, then groups with a leading '@'. *ppResult starts null; once the arguments are good it is
// never null afterwards. 0 or -1.
[[nodiscard]] int ShareIdsToNames(const char *szUids, const char *szGids, char **ppResult);

} // namespace sharesnap
#endif
