/* Volumes and the file systems on them. */
#include <sharesnap/platform/volume.h>

#include "common/failure.h"
#include "common/mount_table.h"
#include "common/path_walk.h"

#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <sys/vfs.h>

using namespace QovaPlatform;

namespace {

constexpr long XFS_MAGIC = 0x58465342;

int TypeOfName(const std::string &szType) {
    static constexpr struct {
        const char *szName;
        int nType;
    } rgType[] = {{"btrfs", FS_TYPE_BTRFS},
                  {"ext4", FS_TYPE_EXT4},
                  {"ext3", FS_TYPE_EXT3},
                  {"xfs", FS_TYPE_XFS},
                  {"tmpfs", FS_TYPE_TMPFS}};
    for (const auto &type : rgType) {
        if (szType == type.szName) {
            return type.nType;
        }
    }
    return FS_TYPE_UNKNOWN;
}

bool CopyText(const std::string &szText, char *szBuf, size_t cbBuf) {
    if (cbBuf <= szText.size()) {
        return false;
    }
    memcpy(szBuf, szText.c_str(), szText.size() + 1);
    return true;
}

bool FillRecord(const Mount &mount, QOVAMOUNTVOLINFO *pInfo) {
    pInfo->nFsType = TypeOfName(mount.szType);
    pInfo->pNext = nullptr;
    return CopyText(mount.szMountPoint, pInfo->szMountPath, sizeof(pInfo->szMountPath)) &&
           CopyText(mount.szSource, pInfo->szDevice, sizeof(pInfo->szDevice));
}

/* The volume of a path without the mount table, which the kernel takes long to print: a mount at depth one holds all
   that is reached from it without entering another mount, and one that can't be entered isn't asked anything. False
   when that doesn't tell; then the table does. */
bool VolumeByWalk(const char *szPath, std::string &szVolume) {
    const std::string szPlain = PlainPath(szPath);
    const size_t cbVolume = szPlain.find('/', 1);
    szVolume = szPlain.substr(0, cbVolume);
    std::string szRest = cbVolume == std::string::npos ? "" : szPlain.substr(cbVolume + 1);
    if (szPath[0] != '/' || szPlain == "/" || HasParentComponent(szPath)) {
        return false;
    }
    const Descriptor volume = OpenWithoutLinks(szVolume.c_str(), O_PATH | O_DIRECTORY);
    struct statx status = {};
    if (!volume.IsOpen() || statx(volume.Get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_MNT_ID, &status) != 0 ||
        (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) == 0) {
        return false;
    }
    while (!szRest.empty() && !OpenBeneath(volume.Get(), szRest.c_str(), O_PATH).IsOpen()) {
        if (errno != ENOENT) {
            return false;
        }
        const size_t cbParent = szRest.find_last_of('/');
        szRest.resize(cbParent == std::string::npos ? 0 : cbParent);
    }
    return true;
}

/* Calls body with the volume of the path; -1 with code and errno when there is none. */
template <typename Body>
int WithVolumeOf(const char *szPath, Body &&body) {
    std::string szTable;
    if (!MountTable::Read(szTable)) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    const MountTable table(szTable);
    const Mount *pVolume = table.VolumeOf(szPath);
    if (pVolume == nullptr) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    if (!body(*pVolume)) {
        QOVA_FAIL_ARGUMENT(ENAMETOOLONG);
        return -1;
    }
    return 0;
}

/* The type as the mount table names it; the table alone tells ext3 from ext4, and it needs no word with a FUSE program.
   A path inside a volume has the volume's type, another one that of the file system that holds it. */
int TypeByTable(const char *szPath) {
    std::string szTable;
    if (!MountTable::Read(szTable)) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    const MountTable table(szTable);
    const Mount *pMount = table.VolumeOf(szPath);
    if (pMount == nullptr && errno == ENODEV) {
        pMount = table.Holding(szPath);
    }
    if (pMount == nullptr) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    return TypeOfName(pMount->szType);
}

/* Whether the path has one component only, as that of a volume. */
bool IsAtDepthOne(const char *szPath) {
    return szPath[0] == '/' && szPath[1] != '\0' && strchr(szPath + 1, '/') == nullptr;
}

int TypeByMagic(long lMagic) {
    switch (lMagic) {
    case BTRFS_SUPER_MAGIC:
        return FS_TYPE_BTRFS;
    case XFS_MAGIC:
        return FS_TYPE_XFS;
    case TMPFS_MAGIC:
        return FS_TYPE_TMPFS;
    default:
        return FS_TYPE_UNKNOWN;
    }
}

struct ChainFree {
    void operator()(QOVAMOUNTVOLINFO *pInfo) const { QOVAMountVolInfoFree(pInfo); }
};

} // namespace

int QOVAShareVolPathGet(const char *szPath, char *szBuf, size_t cbBuf) {
    if (szPath == nullptr || szBuf == nullptr || cbBuf == 0) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        std::string szVolume;
        if (!VolumeByWalk(szPath, szVolume)) {
            return WithVolumeOf(szPath,
                                [&](const Mount &volume) { return CopyText(volume.szMountPoint, szBuf, cbBuf); });
        }
        if (!CopyText(szVolume, szBuf, cbBuf)) {
            QOVA_FAIL_ARGUMENT(ENAMETOOLONG);
            return -1;
        }
        return 0;
    });
}

int VolumePathParseEx(const char *szPath, char *szBuf) {
    if (szPath == nullptr || szBuf == nullptr || szPath[0] != '/') {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    const char *szName = szPath + strspn(szPath, "/");
    const size_t cbName = strcspn(szName, "/");
    const bool blDots = (cbName == 1 && szName[0] == '.') || (cbName == 2 && szName[0] == '.' && szName[1] == '.');
    if (cbName == 0 || blDots) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    if (QOVA_VOLUME_PATH_SIZE - 1 < cbName + 1) {
        QOVA_FAIL_ARGUMENT(ENAMETOOLONG);
        return -1;
    }
    szBuf[0] = '/';
    memcpy(szBuf + 1, szName, cbName);
    szBuf[cbName + 1] = '\0';
    return 0;
}

int QOVAVolIDParse(const char *szVolPath) {
    if (szVolPath == nullptr || szVolPath[0] != '/') {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    const char *szName = szVolPath + 1;
    const size_t cbName = strcspn(szName, "/");
    size_t uDigits = cbName;
    while (0 < uDigits && '0' <= szName[uDigits - 1] && szName[uDigits - 1] <= '9') {
        --uDigits;
    }
    int nId = -1;
    const auto result = std::from_chars(szName + uDigits, szName + cbName, nId);
    if (result.ec != std::errc() || szName[cbName + strspn(szName + cbName, "/")] != '\0') {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    return nId;
}

int QOVAGetFSType(const char *szPath, int nFlags) {
    if (szPath == nullptr || szPath[0] == '\0') {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    (void)nFlags; // 0 at every call
    // The path of a volume is the usual question, and asked often: the file system itself answers it quickest.
    struct statfs status = {};
    if (IsAtDepthOne(szPath) && statfs(szPath, &status) == 0) {
        const int nType = TypeByMagic(static_cast<long>(status.f_type));
        if (nType != FS_TYPE_UNKNOWN) {
            return nType;
        }
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] { return TypeByTable(szPath); });
}

int QOVAMountVolInfoGet(const char *szPath, QOVAMOUNTVOLINFO *pInfo) {
    if (szPath == nullptr || pInfo == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        return WithVolumeOf(szPath, [&](const Mount &volume) { return FillRecord(volume, pInfo); });
    });
}

QOVAMOUNTVOLINFO *QOVAMountVolAllEnum(int nType, int blMounted, int nFlags) {
    (void)blMounted; // volumes that aren't mounted are unknown to the system
    (void)nFlags;    // 0 at every call
    return Guarded(__FILE_NAME__, __LINE__, static_cast<QOVAMOUNTVOLINFO *>(nullptr), [&]() -> QOVAMOUNTVOLINFO * {
        std::string szTable;
        if (!MountTable::Read(szTable)) {
            QOVA_FAIL_ERRNO();
            return nullptr;
        }
        const MountTable table(szTable);
        std::unique_ptr<QOVAMOUNTVOLINFO, ChainFree> chain;
        QOVAMOUNTVOLINFO *pLast = nullptr;
        for (const Mount *pVolume : table.Volumes()) {
            if (nType != 0 && TypeOfName(pVolume->szType) != nType) {
                continue;
            }
            std::unique_ptr<QOVAMOUNTVOLINFO, ChainFree> record(new QOVAMOUNTVOLINFO());
            if (!FillRecord(*pVolume, record.get())) {
                continue; // a path that no buffer of ours can hold
            }
            QOVAMOUNTVOLINFO *pRecord = record.release();
            if (pLast == nullptr) {
                chain.reset(pRecord);
            } else {
                pLast->pNext = pRecord;
            }
            pLast = pRecord;
        }
        return chain.release();
    });
}

void QOVAMountVolInfoFree(QOVAMOUNTVOLINFO *pInfo) {
    const int nSaved = errno;
    while (pInfo != nullptr) {
        QOVAMOUNTVOLINFO *pNext = pInfo->pNext;
        delete pInfo;
        pInfo = pNext;
    }
    errno = nSaved;
}
