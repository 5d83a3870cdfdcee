// Freezes a share's configuration into the share, so that the snapshot taken next contains it.
#include <libgen.h>
#include <sharesnap/config.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/file.h>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/platform/file_operation.h>
#include <sharesnap/platform/process.h>
#include <sharesnap/platform/quota.h>
#include <sharesnap/platform/volume.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/account_lists.h"
#include "config/share_config_file.h"
#include "frame/log.h"
#include "frame/owners.h"
#include "frame/path_format.h"

using namespace sharesnap;

namespace {

constexpr char kPairFormat[] = "%s=%s\n";

// What has been read of a share so far, and where it goes.
struct Capture {
    const QOVASHARE *pShare;
    QLIBCSZHASH **ppHash;
};

[[nodiscard]] int SetText(const Capture &capture, const char *szKey, const char *szValue) {
    if (QLIBCSzHashSetValue(capture.ppHash, szKey, szValue) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to set share [%s] key [%s] value [%s][0x%04X %s:%d]", capture.pShare->szName,
                     szKey, szValue);
        return -1;
    }
    return 0;
}

[[nodiscard]] int SetNumber(const Capture &capture, const char *szKey, int nValue) {
    char szValue[32];
    (void)std::snprintf(szValue, sizeof(szValue), "%d", nValue);
    return SetText(capture, szKey, szValue);
}

// A quota as the platform gives it, cut to a whole number over the unsigned range.
[[nodiscard]] unsigned long long QuotaToInteger(float fQuota) {
    constexpr float kLimit = 18446744073709551616.0F; // 2^64; what lies outside has no defined conversion
    if (!(fQuota > 0.0F)) {
        return 0;
    }
    return fQuota >= kLimit ? ~0ULL : static_cast<unsigned long long>(fQuota);
}

[[nodiscard]] int SetQuota(const Capture &capture) {
    QOVASHAREQUOTA quota;
    static_assert(sizeof(quota) == 24, "the platform's quota record has 24 bytes");
    std::memset(&quota, 0, sizeof(quota));
    if (QOVAQuotaShareQuotaGet(capture.pShare, &quota) < 0) {
        SNAP_LOG(LOG_ERR, "Failed to get share[%s] quota", capture.pShare->szName);
        return -1;
    }
    char szValue[32];
    (void)std::snprintf(szValue, sizeof(szValue), "%llu", QuotaToInteger(quota.fQuotaMiB));
    return SetText(capture, "share_quota", szValue);
}

[[nodiscard]] int SetAccounts(const Capture &capture, const char *szNames, const char *szUserKey,
                              const char *szGroupKey) {
    IdTexts ids;
    if (ShareNamesToIds(szNames, &ids.uids, &ids.cbUids, &ids.gids, &ids.cbGids) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share[%s] deny user and group[0x%04X %s:%d]", capture.pShare->szName);
        return -1;
    }
    if (SetText(capture, szUserKey, ids.uids.get()) < 0) {
        return -1;
    }
    return SetText(capture, szGroupKey, ids.gids.get());
}

[[nodiscard]] int SetPrivileges(const Capture &capture) {
    const QOVASHARE *pShare = capture.pShare;
    if (SetAccounts(capture, pShare->szDenyList, "user_deny", "group_deny") < 0 ||
        SetAccounts(capture, pShare->szROList, "user_ro", "group_ro") < 0 ||
        SetAccounts(capture, pShare->szRWList, "user_rw", "group_rw") < 0) {
        return -1;
    }
    return 0;
}

// Copies the user quota database into the configuration directory, if there is one and the share can take it.
[[nodiscard]] int CopyQuotaDatabase(const QOVASHARE *pShare, const char *szDatabase, const char *szBasePath) {
    if (QLIBCFileExist(szDatabase) != 1) {
        return 0;
    }
    struct stat st;
    if (QLIBCFileStat(szDatabase, 1, &st) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed stat file [%s][0x%04X %s:%d]", szDatabase);
        return -1;
    }
    if (QOVAQuotaIsEnough(getuid(), szBasePath, static_cast<uint64_t>(st.st_size)) == 0) {
        SNAP_LOG_REG(LOG_ERR, "Quota is not enough for share(%s)[0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    char szTarget[kPathSize];
    if (QOVAShareSnapUserQuotaDBPathGet(pShare, szTarget, sizeof(szTarget)) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get user quota db path in snapshot for share [%s][0x%04X %s:%d]",
                     pShare->szName);
        return -1;
    }
    QOVAFILECOPYOPTIONS options;
    static_assert(sizeof(options) == 80, "the platform's copy options have 80 bytes");
    std::memset(&options, 0, sizeof(options));
    options.rgWord[0] = options.rgWord[2] = options.rgWord[3] = 1;
    if (QOVAFileCopy(szDatabase, szTarget, &options) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to copy usr quota db from [%s] to [%s][0x%04X %s:%d]", szDatabase, szTarget);
        return -1;
    }
    return 0;
}

[[nodiscard]] int ReplaceSection(const QOVASHARE *pShare, const char *szPath, const QLIBCSZHASH *pHash) {
    if (SnapFileSectionRemove(szPath, kShareInfoSection) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to remove share [%s] configuration to file [%s] [0x%04X %s:%d]", pShare->szName,
                     szPath);
        return -1;
    }
    if (SnapFileSectionAdd(szPath, kShareInfoSection, pHash, kPairFormat) != 1) {
        SNAP_LOG_REG(LOG_ERR, "Failed to add section [%s] to file [%s][0x%04X %s:%d]", kShareInfoSection, szPath);
        return -1;
    }
    return 0;
}

[[nodiscard]] int ReplaceSectionLocked(const QOVASHARE *pShare, const char *szPath, const QLIBCSZHASH *pHash) {
    const int nFd = ShareConfigLock(pShare->szName, ConfigLockMode::kExclusive);
    if (nFd < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to lock share [%s] snapshot configuration lock file[0x%04X %s:%d]",
                     pShare->szName);
        return -1;
    }
    const int nResult = ReplaceSection(pShare, szPath, pHash);
    if (QLIBCFileUnlockByFile(nFd) == 0) {
        SNAP_LOG_REG(LOG_ERR,
                     "fail to QLIBCFileUnlockByFile of share [%s] snapshot configuration lock file[0x%04X %s:%d]",
                     pShare->szName);
    }
    return nResult;
}

// Removes the configuration directory of an encrypted share with all it holds. 0 or -1.
[[nodiscard]] int RemoveConfigDirectory(const char *szPath) {
    if (ShareSnapCheckDirExist(szPath) != 1) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    constexpr size_t kArguments = 4;
    char **rgszArg = static_cast<char **>(std::calloc(kArguments, sizeof(char *)));
    if (rgszArg == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_OUT_OF_MEMORY);
        return -1;
    }
    char szProgram[] = "/bin/rm";
    char szOptions[] = "-rf";
    char szTarget[kPathSize];
    (void)std::snprintf(szTarget, sizeof(szTarget), "%s", szPath);
    rgszArg[0] = szProgram;
    rgszArg[1] = szOptions;
    rgszArg[2] = szTarget;
    const int nStatus = QLIBCExecv(szProgram, rgszArg, 0);
    std::free(rgszArg);
    if (nStatus != 0) {
        SNAP_LOG(LOG_ERR, "Failed to remove directory.");
        SNAP_SET_ERR(SNAP_ERR_REMOVE_FAILED);
        return -1;
    }
    return 0;
}

} // namespace

int QOVAShareSnapShareInfoGetFromShare(const QOVASHARE *pShare, QLIBCSZHASH **ppHash, uint32_t uMask) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    if (ppHash == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != ppHash");
    }
    if (*ppHash == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != *ppHash");
    }
    const Capture capture{pShare, ppHash};
    if ((uMask & SHARE_INFO_DESC) != 0 && SetText(capture, "desc", pShare->szDesc) < 0) {
        return -1;
    }
    if ((uMask & SHARE_INFO_STATUS) != 0 && SetNumber(capture, "status", static_cast<int>(pShare->uStatus)) < 0) {
        return -1;
    }
    if ((uMask & SHARE_INFO_BROWSEABLE) != 0 && SetNumber(capture, "browseable", pShare->nBrowseable) < 0) {
        return -1;
    }
    if ((uMask & SHARE_INFO_COW) != 0 &&
        SetText(capture, "cow", QLIBFSGetBTRFSNodatacow(pShare->szPath) == 1 ? "false" : "true") < 0) {
        return -1;
    }
    if ((uMask & SHARE_INFO_COMPRESSION) != 0 &&
        SetText(capture, "compression", QLIBFSGetBTRFSCompression(pShare->szPath) == 1 ? "true" : "false") < 0) {
        return -1;
    }
    if ((uMask & SHARE_INFO_FTP_PRIVILEGE) != 0 && SetNumber(capture, "ftp_privilege", pShare->nFtpPrivilege) < 0) {
        return -1;
    }
    if ((uMask & SHARE_INFO_QUOTA) != 0 && SetQuota(capture) < 0) {
        return -1;
    }
    return (uMask & SHARE_INFO_PRIVILEGE) != 0 ? SetPrivileges(capture) : 0;
}

int QOVAShareSnapUserQuotaDBPathGet(const QOVASHARE *pShare, char *szBuf, size_t cbBuf) {
    char szDirectory[kPathSize];
    if (ShareConfigDirGet(pShare, szDirectory, 1) != 1) {
        return -1;
    }
    char szDatabase[kPathSize];
    if (QOVAQuotaDbPathGet(pShare->szPath, szDatabase, sizeof(szDatabase)) < 0) {
        return -1;
    }
    return FormatPath(szBuf, cbBuf, "%s/%s", szDirectory, basename(szDatabase)) ? 0 : -1;
}

int QOVAShareSnapShareInfoSet(const QOVASHARE *pShare) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    HashOwner hash(QLIBCSzHashAlloc(1024));
    if (!hash) {
        SNAP_LOG_REG(LOG_ERR, "Failed to alloc hash[0x%04X %s:%d]");
        return -1;
    }
    char szDatabase[kPathSize];
    if (QOVAQuotaDbPathGet(pShare->szPath, szDatabase, sizeof(szDatabase)) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed get user quota db path for share [%s][0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    char szBasePath[kPathSize];
    if (ShareBasePathGet(pShare, szBasePath, sizeof(szBasePath)) < 0 ||
        CopyQuotaDatabase(pShare, szDatabase, szBasePath) < 0) {
        return -1;
    }
    if (QOVAShareSnapShareInfoGetFromShare(pShare, &hash, SHARE_INFO_ALL) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share [%s] configration[0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    char szPath[kPathSize];
    if (ShareConfigFileGet(pShare, szPath, 1) != 1) {
        SNAP_LOG_REG(LOG_ERR, "Failed to create configration file on share [%s] [0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    return ReplaceSectionLocked(pShare, szPath, hash.get());
}

int QOVAShareSnapHasShareInfoFile(const QOVASHARE *pShare, const char *szSnapshot) {
    char szSnapPath[kPathSize] = "";
    if (QOVAShareSnapGetSnapPath(pShare, szSnapshot, szSnapPath, sizeof(szSnapPath)) < 1) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get snap path for share [%s] or not exist[0x%04X %s:%d]",
                     pShare == nullptr || pShare->szName == nullptr ? "" : pShare->szName);
        return -1;
    }
    char szFile[kPathSize];
    if (!FormatPath(szFile, sizeof(szFile), "%s/%s/%s/%s", szSnapPath, kEaDirName, kShareConfigDirName,
                    kShareConfigFileName)) {
        return -1;
    }
    return QLIBCFileExist(szFile) != 0 ? 1 : 0;
}

void QOVAShareSnapShareInfoClear(const QOVASHARE *pShare) {
    if (pShare == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return;
    }
    int nEncrypted = 0;
    if (QLIBShareIsEncryptionGet(pShare, &nEncrypted) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get encryption status of share [%s] [0x%04X %s:%d]", pShare->szName);
        return;
    }
    if (nEncrypted == 0) {
        return; // the next capture replaces what stays behind
    }
    char szPath[kPathSize];
    if (ShareConfigDirGet(pShare, szPath, 0) == 1) {
        if (RemoveConfigDirectory(szPath) < 0) {
            SNAP_LOG_REG(LOG_ERR, "failed to remove share config directory [%s][0x%04X %s:%d]", szPath);
        }
        sync();
    }
    if (ShareEaDirGet(pShare, szPath, 0) == 1 && rmdir(szPath) < 0) {
        SNAP_LOG(LOG_ERR, "failed to remove share @eaDir directory [%s], err:%m", szPath);
    }
}
