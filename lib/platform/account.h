/* Users and groups of the system (libqovasdk).
 *
 * Accounts are looked up through the system's name service, so all of its sources count, also those in the network: a
 * look-up can take as long as these let it. No lock, no privilege. */
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

/* Each finds an account by its name or id. 0 and a record that the caller frees with the family's own function. -1 when
   there is no such account (0x2A00, errno ENOENT), it can't be looked up (0x2A00, errno tells), memory runs out (0x0200) or
   an argument is null (0x0D00); the record pointer is then untouched. */
QOVA_PLATFORM_API int QOVAUserGet(const char *szName, QOVAUSER **ppUser);
QOVA_PLATFORM_API int QOVAUserGetByUID(unsigned int uId, QOVAUSER **ppUser);
/* Null is accepted. Keeps errno. */
QOVA_PLATFORM_API void QOVAUserFree(QOVAUSER *pUser);

QOVA_PLATFORM_API int QOVAGroupGet(const char *szName, QOVAGROUP **ppGroup);
QOVA_PLATFORM_API int QOVAGroupGetByGID(unsigned int uId, QOVAGROUP **ppGroup);
/* Null is accepted. Keeps errno. */
QOVA_PLATFORM_API void QOVAGroupFree(QOVAGROUP *pGroup);

QOVA_END_DECLS
#endif
