// Users and groups, as the system's name service knows them.
#include "common/failure.h"
#include "common/keepers.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <sharesnap/platform/account.h>
#include <vector>

namespace {

using namespace QovaPlatform;

// A group of many members needs much room; what needs more than this isn't an account entry.
constexpr size_t largestBuffer = 64U * 1024U * 1024U;

// Calls one of the re-entrant look-ups with a buffer that grows until the entry fits. Null when there is no such
// account or it can't be looked up.
template <typename Entry, typename Lookup>
const Entry *findEntry(Entry *entry, std::vector<char> *buffer, Lookup lookup) {
    for (buffer->resize(1024); buffer->size() <= largestBuffer; buffer->resize(buffer->size() * 2)) {
        Entry *found = nullptr;
        int failure = 0;
        do {
            failure = lookup(entry, buffer->data(), buffer->size(), &found);
        } while (failure == EINTR);
        if (failure != ERANGE) {
            errno = failure == 0 && found == nullptr ? ENOENT : failure;
            return found;
        }
    }
    errno = ERANGE;
    return nullptr;
}

template <typename Record>
int giveRecord(const char *name, unsigned int id, Record **result) {
    auto *record = static_cast<Record *>(std::malloc(sizeof(Record)));
    char *copy = strdup(name);
    if (record == nullptr || copy == nullptr) {
        std::free(record);
        std::free(copy);
        throw std::bad_alloc();
    }
    record->szName = copy;
    record->uId = id;
    *result = record;
    return 0;
}

template <typename Record>
void freeRecord(Record *record) {
    if (record != nullptr) {
        const ErrnoKeeper keeper;
        std::free(record->szName);
        std::free(record);
    }
}

int notFound() {
    QOVA_SET_CODE(SNAP_ERR_OPERATION_FAILED);
    return -1;
}

template <typename Lookup>
int getUser(QOVAUSER **result, Lookup lookup) {
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        passwd entry = {};
        std::vector<char> buffer;
        const passwd *found = findEntry(&entry, &buffer, lookup);
        return found == nullptr ? notFound() : giveRecord(found->pw_name, found->pw_uid, result);
    });
}

template <typename Lookup>
int getGroup(QOVAGROUP **result, Lookup lookup) {
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        group entry = {};
        std::vector<char> buffer;
        const group *found = findEntry(&entry, &buffer, lookup);
        return found == nullptr ? notFound() : giveRecord(found->gr_name, found->gr_gid, result);
    });
}

} // namespace

extern "C" {

int QOVAUserGet(const char *szName, QOVAUSER **ppUser) {
    if (szName == nullptr || ppUser == nullptr) {
        return QOVA_BAD_ARGUMENT();
    }
    return getUser(ppUser, [szName](passwd *entry, char *buffer, size_t size, passwd **found) {
        return getpwnam_r(szName, entry, buffer, size, found);
    });
}

int QOVAUserGetByUID(unsigned int uId, QOVAUSER **ppUser) {
    if (ppUser == nullptr) {
        return QOVA_BAD_ARGUMENT();
    }
    return getUser(ppUser, [uId](passwd *entry, char *buffer, size_t size, passwd **found) {
        return getpwuid_r(uId, entry, buffer, size, found);
    });
}

void QOVAUserFree(QOVAUSER *pUser) {
    freeRecord(pUser);
}

int QOVAGroupGet(const char *szName, QOVAGROUP **ppGroup) {
    if (szName == nullptr || ppGroup == nullptr) {
        return QOVA_BAD_ARGUMENT();
    }
    return getGroup(ppGroup, [szName](group *entry, char *buffer, size_t size, group **found) {
        return getgrnam_r(szName, entry, buffer, size, found);
    });
}

int QOVAGroupGetByGID(unsigned int uId, QOVAGROUP **ppGroup) {
    if (ppGroup == nullptr) {
        return QOVA_BAD_ARGUMENT();
    }
    return getGroup(ppGroup, [uId](group *entry, char *buffer, size_t size, group **found) {
        return getgrgid_r(uId, entry, buffer, size, found);
    });
}

void QOVAGroupFree(QOVAGROUP *pGroup) {
    freeRecord(pGroup);
}

} // extern "C"
