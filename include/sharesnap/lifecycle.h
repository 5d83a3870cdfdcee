/* Creation, deletion, clones, plug-in actions, sizes and notices, share-level operations.

   Common to all functions below, where they don't say otherwise:
   - Results are 0 on success and -1 on failure; a failure leaves its code in the error register (platform/error.h) and
     a line in syslog. Texts are NUL-terminated. Share records, lists and hashes stay the caller's.
   - A null pointer where none is allowed gives -1 with SNAP_ERR_BAD_PARAMETER, before anything has happened.
   - Operations on subvolumes need root. Locks are files below /run/lock/sharesnap; a lock that can't be had in its time
     gives -1 with SNAP_ERR_BUSY.
   - Calls are safe in concurrent processes. One process must not create snapshots in two threads at a time: the time
     limit of the PRE action uses a signal and a pipe of the whole process.
   - The process must not ignore SIGCHLD: how children and programs ended can't be told then, and calls that need them
     fail. */
#ifndef SHARESNAP_LIFECYCLE_H
#define SHARESNAP_LIFECYCLE_H

#include <sharesnap/api.h>
#include <sharesnap/platform/mresult.h>
#include <sharesnap/platform/plugin.h>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

SHARESNAP_BEGIN_DECLS

/* Flag of QOVAShareSnapCreateEx: wait for the POST action. */
enum { SNAP_CREATE_BLOCKING_POST = 0x1 };
/* Phases of a plug-in action. */
enum { SNAP_PHASE_PRE = 4, SNAP_PHASE_POST = 5 };
/* Numbers of the log events. */
enum {
    SNAP_EVENT_CREATE_DONE = 0x13C00001,
    SNAP_EVENT_CREATE_FAILED = 0x13C00002,
    SNAP_EVENT_DELETE_DONE = 0x13C00003,
    SNAP_EVENT_DELETE_FAILED = 0x13C00004
};

/* Creation --------------------------------------------------------------------------------------------------------- */

/* Takes a read-only snapshot of a share, with the share's configuration frozen into it. The snapshot is named by the
   clock, announced to plug-ins, counted when it is visible, recorded in the share's metadata and taken.

   pShare                  the share. Its data must be a Btrfs subvolume, and the share not forbidden.
   szSnapName, cbSnapName  receives the name, cut to cbSnapName bytes with its end (32 are enough). Null: not wanted.
                           Written when the snapshot was taken, else left alone.
   ppHash                  attributes of the snapshot, at most 64 pairs, keys up to 63 and values up to 511 bytes. Comes
                           back with the defaults added (QOVAShareSnapDefaultAttr), also after a failure; the hash may
                           move. Null: defaults alone. "hide" is "true" or "false"; a hidden snapshot isn't counted and
                           knows no limit.

   0 the snapshot stands; -2 another request took the same name (code SNAP_ERR_SECTION_EXISTS or
   SNAP_ERR_SNAPSHOT_EXISTS): try again in the next second, or let ShareSnapCreateNameConflictRetry do so; -1 otherwise:
     SNAP_ERR_UNSUPPORTED         not Btrfs, not a subvolume, or the action is refused for the share
     SNAP_ERR_SHARE_FORBIDDEN     the share is forbidden
     SNAP_ERR_SNAPSHOT_LIMIT      the share or the system has its number of snapshots
     SNAP_ERR_LOW_RESERVED_SPACE  less than 100 MB would stay free on the volume
     SNAP_ERR_NO_SPACE            the volume is full
     SNAP_ERR_TOO_MANY_ATTRIBUTES, SNAP_ERR_ATTR_TOO_LONG, SNAP_ERR_BAD_PARAMETER  the attributes
     and the codes of what it calls. After a failure count, metadata and subvolume are as before, but for two cases: when
     a step back fails too, what it should have undone stays (the log says so); and after a -2 by a code that an earlier
     call had left in the register the snapshot can stand without its section. QOVAShareSnapMetaSync mends both.

   Waits: up to 10 seconds for the PRE action, which can't stop the snapshot by failing or by being slow, then for the
   metadata lock (10 s) and the counter lock (5 s), each held for single steps. The POST action is sent in every case
   once the plug-ins were opened, and isn't waited for. Installs a handler of SIGUSR1, which stays. Needs root. */
SHARESNAP_API int QOVAShareSnapCreate(const QOVASHARE *pShare, char *szSnapName, size_t cbSnapName,
                                      QLIBCSZHASH **ppHash);

/* The same with flags: SNAP_CREATE_BLOCKING_POST waits for the plug-ins of the POST action, without a limit. Other bits
   are ignored. */
SHARESNAP_API int QOVAShareSnapCreateEx(const QOVASHARE *pShare, char *szSnapName, size_t cbSnapName,
                                        QLIBCSZHASH **ppHash, unsigned int uFlags);

/* The same as QOVAShareSnapCreate without the share's configuration. */
SHARESNAP_API int QOVAShareSnapCreateNoShareInfo(const QOVASHARE *pShare, char *szSnapName, size_t cbSnapName,
                                                 QLIBCSZHASH **ppHash);

/* QOVAShareSnapCreate up to nRetry + 1 times, as long as it gives -2. nRetry is at most 10, else -1 with
   SNAP_ERR_BAD_PARAMETER. Sleeps a second after each conflict, the last one too. The result of the last attempt. */
SHARESNAP_API int ShareSnapCreateNameConflictRetry(const QOVASHARE *pShare, char *szSnapName, size_t cbSnapName,
                                                   QLIBCSZHASH **ppHash, unsigned int nRetry);

/* How many visible snapshots a share may have: key max_snapshots_per_share of /etc.defaults/qovainfo.conf, 1024 without
   it. No lock, no privilege. */
SHARESNAP_API int QOVAShareSnapMaximumGet(void);

/* 0 when the limits of share and system allow another visible snapshot. -1 with SNAP_ERR_SNAPSHOT_LIMIT when not, with
   another code when that can't be told. Takes no lock while the counter is good; a missing one is recounted under the
   shared metadata lock (10 s). */
SHARESNAP_API int QOVAShareSnapCheckReachMaxSnapshot(const QOVASHARE *pShare);

/* The same, and once more after the counters of all shares were recounted, since they may have drifted. Takes metadata
   and counter lock of each share in turn. Needs root. */
SHARESNAP_API int QOVAShareSnapCheckMaxRetry(const QOVASHARE *pShare);

/* Writes the event that tells an administrator what became of a creation. Call it right after the creation: the text of
   a failure goes by the code in the register, which is the same afterwards.

   szSnapName  the snapshot's name; may be null when blSuccess is 0
   szActor     who asked for it; stands first in the event
   blSuccess   nonzero: SNAP_EVENT_CREATE_DONE; 0: SNAP_EVENT_CREATE_FAILED

   0; -1 when an argument is missing or the event can't be written, also without a change of the code. */
SHARESNAP_API int QOVAShareSnapCreateLogSet(const QOVASHARE *pShare, const char *szSnapName, const char *szActor,
                                            int blSuccess);

/* Deletion --------------------------------------------------------------------------------------------------------- */

/* Deletes a batch of snapshots: subvolumes, sections of the metadata, their number in the counter. One bad name doesn't
   stop the others.

   pListSnap   the names; unchanged
   ppMResult   address of a record from QLIBCMResultAlloc. It is initialised here; the address may then hold another
               record, and what it holds in the end the caller frees. Entry i belongs to name i of the list:
                 0                          the snapshot is gone
                 SNAP_RESULT_NOT_FOUND      no section has that name, or there is no subvolume to it
                 SNAP_RESULT_LOCKED         someone holds a system lock on it (counters.h)
                 SNAP_ERR_OPERATION_FAILED  it is still there, or the batch stopped

   0 when every entry is 0, also for an empty list; else -1, the entries tell. SNAP_ERR_NO_SPACE in the register: the
   metadata could not be rewritten, since the volume is full. What is gone stays gone then, its sections are left to
   reconciliation (QOVAShareSnapMetaSync).

   Plug-ins: PRE is waited for and stops the batch by failing; POST gets the names that are gone, or, when the batch
   stopped, those that nobody holds. Waits up to 10 seconds for each: the system lock file, name by name, and then the
   exclusive metadata lock, which is held over all deletions and the rewrite; the counter lock (5 s) within. The
   deletions are durable when the call returns. A system lock taken after the check doesn't stop the deletion. The
   attribute "lock" isn't looked at. Needs root. */
SHARESNAP_API int QOVAShareSnapDelete(const QOVASHARE *pShare, const QLIBCSZLIST *pListSnap, QLIBCMRESULT **ppMResult);

/* Writes the event of a deletion: SNAP_EVENT_DELETE_DONE, or with blSuccess 0 SNAP_EVENT_DELETE_FAILED, with the texts
   szFirst (who asked for it), the share's name, szSecond. 0 or -1. The code in the register is the same afterwards. */
SHARESNAP_API int QOVAShareSnapDeleteLogSet(const QOVASHARE *pShare, const char *szFirst, const char *szSecond,
                                            int blSuccess);

/* Number of deleted subvolumes of a share that the file system is still cleaning.

   szSharePath     the share's path; its last component is the share's name
   cDeletingCount  receives the number, 0 on failure

   The number itself (0 or more), or -1. Takes no lock; a busy share database is asked up to five times with up to 4
   seconds between. */
SHARESNAP_API int QOVAShareSnapDeletingCountGet(const char *szSharePath, uint32_t *cDeletingCount);

/* Clone ------------------------------------------------------------------------------------------------------------ */

/* Makes the data of a new share: a writable Btrfs snapshot of a snapshot, or of the live data, of another share on the
   same volume.

   pOrigShare  the share to clone from
   pNewShare   the new share; name, path and encryption of its record are read. Nothing may stand at its path.
   szSnapName  a snapshot of pOrigShare, a plain name without slashes; null clones the live share

   0; or -1:
     SNAP_ERR_BAD_PARAMETER     one of the shares is encrypted and the other isn't
     SNAP_ERR_UNSUPPORTED       the shares lie on different volumes, or snapshots aren't supported
     SNAP_ERR_OPERATION_FAILED  there is no such snapshot, or the clone couldn't be taken
   Nothing is undone. PRE is waited for without a limit and stops the clone by failing; POST is sent once the plug-ins
   were opened, and the code may then be one that it left. Writes no metadata and no counter, takes no lock. Needs root.
 */
SHARESNAP_API int QOVAShareSnapClone(const QOVASHARE *pOrigShare, const QOVASHARE *pNewShare, const char *szSnapName);

/* Plug-in actions -------------------------------------------------------------------------------------------------- */

/* Opens the plug-ins named "share_snapshot" into *ppPlugin, which the caller closes with QLIBPluginExit. 0 or -1; no
   plug-in at all is a success. */
SHARESNAP_API int QOVAShareSnapshotPluginInit(QLIBPLUGIN **ppPlugin);

/* Sends one action to the plug-ins, with the arguments SHARE_NAME, SHARE_PATH, NEW_SHARE_NAME, NEW_SHARE_PATH, SNAPSHOT
   (the names, each with a blank behind it), RESULT, ACTION and ENC_STATUS (0 plain, 1 encrypted and unlocked, 2
   encrypted and locked).

   nPhase      SNAP_PHASE_PRE or SNAP_PHASE_POST
   pPlugin     the handle; null gives -1 without a code
   pShare      name and path must not be empty
   pNewShare   the new share of a clone; may be null, as each of its fields
   pSnapList   names of snapshots, up to 254 bytes each; may be null
   szAction    "CREATE", "DELETE", "CLONE_SNAP" or "CLONE_SHARE"
   nResult     0 before the operation, its result afterwards

   The result of the plug-ins, 0 when there are none (the other arguments aren't looked at then), or -1. Waits for PRE,
   and for POST when QLIBPluginSetBlocking was called, without a limit. */
SHARESNAP_API int QOVAShareSnapshotPluginAction(int nPhase, QLIBPLUGIN *pPlugin, const QOVASHARE *pShare,
                                                const QOVASHARE *pNewShare, const QLIBCSZLIST *pSnapList,
                                                const char *szAction, int nResult);

/* Sizes and notices ------------------------------------------------------------------------------------------------ */

/* Estimates how many bytes a set of snapshots would take when sent.

   pListSnapPath   paths of the snapshots; an empty list gives 0 and changes nothing
   pListCloneSrc   paths of snapshots that the receiver has too, may be null
   szParent        path of a parent snapshot, may be null
   pullTotalSize   receives the bytes
   ppFile          when not null, receives the tool's output unread instead; the caller closes it with QLIBCPclose

   One of the last two must be given. 0; or -1, with no code when the tool's output held no size. Runs until the tool
   ends; takes no lock. Needs root. */
SHARESNAP_API int QOVAShareSnapCalculateTotalSize(const QLIBCSZLIST *pListSnapPath, const QLIBCSZLIST *pListCloneSrc,
                                                  const char *szParent, uint64_t *pullTotalSize, FILE **ppFile);

/* Reads the stored size of a snapshot in bytes, its attribute "snap_size". 0; or -1 with the codes of
   QOVAShareSnapAttrGet, or SNAP_ERR_OPERATION_FAILED when the value is no number. Shared metadata lock (10 s). */
SHARESNAP_API int QOVAShareGetSnapSize(const QOVASHARE *pShare, const char *szSnapshot, uint64_t *pullSize);

/* Sends the notice szTag about a share. ppHash, which may be null, holds further variables; it comes back with
   "%HOSTNAME%", "%SHARE%", "DESKTOP_NOTIFY_TITLE" and "DESKTOP_NOTIFY_CLASSNAME" set, and may move. 0 or -1. */
SHARESNAP_API int QOVAShareSnapSendNotification(const char *szTag, const char *szShareName, QLIBCSZHASH **ppHash);

/* Share-level operations: for programs that make, rename and remove shares. None takes a lock of its own or runs a
   plug-in; keeping others out is the caller's business, and so are the hooks of the system locks (counters.h).
   ------------- */

/* Makes the data of a new share, a subvolume at its path. 0 or -1. Needs root. */
SHARESNAP_API int QOVAShareSnapShareCreate(const char *szPath);

/* Removes a share's section from the snapshot settings; szSharePath is the share's path, its last component the name.
   0, also without a section; or -1. Exclusive configuration lock (10 s). */
SHARESNAP_API int QOVAShareSnapConfigDelete(const char *szSharePath);

/* Removes all snapshots of a share (held ones too), its snapshot directory, its @eaDir, its subvolume and its metadata
   file, in this order. The share's record must still stand. 0, also when the metadata file alone stays behind; -1 when
   it stopped: what is gone then stays gone, and the call can be made again. A busy share database is asked up to five
   times with up to 4 seconds between. Needs root. */
SHARESNAP_API int QOVAShareSnapDataDelete(const char *szSharePath);

/* Moves settings, metadata file, snapshot directory and data of a share from the old name to the new one.

   pShareOld, pShareNew   records with the old and the new name; the path of both is one on the share's volume
   szOldPath, szNewPath   the share's path before and after

   0; or -1 after what had moved was moved back: SNAP_ERR_ALREADY_EXISTS or SNAP_ERR_SNAPSHOT_EXISTS when the new name
   is taken by a metadata file or a snapshot directory. A step that can't be moved back is only logged. Needs root. */
SHARESNAP_API int QOVAShareSnapShareRename(const QOVASHARE *pShareOld, const QOVASHARE *pShareNew,
                                           const char *szOldPath, const char *szNewPath);

SHARESNAP_END_DECLS
#endif
