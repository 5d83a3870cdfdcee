/* Volumes: file systems mounted at depth one, such as /vol1 (libqovastoragecore). */
#ifndef SHARESNAP_PLATFORM_VOLUME_H
#define SHARESNAP_PLATFORM_VOLUME_H

#include <sharesnap/platform/api.h>
#include <stddef.h>

QOVA_BEGIN_DECLS

enum { FS_TYPE_UNKNOWN = 0, FS_TYPE_EXT3 = 1, FS_TYPE_EXT4 = 2, FS_TYPE_BTRFS = 3, FS_TYPE_XFS = 4, FS_TYPE_TMPFS = 5 };

enum { QOVA_VOLUME_PATH_SIZE = 132 };

/* A mounted volume. Inline arrays only: a record on the stack needs no free. */
typedef struct QOVAMOUNTVOLINFO {
    int nFsType;
    char szMountPath[4096];
    char szDevice[4096];
    struct QOVAMOUNTVOLINFO *pNext; /* next record of an enumeration; null in a single one */
} QOVAMOUNTVOLINFO;

/* Mount path of the volume that holds szPath (an absent path resolves through its nearest existing ancestor). 0 or -1.
 */
QOVA_PLATFORM_API int QOVAShareVolPathGet(const char *szPath, char *szBuf, size_t cbBuf);
/* First component of a path ("/vol1/docs" gives "/vol1"); textual. szBuf has QOVA_VOLUME_PATH_SIZE bytes. 0 or -1. */
QOVA_PLATFORM_API int VolumePathParseEx(const char *szPath, char *szBuf);
/* The number at the end of a volume's name ("/vol1" gives 1); -1 when there is none. */
QOVA_PLATFORM_API int QOVAVolIDParse(const char *szVolPath);
/* File-system type of the file system that holds szPath; nFlags is 0. Negative on failure. */
QOVA_PLATFORM_API int QOVAGetFSType(const char *szPath, int nFlags);
/* Fills the caller's zeroed record with the volume that holds szPath. 0 or -1. */
QOVA_PLATFORM_API int QOVAMountVolInfoGet(const char *szPath, QOVAMOUNTVOLINFO *pInfo);
/* All mounted volumes as a chain, freed with QOVAMountVolInfoFree; null when there is none or on failure. Called with
   (0, 1, 0). */
QOVA_PLATFORM_API QOVAMOUNTVOLINFO *QOVAMountVolAllEnum(int nType, int blMounted, int nFlags);
QOVA_PLATFORM_API void QOVAMountVolInfoFree(QOVAMOUNTVOLINFO *pInfo);
/* 1 when the property is set on the directory, 0 when not, -1 on failure. */
QOVA_PLATFORM_API int QLIBFSGetBTRFSNodatacow(const char *szPath);
QOVA_PLATFORM_API int QLIBFSGetBTRFSCompression(const char *szPath);

QOVA_END_DECLS
#endif
