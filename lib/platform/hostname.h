/* Host name (libqovanetsdk). */
#ifndef SHARESNAP_PLATFORM_HOSTNAME_H
#define SHARESNAP_PLATFORM_HOSTNAME_H

#include <sharesnap/platform/api.h>
#include <stddef.h>

QOVA_BEGIN_DECLS

/* Copies the machine's host name, cut to cbBuf bytes with its end; the kernel's names have up to 64 bytes without it.
   0; -1 with errno, and 0x0D00 for a null buffer or one of no size, else 0x2A00. No locks, no privilege. */
QOVA_PLATFORM_API int QOVALnxGetHostname(char *szBuf, size_t cbBuf);

QOVA_END_DECLS
#endif
