// Reads a frozen configuration back into one record, with ids turned into present names and the status merged.
#include <sharesnap/config.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/platform/section_file.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "config/account_lists.h"
#include "config/share_config_file.h"
#include "frame/log.h"
#include "frame/owners.h"

using namespace sharesnap;

namespace {

// Bits of the status that a snapshot freezes; the others belong to the share at hand.
constexpr uint32_t kFrozenStatusBits = 0x20 | 0x80 | 0x100 | 0x200 | 0x400 | 0x800 | 0x1000;

// One list of accounts: its two id texts, owned by the hash, and the names they become.
struct AccountList {
    const char *szUids = nullptr;
    const char *szGids = nullptr;
    TextOwner names;
};

// What the pairs say, before the record is packed.
struct Parsed {
    const char *szDesc = nullptr;
    AccountList deny;
    AccountList readOnly;
    AccountList readWrite;
    QOVAShareSnapShareInfo info{};
};

uint32_t MergedStatus(uint32_t uLive, const char *szStored) {
    const auto uStored = static_cast<uint32_t>(std::strtol(szStored, nullptr, 10));
    return (uLive & ~kFrozenStatusBits) | (uStored & kFrozenStatusBits);
}

int IsTrue(const char *szValue) {
    return std::strcmp(szValue, "true") == 0 ? 1 : 0;
}

// The text of a list's key, or null for a key that belongs to no list.
const char **ListSlot(Parsed *pParsed, const char *szKey) {
    const struct {
        const char *szKey;
        const char **pszSlot;
    } slots[] = {
        {"user_deny", &pParsed->deny.szUids},    {"group_deny", &pParsed->deny.szGids},
        {"user_ro", &pParsed->readOnly.szUids},  {"group_ro", &pParsed->readOnly.szGids},
        {"user_rw", &pParsed->readWrite.szUids}, {"group_rw", &pParsed->readWrite.szGids},
    };
    for (const auto &slot : slots) {
        if (std::strcmp(szKey, slot.szKey) == 0) {
            return slot.pszSlot;
        }
    }
    return nullptr;
}

void TakePair(const QOVASHARE *pShare, const char *szKey, const char *szValue, Parsed *pParsed) {
    QOVAShareSnapShareInfo *pInfo = &pParsed->info;
    if (std::strcmp(szKey, "desc") == 0) {
        pParsed->szDesc = szValue;
        pInfo->uMask |= SHARE_INFO_DESC;
    } else if (std::strcmp(szKey, "ftp_privilege") == 0) {
        pInfo->nFtpPrivilege = static_cast<int>(std::strtol(szValue, nullptr, 10));
        pInfo->uMask |= SHARE_INFO_FTP_PRIVILEGE;
    } else if (std::strcmp(szKey, "share_quota") == 0) {
        pInfo->ullShareQuota = std::strtoull(szValue, nullptr, 10);
        pInfo->uMask |= SHARE_INFO_QUOTA;
    } else if (const char **pszSlot = ListSlot(pParsed, szKey)) {
        *pszSlot = szValue;
        pInfo->uMask |= SHARE_INFO_PRIVILEGE;
    } else if (std::strcmp(szKey, "browseable") == 0) {
        pInfo->nBrowseable = static_cast<int>(std::strtol(szValue, nullptr, 10));
        pInfo->uMask |= SHARE_INFO_BROWSEABLE;
    } else if (std::strcmp(szKey, "status") == 0) {
        pInfo->uStatus = MergedStatus(pShare->uStatus, szValue);
        pInfo->uMask |= SHARE_INFO_STATUS;
    } else if (std::strcmp(szKey, "cow") == 0) {
        pInfo->blCow = IsTrue(szValue);
        pInfo->uMask |= SHARE_INFO_COW;
    } else if (std::strcmp(szKey, "compression") == 0) {
        pInfo->blCompression = IsTrue(szValue);
        pInfo->uMask |= SHARE_INFO_COMPRESSION;
    }
}

int ConvertList(AccountList *pList) {
    if (pList->szUids == nullptr || pList->szGids == nullptr) {
        return 0;
    }
    if (ShareIdsToNames(pList->szUids, pList->szGids, &pList->names) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to validate user [%s] group [%s][0x%04X %s:%d]", pList->szUids, pList->szGids);
        return -1;
    }
    return 0;
}

size_t PackedSize(const char *szText) {
    return szText == nullptr ? 0 : std::strlen(szText) + 1;
}

// Copies a text to the packing position; null stays null.
char *Pack(const char *szText, char **pszNext) {
    if (szText == nullptr) {
        return nullptr;
    }
    const size_t cb = std::strlen(szText) + 1;
    char *szCopy = *pszNext;
    std::memcpy(szCopy, szText, cb);
    *pszNext += cb;
    return szCopy;
}

// One allocation: the record, then its strings.
int PackRecord(const Parsed &parsed, QOVAShareSnapShareInfo **ppShareInfo) {
    const char *rgszText[] = {parsed.szDesc, parsed.deny.names.get(), parsed.readWrite.names.get(),
                              parsed.readOnly.names.get()};
    size_t cb = sizeof(QOVAShareSnapShareInfo);
    for (const char *szText : rgszText) {
        cb += PackedSize(szText);
    }
    auto *pRecord = static_cast<QOVAShareSnapShareInfo *>(std::calloc(cb, 1));
    if (pRecord == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_OUT_OF_MEMORY);
        SNAP_LOG(LOG_ERR, "NULL == *ppData, NULL == calloc(%zu, 1). errno=%d/%m", cb, errno);
        return -1;
    }
    *pRecord = parsed.info;
    char *szNext = reinterpret_cast<char *>(pRecord + 1);
    pRecord->szDesc = Pack(rgszText[0], &szNext);
    pRecord->szDenyList = Pack(rgszText[1], &szNext);
    pRecord->szRWList = Pack(rgszText[2], &szNext);
    pRecord->szROList = Pack(rgszText[3], &szNext);
    *ppShareInfo = pRecord;
    return 0;
}

int ShareConfigSectionRead(const QOVASHARE *pShare, QLIBCSZHASH **ppHash) {
    if (pShare == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    // Without a file the path stays empty, and the read of the section decides.
    char szPath[kPathSize] = "";
    if (ShareConfigFileGet(pShare, szPath, 0) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share [%s] configuration path[0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    const int nFd = ShareConfigLock(pShare->szName, ConfigLockMode::kShared);
    if (nFd < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to lock share [%s] snapshot configuration lock file[0x%04X %s:%d]",
                     pShare->szName);
        return -1;
    }
    int nResult = 0;
    if (QLIBCFileGetSection(szPath, kShareInfoSection, ppHash) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share [%s] snapshot configuration infomation[0x%04X %s:%d]",
                     pShare->szName);
        nResult = -1;
    }
    if (QLIBCFileUnlockByFile(nFd) == 0) {
        SNAP_LOG_REG(LOG_ERR,
                     "fail to QLIBCFileUnlockByFile of share(%s) snapshot configuration lock file[0x%04X %s:%d]",
                     pShare->szName);
    }
    return nResult;
}

} // namespace

int QOVAShareSnapShareInfoGetByHash(const QOVASHARE *pShare, const QLIBCSZHASH *pHash,
                                    QOVAShareSnapShareInfo **ppShareInfo) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    if (pHash == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pHash");
    }
    if (ppShareInfo == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != ppShareInfo");
    }
    if (*ppShareInfo != nullptr) {
        return SNAP_BAD_ARGUMENT("NULL == *ppShareInfo");
    }
    ListOwner keys(QLIBCSzListAlloc(1024));
    if (!keys) {
        SNAP_LOG_REG(LOG_ERR, "QLIBCSzListAlloc failed[0x%04X %s:%d]");
        return -1;
    }
    if (QLIBCSzHashEnumKey(pHash, &keys) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get hash enum key from hash.[0x%04X %s:%d]");
        return -1;
    }
    Parsed parsed;
    for (int i = 0; i < keys->nItem; ++i) {
        const char *szKey = QLIBCSzListGet(keys.get(), i);
        TakePair(pShare, szKey, QLIBCSzHashGetValue(pHash, szKey), &parsed);
    }
    if (ConvertList(&parsed.deny) < 0 || ConvertList(&parsed.readOnly) < 0 || ConvertList(&parsed.readWrite) < 0) {
        return -1;
    }
    return PackRecord(parsed, ppShareInfo);
}

int QOVAShareSnapShareInfoGet(const QOVASHARE *pShare, QOVAShareSnapShareInfo **ppShareInfo) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    HashOwner hash(QLIBCSzHashAlloc(1024));
    if (!hash) {
        SNAP_LOG_REG(LOG_ERR, "Failed to alloc hash[0x%04X %s:%d]");
        return -1;
    }
    if (ShareConfigSectionRead(pShare, &hash) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share [%s] snapshot configuration infomation from file[0x%04X %s:%d]",
                     pShare->szName);
        return -1;
    }
    if (QOVAShareSnapShareInfoGetByHash(pShare, hash.get(), ppShareInfo) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to set share [%s] snapshot configuration infomation from PHASH[0x%04X %s:%d]",
                     pShare->szName);
        return -1;
    }
    return 0;
}
