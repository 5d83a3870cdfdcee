/* Btrfs subvolumes (libqovastoragecore).

   Paths are absolute. None of their components may be "..", and none a symbolic link but the last one where a call says so.
   No call takes one of the lock files. All but QOVABtrfsIsSubVol and the two limits need root.

   Failures leave errno and a code: 0x0200 no memory, 0x0800 the target exists, 0x0D00 bad argument, ".." or no subvolume,
   0x2400 quota used up, 0x2900 no space left, 0x2A00 anything else; never 0x2300, 0xE700 or 0x2E00. Success leaves the
   register as it is, but for QOVABtrfsReadOnlySnapshotTake. */
#ifndef SHARESNAP_PLATFORM_SUBVOLUME_H
#define SHARESNAP_PLATFORM_SUBVOLUME_H

#include <sharesnap/platform/api.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>

QOVA_BEGIN_DECLS

/* 1 a subvolume; 0 something else stands there, such as a directory, a file, a symbolic link whatever it points to, or
   the empty place of a subvolume nested in a snapshot's source; -1 absent or unreadable. Takes a few microseconds. */
QOVA_PLATFORM_API int QOVABtrfsIsSubVol(const char *szPath);
/* Makes an empty subvolume. 0, or exactly -1. */
QOVA_PLATFORM_API int QOVABtrfsCreateSubVol(const char *szPath);
/* Takes a read-only snapshot of the subvolume szSource as szTarget, on the same file system. 0, with the error register
   cleared; or -1. Waits for the commit that the file system makes for it. */
QOVA_PLATFORM_API int QOVABtrfsReadOnlySnapshotTake(const char *szSource, const char *szTarget);
/* The same, writable, and without a change to the register on success. 0, or -1. */
QOVA_PLATFORM_API int QOVABtrfsSnapshotTake(const char *szSource, const char *szTarget);
/* Sets (blHide not 0) or clears the hidden mark of a subvolume. It stands on the directory above, so a read-only
   subvolume can have it, and goes with the subvolume. Clearing an absent mark succeeds without a write. 0, or -1. */
QOVA_PLATFORM_API int QOVABtrfsSubvolHideAttrSet(const char *szPath, int blHide);
/* Deletes one subvolume with its hidden mark and what is nested in it; one that is gone already counts as deleted. Waits
   for a commit, and so is durable when it returns. 0; -1 when it stays (it is being sent or mounted, or is none) or the
   commit failed. */
QOVA_PLATFORM_API int QOVABtrfsDeleteSubvolFaultTolerant(const char *szPath);
/* Deletes the subvolumes of a directory that the list names, each as above; a name may lead through directories beneath
   it ("a/b"). Goes on past single failures, and waits for one commit at the end, for none with an empty list. 0, whatever
   became of the single names; -1 when the directory can't be opened or the commit failed. *pDeleted counts the names whose
   subvolume is gone. The code of the last failure stays in the register. */
QOVA_PLATFORM_API int QOVABtrfsDeleteSubvolListFaultTolerant(const char *szDirectory, const QLIBCSZLIST *pList);
QOVA_PLATFORM_API int QOVABtrfsDeleteSubvolListFaultTolerantEx(const char *szDirectory, const QLIBCSZLIST *pList,
                                                               int *pDeleted);
/* Queue of deleted subvolumes, one per share subvolume. Add notes the subvolume szSnapshot, which is about to go; 0 or
   -1. Get puts one pair, id and path, into the caller's hash for each noted subvolume that is deleted and not yet cleaned
   up by the file system; 0, also when there is none, or -1. Both may wait for a moment while another process tidies the
   list. It doesn't outlive a reboot. */
QOVA_PLATFORM_API int QOVABtrfsDeletedSubvolAdd(const char *szShareSubvol, const char *szSnapshot);
QOVA_PLATFORM_API int QOVABtrfsDeletedSubvolGet(const char *szShareSubvol, QLIBCSZHASH **ppHash);
/* System-wide limit of snapshots: key max_snapshots_per_system of /etc.defaults/qovainfo.conf, 65536 without it. */
QOVA_PLATFORM_API unsigned long QOVABtrfsSnapCountMaximumGet(void);
/* 0 not reached, -2 reached, -1 failure. Sums the counters of the share directories of all mounted Btrfs volumes: its cost
   grows with the shares and not with the snapshots. */
QOVA_PLATFORM_API int QOVABtrfsSnapCountReachMaxCheck(void);
/* Adds the facts of a subvolume to the caller's hash: hide ("true" or "false"), ruuid (the received UUID, or the own one
   when it wasn't received), uuid, parent_uuid (empty without a parent), create_time (UTC). They never change, but for
   hide. 0; -1, with 0xD900 when the file system can't tell them. */
QOVA_PLATFORM_API int QOVASnapFillSubvolInfoWithPath(const char *szPath, QLIBCSZHASH **ppHash);

QOVA_END_DECLS
#endif
