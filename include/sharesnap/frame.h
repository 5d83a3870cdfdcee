/* Directories, support check, snapshot names and times, time-limited child process. */
#ifndef SHARESNAP_FRAME_H
#define SHARESNAP_FRAME_H

#include <sharesnap/api.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

SHARESNAP_BEGIN_DECLS

/* What a request wants to do to a share. */
enum { SNAP_CREATE = 0x001, SNAP_DELETE = 0x002, SNAP_CLONE = 0x008, SNAP_ALL = 0x1FF };

/* While pEntry isn't null the actions of uMask are refused for all shares. Zeroed at start; only the process that loads
   the library writes it. */
typedef struct QOVAShareSnapBlackListRecord {
    void *pEntry;
    uint32_t uMask;
} QOVAShareSnapBlackListRecord;
SHARESNAP_API extern QOVAShareSnapBlackListRecord BlackList;

SHARESNAP_API int ShareSnapCheckDirExist(const char *szPath);
SHARESNAP_API int ShareSnapCheckFileExist(const char *szPath);
SHARESNAP_API int SnapGetOrCreateSubvolume(const QOVASHARE *pShare, const char *szDir, char *szPath, size_t cbPath,
                                           int blCreate);
SHARESNAP_API int SnapGetOrCreateSubvolumeWithShare(const QOVASHARE *pShare, const char *szDir, char *szPath,
                                                    size_t cbPath, int blCreate);
SHARESNAP_API int QOVAShareSnapGetOrCreateSnapDir(const QOVASHARE *pShare, char *szPath, size_t cbPath, int blCreate);
SHARESNAP_API int QOVAShareSnapCheckSupport(const QOVASHARE *pShare, int *pFsType, unsigned int nAction);
SHARESNAP_API int QOVAShareSnapGetSnapPath(const QOVASHARE *pShare, const char *szSnapshot, char *szBuf, size_t cbBuf);
SHARESNAP_API int SnapshotDirRename(const QOVASHARE *pOldShare, const QOVASHARE *pNewShare);
SHARESNAP_API int BtrfsListSnaps(const QOVASHARE *pShare, QLIBCSZLIST **ppList);
SHARESNAP_API int ShareSubvolumePathGet(const QOVASHARE *pShare, char *szShareSubvolPath, size_t cb);
SHARESNAP_API int SnapFillSubvolInfo(const QOVASHARE *pShare, const char *szSnapName, QLIBCSZHASH **ppHash);
SHARESNAP_API int QOVAShareSnapGetOrCreateDir(const QOVASHARE *pShare, const char *szDir, char *szPath, size_t cbPath,
                                              int blCreate);
SHARESNAP_API int SnapGetOrCreateDirWithShare(const QOVASHARE *pShare, const char *szDir, char *szPath, size_t cbPath,
                                              int blCreate);
SHARESNAP_API int QOVAShareSnapCreateRunLockShareSnapDir(void);
SHARESNAP_API int QOVAShareSnapCreateTmpShareSnapDir(const char *szIgnored);
SHARESNAP_API int QOVAShareSnapLockMetaFile(const QOVASHARE *pShare, int nMode);
SHARESNAP_API int SnapFileSectionSet(const char *szPath, const char *szSection, const char *szNewSection,
                                     const QLIBCSZHASH *pHash, const char *szFormat);
SHARESNAP_API int SnapFileSectionAdd(const char *szPath, const char *szSection, const QLIBCSZHASH *pHash,
                                     const char *szFormat);
SHARESNAP_API int SnapFileSectionRemove(const char *szPath, const char *szSection);
SHARESNAP_API int QOVAShareSnapBlackList(const QOVASHARE *pShare, unsigned int *puAction);
SHARESNAP_API int BtrfsSubvolNoLoadUsrQuotaAttrSet(const char *szPath, int blSet);

SHARESNAP_API int SnapNameGenerateByTime(char *szName, size_t cbName, time_t tTime, unsigned int blLocal);
SHARESNAP_API int QOVAShareSnapTimeGet(const char *szName, time_t *ptTime);

/* A task for ShareSnapTimeLimitFork. */
typedef struct TimeLimitTask {
    int (*pfnTask)(void *pArg);
    void *pArg;
} TimeLimitTask;

SHARESNAP_API int ShareSnapTimeLimitFork(unsigned long ulSecTimeout, const TimeLimitTask *pTimeLimitTask,
                                         int *pFuncRet);

SHARESNAP_END_DECLS
#endif
