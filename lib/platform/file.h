/* File checks (libqovacore). */
#ifndef SHARESNAP_PLATFORM_FILE_H
#define SHARESNAP_PLATFORM_FILE_H

#include <sharesnap/platform/api.h>
#include <sys/stat.h>

QOVA_BEGIN_DECLS

/* 1 when something stands at the path, be it a link that leads nowhere; else 0. */
QOVA_PLATFORM_API int QLIBCFileExist(const char *szPath);

/* 1 when a directory stands at the path itself (a link to one doesn't count), else 0. */
QOVA_PLATFORM_API int QLIBCFileCheckDir(const char *szPath);

/* Makes an empty file (mode 0644 and the umask, no link followed) or renews the times of a regular file that stands.
   0; or -1 with errno and a code (0x0C00: it can't be made or opened). */
QOVA_PLATFORM_API int QLIBCFileTouch(const char *szPath);

/* stat with nFlag 1, lstat with nFlag 0. 0; or -1 with errno and 0x2A00. */
QOVA_PLATFORM_API int QLIBCFileStat(const char *szPath, int nFlag, struct stat *pStat);

QOVA_END_DECLS
#endif
