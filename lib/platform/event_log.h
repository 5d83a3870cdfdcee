/* Events for an administrator, written to the journal (libqovasdk). */
#ifndef SHARESNAP_PLATFORM_EVENT_LOG_H
#define SHARESNAP_PLATFORM_EVENT_LOG_H

#include <sharesnap/platform/api.h>

QOVA_BEGIN_DECLS

/* nType 9; nLevel 1 information, 2 warning, 3 error; the event's number; then its texts, ended by a null char *.
   0 or -1; silent without a journal. Keeps errno. */
QOVA_PLATFORM_API int QOVALogSet1(int nType, int nLevel, unsigned int uEvent, ...) QOVA_SENTINEL;

QOVA_END_DECLS
#endif
