/* Directories, support check, snapshot names and times, time-limited child process.
 *
 * Every function returns an int and leaves a code in the error register when it fails (<sharesnap/platform/error.h>).
 * Share records belong to the caller and are only read. Paths go into buffers of the caller, whose size in bytes counts
 * the terminating NUL; 4096 bytes are enough for every path. A path that doesn't fit is refused with 0x0D00, never cut.
 * Unless said otherwise a function takes no lock, waits for nothing but the file system, and needs root. */
#ifndef SHARESNAP_FRAME_H
#define SHARESNAP_FRAME_H

#include <sharesnap/api.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

SHARESNAP_BEGIN_DECLS

/* What a request wants to do to a share; a mask of one bit or several. The bits between are for callers: 0x004 is
   refused on an encrypted share that isn't unlocked, 0x010 on every encrypted share, the others have no rule of their
   own. */
enum { SNAP_CREATE = 0x001, SNAP_DELETE = 0x002, SNAP_CLONE = 0x008, SNAP_ALL = 0x1FF };

/* While pEntry isn't null the actions of uMask are refused for all shares. Zeroed at start; only the process that loads
   the library writes it. */
typedef struct QOVAShareSnapBlackListRecord {
    void *pEntry;
    uint32_t uMask;
} QOVAShareSnapBlackListRecord;
SHARESNAP_API extern QOVAShareSnapBlackListRecord BlackList;

/* Tells whether a directory, or a regular file, stands at a path; links are followed.
   1 it does; 0 nothing does, or the path can't be looked at; -1 something else does. Sets no code. Needs no privilege
   but search permission. */
SHARESNAP_API int ShareSnapCheckDirExist(const char *szPath);
SHARESNAP_API int ShareSnapCheckFileExist(const char *szPath);

/* Finds the subvolume szDir at the top of the share's volume ("/vol1/@sharesnap"), or makes it.
   pShare     the share; its path tells the volume
   szDir      one name
   szPath     receives the path, also where nothing stands yet
   cbPath     its size in bytes
   blCreate   not 0: make it when it is missing; what else stands there is renamed to "<path>.<seconds>" and kept
   1 it stands; 0 it is missing and blCreate is 0, or it couldn't be made (0x0C00); -1 bad arguments (0x0D00), or the
   share has no volume. A creator that loses a race against another one finds the other's subvolume: 1. */
SHARESNAP_API int SnapGetOrCreateSubvolume(const QOVASHARE *pShare, const char *szDir, char *szPath, size_t cbPath,
                                           int blCreate);

/* The same for the share's own subvolume below that one: "<szDir>/<share>", "<szDir>/@<share>@" for an encrypted share.
   A new one gets an icon for network clients as far as that can be had; an existing one is never changed.
   Results as above, but with blCreate -1 when szDir itself couldn't be made, and 0 with 0x0C00 for the loser of a
   race. */
SHARESNAP_API int SnapGetOrCreateSubvolumeWithShare(const QOVASHARE *pShare, const char *szDir, char *szPath,
                                                    size_t cbPath, int blCreate);

/* Finds or makes the directory that holds the share's snapshots, "/vol1/@sharesnap/docs". The share must support
   snapshots. Arguments and results as above; -1 also with the code that QOVAShareSnapCheckSupport left. */
SHARESNAP_API int QOVAShareSnapGetOrCreateSnapDir(const QOVASHARE *pShare, char *szPath, size_t cbPath, int blCreate);

/* Tells whether the share can have snapshots, and whether the actions may be done on it.
   pShare     the share
   pFsType    receives the type of its file system (FS_TYPE_*) as soon as that is known, also when the answer is no; may
              be null
   nAction    SNAP_* bits, all of which must be allowed; 0 asks about the share alone
   0 yes; -1 no: 0xD900 not Btrfs, no subvolume, or an action refused; 0x6400 the share is forbidden; 0x0D00 a null
   share or a mask out of range; another code when it couldn't be found out. */
SHARESNAP_API int QOVAShareSnapCheckSupport(const QOVASHARE *pShare, int *pFsType, unsigned int nAction);

/* Writes the path of a snapshot and tells whether it stands. Makes nothing. Compare the result with 1.
   pShare       the share
   szSnapshot   name of the snapshot
   szBuf        receives the path, also of a snapshot that doesn't stand
   cbBuf        its size in bytes
   1 it is a subvolume; 0 it is absent, or the share has no snapshot directory; -1 something else stands there, bad
   arguments (0x0D00), or the share supports no snapshots. */
SHARESNAP_API int QOVAShareSnapGetSnapPath(const QOVASHARE *pShare, const char *szSnapshot, char *szBuf, size_t cbBuf);

/* Moves the snapshot directory of a share that gets another name. The old one is made when it is missing.
   pOldShare, pNewShare   the records before and after
   0 moved; -1: 0xE700 the new one stands already, 0x2A00 the rename failed, 0x0D00 a null record, or another code. */
SHARESNAP_API int SnapshotDirRename(const QOVASHARE *pOldShare, const QOVASHARE *pNewShare);

/* Pushes the names of all subvolumes below the share's snapshot directory, as the volume holds them. What is nested in
   a snapshot has slashes in its name. Runs the program /sbin/btrfs and waits for its end.
   pShare   the share
   ppList   an allocated list of the caller, not emptied first; it may move
   0; -1 with names pushed so far still in the list. */
SHARESNAP_API int BtrfsListSnaps(const QOVASHARE *pShare, QLIBCSZLIST **ppList);

/* Copies the path of the subvolume that holds the share's data: its path, or the back end of an encrypted share.
   szShareSubvolPath   receives it
   cb                  its size in bytes
   0; -1 bad arguments or a path that doesn't fit (0x0D00), or the share's state can't be had. Needs no privilege. */
SHARESNAP_API int ShareSubvolumePathGet(const QOVASHARE *pShare, char *szShareSubvolPath, size_t cb);

/* Adds the facts of a snapshot's subvolume (hide, ruuid, uuid, parent_uuid, create_time) to a hash.
   pShare       the share
   szSnapName   name of the snapshot
   ppHash       an allocated hash of the caller; it may move
   0; negative on failure: 0x0D00 bad arguments, 0xD900 the platform can't tell facts, or another code. */
SHARESNAP_API int SnapFillSubvolInfo(const QOVASHARE *pShare, const char *szSnapName, QLIBCSZHASH **ppHash);

/* As SnapGetOrCreateSubvolume and SnapGetOrCreateSubvolumeWithShare, for plain directories (mode 0777 less the umask).
   1 it stands or was made; 0 it is missing and blCreate is 0, or mkdir failed (0x0C00); -1 bad arguments (0x0D00), no
   volume, or something else stands there (0xA000). */
SHARESNAP_API int QOVAShareSnapGetOrCreateDir(const QOVASHARE *pShare, const char *szDir, char *szPath, size_t cbPath,
                                              int blCreate);
SHARESNAP_API int SnapGetOrCreateDirWithShare(const QOVASHARE *pShare, const char *szDir, char *szPath, size_t cbPath,
                                              int blCreate);

/* Make /run/lock/sharesnap, and /run/sharesnap, when they are missing (mode 0777 less the umask). The argument of the
   second isn't looked at.
   1 it stands; 0 mkdir failed (0x0C00); -1 something else stands there (0xA000). */
SHARESNAP_API int QOVAShareSnapCreateRunLockShareSnapDir(void);
SHARESNAP_API int QOVAShareSnapCreateTmpShareSnapDir(const char *szIgnored);

/* Takes the metadata lock of a share, /run/lock/sharesnap/sharesnap_meta_lock/<share>.lock. Waits up to 10 seconds.
   pShare   the share; its name alone is read
   nMode    0 shared, 1 exclusive
   The lock's descriptor, 0 or above, which the caller gives back with QLIBCFileUnlockByFile; -1 on failure: 0x0400 the
   time is up, 0x0900 the lock file can't be opened, 0xA000 or 0x0C00 its directory can't be had. */
SHARESNAP_API int QOVAShareSnapLockMetaFile(const QOVASHARE *pShare, int nMode);

/* QLIBCFileSetSection, QLIBCFileAddSection and QLIBCFileRemoveSection with their arguments and results; a failure for
   want of space gets the code 0x2900. The caller holds the lock of the file. */
SHARESNAP_API int SnapFileSectionSet(const char *szPath, const char *szSection, const char *szNewSection,
                                     const QLIBCSZHASH *pHash, const char *szFormat);
SHARESNAP_API int SnapFileSectionAdd(const char *szPath, const char *szSection, const QLIBCSZHASH *pHash,
                                     const char *szFormat);
SHARESNAP_API int SnapFileSectionRemove(const char *szPath, const char *szSection);

/* Takes out of a mask the actions that are refused on the share: by its encryption, by BlackList, by its location.
   pShare     the share
   puAction   SNAP_* bits, 1 to SNAP_ALL; compare before and after
   0, also when bits went; -1 bad arguments (0x0D00), mask unchanged. Needs no privilege. */
SHARESNAP_API int QOVAShareSnapBlackList(const QOVASHARE *pShare, unsigned int *puAction);

/* Sets (blSet not 0) or clears the flag that keeps user quota from being loaded for a subvolume; other flags stay.
   0; -1: 0x0900 it can't be opened, 0x2A00 the kernel refuses, as stock kernels do. */
SHARESNAP_API int BtrfsSubvolNoLoadUsrQuotaAttrSet(const char *szPath, int blSet);

/* Writes the name of a snapshot taken at a time: "GMT-2026.01.02-03.04.05" in UTC, "GMT+08-2026.01.02-11.04.05" or
   "GMT+0530-2026.01.02-08.34.05" in the local zone.
   szName    receives it; 29 bytes hold every form
   cbName    its size in bytes; a name that doesn't fit gives 0 and an unspecified content
   tTime     seconds since 1970
   blLocal   1 local zone (the one that TZ names now), anything else UTC
   0; -1: 0x0D00 null buffer, 0x2A00 a time without a date. Needs no privilege. */
SHARESNAP_API int SnapNameGenerateByTime(char *szName, size_t cbName, time_t tTime, unsigned int blLocal);

/* Reads the time in a snapshot's name of any form. Behind the UTC form any text may follow; a local form is told by the
   length of the whole name.
   szName   the name
   ptTime   receives seconds since 1970
   0; -1: 0x0D00 a null argument, 0x2A00 no name of a snapshot. Needs no privilege. */
SHARESNAP_API int QOVAShareSnapTimeGet(const char *szName, time_t *ptTime);

/* A task for ShareSnapTimeLimitFork. */
typedef struct TimeLimitTask {
    int (*pfnTask)(void *pArg);
    void *pArg;
} TimeLimitTask;

/* Runs a task in a forked child, with /dev/null for its standard streams, in a session of its own and without the
   parent's locks. The task sees the parent's memory as it was and gives back nothing but its exit status.
   ulSecTimeout     limit in seconds, above 0
   pTimeLimitTask   the task
   pFuncRet         receives its result as a byte, 0 to 255 (-1 arrives as 255); left alone when the child ended by a
                    signal
   0 the child ended by itself; -1 with 0x2E00: the limit passed and the child got SIGTERM; -1 with 0x0D00, 0x0200 or
   0x2A00: it couldn't be run or waited for.
   Waits for the child's end, behind the limit too when it ignores SIGTERM; any signal that the process handles while it
   waits ends the limit. Installs a handler of SIGUSR1 and leaves it. One call at a time in a process. SIGCHLD must not
   be ignored: nobody could tell then how the child ended, and the call fails (0x2A00). Needs no privilege. */
SHARESNAP_API int ShareSnapTimeLimitFork(unsigned long ulSecTimeout, const TimeLimitTask *pTimeLimitTask,
                                         int *pFuncRet);

SHARESNAP_END_DECLS
#endif
