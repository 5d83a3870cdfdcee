/* String list: an owned, growable vector of owned NUL-terminated strings (libqovacore). */
#ifndef SHARESNAP_PLATFORM_SZLIST_H
#define SHARESNAP_PLATFORM_SZLIST_H

#include <sharesnap/platform/api.h>
#include <stddef.h>

QOVA_BEGIN_DECLS

/* Only the item count is public; the platform's own fields lie behind it. A list moves when it grows. */
typedef struct QLIBCSZLIST {
    int nItem;
} QLIBCSZLIST;

/* A new empty list with room for about cbInit bytes of text; null on failure (code 0x0200). */
QOVA_PLATFORM_API QLIBCSZLIST *QLIBCSzListAlloc(size_t cbInit);
/* Frees list and items; null is accepted. Keeps errno. */
QOVA_PLATFORM_API void QLIBCSzListFree(QLIBCSZLIST *pList);
/* Copies szItem to the end; the list may move. 0 and nothing added for a null szItem; the new number of items on
   success; -1 on failure, list unchanged. */
QOVA_PLATFORM_API int QLIBCSzListPush(QLIBCSZLIST **ppList, const char *szItem);
/* The item, owned by the list and valid until it changes; null when out of range. */
QOVA_PLATFORM_API const char *QLIBCSzListGet(const QLIBCSZLIST *pList, int nIndex);
/* Empties the list and keeps it. */
QOVA_PLATFORM_API void QLIBCSzListRemoveAll(QLIBCSZLIST *pList);
/* Index of the first equal item, -1 when absent. */
QOVA_PLATFORM_API int QLIBCSzListFind(const QLIBCSZLIST *pList, const char *szItem);
/* New list, in the first list's order, of the strings that stand in both / in the first only; null on failure. The
   time grows with the sum of the lengths, not with their product. cbInit as for QLIBCSzListAlloc. */
QOVA_PLATFORM_API QLIBCSZLIST *QLIBCSzListAnd(const QLIBCSZLIST *pList, const QLIBCSZLIST *pOther, size_t cbInit);
QOVA_PLATFORM_API QLIBCSZLIST *QLIBCSzListSub(const QLIBCSZLIST *pList, const QLIBCSZLIST *pOther, size_t cbInit);

QOVA_END_DECLS
#endif
