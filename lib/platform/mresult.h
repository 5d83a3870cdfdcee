/* Multi-result record: one code per item of a batch (libqovacore). */
#ifndef SHARESNAP_PLATFORM_MRESULT_H
#define SHARESNAP_PLATFORM_MRESULT_H

#include <sharesnap/platform/api.h>

QOVA_BEGIN_DECLS

typedef struct QLIBCMRESULT QLIBCMRESULT;

QOVA_PLATFORM_API QLIBCMRESULT *QLIBCMResultAlloc(void);
/* nItem items, each with nDefault. Returns the record to use from then on (the given one is then gone when it differs);
   null on failure, the given record stays valid. */
QOVA_PLATFORM_API QLIBCMRESULT *QLIBCMResultInit(QLIBCMRESULT *pResult, int nItem, int nDefault);
/* Code of one item; 0 marks success. 0, or -1 when out of range. */
QOVA_PLATFORM_API int QLIBCMResultSetCoreError(QLIBCMRESULT *pResult, int nIndex, int nCode);
QOVA_PLATFORM_API int QLIBCMResultGetCoreErrorByIndex(const QLIBCMRESULT *pResult, int nIndex, int *pnCode);
/* 1 when all items succeeded (also for none), else 0. */
QOVA_PLATFORM_API int QLIBCMResultCoreSuccess(const QLIBCMRESULT *pResult);
/* Null is accepted. Keeps errno. */
QOVA_PLATFORM_API void QLIBCMResultFree(QLIBCMRESULT *pResult);

QOVA_END_DECLS
#endif
