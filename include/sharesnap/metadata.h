/* Metadata file of a share, listing, attributes, selectors, look-ups by time, reconciliation.
 *
 * The metadata file is the library's list of a share's snapshots: "/vol1/@sharesnap/@docs.meta" with one section for
 * each snapshot, whose pairs are its attributes. Every function returns an int and leaves a code in the error register
 * when it fails (<sharesnap/platform/error.h>). Share records belong to the caller and are only read; lists and hashes
 * belong to the caller, are allocated by him, not emptied first, and may move. The metadata lock, where one is taken,
 * is waited for up to 10 seconds; 0x0400 says that the time was up. Root is needed unless said otherwise. */
#ifndef SHARESNAP_METADATA_H
#define SHARESNAP_METADATA_H

#include <sharesnap/api.h>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>

SHARESNAP_BEGIN_DECLS

/* Limits of a section, in pairs and bytes without the end. */
enum { SNAP_ATTR_MAX_PAIRS = 64, SNAP_ATTR_MAX_KEY = 63, SNAP_ATTR_MAX_VALUE = 511 };

/* What a selector decides on one section. Anything else skips it. */
enum {
    SNAP_SELECT_KEEP = 0,
    SNAP_SELECT_SKIP = 1,
    SNAP_SELECT_STOP = 2, /* the listing ends there, with success */
    SNAP_SELECT_FAIL = 3  /* the listing fails */
};

/* A selector runs under the shared metadata lock, so it must be short and must not write. */
typedef int (*QOVAShareSnapSelector)(const char *szSnapName, const QLIBCSZHASH *pHash, void *pData);

/* One link of a chain of selectors; the empty chain is a null pointer. */
typedef struct QOVAShareSnapEnum {
    QOVAShareSnapSelector pSelector;
    void *pData; /* the caller's, not copied */
    struct QOVAShareSnapEnum *pNext;
} QOVAShareSnapEnum;

/* Finds the metadata file of a share, or makes it empty (mode 0644 less the umask).
   pShare     the share
   szPath     receives the path, also of a file that is missing; 4096 bytes are enough
   cbPath     its size in bytes
   blCreate   not 0: make it, and the directory above it
   1 it stands; 0 it is missing and blCreate is 0, or it couldn't be made (0x0C00); -1: 0x0D00 bad arguments, 0xC000
   something else stands there, a link too, or another code. Takes no lock. A caller that creates compares with 1. */
SHARESNAP_API int SnapMetaGetOrCreateFile(const QOVASHARE *pShare, char *szPath, size_t cbPath, int blCreate);

/* Adds a section, and the file when there is none.
   pShare       the share
   szSnapName   name of the snapshot
   pshHash      its attributes, within the limits above
   0; -1: 0x2300 there is a section of that name, which stays; 0xC300 too many pairs and 0xE600 a pair too long, both
   before a file is made; 0x2900 no space; 0x0D00 bad arguments; or another code. Takes the metadata lock
   exclusively. */
SHARESNAP_API int QOVAShareSnapMetaSectionAdd(const QOVASHARE *pShare, const char *szSnapName,
                                              const QLIBCSZHASH *pshHash);

/* Removes a section.
   pShare, szSnapName   share and name of the snapshot
   blLock               not 0: takes the metadata lock exclusively; 0: the caller holds it
   0; -1: 0x0700 there is no file, 0x2900 no space, 0x0D00 bad arguments; also when there is no such section. */
SHARESNAP_API int SnapMetaSectionDel(const QOVASHARE *pShare, const char *szSnapName, int blLock);

/* Removes the file of a share that goes. Takes no lock.
   0, also when there is none or it can't be found; -1: 0x2A00 it can't be removed, 0x0D00 null share. */
SHARESNAP_API int SnapMetaFileDelete(const QOVASHARE *pShare);

/* Moves the file of a share that gets another name. Takes no lock.
   pShareOld, pShareNew   the records before and after
   0, also when there is none; -1: 0x0800 the new share has one, and both stay; 0xBE00 its path can't be had; 0x2A00 the
   rename failed; 0x0D00 a null record; or another code. */
SHARESNAP_API int SnapMetaFileRename(const QOVASHARE *pShareOld, const QOVASHARE *pShareNew);

/* Reads the next section from where a stream stands.
   pStream     a metadata file, opened for reading; it can seek
   szSection   receives the section's name
   cbSection   its size in bytes; 1024 hold every name
   ppHash      emptied and filled with the section's pairs
   The number of pairs; 0 at the end, after a read error and for a section without pairs: in each case the reading ends;
   -1: 0x0D00 bad arguments, 0x0200 no memory, or a name that doesn't fit. Takes no lock and needs no privilege. */
SHARESNAP_API int SnapFileGetNextSection(FILE *pStream, char *szSection, size_t cbSection, QLIBCSZHASH **ppHash);

/* Pushes the names of the share's snapshots that pass the selectors, hidden ones too, in the order of the file.
   pShare       the share
   ppListSnap   the list; names already pushed stay in it on a failure
   pEnum        the chain, null for every snapshot
   0, also for a share without a file; a section without pairs ends the listing with 0. -1: a selector said 3, 0x0700
   the file can't be resolved, 0x0900 it can't be opened, 0x0D00 bad arguments, or another code.
   Takes the metadata lock shared for the whole scan. The caller must be able to become root, for the lock; the file is
   read as the caller. When the lock can't be had the effective user stays root. */
SHARESNAP_API int QOVAShareSnapList(const QOVASHARE *pShare, QLIBCSZLIST **ppListSnap, const QOVAShareSnapEnum *pEnum);

/* Runs a chain on one section. The first result that isn't 0, or 0. Needs no privilege. */
SHARESNAP_API int QOVAShareSnapProcessSelector(const char *szSnapName, const QOVAShareSnapEnum *pEnum,
                                               const QLIBCSZHASH *pHash);

/* Frees a chain from that link on, not the selectors' data. Null is accepted. Needs no privilege. */
SHARESNAP_API void QOVAShareSnapEnumFree(QOVAShareSnapEnum *pEnum);

/* Copies one attribute of a snapshot.
   pShare, szSnapName, szAttr   share, name of the snapshot, key
   szValue                      receives the value, cut to the buffer; 512 bytes hold every value
   cbValue                      its size in bytes
   0; -1: 0x2200 no such section and 0x2000 no such key, both without a log line; 0x0D00 bad arguments; or another code,
   as for a share without a file. Takes the metadata lock shared. */
SHARESNAP_API int QOVAShareSnapAttrGet(const QOVASHARE *pShare, const char *szSnapName, const char *szAttr,
                                       char *szValue, size_t cbValue);

/* Sets one attribute of a snapshot that has a section. "hide" takes exactly "true" or "false" and also marks the
   subvolume; when that fails the file gets its old value back.
   pShare, szSnapName, szAttr, szValue   share, name of the snapshot, key, value
   0; -1: 0xE600 key or value too long, 0xC300 a pair too many, 0x2900 no space, 0x0D00 bad arguments; without a code of
   its own for a bad value of "hide"; or another code. A missing file is made even when there is no section. Takes the
   metadata lock exclusively, also while the subvolume is marked. */
SHARESNAP_API int QOVAShareSnapAttrSet(const QOVASHARE *pShare, const char *szSnapName, const char *szAttr,
                                       const char *szValue);

/* Removes one attribute. "hide" goes from the file alone, the subvolume's mark stays. A section that loses its last
   attribute ends every listing.
   pShare, szSnapName, szAttr   share, name of the snapshot, key
   0; -1: 0x2000 no such key; 0x0D00 bad arguments, no file, no section or one without pairs; or another code. Takes the
   metadata lock exclusively after it has read the section: a change of another process in between is lost. */
SHARESNAP_API int QOVAShareSnapAttrDelete(const QOVASHARE *pShare, const char *szSnapName, const char *szAttr);

/* Puts all attributes of a snapshot into a hash.
   pShare, szSnapName   share and name of the snapshot
   ppHash               the hash
   0, also for a section that isn't there; -1: 0x2200 no file, 0x0D00 bad arguments, or another code. Takes the metadata
   lock shared. */
SHARESNAP_API int QOVAShareSnapAttrList(const QOVASHARE *pShare, const char *szSnapName, QLIBCSZHASH **ppHash);

/* Merges attributes into the section of a snapshot, all or none. With "hide" among them the subvolume is marked, too,
   after the file; nothing is undone when that fails.
   pShare, szSnapName   share and name of the snapshot
   pAttrHash            the attributes
   -1 before the lock is held (0x0D00 bad arguments, or another code); from then on 0 whatever happens, and the register
   alone tells: 0xE600, 0xC300, 0x0D00 for a bad value of "hide", 0x2200 no such section, 0x2900 no space ... Clear the
   register before the call to see that. Takes the metadata lock exclusively, not while the subvolume is marked. */
SHARESNAP_API int QOVAShareSnapAttrMultiSet(const QOVASHARE *pShare, const char *szSnapName,
                                            const QLIBCSZHASH *pAttrHash);

/* Adds a selector at the front of a chain: it runs before those that are there.
   ppQOVAShareSnapEnum   the chain's first link, null for the empty chain; freed with QOVAShareSnapEnumFree
   pSelector             the function
   pData                 its data, which must outlive the chain
   0; -1 and an unchanged chain: 0x0D00 bad arguments or data that SnapSelectorCheck refuses, 0x0200 no memory. This and
   the selectors take no lock and need no privilege. */
SHARESNAP_API int QOVAShareSnapSelectorAdd(QOVAShareSnapEnum **ppQOVAShareSnapEnum, QOVAShareSnapSelector pSelector,
                                           void *pData);

/* -1 when the data is meant for QOVAShareSnapTimeSelector and holds no snapshot time; else 0. */
SHARESNAP_API int SnapSelectorCheck(QOVAShareSnapSelector pSelector, void *pData);

/* Selectors. 0 keep, 1 skip; a null argument skips, with 0x0D00.
   Time: the data is a text with a snapshot time and the characters '<', '>', '=' anywhere, as in
   ">=GMT-2026.01.02-03.04.05"; older snapshots pass by '<', newer ones by '>', one of that second by '='.
   Attribute: the data is a text of at most 1023 bytes: "key==value" equal, "key=value" contains, "key=" or "key" has
   it; a leading '!' turns the answer.
   Common: the data is a QLIBCSZLIST of "name=ruuid"; a snapshot passes when its name and ruuid stand there. */
SHARESNAP_API int QOVAShareSnapTimeSelector(const char *szSnapName, const QLIBCSZHASH *pHash, void *pData);
SHARESNAP_API int QOVAShareSnapAttrSelector(const char *szSnapName, const QLIBCSZHASH *pHash, void *pData);
SHARESNAP_API int QOVAShareSnapCommonSelector(const char *szSnapName, const QLIBCSZHASH *pHash, void *pData);

/* Finds the newest visible snapshot of a share by the times in the names; of two with one time the first of the file.
   pShare   the share
   szName   receives the name; 1024 bytes hold every name
   cbName   its size in bytes
   1 found; 0 the share has none, buffer untouched; -1 failure, or no name tells a time. Lists the share: see
   QOVAShareSnapList for lock, wait and privilege. */
SHARESNAP_API int QOVAShareSnapGetLatest(const QOVASHARE *pShare, char *szName, size_t cbName);

/* Finds the snapshot taken at a time: on the volume under the names that the time has now, visible or hidden, then
   among the visible ones of the metadata file.
   pShare, szName, cbName   as above
   tTime                    seconds since 1970
   0 found; -1 there is none, or a failure. Lock, wait and privilege as above. */
SHARESNAP_API int QOVAShareSnapNameGetByTime(const QOVASHARE *pShare, char *szName, size_t cbName, time_t tTime);

/* Completes the attributes of a snapshot: "take-by" the first argument of this process's command line, "lock" "true",
   "desc" "", "hide" "false".
   ppHash   the attributes
   1 at least one default was added; 0 none was missing; -1: 0x0D00 "hide" is neither "true" nor "false" (the other
   defaults are added) or a null argument, 0x2A00 the command line can't be read. Needs no privilege. */
SHARESNAP_API int QOVAShareSnapDefaultAttr(QLIBCSZHASH **ppHash);

/* Makes the metadata of a share true to its volume: sections of subvolumes that are gone are removed, subvolumes
   without a section get one (a hidden one is shown, with a description that says where it comes from), sections get
   the facts of their subvolumes, and the counter is stored anew. Single snapshots that fail are told in the log alone.
   Runs the program /sbin/btrfs and waits for its end; the process must not ignore SIGCHLD. Takes the metadata lock for
   each step of its own and the counter lock at the end (5 seconds): a snapshot made or deleted meanwhile may be
   mistaken.
   0; -1: 0x8300 the volume can't be read, 0xD900 it isn't Btrfs, or another code. */
SHARESNAP_API int QOVAShareSnapMetaSync(const QOVASHARE *pShare);

/* The same for every share on every mounted Btrfs volume. A share record whose database is busy is waited for, up to
   about 20 seconds. 0, failures of shares are told in the log alone; -1: 0x0200 no memory to begin with. */
SHARESNAP_API int QOVAShareSnapMetaSyncAll(void);

/* Pushes the paths of all subvolumes of a volume, relative to its top, as /sbin/btrfs lists them.
   szVolPath   mount path of the volume
   ppList      the list
   0; -1 when the program can't be started or read. Takes no lock. */
SHARESNAP_API int SnapMetaSyncBtrfsListVol(const char *szVolPath, QLIBCSZLIST **ppList);

/* Pushes the names of a share's snapshots from such a list: the paths below its snapshot directory, without that.
   pShare, pVolList, ppList   share, paths, the list for the names
   0; -1: 0x0D00 bad arguments, or another code. Takes no lock and needs no privilege. */
SHARESNAP_API int SnapMetaSyncFindShareSnapList(const QOVASHARE *pShare, const QLIBCSZLIST *pVolList,
                                                QLIBCSZLIST **ppList);

SHARESNAP_END_DECLS
#endif
