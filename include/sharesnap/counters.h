/* Counters of visible snapshots; counted system locks on snapshots.
 *
 * Every function returns an int and leaves a code in the error register when it fails (<sharesnap/platform/error.h>);
 * where a result is the same for several failures the code tells them apart. Share records belong to the caller and are
 * only read. No function keeps a pointer that it was given. Root is needed: for the lock files, for the attribute and
 * for what lies below /run.
 *
 * Counters. The number of a share's visible snapshots (those whose metadata says "hide=false") is kept in the extended
 * attribute "user.snapcount" of the directory that holds the share's snapshots. It is a cache: a count that is missing
 * or unreadable is worked out from the metadata by every reader, and stored by the next update. Updates of one share
 * exclude each other by a lock that is waited for up to 5 seconds (0x0400 when the time was up). Readers of the
 * attribute take no lock. A recount reads the metadata under its shared lock, waited for up to 10 seconds.
 *
 * System locks. An initiator, a program with a name of its own choice, claims a snapshot, as often as it likes; while
 * anybody has a claim on it, QOVAShareSnapDelete refuses the snapshot. Claims lie below /run and end with a reboot.
 * Nobody checks whether an initiator still lives. */
#ifndef SHARESNAP_COUNTERS_H
#define SHARESNAP_COUNTERS_H

#include <sharesnap/api.h>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/szlist.h>
#include <stdint.h>

SHARESNAP_BEGIN_DECLS

/* Reads the number of a share's visible snapshots.
   pShare      the share
   pCount      receives the number, 0 on a failure. A stored negative number is given as it is
   blRecount   not 0: counts in the metadata, whatever is stored. Nothing is stored
   0: the stored number, or the share has no directory of snapshots yet and the number is 0; 1: counted in the metadata;
   -1: 0x0D00 a null argument, 0xD900 the share can't have snapshots, or the code of what couldn't be read.
   Waits up to 10 seconds for the metadata, and only to count. */
SHARESNAP_API int QOVAShareSnapGetSnapCount(const QOVASHARE *pShare, int *pCount, int blRecount);

/* Adds to the number of a share's visible snapshots and stores it.
   pShare     the share
   nDelta     what to add, may be negative or 0
   blCreate   not 0: the metadata doesn't show the change yet, and a missing directory of snapshots is made;
              0: the metadata shows it, so when the number has to be counted there nDelta isn't added once more
   The number stored, never below 0: one that would be is logged and set to 0; one above INT_MAX stays INT_MAX.
   -1: nothing was stored: 0x0400 the counter's lock wasn't had in 5 seconds, 0xA000 or 0x0C00 its directory can't be
   had, 0x0D00 a null share or name, there is no directory of snapshots and blCreate is 0 (a number of 0 needs none and
   is a success), or what QOVAShareSnapGetSnapCount failed with; a failing setxattr is logged with its errno.
   Takes the counter's lock exclusively. A caller that holds the metadata lock took that first. */
SHARESNAP_API int QOVAShareSnapUpdateSnapCountEx(const QOVASHARE *pShare, int nDelta, int blCreate);

/* The same with blCreate 0. */
SHARESNAP_API int QOVAShareSnapUpdateSnapCount(const QOVASHARE *pShare, int nDelta);

/* Gives the number of a share's visible snapshots, stored anew or as it is.
   pShare   the share
   blSync   0: as QOVAShareSnapGetSnapCount without a recount, no lock of the counter; not 0: counts in the metadata and
            stores the number, under the counter's exclusive lock
   The number; -1 as above. With blSync 0 a stored negative number is given as it is. */
SHARESNAP_API int ShareSnapSnapCountGet(const QOVASHARE *pShare, int blSync);

/* The same with blSync 1: brings the stored number in line with the metadata. */
SHARESNAP_API int QOVAShareSnapSyncSnapCount(const QOVASHARE *pShare);

/* Adds up the numbers of all shares on Btrfs volumes.
   blSync   not 0: each number is counted and stored first, one share after the other, so that no two counters are
            locked at once
   The sum, INT_MAX at most. A share whose record can't be fetched adds nothing; while the share database is busy it is
   asked up to five times, with 0 to 4 seconds of sleep after each. -1: the shares can't be listed, or the volume or the
   number of one of them can't be had; what was stored until then stays. */
SHARESNAP_API int ShareSnapGlobalSnapCountGet(int blSync);

/* The same with blSync 0 and 1. */
SHARESNAP_API int QOVAShareSnapGetGlobalSnapCount(void);
SHARESNAP_API int QOVAShareSnapSyncGlobalSnapCount(void);

/* Adds 1 to an initiator's claim on a snapshot; a first one makes it.
   pShare        the share; only its name is used
   szSnapshot    name of the snapshot, which need not exist
   szInitiator   name of the initiator, without '=' and line feeds; not checked against any list
   1; -1: the claim is as it was: 0x0D00 a null argument (nothing is logged), 0x0400 the lock wasn't had in 10 seconds,
   0xA000 something else stands in the place of a directory below /run, 0x0900 the file of claims or the directory above
   it can't be opened, 0x2900 no space, or
   another code of the file's writer. A claim of 4294967295 stays.
   Takes the exclusive lock of the share's claims; waits up to 10 seconds. */
SHARESNAP_API int QOVAShareSnapSysLockIncrement(const QOVASHARE *pShare, const char *szSnapshot,
                                                const char *szInitiator);

/* Takes 1 from an initiator's claim; the last 1 ends it. Without a claim nothing changes, and that is a success.
   Arguments, results and lock as above. */
SHARESNAP_API int QOVAShareSnapSysLockDecrement(const QOVASHARE *pShare, const char *szSnapshot,
                                                const char *szInitiator);

/* Ends an initiator's claim whatever its count, for one that went away without doing so. Arguments, results and lock as
   above. */
SHARESNAP_API int QOVAShareSnapSysLockRemove(const QOVASHARE *pShare, const char *szSnapshot, const char *szInitiator);

/* Reads the count of an initiator's claim.
   pShare, szSnapshot, szInitiator   as above
   pCount                            receives the count, 0 without a claim; left alone when the lock wasn't had
   1, also without a claim; -1 as above. An empty file of claims is made when there is none.
   Takes the lock of the share's claims shared; waits up to 10 seconds. */
SHARESNAP_API int QOVAShareSnapSysLockGet(const QOVASHARE *pShare, const char *szSnapshot, const char *szInitiator,
                                          uint32_t *pCount);

/* Pushes the names of all initiators that have a claim on a snapshot.
   pShare, szSnapshot   as above
   pList                address of the caller's list, which isn't emptied first and may move
   1, also when nobody has one; -1 as above, or a push failed and some names are missing.
   Takes the lock of the share's claims shared; waits up to 10 seconds, and drops it at the end: a claim made afterwards
   isn't in the list. */
SHARESNAP_API int QOVAShareSnapSysLockInitiatorList(const QOVASHARE *pShare, const char *szSnapshot,
                                                    QLIBCSZLIST **pList);

/* For the program that renames a share: carries the claims to the new name.
   szOld, szNew   the share's names
   0, also without claims, and when a file couldn't be moved or removed (which is logged; the claims then stay under the
   old name); -1: nothing was done: 0x0D00 a null name or one too long, 0xA000 a directory below /run can't be had.
   Takes no lock: the caller sees to it that nobody uses either name meanwhile. */
SHARESNAP_API int ShareSnapSysLockShareRenameHook(const char *szOld, const char *szNew);

/* For the program that removes a share: ends all claims on its snapshots.
   szShare   the share's name
   Results as above. Takes no lock. */
SHARESNAP_API int ShareSnapSysLockShareDeleteHook(const char *szShare);

SHARESNAP_END_DECLS
#endif
