/* The limit of snapshots of the whole system. It is asked at every creation, so it is met with the counters that the
   shares keep, one read a share, and never with the snapshots themselves. */
#include <sharesnap/platform/section_file.h>
#include <sharesnap/platform/subvolume.h>

#include "common/descriptor.h"
#include "common/failure.h"
#include "common/mount_table.h"
#include "common/path_walk.h"

#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/xattr.h>

using namespace QovaPlatform;

namespace {

constexpr unsigned long DEFAULT_MAXIMUM = 65536;
constexpr size_t COUNTER_SIZE = 1024;

struct CloseDirectory {
    void operator()(DIR *pDirectory) const { (void)closedir(pDirectory); }
};

/* The counter of one share's snapshot directory; 0 of one without, or with something else in its place. */
unsigned long CounterOf(const std::string &szDirectory) {
    char szText[COUNTER_SIZE + 1] = "";
    const ssize_t cbText = lgetxattr(szDirectory.c_str(), "user.snapcount", szText, COUNTER_SIZE);
    int nCount = 0;
    if (cbText <= 0 || sscanf(szText, "%d", &nCount) != 1 || nCount < 0) {
        return 0;
    }
    return static_cast<unsigned long>(nCount);
}

/* Adds the counters of a volume's shares. The volume may be mounted in more than one place: seen tells its directories
   apart. 0; -1 with errno. */
int AddVolume(const std::string &szVolume, std::set<std::pair<dev_t, ino_t>> &seen, unsigned long *pulTotal) {
    const std::string szShares = szVolume + "/@sharesnap";
    Descriptor directory = OpenWithoutLinks(szShares.c_str(), O_RDONLY | O_DIRECTORY);
    struct stat status = {};
    if (!directory.IsOpen()) {
        // A file or a link in its place holds no snapshots, and is moved aside when the first one is taken.
        return errno == ENOENT || errno == ENOTDIR || errno == ELOOP ? 0 : -1;
    }
    if (fstat(directory.Get(), &status) != 0) {
        return -1;
    }
    if (!seen.insert({status.st_dev, status.st_ino}).second) {
        return 0;
    }
    const std::unique_ptr<DIR, CloseDirectory> stream(fdopendir(directory.Get()));
    if (stream == nullptr) {
        return -1;
    }
    (void)directory.Release(); // the stream closes it
    errno = 0;
    while (const dirent *pEntry = readdir(stream.get())) {
        const bool blDirectory = pEntry->d_type == DT_DIR || pEntry->d_type == DT_UNKNOWN;
        if (blDirectory && pEntry->d_name != std::string(".") && pEntry->d_name != std::string("..")) {
            *pulTotal += CounterOf(szShares + "/" + pEntry->d_name);
        }
        errno = 0;
    }
    return errno == 0 ? 0 : -1;
}

int CountAll(unsigned long *pulTotal) {
    std::string szTable;
    if (!MountTable::Read(szTable)) {
        return -1;
    }
    const MountTable table(szTable);
    std::set<std::pair<dev_t, ino_t>> seen;
    for (const Mount *pVolume : table.Volumes()) {
        if (pVolume->szType == "btrfs" && AddVolume(pVolume->szMountPoint, seen, pulTotal) != 0) {
            return -1;
        }
    }
    return 0;
}

} // namespace

unsigned long QOVABtrfsSnapCountMaximumGet(void) {
    char szValue[64] = "";
    // A missing file or key is no failure here: the register keeps what it holds, its place too.
    const unsigned int uCode = QLIBCErrGet();
    const char *szFile = QLIBCErrorGetFile();
    const int nLine = QLIBCErrorGetLine();
    const int nFound =
        QLIBCFileGetKeyValue("/etc.defaults/qovainfo.conf", "max_snapshots_per_system", szValue, sizeof(szValue), 0);
    QLIBCErrSetEx(uCode, szFile, nLine);
    if (nFound < 1) {
        return DEFAULT_MAXIMUM;
    }
    char *pEnd = nullptr;
    errno = 0;
    const unsigned long ulMaximum = strtoul(szValue, &pEnd, 10);
    const bool blNumber = '0' <= szValue[0] && szValue[0] <= '9' && *pEnd == '\0' && errno == 0;
    return blNumber ? ulMaximum : DEFAULT_MAXIMUM;
}

int QOVABtrfsSnapCountReachMaxCheck(void) {
    return Guarded(__FILE_NAME__, __LINE__, -1, [] {
        unsigned long ulTotal = 0;
        if (CountAll(&ulTotal) != 0) {
            QOVA_FAIL_ERRNO();
            return -1;
        }
        return ulTotal < QOVABtrfsSnapCountMaximumGet() ? 0 : -2;
    });
}
