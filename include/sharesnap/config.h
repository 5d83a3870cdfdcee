/* Snapshot settings of shares; a share's configuration as frozen into a snapshot and read back.
 *
 * Every function but one returns an int and leaves a code in the error register when it fails
 * (<sharesnap/platform/error.h>). Share records belong to the caller and are only read. Hashes and lists belong to the
 * caller, are allocated by him, not emptied first, and may move, so that their address is passed. Names and texts end
 * with a NUL; sizes of buffers are in bytes and count it. Root is needed. A null argument gives 0x0D00.
 *
 * Settings. "/usr/qova/etc/sharesnap/sharesnap.conf" holds a section for each share, whose pairs are the share's
 * settings. The library itself reads "local_time_format" and "schedule_task_id"; all other keys belong to the callers.
 * One lock covers the whole file; it is waited for up to 10 seconds, and 0x0400 says that the time was up. Nothing else
 * is locked meanwhile.
 *
 * Frozen configuration. Before a snapshot is taken the share's settings are written into a file inside the share, in
 * "@eaDir/sharesnap_share_configuration", and so become a part of the snapshot. For an encrypted share that is inside
 * its back end. A link in the place of one of these directories or files is refused as something of the wrong type. The
 * lock of a share's file is waited for up to 10 seconds and covers no more than the reading or writing of that file. */
#ifndef SHARESNAP_CONFIG_H
#define SHARESNAP_CONFIG_H

#include <sharesnap/api.h>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>
#include <stddef.h>
#include <stdint.h>

SHARESNAP_BEGIN_DECLS

/* Reads all settings of a share.
   szShareName   the share's name
   ppHash        address of the hash; the pairs are added to it
   1: pairs were added; 0: no file, no section, or one without pairs; -1: something else stands in the file's or its
   directory's place (no code is set), 0x0400, or the code of a failing read.
   Takes the lock shared. */
SHARESNAP_API int QOVAShareSnapConfList(const char *szShareName, QLIBCSZHASH **ppHash);

/* Reads one setting of a share.
   szShareName, szKey   the share's name and the key
   szValue              receives the value
   cbValue              its size, above 0. A longer value is cut
   1: the value was read; 0: no file, section or key, and szValue may have changed; -1 as above.
   Takes the lock shared. */
SHARESNAP_API int QOVAShareSnapConfGet(const char *szShareName, const char *szKey, char *szValue, size_t cbValue);

/* Sets or removes one setting of a share; makes the file (0644 less the umask) and its directory when they are missing,
   also to remove nothing.
   szShareName, szKey   the share's name and the key
   szValue              the value, null to remove the key. The last key leaves a section without pairs
   0, also when the key to remove isn't there; -1: the file is as it was: 0x0C00 it can't be made, 0x0400, 0x2900 no
   space, or the code of a failing read or write.
   Takes the lock exclusively. */
SHARESNAP_API int QOVAShareSnapConfSet(const char *szShareName, const char *szKey, const char *szValue);

/* Merges settings into those of a share and renames its section, in one write.
   szOrigShareName   the share's name
   szNewShareName    its new name, null to keep it
   pUpdateHash       pairs to set, null for none; keys that it doesn't name stay. Not both may be null
   0; -1: the file is as it was: 0x0800 a section of the new name stands, otherwise as QOVAShareSnapConfSet.
   A share without settings keeps its name: with pairs they are put under szOrigShareName, without pairs an empty
   section is removed and 0 given.
   Takes the lock exclusively. */
SHARESNAP_API int QOVAShareSnapConfUpdate(const char *szOrigShareName, const char *szNewShareName,
                                          const QLIBCSZHASH *pUpdateHash);

/* Removes all settings of a share that goes.
   szShareName   the share's name
   0, also without settings, without a file and when something else stands in its place; -1: 0x0400, 0x2900, or the code
   of a failing write.
   Takes the lock exclusively, if there is a file. */
SHARESNAP_API int QOVAShareSnapConfDeleteShare(const char *szShareName);

/* Pushes the names of all shares that have a section, in the order of the file.
   ppList   address of the list
   0, also without a file and when something else stands in its place; -1: 0x0400, or the code of a failing read.
   Takes the lock shared, if there is a file. */
SHARESNAP_API int QOVAShareSnapConfEnumSection(QLIBCSZLIST **ppList);

/* Finds the share that a scheduled task belongs to; the first in the file when there are several.
   szTaskId         the task's identifier, compared as text
   szShareNameBuf   receives the share's name
   cbShareNameBuf   its size; 256 are enough. A longer name is cut, and that is a success
   1: found; 0: no share has that task, and the buffer is as it was; -1: 0x0200, or what QOVAShareSnapConfEnumSection
   failed with. A section that can't be read is passed over.
   Takes the lock shared, anew for each share: the file can change in between, and each may wait 10 seconds. */
SHARESNAP_API int QOVAShareSnapGetShareNameByTaskId(const char *szTaskId, char *szShareNameBuf, size_t cbShareNameBuf);

/* Selection of a share's settings. */
enum {
    SHARE_INFO_DESC = 0x01,
    SHARE_INFO_PRIVILEGE = 0x02, /* the lists of users and groups */
    SHARE_INFO_BROWSEABLE = 0x04,
    SHARE_INFO_FTP_PRIVILEGE = 0x08,
    SHARE_INFO_STATUS = 0x10,
    SHARE_INFO_QUOTA = 0x20,
    SHARE_INFO_COW = 0x40,
    SHARE_INFO_COMPRESSION = 0x80,
    SHARE_INFO_ALL = 0x1FF
};

/* A share's frozen settings: one allocation with its strings behind it, released by one free(). A list holds names
   joined by ',', first the users, then the groups with a leading '@'. */
typedef struct QOVAShareSnapShareInfo {
    char *szDesc;     /* null when it wasn't frozen */
    char *szDenyList; /* null unless its users and its groups were both frozen; so the next two */
    char *szRWList;   /* read and write */
    char *szROList;   /* read only */
    int nBrowseable;  /* this and the numbers below: 0 when not frozen */
    int nFtpPrivilege;
    uint32_t uStatus;       /* the share's present status with the bits 0x20, 0x80, 0x100 ... 0x1000 as frozen */
    uint64_t ullShareQuota; /* MiB, as the platform tells quotas; 0 is no quota */
    int blCow;              /* 1: copy on write */
    int blCompression;      /* 1: compressed */
    uint32_t uMask;         /* what was found, in the bits above; 0x02 for any of the six lists of ids */
} QOVAShareSnapShareInfo;

/* Writes the configuration of a share, and a copy of its user quota database if there is one, into the share. What an
   earlier call wrote is replaced as a whole.
   pShare   the share
   0; -1: 0xA100 there can be no "@eaDir"; 0xC000 something of the wrong type stands in the way; 0x0C00 directory or
   file can't be made; 0xA000 the lock's directory can't be had; 0x0400 lock not had in 10 seconds; 0x2900 no space;
   0x0200 no memory; 0x0D00 null share; or the code of a failing platform call. A copy of the database that was made
   stays. Takes the lock of the share's file exclusively, last of all. */
SHARESNAP_API int QOVAShareSnapShareInfoSet(const QOVASHARE *pShare);

/* Reads the present configuration of a share as pairs, as they are frozen.
   pShare   the share
   ppHash   address of the hash; the pairs are added to it
   uMask    what to read, from the bits above; others select nothing. 0 adds nothing and succeeds
   0; -1: the first thing that can't be had ends it, and the pairs until then stay in the hash. An account that can't be
   resolved is left out of its list. Takes no lock; asks the account database for each name. */
SHARESNAP_API int QOVAShareSnapShareInfoGetFromShare(const QOVASHARE *pShare, QLIBCSZHASH **ppHash, uint32_t uMask);

/* Tells where the copy of a share's user quota database belongs; the directory is made when it is missing.
   pShare   the share
   szBuf    receives the path
   cbBuf    its size; 4096 are enough. A path that doesn't fit is refused with 0x0D00
   0; -1 as QOVAShareSnapShareInfoSet. Takes no lock. */
SHARESNAP_API int QOVAShareSnapUserQuotaDBPathGet(const QOVASHARE *pShare, char *szBuf, size_t cbBuf);

/* Tells whether a snapshot holds a frozen configuration.
   pShare, szSnapshot   the share and the snapshot's name
   1 it does; 0 it doesn't; -1: there is no such snapshot, or a bad argument (0x0D00). Takes no lock. */
SHARESNAP_API int QOVAShareSnapHasShareInfoFile(const QOVASHARE *pShare, const char *szSnapshot);

/* Cleans an encrypted share after its snapshot: removes the directory of the configuration with all it holds, and
   "@eaDir" if nothing else is in it. Nothing happens to other shares: their file stays until it is written again.
   pShare   the share; null sets 0x0D00
   No result: failures are logged, with 0x3900 when the directory couldn't be removed. Takes no lock; ends with a sync
   of all file systems when there was something to remove, which can take long. */
SHARESNAP_API void QOVAShareSnapShareInfoClear(const QOVASHARE *pShare);

/* Reads a frozen configuration into a record.
   pShare        a record whose path leads to the tree to be read: to the snapshot, with the bit for encryption clear,
                 or to the live share. Its status is what the frozen bits are merged into
   ppShareInfo   receives the record, to be released by free(); it must be null before
   0, with an empty record when there is a file without the section; -1: nothing is stored: 0x0900 there is no file,
   0xA100 there is no "@eaDir", 0xC000 wrong type, 0x0400, 0x0200, or 0x0D00. An id without an account is left out of
   its list, a text that is no number gives what strtol makes of it, unknown keys are passed over.
   Takes the lock of the share's file shared, for the reading alone. */
SHARESNAP_API int QOVAShareSnapShareInfoGet(const QOVASHARE *pShare, QOVAShareSnapShareInfo **ppShareInfo);

/* The same from pairs that the caller has, as QOVAShareSnapShareInfoGetFromShare gives them.
   pShare        only its status is used
   pHash         the pairs, only read
   ppShareInfo   as above
   0, also for an empty hash; -1: 0x0200 no memory, 0x0D00 bad arguments. Takes no lock, needs no privilege. */
SHARESNAP_API int QOVAShareSnapShareInfoGetByHash(const QOVASHARE *pShare, const QLIBCSZHASH *pHash,
                                                  QOVAShareSnapShareInfo **ppShareInfo);

SHARESNAP_END_DECLS
#endif
