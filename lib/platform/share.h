/* The share database, read side (libqovasdk). */
#ifndef SHARESNAP_PLATFORM_SHARE_H
#define SHARESNAP_PLATFORM_SHARE_H

#include <sharesnap/platform/api.h>
#include <sharesnap/platform/szlist.h>
#include <stddef.h>

QOVA_BEGIN_DECLS

enum { QOVA_SHARE_STATUS_UNLOCKED = 0x01, QOVA_SHARE_STATUS_ENCRYPTED = 0x02 };

/* A share record. Strings are owned by the record and never null in one that QOVAShareGet gave. */
typedef struct QOVASHARE {
    char *szName;
    char *szDesc;
    char *szPath;     /* for an encrypted share the path under which it is seen while unlocked */
    char *szDenyList; /* comma-separated names, groups with a leading '@'; likewise the next two */
    char *szRWList;
    char *szROList;
    int nBrowseable;
    int nFtpPrivilege;
    unsigned int uStatus; /* 0x02 encrypted, 0x01 unlocked (read only with 0x02) */
} QOVASHARE;

/* 0 and a record that the caller frees; nonzero on failure: 0x0400 the database is busy, 0x2200 no such share. */
QOVA_PLATFORM_API int QOVAShareGet(const char *szName, QOVASHARE **ppShare);
/* Null is accepted. Keeps errno. */
QOVA_PLATFORM_API void QOVAShareFree(QOVASHARE *pShare);
/* Pushes the names of all shares in the database's order. 0 or -1. */
QOVA_PLATFORM_API int QOVAShareEnum(QLIBCSZLIST **ppList, unsigned int uTypeMask);
/* The same for the shares whose path lies on the volume mounted at szMntPath. */
QOVA_PLATFORM_API int QOVAShareEnumByMntPathAndEnumType(QLIBCSZLIST **ppList, const char *szMntPath,
                                                        unsigned int uTypeMask);
/* Splits a share path: the name (last component) and the path without trailing slashes. 0 or -1. */
QOVA_PLATFORM_API int QOVAShareNamePathGet(const char *szSharePath, char *szName, size_t cbName, char *szPath,
                                           size_t cbPath);
/* *pblExist tells whether the share is in the database. 0, nonzero on failure. */
QOVA_PLATFORM_API int QLIBShareIsExist(const char *szName, int *pblExist);
/* *pnForbidden is 1 for a forbidden share (key "forbidden" of its record). 0 or -1. */
QOVA_PLATFORM_API int QLIBShareIsForbiddenGet(const QOVASHARE *pShare, int *pnForbidden);
/* *pnEncrypted is nonzero when bit 0x02 of the record's status is set; nothing else is looked at. 0 or -1. */
QOVA_PLATFORM_API int QLIBShareIsEncryptionGet(const QOVASHARE *pShare, int *pnEncrypted);
/* "<directory>/@<base>@" of a share path; purely textual. 0 or -1. */
QOVA_PLATFORM_API int QLIBShareEncryptPathGet(const char *szSharePath, char *szBuf, size_t cbBuf);
/* Location type: 1 a local share; negative on failure. */
QOVA_PLATFORM_API int QLIBShareLocTypeGet(const char *szSharePath);

QOVA_END_DECLS
#endif
