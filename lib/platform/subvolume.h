/* Btrfs subvolumes (libqovastoragecore). Need root unless said otherwise. Paths with a ".." component are refused. */
#ifndef SHARESNAP_PLATFORM_SUBVOLUME_H
#define SHARESNAP_PLATFORM_SUBVOLUME_H

#include <sharesnap/platform/api.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>

QOVA_BEGIN_DECLS

/* 1 a subvolume; 0 the path exists and is none; -1 absent or unreadable (errno tells). */
QOVA_PLATFORM_API int QOVABtrfsIsSubVol(const char *szPath);
/* 0 or exactly -1. */
QOVA_PLATFORM_API int QOVABtrfsCreateSubVol(const char *szPath);
/* Read-only snapshot of szSource as szTarget. 0 and a cleared error register; -1 with a code and errno. */
QOVA_PLATFORM_API int QOVABtrfsReadOnlySnapshotTake(const char *szSource, const char *szTarget);
/* Writable snapshot. 0, or -1 with a code and errno. */
QOVA_PLATFORM_API int QOVABtrfsSnapshotTake(const char *szSource, const char *szTarget);
/* Sets or clears the hidden mark of a subvolume. 0 or -1. */
QOVA_PLATFORM_API int QOVABtrfsSubvolHideAttrSet(const char *szPath, int blHide);
/* Deletes one subvolume with what is nested in it; one that is gone counts as deleted. Durable when it returns. 0 or
 * -1. */
QOVA_PLATFORM_API int QOVABtrfsDeleteSubvolFaultTolerant(const char *szPath);
/* Deletes the named subvolumes of a directory, goes on past single failures, one commit for the batch. 0, or -1 when
   the directory can't be used or the commit failed. *pDeleted counts those that are gone. */
QOVA_PLATFORM_API int QOVABtrfsDeleteSubvolListFaultTolerant(const char *szDirectory, const QLIBCSZLIST *pList);
QOVA_PLATFORM_API int QOVABtrfsDeleteSubvolListFaultTolerantEx(const char *szDirectory, const QLIBCSZLIST *pList,
                                                               int *pDeleted);
/* Queue of deleted subvolumes, one per share subvolume. Add notes a subvolume that is about to go; Get puts one key per
   subvolume that the file system is still cleaning into the caller's hash. 0 or -1. */
QOVA_PLATFORM_API int QOVABtrfsDeletedSubvolAdd(const char *szShareSubvol, const char *szSnapshot);
QOVA_PLATFORM_API int QOVABtrfsDeletedSubvolGet(const char *szShareSubvol, QLIBCSZHASH **ppHash);
/* System-wide limit of snapshots: key max_snapshots_per_system of /etc.defaults/qovainfo.conf, 65536 without it. */
QOVA_PLATFORM_API unsigned long QOVABtrfsSnapCountMaximumGet(void);
/* 0 not reached, -2 reached, -1 failure. Sums the counters of the share directories of all mounted Btrfs volumes. */
QOVA_PLATFORM_API int QOVABtrfsSnapCountReachMaxCheck(void);
/* Adds the facts of a snapshot: hide, ruuid, uuid, parent_uuid, create_time. 0; -1, with 0xD900 when the platform can't
   tell them. */
QOVA_PLATFORM_API int QOVASnapFillSubvolInfoWithPath(const char *szPath, QLIBCSZHASH **ppHash);

QOVA_END_DECLS
#endif
