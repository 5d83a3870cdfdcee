/* Notifications of the desktop and of administrators (libqovasysnotify). */
#ifndef SHARESNAP_PLATFORM_NOTIFICATION_H
#define SHARESNAP_PLATFORM_NOTIFICATION_H

#include <sharesnap/platform/api.h>
#include <sharesnap/platform/szhash.h>

QOVA_BEGIN_DECLS

/* Hands a notification to the executables in /etc/sharesnap/notify.d and /usr/lib/sharesnap/notify.d, and to the journal.
   The name is spelt so.

   szTag tells which notification it is and is their only argument. The variables of *ppHash are their environment, beside
   PATH and LC_ALL=C, with "NOTIFY_" in front, in upper case and without the percent signs: "%SHARE%" is NOTIFY_SHARE. Which
   files are run, and how, is the same as for plug-ins (see plugin.h); nobody waits for them. In the journal the entry has
   the tag as SHARESNAP_NOTIFICATION and the variables as SHARESNAP_NOTIFY_ fields.

   The hash stays the caller's and isn't changed. 0, also when there is no program; -1 when a program couldn't be opened
   or started (0x2A00; the others are), for a null or empty tag or a null hash (0x0D00), or without memory (0x0200). No locks, doesn't
   wait. */
QOVA_PLATFORM_API int QOVASysNotifySendNotifiction(const char *szTag, QLIBCSZHASH **ppHash);

QOVA_END_DECLS
#endif
