/* Events for an administrator, written to the system journal (libqovasdk). */
#ifndef SHARESNAP_PLATFORM_EVENT_LOG_H
#define SHARESNAP_PLATFORM_EVENT_LOG_H

#include <sharesnap/platform/api.h>

QOVA_BEGIN_DECLS

/* Writes one event. nType is 9. nLevel is 1 information, 2 warning, 3 error. Then the event's number and its texts, at
   most 16, ended by a null char *:

       0x13C00001  user, snapshot, share    a snapshot was taken
       0x13C00002  user, share, reason      none could be taken
       0x13C00003  user, share, snapshot    a snapshot was deleted
       0x13C00004  user, share, snapshot    it could not be deleted

   The entry has a plain sentence as MESSAGE, a MESSAGE_ID that the message catalog explains, the level as PRIORITY,
   SHARESNAP_EVENT with the number, SHARESNAP_TEXT_1 and so on with the texts, and ACTOR, SHARE, SNAPSHOT and REASON as far
   as the event has them. Another number is written without MESSAGE_ID and with its texts in a row. A text is cut at 16 KiB.

   0, also on a machine without a journal; -1 when the entry was lost because the journal's queue was full (0x2A00), or for
   another type or level (0x0D00). Never waits. Keeps errno. No privilege. */
QOVA_PLATFORM_API int QOVALogSet1(int nType, int nLevel, unsigned int uEvent, ...) QOVA_SENTINEL;

QOVA_END_DECLS
#endif
