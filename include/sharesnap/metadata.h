/* Metadata file of a share, listing, attributes, selectors, look-ups by time, reconciliation. */
#ifndef SHARESNAP_METADATA_H
#define SHARESNAP_METADATA_H

#include <sharesnap/api.h>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>

SHARESNAP_BEGIN_DECLS

/* Limits of a section, in pairs and bytes without the end. */
enum { SNAP_ATTR_MAX_PAIRS = 64, SNAP_ATTR_MAX_KEY = 63, SNAP_ATTR_MAX_VALUE = 511 };

/* A selector decides on one section: 0 keep, 1 skip, 2 stop with success, 3 stop with failure, anything else skip. */
typedef int (*QOVAShareSnapSelector)(const char *szSnapName, const QLIBCSZHASH *pHash, void *pData);

/* One link of a chain of selectors; the empty chain is a null pointer. */
typedef struct QOVAShareSnapEnum {
    QOVAShareSnapSelector pSelector;
    void *pData; /* the caller's, not copied */
    struct QOVAShareSnapEnum *pNext;
} QOVAShareSnapEnum;

SHARESNAP_API int SnapMetaGetOrCreateFile(const QOVASHARE *pShare, char *szPath, size_t cbPath, int blCreate);
SHARESNAP_API int QOVAShareSnapMetaSectionAdd(const QOVASHARE *pShare, const char *szSnapName,
                                              const QLIBCSZHASH *pshHash);
SHARESNAP_API int SnapMetaSectionDel(const QOVASHARE *pShare, const char *szSnapName, int blLock);
SHARESNAP_API int SnapMetaFileDelete(const QOVASHARE *pShare);
SHARESNAP_API int SnapMetaFileRename(const QOVASHARE *pShareOld, const QOVASHARE *pShareNew);
SHARESNAP_API int SnapFileGetNextSection(FILE *pStream, char *szSection, size_t cbSection, QLIBCSZHASH **ppHash);
SHARESNAP_API int QOVAShareSnapList(const QOVASHARE *pShare, QLIBCSZLIST **ppListSnap, const QOVAShareSnapEnum *pEnum);
SHARESNAP_API int QOVAShareSnapProcessSelector(const char *szSnapName, const QOVAShareSnapEnum *pEnum,
                                               const QLIBCSZHASH *pHash);
SHARESNAP_API void QOVAShareSnapEnumFree(QOVAShareSnapEnum *pEnum);

SHARESNAP_API int QOVAShareSnapAttrGet(const QOVASHARE *pShare, const char *szSnapName, const char *szAttr,
                                       char *szValue, size_t cbValue);
SHARESNAP_API int QOVAShareSnapAttrSet(const QOVASHARE *pShare, const char *szSnapName, const char *szAttr,
                                       const char *szValue);
SHARESNAP_API int QOVAShareSnapAttrDelete(const QOVASHARE *pShare, const char *szSnapName, const char *szAttr);
SHARESNAP_API int QOVAShareSnapAttrList(const QOVASHARE *pShare, const char *szSnapName, QLIBCSZHASH **ppHash);
SHARESNAP_API int QOVAShareSnapAttrMultiSet(const QOVASHARE *pShare, const char *szSnapName,
                                            const QLIBCSZHASH *pAttrHash);

SHARESNAP_API int QOVAShareSnapSelectorAdd(QOVAShareSnapEnum **ppQOVAShareSnapEnum, QOVAShareSnapSelector pSelector,
                                           void *pData);
SHARESNAP_API int SnapSelectorCheck(QOVAShareSnapSelector pSelector, void *pData);
SHARESNAP_API int QOVAShareSnapTimeSelector(const char *szSnapName, const QLIBCSZHASH *pHash, void *pData);
SHARESNAP_API int QOVAShareSnapAttrSelector(const char *szSnapName, const QLIBCSZHASH *pHash, void *pData);
SHARESNAP_API int QOVAShareSnapCommonSelector(const char *szSnapName, const QLIBCSZHASH *pHash, void *pData);

SHARESNAP_API int QOVAShareSnapGetLatest(const QOVASHARE *pShare, char *szName, size_t cbName);
SHARESNAP_API int QOVAShareSnapNameGetByTime(const QOVASHARE *pShare, char *szName, size_t cbName, time_t tTime);

SHARESNAP_API int QOVAShareSnapDefaultAttr(QLIBCSZHASH **ppHash);

SHARESNAP_API int QOVAShareSnapMetaSync(const QOVASHARE *pShare);
SHARESNAP_API int QOVAShareSnapMetaSyncAll(void);
SHARESNAP_API int SnapMetaSyncBtrfsListVol(const char *szVolPath, QLIBCSZLIST **ppList);
SHARESNAP_API int SnapMetaSyncFindShareSnapList(const QOVASHARE *pShare, const QLIBCSZLIST *pVolList,
                                                QLIBCSZLIST **ppList);

SHARESNAP_END_DECLS
#endif
