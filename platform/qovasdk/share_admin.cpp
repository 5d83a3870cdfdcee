// The share database, write side.
#include "common/failure.h"
#include "common/keepers.h"
#include "qovasdk/share_provider.h"

#include <sharesnap/platform/share_admin.h>
#include <string>

namespace {

using namespace QovaPlatform;

// Copies a text of the record; a line feed would begin a new line of the file.
bool takeText(const char *text, std::string *copy) {
    *copy = text == nullptr ? "" : text;
    return copy->find('\n') == std::string::npos;
}

bool entryOf(const QOVASHARE &share, ShareEntry *entry) {
    entry->browseable = share.nBrowseable != 0;
    entry->ftpPrivilege = share.nFtpPrivilege;
    entry->status = share.uStatus & ~static_cast<unsigned int>(QOVA_SHARE_STATUS_UNLOCKED);
    return takeText(share.szName, &entry->name) && takeText(share.szDesc, &entry->description) &&
           takeText(share.szPath, &entry->path) && takeText(share.szDenyList, &entry->denyList) &&
           takeText(share.szRWList, &entry->readWriteList) && takeText(share.szROList, &entry->readOnlyList) &&
           isShareName(entry->name) && makeSharePathPlain(&entry->path);
}

} // namespace

extern "C" {

int QOVAShareRecordAdd(const QOVASHARE *pShare) {
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        ShareEntry entry;
        if (pShare == nullptr || !entryOf(*pShare, &entry)) {
            return QOVA_BAD_ARGUMENT();
        }
        return shareProvider().add(entry) ? 0 : -1;
    });
}

int QOVAShareRecordSet(const QOVASHARE *pShare) {
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        ShareEntry entry;
        if (pShare == nullptr || !entryOf(*pShare, &entry)) {
            return QOVA_BAD_ARGUMENT();
        }
        return shareProvider().replace(entry) ? 0 : -1;
    });
}

int QOVAShareRecordRename(const char *szOldName, const char *szNewName) {
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        if (szOldName == nullptr || szNewName == nullptr || !isShareName(szOldName) || !isShareName(szNewName)) {
            return QOVA_BAD_ARGUMENT();
        }
        return shareProvider().rename(szOldName, szNewName) ? 0 : -1;
    });
}

int QOVAShareRecordRemove(const char *szName) {
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        if (szName == nullptr || !isShareName(szName)) {
            return QOVA_BAD_ARGUMENT();
        }
        return shareProvider().remove(szName) ? 0 : -1;
    });
}

} // extern "C"
