/* The share database, write side (libqovasdk). Each call takes the database's lock, exclusive, for up to 10 seconds and
   needs root. Names with '/', a line feed, brackets, "." or "..", and relative paths are refused with 0x0D00. */
#ifndef SHARESNAP_PLATFORM_SHARE_ADMIN_H
#define SHARESNAP_PLATFORM_SHARE_ADMIN_H

#include <sharesnap/platform/api.h>
#include <sharesnap/platform/share.h>

QOVA_BEGIN_DECLS

/* Adds a record. Null text fields count as empty. Status bit 0x02 marks the share as encrypted; bit 0x01 isn't stored.
   0; -1 with 0x0800 when the name is taken. */
QOVA_PLATFORM_API int QOVAShareRecordAdd(const QOVASHARE *pShare);
/* Replaces the record of pShare->szName. 0; -1 with 0x2200 when there is none. */
QOVA_PLATFORM_API int QOVAShareRecordSet(const QOVASHARE *pShare);
/* Gives a record a new name; path and all else stay (QOVAShareRecordSet changes the path afterwards). 0; -1 with 0x2200
   or 0x0800. */
QOVA_PLATFORM_API int QOVAShareRecordRename(const char *szOldName, const char *szNewName);
/* Removes a record. 0; -1 with 0x2200 when there is none. */
QOVA_PLATFORM_API int QOVAShareRecordRemove(const char *szName);

QOVA_END_DECLS
#endif
