#include "qovasdk/share_file_provider.h"

#include "common/descriptor.h"
#include "common/keepers.h"
#include "qovasdk/share_section.h"

#include <cerrno>
#include <fcntl.h>
#include <new>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/platform/section_file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace QovaPlatform {
namespace {

constexpr const char *databaseDirectory = "/etc/sharesnap";
constexpr const char *databaseFile = "/etc/sharesnap/shares.conf";
constexpr const char *lockDirectory = "/run/lock/sharesnap";
constexpr const char *lockFile = "/run/lock/sharesnap/share_database.lock";
constexpr int lockSeconds = 10;

bool databaseIsAbsent() {
    const ErrnoKeeper keeper;
    return access(databaseFile, F_OK) != 0 && errno == ENOENT;
}

bool noSuchShare() {
    errno = ENOENT;
    QOVA_SET_CODE(SNAP_ERR_NO_SUCH_SECTION);
    return false;
}

// The database's lock for writing. Only root gets it, so that no other user makes the lock's directory.
class WriteLock {
public:
    WriteLock() {
        if (geteuid() != 0) {
            errno = EPERM;
            QOVA_SET_CODE(SNAP_ERR_OPERATION_FAILED);
            return;
        }
        (void)mkdir(lockDirectory, 0777); // stands as a rule; if it can't be made the lock fails
        held_ = QLIBCFileLockTimeByFile(lockFile, 1, lockSeconds, &fd_) != 0;
    }
    ~WriteLock() {
        if (held_) {
            const ErrnoKeeper keeper;
            (void)QLIBCFileUnlockByFile(fd_); // what was written stands, whatever becomes of the lock
        }
    }
    WriteLock(const WriteLock &) = delete;
    WriteLock &operator=(const WriteLock &) = delete;
    [[nodiscard]] bool held() const { return held_; }

private:
    int fd_ = -1;
    bool held_ = false;
};

// The section's pairs. Whether a section without pairs stands or none at all is told by the register alone, so that has
// to be empty before.
bool readSection(const std::string &name, HashOwner *pairs) {
    const SavedRegister before;
    QOVA_SET_CODE(0);
    const int found = QLIBCFileGetSection(databaseFile, name.c_str(), pairs->address());
    if (found > 0) {
        before.restore();
        return true;
    }
    if (found == 0 && QLIBCErrGet() == 0) {
        errno = EINVAL;
        QOVA_SET_CODE(SNAP_ERR_READ_FAILED);
        return false;
    }
    return found < 0 && !databaseIsAbsent() ? false : noSuchShare();
}

// Makes an empty database where there is none.
bool createDatabase() {
    if (mkdir(databaseDirectory, 0755) != 0 && errno != EEXIST) {
        QOVA_SET_CODE(SNAP_ERR_CREATE_FAILED);
        return false;
    }
    const Descriptor file(open(databaseFile, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file.IsOpen() && errno != EEXIST) {
        QOVA_SET_CODE(SNAP_ERR_CREATE_FAILED);
        return false;
    }
    return true;
}

} // namespace

ShareProvider &shareProvider() {
    static ShareFileProvider provider;
    return provider;
}

bool ShareFileProvider::fetch(const std::string &name, ShareEntry *entry) {
    HashOwner pairs;
    if (!readSection(name, &pairs)) {
        return false;
    }
    if (!entryFromPairs(name, pairs.get(), entry)) {
        errno = EINVAL;
        QOVA_SET_CODE(SNAP_ERR_READ_FAILED);
        return false;
    }
    return true;
}

bool ShareFileProvider::fetchAll(std::vector<ShareEntry> *entries) {
    const SavedRegister before;
    ListOwner names;
    if (QLIBCFileEnumSection(databaseFile, names.address()) < 0) {
        if (!databaseIsAbsent()) {
            return false;
        }
        before.restore();
        return true;
    }
    for (int index = 0; index < names.get()->nItem; ++index) {
        const std::string name = QLIBCSzListGet(names.get(), index);
        HashOwner pairs;
        ShareEntry entry;
        // A share may go between the two reads, and a record that can't be used must not hide the others.
        if (isShareName(name) && QLIBCFileGetSection(databaseFile, name.c_str(), pairs.address()) > 0 &&
            entryFromPairs(name, pairs.get(), &entry)) {
            entries->push_back(std::move(entry));
        }
    }
    before.restore();
    return true;
}

bool ShareFileProvider::add(const ShareEntry &entry) {
    HashOwner pairs;
    pairsFromEntry(entry, nullptr, &pairs);
    const WriteLock lock;
    if (!lock.held() || !createDatabase()) {
        return false;
    }
    const int added = QLIBCFileAddSection(databaseFile, entry.name.c_str(), pairs.get(), nullptr);
    if (added == 0) {
        errno = EEXIST;
        QOVA_SET_CODE(SNAP_ERR_ALREADY_EXISTS);
    }
    return added == 1;
}

bool ShareFileProvider::replace(const ShareEntry &entry) {
    const WriteLock lock;
    HashOwner old;
    if (!lock.held() || !readSection(entry.name, &old)) {
        return false;
    }
    HashOwner pairs;
    pairsFromEntry(entry, old.get(), &pairs);
    return QLIBCFileSetSection(databaseFile, entry.name.c_str(), nullptr, pairs.get(), nullptr) == 1;
}

bool ShareFileProvider::rename(const std::string &name, const std::string &newName) {
    const WriteLock lock;
    HashOwner pairs;
    if (!lock.held() || !readSection(name, &pairs)) {
        return false;
    }
    return QLIBCFileSetSection(databaseFile, name.c_str(), newName.c_str(), pairs.get(), nullptr) == 1;
}

bool ShareFileProvider::remove(const std::string &name) {
    const WriteLock lock;
    if (!lock.held()) {
        return false;
    }
    const int removed = QLIBCFileRemoveSection(databaseFile, name.c_str());
    if (removed == 0 || (removed < 0 && databaseIsAbsent())) {
        return noSuchShare();
    }
    return removed > 0;
}

} // namespace QovaPlatform
