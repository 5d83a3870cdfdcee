/* String hash: an owned map from string to string that keeps the order of insertion (libqovacore). */
#ifndef SHARESNAP_PLATFORM_SZHASH_H
#define SHARESNAP_PLATFORM_SZHASH_H

#include <sharesnap/platform/api.h>
#include <sharesnap/platform/szlist.h>
#include <stddef.h>

QOVA_BEGIN_DECLS

/* Only the pair count is public; the platform's own fields lie behind it. A hash moves when it grows. */
typedef struct QLIBCSZHASH {
    int nPair;
} QLIBCSZHASH;

/* A new empty hash with room for about cbInit bytes of text; null on failure (code 0x0200). */
QOVA_PLATFORM_API QLIBCSZHASH *QLIBCSzHashAlloc(size_t cbInit);
/* Frees it; null is accepted. Keeps errno. */
QOVA_PLATFORM_API void QLIBCSzHashFree(QLIBCSZHASH *pHash);
/* Copies both; an existing key gets the new value in its old place. The hash may move. 0 on success, -1 on failure
   (the hash is then as it was). */
QOVA_PLATFORM_API int QLIBCSzHashSetValue(QLIBCSZHASH **ppHash, const char *szKey, const char *szValue);
/* The value, owned by the hash and valid until it changes; null when absent. */
QOVA_PLATFORM_API const char *QLIBCSzHashGetValue(const QLIBCSZHASH *pHash, const char *szKey);
/* 1 when removed, 0 when absent. */
QOVA_PLATFORM_API int QLIBCSzHashRemoveKey(QLIBCSZHASH *pHash, const char *szKey);
/* Pushes every key in the order of insertion; 0, or -1 on failure. */
QOVA_PLATFORM_API int QLIBCSzHashEnumKey(const QLIBCSZHASH *pHash, QLIBCSZLIST **ppList);
/* Both: the number of pairs, 0 for a null hash. */
QOVA_PLATFORM_API int QLIBCSzHashPairNum(const QLIBCSZHASH *pHash);
QOVA_PLATFORM_API int QLIBCSzHashGetLength(const QLIBCSZHASH *pHash);
/* Empties it and keeps it. */
QOVA_PLATFORM_API void QLIBCHashRemoveAll(QLIBCSZHASH *pHash);

QOVA_END_DECLS
#endif
