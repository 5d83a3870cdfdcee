/* @eaDir directories: made in and removed from places where users can write, so no link is ever followed. */
#include <sharesnap/platform/file_operation.h>

#include "common/failure.h"
#include "common/path_walk.h"

#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <vector>

using namespace QovaPlatform;

namespace {

/* Directories below this depth are moved up before they are emptied, so that no tree, however deep, takes more
   descriptors than this. */
constexpr size_t DEEPEST_OPEN = 64;

struct CloseDirectory {
    void operator()(DIR *pDirectory) const {
        const int nSaved = errno;
        (void)closedir(pDirectory);
        errno = nSaved;
    }
};

using Directory = std::unique_ptr<DIR, CloseDirectory>;

Directory OpenListing(int nParent, const char *szName) {
    Descriptor descriptor = OpenBeneath(nParent, szName, O_RDONLY | O_DIRECTORY);
    Directory directory(descriptor.IsOpen() ? fdopendir(descriptor.Get()) : nullptr);
    if (directory != nullptr) {
        (void)descriptor.Release(); // the stream closes it
    }
    return directory;
}

/* Removal of one directory with all it holds: a stack of open directories, each the child of the one before. */
class TreeRemoval {
public:
    TreeRemoval(int nParent, const char *szName) : m_nParent(nParent), m_szName(szName) {}

    /* 0 also when nothing stands there; -1 with errno. What isn't a directory is unlinked. */
    int Run() {
        if (RemoveSimple(m_nParent, m_szName.c_str())) {
            return 0;
        }
        if (errno != EISDIR || !Enter(m_nParent, m_szName)) {
            return -1;
        }
        while (!m_levels.empty()) {
            if (!Step()) {
                return -1;
            }
        }
        return 0;
    }

private:
    struct Level {
        Directory directory;
        std::string szName;
    };

    /* Unlinks what isn't a directory. True when nothing of that name is left; EISDIR for a directory. */
    static bool RemoveSimple(int nParent, const char *szName) {
        if (unlinkat(nParent, szName, 0) == 0 || errno == ENOENT) {
            return true;
        }
        struct stat status = {};
        const int nSaved = errno;
        if (fstatat(nParent, szName, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode)) {
            errno = EISDIR;
        } else {
            errno = nSaved;
        }
        return false;
    }

    bool Enter(int nParent, const std::string &szName) {
        Directory directory = OpenListing(nParent, szName.c_str());
        if (directory == nullptr) {
            return false;
        }
        m_levels.push_back({std::move(directory), szName});
        return true;
    }

    int ParentOfTop() const {
        return m_levels.size() < 2 ? m_nParent : dirfd(m_levels[m_levels.size() - 2].directory.get());
    }

    /* Moves a directory out of the deepest open one into the first. A name can be taken: by what a removal that was
       interrupted has left behind. */
    bool MoveUp(int nParent, const char *szName) {
        const int nFirst = dirfd(m_levels.front().directory.get());
        while (m_nMoved < MOST_MOVES) {
            const std::string szNew = ".removed." + std::to_string(++m_nMoved);
            if (renameat(nParent, szName, nFirst, szNew.c_str()) == 0) {
                return true;
            }
            if (errno != EEXIST && errno != ENOTEMPTY && errno != ENOTDIR) {
                return false;
            }
        }
        return false;
    }

    /* Treats the next entry of the innermost directory, or removes that directory once it is empty. */
    bool Step() {
        DIR *pTop = m_levels.back().directory.get();
        errno = 0;
        const dirent *pEntry = readdir(pTop);
        if (pEntry == nullptr) {
            return errno == 0 && Leave();
        }
        const std::string szName = pEntry->d_name;
        if (szName == "." || szName == "..") {
            return true;
        }
        if (RemoveSimple(dirfd(pTop), szName.c_str())) {
            return true;
        }
        if (errno != EISDIR) {
            return false;
        }
        return m_levels.size() < DEEPEST_OPEN ? Enter(dirfd(pTop), szName) : MoveUp(dirfd(pTop), szName.c_str());
    }

    bool Leave() {
        if (unlinkat(ParentOfTop(), m_levels.back().szName.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) {
            m_levels.pop_back();
            return true;
        }
        // Something came in behind the reader: a directory moved up by ourselves, or a user's new file.
        if (errno != ENOTEMPTY || MOST_REWINDS < ++m_nRewound) {
            return false;
        }
        rewinddir(m_levels.back().directory.get());
        return true;
    }

    static constexpr int MOST_REWINDS = 100000;
    static constexpr int MOST_MOVES = 1000000;

    int m_nParent;
    std::string m_szName;
    std::vector<Level> m_levels;
    int m_nMoved = 0;
    int m_nRewound = 0;
};

int MakeDirectory(const char *szPath) {
    const ParentAndName target = OpenParent(szPath);
    if (!target.directory.IsOpen()) {
        return -1;
    }
    const bool blMade = mkdirat(target.directory.Get(), target.szName.c_str(), 0755) == 0;
    if (!blMade && errno != EEXIST) {
        return -1;
    }
    // A link or a file that a user has put there isn't a directory, and fails here.
    const Descriptor directory = OpenBeneath(target.directory.Get(), target.szName.c_str(), O_RDONLY | O_DIRECTORY);
    if (!directory.IsOpen()) {
        return -1;
    }
    if (!blMade) {
        return 0;
    }
    // Whatever the umask is, and in a directory that hands its group on.
    const bool blOwned = geteuid() != 0 || fchown(directory.Get(), 0, 0) == 0;
    return blOwned && fchmod(directory.Get(), 0755) == 0 ? 0 : -1;
}

} // namespace

int QOVAEAMKDir(int nFlags, const char *szPath) {
    (void)nFlags; // 0 at every call
    if (szPath == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        if (MakeDirectory(szPath) != 0) {
            QOVA_FAIL_ERRNO();
            return -1;
        }
        return 0;
    });
}

int QOVAEARemove(const char *szPath, int nFlags, int64_t *pFlag) {
    (void)nFlags; // 3 at every call: the directory itself and all it holds
    (void)pFlag;  // 1 at every call
    if (szPath == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        const Descriptor directory = OpenWithoutLinks(szPath, O_RDONLY | O_DIRECTORY);
        if (!directory.IsOpen()) {
            if (errno == ENOENT) {
                return 0;
            }
            QOVA_FAIL_ERRNO();
            return -1;
        }
        if (TreeRemoval(directory.Get(), "@eaDir").Run() != 0) {
            QOVA_FAIL_ERRNO();
            return -1;
        }
        return 0;
    });
}
