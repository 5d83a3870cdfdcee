/* The share database, write side (libqovasdk).
 *
 * Each call needs root. It takes the exclusive lock /run/lock/sharesnap/share_database.lock for the time of the write and
 * waits up to 10 seconds for it; readers don't take it and always see the file before or after the write. Comments and
 * other sections of the file are kept.
 *
 * Results: 0; -1 with a code, and the database as it was: 0x0D00 an argument can't be used, 0x0400 the lock was held by
 * somebody else for too long, 0x0900 the lock or the file can't be opened, 0x2A00 not root or the write failed (errno),
 * 0x0200 memory, and those named at the calls.
 *
 * A name has 1 to 255 bytes, isn't "." or "..", and has no '/', line feed or bracket. A path is absolute, has no "." or
 * ".." components, isn't "/" and has less than 4096 bytes; double and trailing slashes are taken out. No text may have a
 * line feed. */
#ifndef SHARESNAP_PLATFORM_SHARE_ADMIN_H
#define SHARESNAP_PLATFORM_SHARE_ADMIN_H

#include <sharesnap/platform/api.h>
#include <sharesnap/platform/share.h>

QOVA_BEGIN_DECLS

/* Adds a record at the end. Null text fields count as empty. Status bit 0x02 marks the share as encrypted; bit 0x01 isn't
   stored. The record stays the caller's. -1 with 0x0800 when the name is taken. */
QOVA_PLATFORM_API int QOVAShareRecordAdd(const QOVASHARE *pShare);

/* Replaces the record of pShare->szName, in its place. What the file holds for that share beside the fields of a record
   (whether it is forbidden, its location, keys of others) stays. -1 with 0x2200 when there is none. */
QOVA_PLATFORM_API int QOVAShareRecordSet(const QOVASHARE *pShare);

/* Gives a record a new name in its place; path and all else stay (QOVAShareRecordSet changes the path afterwards). -1 with
   0x2200 when there is none, 0x0800 when the new name is taken. */
QOVA_PLATFORM_API int QOVAShareRecordRename(const char *szOldName, const char *szNewName);

/* Removes a record. -1 with 0x2200 when there is none. */
QOVA_PLATFORM_API int QOVAShareRecordRemove(const char *szName);

QOVA_END_DECLS
#endif
