/* Volumes: file systems mounted at depth one, such as /vol1 (libqovastoragecore).

   No call takes a lock, needs a privilege or asks a FUSE file system anything (one whose program died or hangs can't hold a
   caller up), but QOVAGetFSType of a volume that is such a file system itself. Failures leave a code and errno:
   0x0D00 for a bad argument or a buffer that is too small, 0x2A00 otherwise (ENODEV: no volume holds the path). */
#ifndef SHARESNAP_PLATFORM_VOLUME_H
#define SHARESNAP_PLATFORM_VOLUME_H

#include <sharesnap/platform/api.h>
#include <stddef.h>

QOVA_BEGIN_DECLS

enum { FS_TYPE_UNKNOWN = 0, FS_TYPE_EXT3 = 1, FS_TYPE_EXT4 = 2, FS_TYPE_BTRFS = 3, FS_TYPE_XFS = 4, FS_TYPE_TMPFS = 5 };

enum { QOVA_VOLUME_PATH_SIZE = 132 };

/* A mounted volume. Inline arrays only: a record on the stack needs no free. */
typedef struct QOVAMOUNTVOLINFO {
    int nFsType; /* FS_TYPE_* */
    char szMountPath[4096];
    char szDevice[4096];            /* what is mounted there, as the mount table names it */
    struct QOVAMOUNTVOLINFO *pNext; /* next record of an enumeration; null in a single one */
} QOVAMOUNTVOLINFO;

/* Mount path of the volume that holds the absolute path szPath. An absent path resolves through its nearest existing
   ancestor; a symbolic link leads to the volume of the place it points to; what is mounted below a volume, such as the view
   of an encrypted share, belongs to the volume. szBuf has cbBuf bytes. 0, or -1. */
QOVA_PLATFORM_API int QOVAShareVolPathGet(const char *szPath, char *szBuf, size_t cbBuf);
/* First component of a path ("/vol1/docs" gives "/vol1"), by its text alone. szBuf has QOVA_VOLUME_PATH_SIZE bytes. 0; -1
   for a relative path, one whose first component is "." or "..", and one whose volume has more than 131 bytes. */
QOVA_PLATFORM_API int VolumePathParseEx(const char *szPath, char *szBuf);
/* The number at the end of a volume's name ("/vol1" gives 1), by its text alone; -1 when there is none. */
QOVA_PLATFORM_API int QOVAVolIDParse(const char *szVolPath);
/* FS_TYPE_* of the volume that holds szPath, or of its file system when no volume does; FS_TYPE_UNKNOWN for a type
   without a number. An absent path as above. nFlags is 0. -1 on failure. */
QOVA_PLATFORM_API int QOVAGetFSType(const char *szPath, int nFlags);
/* Fills the caller's zeroed record with the volume that holds szPath, as QOVAShareVolPathGet finds it. 0, or -1. */
QOVA_PLATFORM_API int QOVAMountVolInfoGet(const char *szPath, QOVAMOUNTVOLINFO *pInfo);
/* All mounted volumes, or with an nType other than 0 those of that type, as a chain that the caller frees with
   QOVAMountVolInfoFree; of volumes mounted upon each other the uppermost. Null when there is none, and on failure.
   Called with (0, 1, 0). */
QOVA_PLATFORM_API QOVAMOUNTVOLINFO *QOVAMountVolAllEnum(int nType, int blMounted, int nFlags);
/* Frees a whole chain; null is accepted. Keeps errno. */
QOVA_PLATFORM_API void QOVAMountVolInfoFree(QOVAMOUNTVOLINFO *pInfo);
/* 1 when new files in the directory szPath are made without copy-on-write, or compressed; 0 when not, and on a file
   system without the property; -1 on failure, also for a symbolic link. Mount options don't count. For the view of an
   encrypted share the directory behind it is asked. */
QOVA_PLATFORM_API int QLIBFSGetBTRFSNodatacow(const char *szPath);
QOVA_PLATFORM_API int QLIBFSGetBTRFSCompression(const char *szPath);

QOVA_END_DECLS
#endif
