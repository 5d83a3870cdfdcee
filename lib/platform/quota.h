/* Share quota and the user quota database (libqovaquota). */
#ifndef SHARESNAP_PLATFORM_QUOTA_H
#define SHARESNAP_PLATFORM_QUOTA_H

#include <sharesnap/platform/api.h>
#include <sharesnap/platform/share.h>
#include <stddef.h>
#include <stdint.h>

QOVA_BEGIN_DECLS

/* 24 bytes. */
typedef struct QOVASHAREQUOTA {
    float fQuotaMiB; /* limit in MiB, 0 without one */
    float fUsedMiB;
    uint64_t ullLimit; /* the same in bytes */
    uint64_t ullUsed;
} QOVASHAREQUOTA;

/* Path of the user quota database of the share at szPath; it need not exist. 0 or -1. */
QOVA_PLATFORM_API int QOVAQuotaDbPathGet(const char *szPath, char *szBuf, size_t cbBuf);
/* 0 when the share's quota can't take ullBytes more, else nonzero (also without a quota). */
QOVA_PLATFORM_API int QOVAQuotaIsEnough(unsigned int uUid, const char *szPath, uint64_t ullBytes);
/* Fills the caller's zeroed record; no quota gives 0. 0 or -1. */
QOVA_PLATFORM_API int QOVAQuotaShareQuotaGet(const QOVASHARE *pShare, QOVASHAREQUOTA *pQuota);

QOVA_END_DECLS
#endif
