/* Notifications of the desktop and of administrators (libqovasysnotify). */
#ifndef SHARESNAP_PLATFORM_NOTIFICATION_H
#define SHARESNAP_PLATFORM_NOTIFICATION_H

#include <sharesnap/platform/api.h>
#include <sharesnap/platform/szhash.h>

QOVA_BEGIN_DECLS

/* Hands a tag with its variables to the executables in /etc/sharesnap/notify.d and /usr/lib/sharesnap/notify.d, and to
   the journal. 0 or -1. The name is spelt so. */
QOVA_PLATFORM_API int QOVASysNotifySendNotifiction(const char *szTag, QLIBCSZHASH **ppHash);

QOVA_END_DECLS
#endif
