/* Host name (libqovanetsdk). */
#ifndef SHARESNAP_PLATFORM_HOSTNAME_H
#define SHARESNAP_PLATFORM_HOSTNAME_H

#include <sharesnap/platform/api.h>
#include <stddef.h>

QOVA_BEGIN_DECLS

/* The machine's host name, cut to cbBuf bytes with its end (64 in the library above). 0 or -1 with errno. */
QOVA_PLATFORM_API int QOVALnxGetHostname(char *szBuf, size_t cbBuf);

QOVA_END_DECLS
#endif
