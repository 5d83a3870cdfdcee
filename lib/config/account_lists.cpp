#include "config/account_lists.h"

#include <sharesnap/platform/account.h>
#include <sharesnap/platform/text.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "frame/log.h"

namespace sharesnap {

namespace {

constexpr char kSeparator[] = ",";

using UserOwner = Owner<QOVAUSER, QOVAUserFree>;
using GroupOwner = Owner<QOVAGROUP, QOVAGroupFree>;

struct ThreeLists {
    ListOwner names{QLIBCSzListAlloc(1024)};
    ListOwner uids{QLIBCSzListAlloc(1024)};
    ListOwner gids{QLIBCSzListAlloc(1024)};
    [[nodiscard]] bool complete() const { return names && uids && gids; }
};

int Join(const QLIBCSZLIST *pList, char **pszResult, int *pcbResult) {
    if (pList->nItem == 0) {
        return 0;
    }
    try {
        std::vector<const char *> items;
        items.reserve(static_cast<size_t>(pList->nItem));
        for (int i = 0; i < pList->nItem; ++i) {
            items.push_back(QLIBCSzListGet(pList, i));
        }
        if (QLIBCStrJoin(items.data(), pList->nItem, kSeparator, pszResult, pcbResult) >= 0) {
            return 0;
        }
    } catch (const std::bad_alloc &) {
        SNAP_SET_ERR(SNAP_ERR_OUT_OF_MEMORY);
    }
    SNAP_LOG_REG(LOG_ERR, "Failed to uids convert to string[0x%04X %s:%d]");
    return -1;
}

int PushId(unsigned int uId, QLIBCSZLIST **ppList) {
    char szId[16];
    (void)std::snprintf(szId, sizeof(szId), "%u", uId);
    return QLIBCSzListPush(ppList, szId);
}

// Resolves each name to its id; a name without an account is passed over.
int ResolveNames(ThreeLists *pLists) {
    for (int i = 0; i < pLists->names->nItem; ++i) {
        const char *szName = QLIBCSzListGet(pLists->names.get(), i);
        int nPushed = 0;
        if (szName[0] == '@') {
            GroupOwner group;
            if (QOVAGroupGet(szName + 1, &group) >= 0) {
                nPushed = PushId(group->uId, &pLists->gids);
            }
        } else {
            UserOwner user;
            if (QOVAUserGet(szName, &user) >= 0) {
                nPushed = PushId(user->uId, &pLists->uids);
            }
        }
        if (nPushed < 0) {
            return -1;
        }
    }
    return 0;
}

int EmptyIfNull(char **pszText) {
    if (*pszText == nullptr) {
        *pszText = strdup("");
    }
    if (*pszText == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_OUT_OF_MEMORY);
        return -1;
    }
    return 0;
}

// The number at the start of an id text; false, with a line in the log, when anything is left behind it.
bool ParseId(const char *szId, unsigned int *puId) {
    char *szEnd = nullptr;
    const unsigned long ulId = std::strtoul(szId, &szEnd, 10);
    if (*szEnd != '\0') {
        SNAP_LOG_REG(LOG_ERR, "Failed to strtoul() with value [%s][0x%04X %s:%d]", szId);
        return false;
    }
    *puId = static_cast<unsigned int>(ulId);
    return true;
}

int PushUserName(const char *szId, QLIBCSZLIST **ppNames) {
    unsigned int uId = 0;
    UserOwner user;
    if (!ParseId(szId, &uId) || QOVAUserGetByUID(uId, &user) < 0) {
        return 0;
    }
    return QLIBCSzListPush(ppNames, user->szName);
}

int PushGroupName(const char *szId, QLIBCSZLIST **ppNames) {
    unsigned int uId = 0;
    GroupOwner group;
    if (!ParseId(szId, &uId) || QOVAGroupGetByGID(uId, &group) < 0) {
        return 0;
    }
    char szName[255];
    (void)std::snprintf(szName, sizeof(szName), "@%s", group->szName);
    return QLIBCSzListPush(ppNames, szName);
}

int ConvertIds(const char *szUids, const char *szGids, char **ppResult) {
    ThreeLists lists;
    if (!lists.complete()) {
        SNAP_LOG_REG(LOG_ERR, "Out of memory [0x%04X %s:%d]");
        return -1;
    }
    if (QLIBCStrTok(szUids, kSeparator, &lists.uids) < 0 || QLIBCStrTok(szGids, kSeparator, &lists.gids) < 0) {
        SNAP_LOG_REG(LOG_ERR, "fail to strtok[0x%04X %s:%d]");
        return -1;
    }
    for (int i = 0; i < lists.uids->nItem; ++i) {
        if (PushUserName(QLIBCSzListGet(lists.uids.get(), i), &lists.names) < 0) {
            return -1;
        }
    }
    for (int i = 0; i < lists.gids->nItem; ++i) {
        if (PushGroupName(QLIBCSzListGet(lists.gids.get(), i), &lists.names) < 0) {
            return -1;
        }
    }
    int cbResult = 0;
    return Join(lists.names.get(), ppResult, &cbResult);
}

} // namespace

int ShareNamesToIds(const char *szStr, char **szUidsResult, int *pcbUidsResultSize, char **szGidsResult,
                    int *pcbGidsResultSize) {
    if (szStr == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szStr");
    }
    if (*szUidsResult != nullptr && *pcbUidsResultSize < 0) {
        return SNAP_BAD_ARGUMENT("(((void *)0) == *szUidsResult || 0 <= *pcbUidsResultSize)");
    }
    if (*szGidsResult != nullptr && *pcbGidsResultSize < 0) {
        return SNAP_BAD_ARGUMENT("(NULL == *szGidsResult || 0 <= *pcbGidsResultSize)");
    }
    ThreeLists lists;
    if (!lists.complete()) {
        SNAP_LOG_REG(LOG_ERR, "Out of memory [0x%04X %s:%d]");
        return -1;
    }
    if (QLIBCStrTok(szStr, kSeparator, &lists.names) < 0) {
        SNAP_LOG_REG(LOG_ERR, "fail to strtok[0x%04X %s:%d]");
        return -1;
    }
    if (ResolveNames(&lists) < 0 || Join(lists.uids.get(), szUidsResult, pcbUidsResultSize) < 0 ||
        Join(lists.gids.get(), szGidsResult, pcbGidsResultSize) < 0) {
        return -1;
    }
    return EmptyIfNull(szUidsResult) < 0 || EmptyIfNull(szGidsResult) < 0 ? -1 : 0;
}

int ShareIdsToNames(const char *szUids, const char *szGids, char **ppResult) {
    if (szUids == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szUids");
    }
    if (szGids == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szGids");
    }
    const int nResult = ConvertIds(szUids, szGids, ppResult);
    return EmptyIfNull(ppResult) < 0 ? -1 : nResult;
}

} // namespace sharesnap
