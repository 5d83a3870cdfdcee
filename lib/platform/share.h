/* The share database, read side (libqovasdk).
 *
 * The database is /etc/sharesnap/shares.conf, a sectioned file with one section a share. It is always replaced as a whole,
 * so no call of this header takes a lock or waits. They need the right to read that file, which everybody has as a rule.
 * Where a result is said to be -1 or nonzero a code stands in the register: 0x0D00 for an argument that can't be used,
 * 0x0200 for memory, 0x0900 for a database that can't be read. An absent database has no shares. */
#ifndef SHARESNAP_PLATFORM_SHARE_H
#define SHARESNAP_PLATFORM_SHARE_H

#include <sharesnap/platform/api.h>
#include <sharesnap/platform/szlist.h>
#include <stddef.h>

QOVA_BEGIN_DECLS

enum { QOVA_SHARE_STATUS_UNLOCKED = 0x01, QOVA_SHARE_STATUS_ENCRYPTED = 0x02 };

/* A share record. Strings are owned by the record, each allocated by itself, and never null in one that QOVAShareGet
   gave. */
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

/* Fetches the record of a share. Status bit 0x02 is the database's; bit 0x01 is worked out now, from the mount table: it
   is set when the bit 0x02 is and the view of the share is mounted over its path. The path is plain: no double or trailing
   slashes.
   0 and a record in *ppShare that the caller frees with QOVAShareFree; the register is left as it was. Nonzero on failure,
   *ppShare untouched: 0x2200 no such share; 0x0400 the database is busy, try again (the file is never busy; another place
   of the database may be); 0x0A00 its record can't be used, because it has no absolute path. */
QOVA_PLATFORM_API int QOVAShareGet(const char *szName, QOVASHARE **ppShare);

/* Frees a record with its strings. Null is accepted. Keeps errno. */
QOVA_PLATFORM_API void QOVAShareFree(QOVASHARE *pShare);

/* Pushes the names of all shares onto the caller's list, in the database's order. Records that can't be used are left
   out. All shares are of one type here: uTypeMask isn't looked at. 0; -1 on failure, with names perhaps pushed. */
QOVA_PLATFORM_API int QOVAShareEnum(QLIBCSZLIST **ppList, unsigned int uTypeMask);

/* The same for the shares whose path is szMntPath or lies below it. The paths alone are compared, so that shares of a
   volume that isn't there now are found, too. */
QOVA_PLATFORM_API int QOVAShareEnumByMntPathAndEnumType(QLIBCSZLIST **ppList, const char *szMntPath,
                                                        unsigned int uTypeMask);

/* Splits a share path into the share's name, its last component, and the plain path. Textual. cbName and cbPath are the
   sizes of the buffers in bytes (1024 and 4096 always do). 0; -1 with 0x0D00 for a path that isn't absolute, has "." or
   ".." in it or doesn't fit. */
QOVA_PLATFORM_API int QOVAShareNamePathGet(const char *szSharePath, char *szName, size_t cbName, char *szPath,
                                           size_t cbPath);

/* *pblExist becomes 1 when a section of that name stands in the database, whatever it is worth, else 0. 0, also for a
   name that no share can have; nonzero on failure. */
QOVA_PLATFORM_API int QLIBShareIsExist(const char *szName, int *pblExist);

/* *pnForbidden becomes 1 when the database has a share of the record's name with "sharesnap:forbidden = yes", else 0 (also
   for a share that isn't in the database). 0; -1 on failure, *pnForbidden untouched. */
QOVA_PLATFORM_API int QLIBShareIsForbiddenGet(const QOVASHARE *pShare, int *pnForbidden);

/* *pnEncrypted becomes 1 when bit 0x02 of the record's status is set, else 0; nothing else is looked at. 0, or -1 with
   0x0D00 for a null argument. */
QOVA_PLATFORM_API int QLIBShareIsEncryptionGet(const QOVASHARE *pShare, int *pnEncrypted);

/* Path of the subvolume that really holds the data of an encrypted share: "<directory>/@<base>@" of the share path, cut
   nowhere. Textual. cbBuf is the buffer's size in bytes. 0; -1 with 0x0D00, also when it doesn't fit. */
QOVA_PLATFORM_API int QLIBShareEncryptPathGet(const char *szSharePath, char *szBuf, size_t cbBuf);

/* Location type of the share at a path: "sharesnap:location" of its record, 0 to 3; without it, and for a path that no
   share has, 1: a local share. Negative on failure. */
QOVA_PLATFORM_API int QLIBShareLocTypeGet(const char *szSharePath);

QOVA_END_DECLS
#endif
