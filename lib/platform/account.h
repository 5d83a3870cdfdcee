/* Users and groups of the system (libqovasdk). */
#ifndef SHARESNAP_PLATFORM_ACCOUNT_H
#define SHARESNAP_PLATFORM_ACCOUNT_H

#include <sharesnap/platform/api.h>

QOVA_BEGIN_DECLS

typedef struct QOVAUSER {
    char *szName;
    unsigned int uId;
} QOVAUSER;

typedef struct QOVAGROUP {
    char *szName;
    unsigned int uId;
} QOVAGROUP;

/* 0 and a record that the caller frees; -1 when there is no such account or it can't be resolved. */
QOVA_PLATFORM_API int QOVAUserGet(const char *szName, QOVAUSER **ppUser);
QOVA_PLATFORM_API int QOVAUserGetByUID(unsigned int uId, QOVAUSER **ppUser);
QOVA_PLATFORM_API void QOVAUserFree(QOVAUSER *pUser);
QOVA_PLATFORM_API int QOVAGroupGet(const char *szName, QOVAGROUP **ppGroup);
QOVA_PLATFORM_API int QOVAGroupGetByGID(unsigned int uId, QOVAGROUP **ppGroup);
QOVA_PLATFORM_API void QOVAGroupFree(QOVAGROUP *pGroup);

QOVA_END_DECLS
#endif
