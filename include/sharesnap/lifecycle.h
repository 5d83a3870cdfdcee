/* Creation, deletion, clones, plug-in actions, sizes and notices, share-level operations. */
#ifndef SHARESNAP_LIFECYCLE_H
#define SHARESNAP_LIFECYCLE_H

#include <sharesnap/api.h>
#include <sharesnap/platform/mresult.h>
#include <sharesnap/platform/plugin.h>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

SHARESNAP_BEGIN_DECLS

/* Flag of QOVAShareSnapCreateEx: wait for the POST action. */
enum { SNAP_CREATE_BLOCKING_POST = 0x1 };
/* Phases of a plug-in action. */
enum { SNAP_PHASE_PRE = 4, SNAP_PHASE_POST = 5 };
/* Numbers of the log events. */
enum {
    SNAP_EVENT_CREATE_DONE = 0x13C00001,
    SNAP_EVENT_CREATE_FAILED = 0x13C00002,
    SNAP_EVENT_DELETE_DONE = 0x13C00003,
    SNAP_EVENT_DELETE_FAILED = 0x13C00004
};

SHARESNAP_API int QOVAShareSnapCreate(const QOVASHARE *pShare, char *szSnapName, size_t cbSnapName,
                                      QLIBCSZHASH **ppHash);
SHARESNAP_API int QOVAShareSnapCreateEx(const QOVASHARE *pShare, char *szSnapName, size_t cbSnapName,
                                        QLIBCSZHASH **ppHash, unsigned int uFlags);
SHARESNAP_API int QOVAShareSnapCreateNoShareInfo(const QOVASHARE *pShare, char *szSnapName, size_t cbSnapName,
                                                 QLIBCSZHASH **ppHash);
SHARESNAP_API int ShareSnapCreateNameConflictRetry(const QOVASHARE *pShare, char *szSnapName, size_t cbSnapName,
                                                   QLIBCSZHASH **ppHash, unsigned int nRetry);
SHARESNAP_API int QOVAShareSnapMaximumGet(void);
SHARESNAP_API int QOVAShareSnapCheckReachMaxSnapshot(const QOVASHARE *pShare);
SHARESNAP_API int QOVAShareSnapCheckMaxRetry(const QOVASHARE *pShare);
SHARESNAP_API int QOVAShareSnapCreateLogSet(const QOVASHARE *pShare, const char *szSnapName, const char *szActor,
                                            int blSuccess);

SHARESNAP_API int QOVAShareSnapDelete(const QOVASHARE *pShare, const QLIBCSZLIST *pListSnap, QLIBCMRESULT **ppMResult);
SHARESNAP_API int QOVAShareSnapDeleteLogSet(const QOVASHARE *pShare, const char *szFirst, const char *szSecond,
                                            int blSuccess);
SHARESNAP_API int QOVAShareSnapDeletingCountGet(const char *szSharePath, uint32_t *cDeletingCount);

SHARESNAP_API int QOVAShareSnapClone(const QOVASHARE *pOrigShare, const QOVASHARE *pNewShare, const char *szSnapName);

SHARESNAP_API int QOVAShareSnapshotPluginInit(QLIBPLUGIN **ppPlugin);
SHARESNAP_API int QOVAShareSnapshotPluginAction(int nPhase, QLIBPLUGIN *pPlugin, const QOVASHARE *pShare,
                                                const QOVASHARE *pNewShare, const QLIBCSZLIST *pSnapList,
                                                const char *szAction, int nResult);

SHARESNAP_API int QOVAShareSnapCalculateTotalSize(const QLIBCSZLIST *pListSnapPath, const QLIBCSZLIST *pListCloneSrc,
                                                  const char *szParent, uint64_t *pullTotalSize, FILE **ppFile);
SHARESNAP_API int QOVAShareGetSnapSize(const QOVASHARE *pShare, const char *szSnapshot, uint64_t *pullSize);
SHARESNAP_API int QOVAShareSnapSendNotification(const char *szTag, const char *szShareName, QLIBCSZHASH **ppHash);

SHARESNAP_API int QOVAShareSnapShareCreate(const char *szPath);
SHARESNAP_API int QOVAShareSnapConfigDelete(const char *szSharePath);
SHARESNAP_API int QOVAShareSnapDataDelete(const char *szSharePath);
SHARESNAP_API int QOVAShareSnapShareRename(const QOVASHARE *pShareOld, const QOVASHARE *pShareNew,
                                           const char *szOldPath, const char *szNewPath);

SHARESNAP_END_DECLS
#endif
