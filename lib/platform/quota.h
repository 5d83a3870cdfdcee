/* Share quota and the user quota database (libqovaquota).

   The quota of a share is the limit of the qgroup of its subvolume. It is read and never set, and quotas are never turned
   on. No call takes a lock; reading needs root. Failures leave errno and a code: 0x0D00 for a bad argument, 0x2A00
   otherwise. */
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

/* Path of the user quota database of the share at szPath, "<volume>/@quota/<share>.db", by the text alone: it need not
   exist. szBuf has cbBuf bytes. 0; -1 for what is no absolute path and for a buffer that is too small. */
QOVA_PLATFORM_API int QOVAQuotaDbPathGet(const char *szPath, char *szBuf, size_t cbBuf);
/* 0 when the quota of the subvolume at szPath can't take ullBytes more; 1 when it can, also without a quota; -1 on
   failure. uUid is the user who wants them: a qgroup holds for all alike. */
QOVA_PLATFORM_API int QOVAQuotaIsEnough(unsigned int uUid, const char *szPath, uint64_t ullBytes);
/* Fills the caller's zeroed record with the quota of the subvolume that holds the share's data, for an encrypted share
   (status bit 0x02) its back end; no quota gives a limit of 0. 0, or -1. */
QOVA_PLATFORM_API int QOVAQuotaShareQuotaGet(const QOVASHARE *pShare, QOVASHAREQUOTA *pQuota);

QOVA_END_DECLS
#endif
