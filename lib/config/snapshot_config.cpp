// Snapshot settings of all shares: one sectioned file under one lock, a section a share.
#include <fcntl.h>
#include <sharesnap/config.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/platform/section_file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "frame/log.h"
#include "frame/owners.h"

using namespace sharesnap;

namespace {

constexpr char kDirectory[] = "/usr/qova/etc/sharesnap";
constexpr char kFile[] = "/usr/qova/etc/sharesnap/sharesnap.conf";
constexpr char kLockFile[] = "/run/lock/sharesnap/sharesnap_conf.lock";
constexpr char kTaskKey[] = "schedule_task_id";
constexpr int kLockSeconds = 10;
enum LockMode { kShared = 0, kExclusive = 1 };

// The one lock of the settings file, given back at the end of a scope; a failure there is only logged.
class ConfLock {
public:
    ConfLock() = default;
    ConfLock(const ConfLock &) = delete;
    ConfLock &operator=(const ConfLock &) = delete;
    ~ConfLock() {
        if (nFd_ >= 0 && QLIBCFileUnlockByFile(nFd_) == 0) {
            SNAP_LOG(LOG_ERR, "Failed to unlock %s", kLockFile);
        }
    }
    [[nodiscard]] bool take(LockMode mode) {
        int nFd = -1;
        if (QOVAShareSnapCreateRunLockShareSnapDir() != 1 ||
            QLIBCFileLockTimeByFile(kLockFile, mode, kLockSeconds, &nFd) == 0) {
            return false;
        }
        nFd_ = nFd;
        return true;
    }

private:
    int nFd_ = -1;
};

// 1 the directory stands or was made, 0 it doesn't, -1 something else stands there.
int ConfDirectoryCheck(int blCreate) {
    const int nExist = ShareSnapCheckDirExist(kDirectory);
    if (nExist != 0 || blCreate == 0) {
        return nExist;
    }
    if (mkdir(kDirectory, 0777) < 0 && errno != EEXIST) {
        SNAP_LOG(LOG_ERR, "Failed to mkdir [%s], errno=%d/%m\n", kDirectory, errno);
        SNAP_SET_ERR(SNAP_ERR_CREATE_FAILED);
        return 0;
    }
    return 1;
}

// 1 the file exists (or was made), 0 not (also when it couldn't be made), -1 failure.
int ShareSnapConfFileCheck(int blCreate) {
    const int nDirectory = ConfDirectoryCheck(blCreate);
    if (nDirectory != 1) {
        return nDirectory;
    }
    const int nFile = ShareSnapCheckFileExist(kFile);
    if (nFile != 0 || blCreate == 0) {
        return nFile;
    }
    // Without cutting it: another process may have made and filled it since the check.
    const DescriptorOwner file(open(kFile, O_CREAT | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file) {
        SNAP_SET_ERR(SNAP_ERR_CREATE_FAILED);
        return 0;
    }
    return 1;
}

int ReplaceSection(const char *szShareName, const char *szNewShareName, const QLIBCSZHASH *pHash) {
    if (SnapFileSectionSet(kFile, szShareName, szNewShareName, pHash, nullptr) != 1) {
        SNAP_LOG_REG(LOG_ERR, "Failed to update sharesnap config section(%s) [0x%04X %s:%d]", szShareName);
        return -1;
    }
    return 0;
}

// 1 added, 0 a section of that name stands there, -1 failure.
int AddSection(const char *szShareName, const QLIBCSZHASH *pHash) {
    const int nAdded = SnapFileSectionAdd(kFile, szShareName, pHash, nullptr);
    if (nAdded < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to add sharesnap config section(%s) [0x%04X %s:%d]", szShareName);
    }
    return nAdded;
}

int SetInSection(const char *szShareName, const char *szKey, const char *szValue, int nPairs, QLIBCSZHASH **ppHash) {
    if (szValue == nullptr) {
        if (nPairs == 0) {
            return 0;
        }
        (void)QLIBCSzHashRemoveKey(*ppHash, szKey); // a key that wasn't there is as good as removed
        return ReplaceSection(szShareName, nullptr, *ppHash);
    }
    if (QLIBCSzHashSetValue(ppHash, szKey, szValue) < 0) {
        return -1;
    }
    if (nPairs == 0) {
        const int nAdded = AddSection(szShareName, *ppHash);
        if (nAdded != 0) {
            return nAdded < 0 ? -1 : 0;
        }
    }
    return ReplaceSection(szShareName, nullptr, *ppHash);
}

int Merge(const QLIBCSZHASH *pUpdateHash, QLIBCSZHASH **ppHash) {
    ListOwner keys(QLIBCSzListAlloc(1024));
    if (!keys || QLIBCSzHashEnumKey(pUpdateHash, &keys) < 0) {
        return -1;
    }
    for (int i = 0; i < keys->nItem; ++i) {
        const char *szKey = QLIBCSzListGet(keys.get(), i);
        (void)QLIBCSzHashSetValue(ppHash, szKey, QLIBCSzHashGetValue(pUpdateHash, szKey)); // single pairs may fail
    }
    return 0;
}

// The section has no pairs or isn't there. 1: go on with the merge, 0: done, -1: failure.
int UpdateEmptySection(const char *szOrigShareName, const QLIBCSZHASH *pUpdateHash) {
    if (pUpdateHash == nullptr) {
        if (SnapFileSectionRemove(kFile, szOrigShareName) < 0) {
            SNAP_LOG_REG(LOG_ERR, "Failed to delete sharesnap config section(%s) [0x%04X %s:%d]", szOrigShareName);
            return -1;
        }
        return 0;
    }
    const int nAdded = AddSection(szOrigShareName, pUpdateHash);
    if (nAdded < 0) {
        return -1;
    }
    return nAdded > 0 ? 0 : 1;
}

} // namespace

int QOVAShareSnapConfList(const char *szShareName, QLIBCSZHASH **ppHash) {
    if (szShareName == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szShareName");
    }
    if (ppHash == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != ppHash");
    }
    const int nFile = ShareSnapConfFileCheck(0);
    if (nFile <= 0) {
        return nFile;
    }
    ConfLock lock;
    if (!lock.take(kShared)) {
        return -1;
    }
    const int nPairs = QLIBCFileGetSection(kFile, szShareName, ppHash);
    if (nPairs < 0) {
        return -1;
    }
    return nPairs < 1 ? 0 : 1;
}

int QOVAShareSnapConfGet(const char *szShareName, const char *szKey, char *szValue, size_t cbValue) {
    if (szShareName == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szShareName");
    }
    if (szKey == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szKey");
    }
    if (szValue == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szValue");
    }
    if (cbValue == 0) {
        return SNAP_BAD_ARGUMENT("0 < cbValue");
    }
    const int nFile = ShareSnapConfFileCheck(0);
    if (nFile <= 0) {
        return nFile;
    }
    ConfLock lock;
    if (!lock.take(kShared)) {
        return -1;
    }
    if (QLIBCFileGetSectionValue(kFile, szShareName, szKey, szValue, cbValue) == 0) {
        return 1;
    }
    const unsigned int uCode = QLIBCErrGet();
    return (uCode == SNAP_ERR_NO_SUCH_SECTION || uCode == SNAP_ERR_NO_SUCH_KEY) ? 0 : -1;
}

int QOVAShareSnapConfSet(const char *szShareName, const char *szKey, const char *szValue) {
    if (szShareName == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szShareName");
    }
    if (szKey == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != szKey");
    }
    ConfLock lock;
    if (ShareSnapConfFileCheck(1) != 1 || !lock.take(kExclusive)) {
        return -1;
    }
    HashOwner hash(QLIBCSzHashAlloc(1024));
    if (!hash) {
        return -1;
    }
    const int nPairs = QLIBCFileGetSection(kFile, szShareName, &hash);
    return nPairs < 0 ? -1 : SetInSection(szShareName, szKey, szValue, nPairs, &hash);
}

int QOVAShareSnapConfUpdate(const char *szOrigShareName, const char *szNewShareName, const QLIBCSZHASH *pUpdateHash) {
    if (szOrigShareName == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szOrigShareName");
    }
    if (szNewShareName == nullptr && pUpdateHash == nullptr) {
        return SNAP_BAD_ARGUMENT("(NULL != szNewShareName || NULL != pUpdateHash)");
    }
    ConfLock lock;
    if (ShareSnapConfFileCheck(1) != 1 || !lock.take(kExclusive)) {
        return -1;
    }
    HashOwner hash(QLIBCSzHashAlloc(1024));
    if (!hash) {
        return -1;
    }
    const int nPairs = QLIBCFileGetSection(kFile, szOrigShareName, &hash);
    if (nPairs < 0) {
        return -1;
    }
    if (nPairs == 0) {
        const int nNext = UpdateEmptySection(szOrigShareName, pUpdateHash);
        if (nNext <= 0) {
            return nNext;
        }
    }
    if (pUpdateHash != nullptr && Merge(pUpdateHash, &hash) < 0) {
        return -1;
    }
    return ReplaceSection(szOrigShareName, szNewShareName, hash.get());
}

int QOVAShareSnapConfDeleteShare(const char *szShareName) {
    if (szShareName == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szShareName");
    }
    if (ShareSnapCheckFileExist(kFile) != 1) {
        return 0;
    }
    ConfLock lock;
    if (!lock.take(kExclusive)) {
        return -1;
    }
    return SnapFileSectionRemove(kFile, szShareName) < 0 ? -1 : 0;
}

int QOVAShareSnapConfEnumSection(QLIBCSZLIST **ppList) {
    if (ppList == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != ppList");
    }
    if (ShareSnapCheckFileExist(kFile) != 1) {
        return 0;
    }
    ConfLock lock;
    if (!lock.take(kShared)) {
        return -1;
    }
    return QLIBCFileEnumSection(kFile, ppList) == -1 ? -1 : 0;
}

int QOVAShareSnapGetShareNameByTaskId(const char *szTaskId, char *szShareNameBuf, size_t cbShareNameBuf) {
    if (szTaskId == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szTaskId");
    }
    if (szShareNameBuf == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != szShareNameBuf");
    }
    ListOwner sections(QLIBCSzListAlloc(1024));
    if (!sections) {
        SNAP_LOG_REG(LOG_ERR, "QLIBCSzListAlloc failed. [0x%04X %s:%d]");
        return -1;
    }
    if (QOVAShareSnapConfEnumSection(&sections) == -1) {
        return -1;
    }
    for (int i = 0; i < sections->nItem; ++i) {
        const char *szName = QLIBCSzListGet(sections.get(), i);
        char szTask[1024];
        if (QOVAShareSnapConfGet(szName, kTaskKey, szTask, sizeof(szTask)) == 1 && std::strcmp(szTask, szTaskId) == 0) {
            (void)std::snprintf(szShareNameBuf, cbShareNameBuf, "%s", szName); // a small buffer cuts the name
            return 1;
        }
    }
    return 0;
}
