/* Counters of visible snapshots; counted system locks on snapshots. */
#ifndef SHARESNAP_COUNTERS_H
#define SHARESNAP_COUNTERS_H

#include <sharesnap/api.h>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/szlist.h>
#include <stdint.h>

SHARESNAP_BEGIN_DECLS

SHARESNAP_API int QOVAShareSnapGetSnapCount(const QOVASHARE *pShare, int *pCount, int blRecount);
SHARESNAP_API int QOVAShareSnapUpdateSnapCountEx(const QOVASHARE *pShare, int nDelta, int blCreate);
SHARESNAP_API int QOVAShareSnapUpdateSnapCount(const QOVASHARE *pShare, int nDelta);
SHARESNAP_API int ShareSnapSnapCountGet(const QOVASHARE *pShare, int blSync);
SHARESNAP_API int QOVAShareSnapSyncSnapCount(const QOVASHARE *pShare);
SHARESNAP_API int ShareSnapGlobalSnapCountGet(int blSync);
SHARESNAP_API int QOVAShareSnapGetGlobalSnapCount(void);
SHARESNAP_API int QOVAShareSnapSyncGlobalSnapCount(void);

SHARESNAP_API int QOVAShareSnapSysLockIncrement(const QOVASHARE *pShare, const char *szSnapshot,
                                                const char *szInitiator);
SHARESNAP_API int QOVAShareSnapSysLockDecrement(const QOVASHARE *pShare, const char *szSnapshot,
                                                const char *szInitiator);
SHARESNAP_API int QOVAShareSnapSysLockRemove(const QOVASHARE *pShare, const char *szSnapshot, const char *szInitiator);
SHARESNAP_API int QOVAShareSnapSysLockGet(const QOVASHARE *pShare, const char *szSnapshot, const char *szInitiator,
                                          uint32_t *pCount);
SHARESNAP_API int QOVAShareSnapSysLockInitiatorList(const QOVASHARE *pShare, const char *szSnapshot,
                                                    QLIBCSZLIST **pList);
SHARESNAP_API int ShareSnapSysLockShareRenameHook(const char *szOld, const char *szNew);
SHARESNAP_API int ShareSnapSysLockShareDeleteHook(const char *szShare);

SHARESNAP_END_DECLS
#endif
