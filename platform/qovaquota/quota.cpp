/* The quota of a share: the limit of the qgroup that belongs to the share's subvolume. Quotas are read and never turned
   on; a file system without them, and one that isn't Btrfs, has no limit. */
#include <sharesnap/platform/quota.h>
#include <sharesnap/platform/volume.h>

#include "common/btrfs_tree.h"
#include "common/descriptor.h"
#include "common/failure.h"
#include "common/path_walk.h"

#include <cstring>
#include <endian.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <string>

using namespace QovaPlatform;

namespace {

constexpr double BYTES_PER_MIB = 1024.0 * 1024.0;

struct QgroupNumbers {
    uint64_t ullLimit = 0; // 0 without one
    uint64_t ullUsed = 0;
};

/* Reads one item of a qgroup into a record. 1 found, 0 not there, -1 with errno. */
template <typename Item>
int ReadItem(int nFd, uint32_t uType, uint64_t ullQgroup, Item &item) {
    const BtrfsKey key = {0, uType, ullQgroup};
    int nFound = 0;
    const int nResult = BtrfsTreeSearch(nFd, BTRFS_QUOTA_TREE_OBJECTID, key, key,
                                        [&](const BtrfsKey &, const char *pItem, size_t cbItem) {
                                            if (sizeof(item) <= cbItem) {
                                                memcpy(&item, pItem, sizeof(item));
                                                nFound = 1;
                                            }
                                            return false;
                                        });
    if (nResult == 0) {
        return nFound;
    }
    // No quota tree, or no Btrfs (a file system that doesn't know the request answers in one of these ways).
    return errno == ENOENT || errno == ENOTTY || errno == ENOSYS || errno == EOPNOTSUPP ? 0 : -1;
}

/* 0; -1 with code and errno. */
int ReadQgroup(const char *szPath, QgroupNumbers &numbers) {
    const Descriptor subvolume(open(szPath, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!subvolume.IsOpen()) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    uint64_t ullQgroup = 0;
    if (BtrfsSubvolumeId(subvolume.Get(), &ullQgroup) != 0) {
        if (errno == ENOTTY || errno == ENOSYS || errno == EOPNOTSUPP) {
            return 0;
        }
        QOVA_FAIL_ERRNO();
        return -1;
    }
    btrfs_qgroup_limit_item limit = {};
    btrfs_qgroup_info_item info = {};
    const int nLimit = ReadItem(subvolume.Get(), BTRFS_QGROUP_LIMIT_KEY, ullQgroup, limit);
    const int nInfo = nLimit < 0 ? -1 : ReadItem(subvolume.Get(), BTRFS_QGROUP_INFO_KEY, ullQgroup, info);
    if (nInfo < 0) {
        QOVA_FAIL_ERRNO();
        return -1;
    }
    if (nLimit == 1 && (le64toh(limit.flags) & BTRFS_QGROUP_LIMIT_MAX_RFER) != 0) {
        numbers.ullLimit = le64toh(limit.max_rfer);
    }
    numbers.ullUsed = nInfo == 1 ? le64toh(info.rfer) : 0;
    return 0;
}

/* The subvolume with the share's data: for an encrypted share the directory behind the one under which it is seen. */
bool DataPath(const QOVASHARE *pShare, std::string &szPath) {
    if ((pShare->uStatus & QOVA_SHARE_STATUS_ENCRYPTED) == 0) {
        szPath = pShare->szPath;
        return true;
    }
    std::string szDirectory;
    std::string szName;
    if (!SplitPath(pShare->szPath, szDirectory, szName)) {
        return false;
    }
    szPath = (szDirectory == "/" ? "" : szDirectory) + "/@" + szName + "@";
    return true;
}

int FillRecord(const QOVASHARE *pShare, QOVASHAREQUOTA *pQuota) {
    std::string szPath;
    if (!DataPath(pShare, szPath)) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    QgroupNumbers numbers;
    if (ReadQgroup(szPath.c_str(), numbers) != 0) {
        return -1;
    }
    pQuota->ullLimit = numbers.ullLimit;
    pQuota->ullUsed = numbers.ullUsed;
    pQuota->fQuotaMiB = static_cast<float>(static_cast<double>(numbers.ullLimit) / BYTES_PER_MIB);
    pQuota->fUsedMiB = static_cast<float>(static_cast<double>(numbers.ullUsed) / BYTES_PER_MIB);
    return 0;
}

} // namespace

int QOVAQuotaDbPathGet(const char *szPath, char *szBuf, size_t cbBuf) {
    char szVolume[QOVA_VOLUME_PATH_SIZE] = "";
    if (szPath == nullptr || szBuf == nullptr || cbBuf == 0) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    if (VolumePathParseEx(szPath, szVolume) != 0) {
        return -1;
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        std::string szDirectory;
        std::string szName;
        if (!SplitPath(szPath, szDirectory, szName)) {
            QOVA_FAIL_ARGUMENT(EINVAL);
            return -1;
        }
        const std::string szResult = std::string(szVolume) + "/@quota/" + szName + ".db";
        if (cbBuf <= szResult.size()) {
            QOVA_FAIL_ARGUMENT(ENAMETOOLONG);
            return -1;
        }
        memcpy(szBuf, szResult.c_str(), szResult.size() + 1);
        return 0;
    });
}

int QOVAQuotaIsEnough(unsigned int uUid, const char *szPath, uint64_t ullBytes) {
    (void)uUid; // a qgroup holds for everybody alike
    if (szPath == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        QgroupNumbers numbers;
        if (ReadQgroup(szPath, numbers) != 0) {
            return -1;
        }
        if (numbers.ullLimit == 0) {
            return 1;
        }
        return numbers.ullUsed <= numbers.ullLimit && ullBytes <= numbers.ullLimit - numbers.ullUsed ? 1 : 0;
    });
}

int QOVAQuotaShareQuotaGet(const QOVASHARE *pShare, QOVASHAREQUOTA *pQuota) {
    if (pShare == nullptr || pShare->szPath == nullptr || pQuota == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] { return FillRecord(pShare, pQuota); });
}
