/* Splitting and joining of texts (libqovacore). */
#ifndef SHARESNAP_PLATFORM_TEXT_H
#define SHARESNAP_PLATFORM_TEXT_H

#include <sharesnap/platform/api.h>
#include <sharesnap/platform/szlist.h>

QOVA_BEGIN_DECLS

/* Splits at each szSeparator (a whole text, not a set of characters; not empty), drops empty pieces, pushes the
   others. 0 or -1. */
QOVA_PLATFORM_API int QLIBCStrTok(const char *szText, const char *szSeparator, QLIBCSZLIST **ppList);

/* Joins nItem texts into *pszResult, which it allocates or enlarges (*pcbResult is its size in bytes; it starts null
   with 0); the caller frees it with free. No text gives "". 0; or -1, the result then as it was. */
QOVA_PLATFORM_API int QLIBCStrJoin(const char *const *rgszItem, int nItem, const char *szSeparator, char **pszResult,
                                   int *pcbResult);

QOVA_END_DECLS
#endif
