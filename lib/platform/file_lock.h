/* Advisory file locks on a path of their own (libqovacore). */
#ifndef SHARESNAP_PLATFORM_FILE_LOCK_H
#define SHARESNAP_PLATFORM_FILE_LOCK_H

#include <sharesnap/platform/api.h>

QOVA_BEGIN_DECLS

/* Takes the lock on szPath, which is made when missing (0600, no link followed; its directory must stand). nMode 0
   shared, 1 exclusive; waits up to nSeconds seconds, not at all with 0. Nonzero when locked, with the lock's descriptor
   (3 or above) in *pFd; 0 on failure: 0x0400 time is up, 0x0900 the file can't be opened, isn't a regular file with one
   name, or it or a directory on the way belongs to a user other than root and the caller (effective user id).

   A thread that already holds the lock in a mode at least as strong gets it again at once, and gives it back as often
   as it took it. A shared hold isn't raised: asking for an exclusive one over it fails at once with 0x0400. Another
   thread waits like another process. While somebody waits for an exclusive lock, no new shared ones are given. */
QOVA_PLATFORM_API int QLIBCFileLockTimeByFile(const char *szPath, int nMode, int nSeconds, int *pFd);

/* Gives one hold back; any thread may. Nonzero on success, 0 on failure (0x0D00: no such lock). Keeps errno. */
QOVA_PLATFORM_API int QLIBCFileUnlockByFile(int nFd);

/* Closes the descriptors of all locks that the process holds, without unlocking: a forked child calls it first. The
   parent's locks stay held, and the child waits for them like any process. Keeps errno. */
QOVA_PLATFORM_API void QLIBCFileCloseLock(void);

QOVA_END_DECLS
#endif
