// The metadata file of a share: where it lies, its whole sections, its removal and its move.
#include <fcntl.h>
#include <sharesnap/frame.h>
#include <sharesnap/metadata.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "frame/log.h"
#include "frame/metadata_lock.h"
#include "frame/owners.h"
#include "frame/path_format.h"
#include "metadata/attr_limits.h"

using namespace sharesnap;

namespace {

constexpr size_t kListSize = 1024;

bool IsLink(const char *szPath) {
    struct stat info;
    return lstat(szPath, &info) == 0 && S_ISLNK(info.st_mode);
}

// The path of the file, which need not stand. 1; 0 when nothing can stand there; -1 on failure.
int MetaPath(const QOVASHARE *pShare, char *szPath, size_t cbPath, int blCreate) {
    char szDirectory[kPathSize];
    const int nDirectory = SnapGetOrCreateSubvolume(pShare, "@sharesnap", szDirectory, sizeof(szDirectory), blCreate);
    if (nDirectory != 1 && blCreate != 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to create metadata directory on share [%s] [0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    if (nDirectory < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get metadata directory [0x%04X %s:%d]");
        return -1;
    }
    int nEncrypted = 0;
    if (QLIBShareIsEncryptionGet(pShare, &nEncrypted) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get eycrnption status of share [%s] [0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    const bool blWritten = nEncrypted != 0 ? FormatPath(szPath, cbPath, "%s/@%s@.meta", szDirectory, pShare->szName)
                                           : FormatPath(szPath, cbPath, "%s/@%s.meta", szDirectory, pShare->szName);
    if (!blWritten) {
        return -1;
    }
    // Behind a link in the directory's place lie the files of somebody else.
    return nDirectory == 1 || !IsLink(szDirectory) ? 1 : 0;
}

// Makes the empty file. One that another process made meanwhile stays as it is, with the sections it may have by now.
bool CreateEmpty(const char *szPath) {
    const DescriptorOwner file(open(szPath, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file) {
        SNAP_LOG(LOG_ERR, "Failed to create [%s]\n", szPath);
        SNAP_SET_ERR(SNAP_ERR_CREATE_FAILED);
        return false;
    }
    return true;
}

// The limits of a whole section. 0 or -1.
int CheckSection(const QLIBCSZHASH *pHash) {
    const int nPairs = QLIBCSzHashPairNum(pHash);
    if (nPairs > SNAP_ATTR_MAX_PAIRS) {
        SNAP_LOG(LOG_ERR, "Exceed share snapshot section maximum number %d", nPairs);
        SNAP_SET_ERR(SNAP_ERR_TOO_MANY_ATTRIBUTES);
        return -1;
    }
    ListOwner keys(QLIBCSzListAlloc(kListSize));
    if (!keys || QLIBCSzHashEnumKey(pHash, &keys) < 0) {
        SNAP_LOG(LOG_ERR, "Failed to enum key-value pair");
        return -1;
    }
    for (int i = 0; i < keys->nItem; ++i) {
        const char *szKey = QLIBCSzListGet(keys.get(), i);
        const char *szValue = QLIBCSzHashGetValue(pHash, szKey);
        if (szKey == nullptr || szValue == nullptr) {
            continue;
        }
        if (IsTooLong(szKey, szValue)) {
            SNAP_SET_ERR(SNAP_ERR_ATTR_TOO_LONG);
            return -1;
        }
    }
    return 0;
}

int AddSection(const char *szPath, const char *szSnapName, const QLIBCSZHASH *pHash) {
    const int nAdded = SnapFileSectionAdd(szPath, szSnapName, pHash, kPairFormat);
    if (nAdded < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to add section [%s] to file [%s][0x%04X %s:%d]", szSnapName, szPath);
        return -1;
    }
    if (nAdded == 0) {
        SNAP_SET_ERR(SNAP_ERR_SECTION_EXISTS);
        SNAP_LOG_REG(LOG_ERR, "Failed to add section [%s] to file [%s], because section is exist.[0x%04X %s:%d]",
                     szSnapName, szPath);
        return -1;
    }
    return 0;
}

} // namespace

int SnapMetaGetOrCreateFile(const QOVASHARE *pShare, char *szPath, size_t cbPath, int blCreate) {
    if (pShare == nullptr || szPath == nullptr || cbPath == 0) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    const int nPath = MetaPath(pShare, szPath, cbPath, blCreate);
    if (nPath != 1) {
        return nPath;
    }
    const int nExist = ShareSnapCheckFileExist(szPath);
    if (nExist < 0 || (nExist == 1 && IsLink(szPath))) {
        SNAP_SET_ERR(SNAP_ERR_BAD_FILE_TYPE);
        return -1;
    }
    if (nExist == 1) {
        return 1;
    }
    return blCreate != 0 && CreateEmpty(szPath) ? 1 : 0;
}

int QOVAShareSnapMetaSectionAdd(const QOVASHARE *pShare, const char *szSnapName, const QLIBCSZHASH *pshHash) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    if (szSnapName == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szSnapName");
    }
    if (pshHash == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != pshHash");
    }
    if (CheckSection(pshHash) < 0) {
        return -1;
    }
    char szPath[kPathSize];
    if (SnapMetaGetOrCreateFile(pShare, szPath, sizeof(szPath), 1) != 1) {
        SNAP_LOG_REG(LOG_ERR, "Failed to create metadata file on share [%s] [0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    MetadataLock lock;
    if (!lock.take(pShare, MetadataLockMode::exclusive)) {
        return -1;
    }
    return AddSection(szPath, szSnapName, pshHash);
}

int SnapMetaSectionDel(const QOVASHARE *pShare, const char *szSnapName, int blLock) {
    if (pShare == nullptr || szSnapName == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    char szPath[kPathSize];
    if (SnapMetaGetOrCreateFile(pShare, szPath, sizeof(szPath), 0) != 1) {
        SNAP_LOG_REG(LOG_ERR, "Can't access metadata file [0x%04X %s:%d]");
        SNAP_SET_ERR(SNAP_ERR_META_ACCESS);
        return -1;
    }
    MetadataLock lock;
    if (blLock != 0 && !lock.take(pShare, MetadataLockMode::exclusive)) {
        return -1;
    }
    if (SnapFileSectionRemove(szPath, szSnapName) <= 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to remove section: %s from %s [0x%04X %s:%d]", szSnapName, szPath);
        return -1;
    }
    return 0;
}

int SnapMetaFileDelete(const QOVASHARE *pShare) {
    if (pShare == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    char szPath[kPathSize];
    if (SnapMetaGetOrCreateFile(pShare, szPath, sizeof(szPath), 0) <= 0) {
        return 0; // nothing that could be removed
    }
    if (unlink(szPath) < 0) {
        SNAP_LOG(LOG_ERR, "Faile to unlink [%s]", szPath);
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return -1;
    }
    return 0;
}

int SnapMetaFileRename(const QOVASHARE *pShareOld, const QOVASHARE *pShareNew) {
    if (pShareOld == nullptr || pShareNew == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    char szOld[kPathSize];
    const int nOld = SnapMetaGetOrCreateFile(pShareOld, szOld, sizeof(szOld), 0);
    if (nOld < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get orignal share %s meta file [0x%04X %s:%d]", pShareOld->szName);
        return -1;
    }
    if (nOld == 0) {
        return 0;
    }
    char szNew[kPathSize];
    const int nNew = SnapMetaGetOrCreateFile(pShareNew, szNew, sizeof(szNew), 0);
    if (nNew < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get meta file path of share [%s] [0x%04X %s:%d]", pShareNew->szName);
        SNAP_SET_ERR(SNAP_ERR_META_PATH);
        return -1;
    }
    if (nNew == 1) {
        SNAP_LOG(LOG_ERR, "Metafile %s already exist ", szNew);
        SNAP_SET_ERR(SNAP_ERR_ALREADY_EXISTS);
        return -1;
    }
    if (std::rename(szOld, szNew) < 0) {
        SNAP_LOG(LOG_ERR, "Failed to rename [%s] to [%s]", szOld, szNew);
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return -1;
    }
    return 0;
}
