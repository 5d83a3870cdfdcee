/* Advisory file locks on a path of their own (libqovacore). */
#ifndef SHARESNAP_PLATFORM_FILE_LOCK_H
#define SHARESNAP_PLATFORM_FILE_LOCK_H

#include <sharesnap/platform/api.h>

QOVA_BEGIN_DECLS

/* Takes the lock on szPath, which is made when missing (0600, no link followed). nMode 0 shared, 1 exclusive; waits up
   to nSeconds seconds. Nonzero when locked, with the lock's descriptor (3 or above) in *pFd; 0 on failure: 0x0400 time
   is up, 0x0900 the file can't be opened or isn't a regular file of its own. A thread that already holds the lock in a
   mode at least as strong gets it again at once. */
QOVA_PLATFORM_API int QLIBCFileLockTimeByFile(const char *szPath, int nMode, int nSeconds, int *pFd);
/* Gives one hold back. Nonzero on success, 0 on failure. Keeps errno. */
QOVA_PLATFORM_API int QLIBCFileUnlockByFile(int nFd);
/* Closes the descriptors of all locks that the process holds, without unlocking: a forked child calls it first. */
QOVA_PLATFORM_API void QLIBCFileCloseLock(void);

QOVA_END_DECLS
#endif
