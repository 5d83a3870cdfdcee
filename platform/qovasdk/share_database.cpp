// The share database, read side.
#include "common/failure.h"
#include "common/keepers.h"
#include "common/mount_table.h"
#include "qovasdk/share_provider.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <sharesnap/platform/share.h>
#include <string>

namespace {

using namespace QovaPlatform;

// An encrypted share is unlocked while its view is mounted over its path. The mount table alone tells: asking the mount
// itself would wait for, or fail with, the program that serves it.
bool isUnlocked(const std::string &path) {
    std::string text;
    if (!MountTable::Read(text)) {
        return false;
    }
    const MountTable table(text);
    const Mount *mount = table.ByMountPoint(path);
    return mount != nullptr && mount->szType == "fuse.gocryptfs";
}

char *copyOf(const std::string &text) {
    char *copy = strdup(text.c_str());
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    return copy;
}

struct ShareFree {
    void operator()(QOVASHARE *share) const { QOVAShareFree(share); }
};

QOVASHARE *recordOf(const ShareEntry &entry) {
    std::unique_ptr<QOVASHARE, ShareFree> share(static_cast<QOVASHARE *>(std::calloc(1, sizeof(QOVASHARE))));
    if (share == nullptr) {
        throw std::bad_alloc();
    }
    share->szName = copyOf(entry.name);
    share->szDesc = copyOf(entry.description);
    share->szPath = copyOf(entry.path);
    share->szDenyList = copyOf(entry.denyList);
    share->szRWList = copyOf(entry.readWriteList);
    share->szROList = copyOf(entry.readOnlyList);
    share->nBrowseable = entry.browseable ? 1 : 0;
    share->nFtpPrivilege = entry.ftpPrivilege;
    share->uStatus = entry.status & ~static_cast<unsigned int>(QOVA_SHARE_STATUS_UNLOCKED);
    if ((share->uStatus & QOVA_SHARE_STATUS_ENCRYPTED) != 0 && isUnlocked(entry.path)) {
        share->uStatus |= QOVA_SHARE_STATUS_UNLOCKED;
    }
    return share.release();
}

bool liesOnVolume(const std::string &path, const std::string &volume) {
    return path.compare(0, volume.size(), volume) == 0 && (path.size() == volume.size() || path[volume.size()] == '/');
}

// Pushes the names of all shares, or of those on one volume.
int enumerate(QLIBCSZLIST **ppList, const std::string *volume) {
    std::vector<ShareEntry> entries;
    if (!shareProvider().fetchAll(&entries)) {
        return -1;
    }
    for (const ShareEntry &entry : entries) {
        if ((volume == nullptr || liesOnVolume(entry.path, *volume)) &&
            QLIBCSzListPush(ppList, entry.name.c_str()) < 0) {
            return -1;
        }
    }
    return 0;
}

std::string lastComponent(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

// The location of the share with that path. The record of the path's own name is looked at first; as a rule that is it.
int locationOfPath(const std::string &path) {
    const SavedRegister before;
    ShareEntry entry;
    const std::string name = lastComponent(path);
    if (isShareName(name) && shareProvider().fetch(name, &entry) && entry.path == path) {
        return entry.location;
    }
    std::vector<ShareEntry> entries;
    if (!shareProvider().fetchAll(&entries)) {
        return -1;
    }
    before.restore();
    for (const ShareEntry &other : entries) {
        if (other.path == path) {
            return other.location;
        }
    }
    return localShare;
}

} // namespace

extern "C" {

int QOVAShareGet(const char *szName, QOVASHARE **ppShare) {
    if (szName == nullptr || ppShare == nullptr) {
        return QOVA_BAD_ARGUMENT();
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        ShareEntry entry;
        if (!isShareName(szName)) {
            return QOVA_BAD_ARGUMENT();
        }
        if (!shareProvider().fetch(szName, &entry)) {
            return -1;
        }
        *ppShare = recordOf(entry);
        return 0;
    });
}

void QOVAShareFree(QOVASHARE *pShare) {
    if (pShare == nullptr) {
        return;
    }
    const ErrnoKeeper keeper;
    for (char *text :
         {pShare->szName, pShare->szDesc, pShare->szPath, pShare->szDenyList, pShare->szRWList, pShare->szROList}) {
        std::free(text);
    }
    std::free(pShare);
}

int QOVAShareEnum(QLIBCSZLIST **ppList, unsigned int /*uTypeMask*/) {
    if (ppList == nullptr || *ppList == nullptr) {
        return QOVA_BAD_ARGUMENT();
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] { return enumerate(ppList, nullptr); });
}

int QOVAShareEnumByMntPathAndEnumType(QLIBCSZLIST **ppList, const char *szMntPath, unsigned int /*uTypeMask*/) {
    if (ppList == nullptr || *ppList == nullptr || szMntPath == nullptr) {
        return QOVA_BAD_ARGUMENT();
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        std::string volume = szMntPath;
        return makeSharePathPlain(&volume) ? enumerate(ppList, &volume) : QOVA_BAD_ARGUMENT();
    });
}

int QOVAShareNamePathGet(const char *szSharePath, char *szName, size_t cbName, char *szPath, size_t cbPath) {
    if (szSharePath == nullptr || szName == nullptr || szPath == nullptr) {
        return QOVA_BAD_ARGUMENT();
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        std::string path = szSharePath;
        if (!makeSharePathPlain(&path)) {
            return QOVA_BAD_ARGUMENT();
        }
        const std::string name = lastComponent(path);
        if (name.size() >= cbName || path.size() >= cbPath) {
            return QOVA_BAD_ARGUMENT();
        }
        std::memcpy(szName, name.c_str(), name.size() + 1);
        std::memcpy(szPath, path.c_str(), path.size() + 1);
        return 0;
    });
}

int QLIBShareIsExist(const char *szName, int *pblExist) {
    if (szName == nullptr || pblExist == nullptr) {
        return QOVA_BAD_ARGUMENT();
    }
    *pblExist = 0;
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        ShareEntry entry;
        const SavedRegister before;
        if (!isShareName(szName)) {
            return 0; // no share can have it
        }
        if (shareProvider().fetch(szName, &entry) || QLIBCErrGet() == SNAP_ERR_READ_FAILED) {
            *pblExist = 1; // the name is taken, whatever its record is worth
        } else if (QLIBCErrGet() != SNAP_ERR_NO_SUCH_SECTION) {
            return -1;
        }
        before.restore();
        return 0;
    });
}

int QLIBShareIsForbiddenGet(const QOVASHARE *pShare, int *pnForbidden) {
    if (pShare == nullptr || pShare->szName == nullptr || pnForbidden == nullptr) {
        return QOVA_BAD_ARGUMENT();
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        ShareEntry entry;
        const SavedRegister before;
        if (!isShareName(pShare->szName)) {
            return QOVA_BAD_ARGUMENT();
        }
        if (!shareProvider().fetch(pShare->szName, &entry)) {
            if (QLIBCErrGet() != SNAP_ERR_NO_SUCH_SECTION) {
                return -1;
            }
            before.restore(); // a record that isn't in the database yet isn't forbidden there
        }
        *pnForbidden = entry.forbidden ? 1 : 0;
        return 0;
    });
}

int QLIBShareIsEncryptionGet(const QOVASHARE *pShare, int *pnEncrypted) {
    if (pShare == nullptr || pnEncrypted == nullptr) {
        return QOVA_BAD_ARGUMENT();
    }
    *pnEncrypted = (pShare->uStatus & QOVA_SHARE_STATUS_ENCRYPTED) != 0 ? 1 : 0;
    return 0;
}

int QLIBShareEncryptPathGet(const char *szSharePath, char *szBuf, size_t cbBuf) {
    if (szSharePath == nullptr || szBuf == nullptr) {
        return QOVA_BAD_ARGUMENT();
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        std::string path = szSharePath;
        if (!makeSharePathPlain(&path)) {
            return QOVA_BAD_ARGUMENT();
        }
        const std::string backEnd = path.substr(0, path.rfind('/') + 1) + "@" + lastComponent(path) + "@";
        if (backEnd.size() >= cbBuf) {
            return QOVA_BAD_ARGUMENT();
        }
        std::memcpy(szBuf, backEnd.c_str(), backEnd.size() + 1);
        return 0;
    });
}

int QLIBShareLocTypeGet(const char *szSharePath) {
    if (szSharePath == nullptr) {
        return QOVA_BAD_ARGUMENT();
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        std::string path = szSharePath;
        if (!makeSharePathPlain(&path)) {
            return QOVA_BAD_ARGUMENT();
        }
        return locationOfPath(path);
    });
}

} // extern "C"
