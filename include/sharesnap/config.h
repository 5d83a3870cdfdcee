/* Snapshot settings of shares; a share's configuration as frozen into a snapshot and read back. */
#ifndef SHARESNAP_CONFIG_H
#define SHARESNAP_CONFIG_H

#include <sharesnap/api.h>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>
#include <stddef.h>
#include <stdint.h>

SHARESNAP_BEGIN_DECLS

SHARESNAP_API int QOVAShareSnapConfList(const char *szShareName, QLIBCSZHASH **ppHash);
SHARESNAP_API int QOVAShareSnapConfGet(const char *szShareName, const char *szKey, char *szValue, size_t cbValue);
SHARESNAP_API int QOVAShareSnapConfSet(const char *szShareName, const char *szKey, const char *szValue);
SHARESNAP_API int QOVAShareSnapConfUpdate(const char *szOrigShareName, const char *szNewShareName,
                                          const QLIBCSZHASH *pUpdateHash);
SHARESNAP_API int QOVAShareSnapConfDeleteShare(const char *szShareName);
SHARESNAP_API int QOVAShareSnapConfEnumSection(QLIBCSZLIST **ppList);
SHARESNAP_API int QOVAShareSnapGetShareNameByTaskId(const char *szTaskId, char *szShareNameBuf, size_t cbShareNameBuf);

/* Selection of a share's settings. */
enum {
    SHARE_INFO_DESC = 0x01,
    SHARE_INFO_PRIVILEGE = 0x02,
    SHARE_INFO_BROWSEABLE = 0x04,
    SHARE_INFO_FTP_PRIVILEGE = 0x08,
    SHARE_INFO_STATUS = 0x10,
    SHARE_INFO_QUOTA = 0x20,
    SHARE_INFO_COW = 0x40,
    SHARE_INFO_COMPRESSION = 0x80,
    SHARE_INFO_ALL = 0x1FF
};

/* A share's frozen settings: one allocation with its strings behind it, released by one free(). */
typedef struct QOVAShareSnapShareInfo {
    char *szDesc;
    char *szDenyList;
    char *szRWList;
    char *szROList;
    int nBrowseable;
    int nFtpPrivilege;
    uint32_t uStatus;
    uint64_t ullShareQuota;
    int blCow;
    int blCompression;
    uint32_t uMask;
} QOVAShareSnapShareInfo;

SHARESNAP_API int QOVAShareSnapShareInfoSet(const QOVASHARE *pShare);
SHARESNAP_API int QOVAShareSnapShareInfoGetFromShare(const QOVASHARE *pShare, QLIBCSZHASH **ppHash, uint32_t uMask);
SHARESNAP_API int QOVAShareSnapUserQuotaDBPathGet(const QOVASHARE *pShare, char *szBuf, size_t cbBuf);
SHARESNAP_API int QOVAShareSnapHasShareInfoFile(const QOVASHARE *pShare, const char *szSnapshot);
SHARESNAP_API void QOVAShareSnapShareInfoClear(const QOVASHARE *pShare);
SHARESNAP_API int QOVAShareSnapShareInfoGet(const QOVASHARE *pShare, QOVAShareSnapShareInfo **ppShareInfo);
SHARESNAP_API int QOVAShareSnapShareInfoGetByHash(const QOVASHARE *pShare, const QLIBCSZHASH *pHash,
                                                  QOVAShareSnapShareInfo **ppShareInfo);

SHARESNAP_END_DECLS
#endif
