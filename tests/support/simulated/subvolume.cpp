// Subvolumes of the simulated storage core: directories that the registry knows.
#include "copy_tree.hpp"
#include "registry.hpp"

#include <sharesnap/platform/error.h>
#include <sharesnap/platform/section_file.h>
#include <sharesnap/platform/subvolume.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <sys/xattr.h>
#include <unistd.h>

using simulated::Facts;

// By this symbol a test program knows which storage core it runs on.
extern "C" {
extern __attribute__((visibility("default"))) const int QOVASimulatedStorageCore;
const int QOVASimulatedStorageCore = 1;
}

namespace {

int fail(int error, int line) {
    unsigned int code = SNAP_ERR_OPERATION_FAILED;
    switch (error) {
    case EINVAL:
    case ENAMETOOLONG:
        code = SNAP_ERR_BAD_PARAMETER;
        break;
    case EEXIST:
        code = SNAP_ERR_ALREADY_EXISTS;
        break;
    case ENOSPC:
        code = SNAP_ERR_NO_SPACE;
        break;
    default:
        break;
    }
    QLIBCErrSetEx(code, __FILE__, line);
    errno = error;
    return -1;
}

bool exists(const std::string &path) {
    struct stat st = {};
    return lstat(path.c_str(), &st) == 0;
}

bool climbs(const std::string &path) {
    return (path + "/").find("/../") != std::string::npos || path.compare(0, 3, "../") == 0 || path == "..";
}

// The path without slashes at its end; empty for one that can't be used.
std::string usable(const char *path) {
    std::string text = path == nullptr ? "" : path;
    while (text.size() > 1 && text.back() == '/') {
        text.pop_back();
    }
    return climbs(text) ? "" : text;
}

std::string directoryOf(const std::string &path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
}

bool isVolumeTop(const std::string &path) {
    for (const simulated::Mount &mount : simulated::mountsAtDepthOne()) {
        if (mount.point == path) {
            return simulated::isSimulatedVolume(mount);
        }
    }
    return false;
}

// 1 a subvolume, 0 something else, -1 absent.
int kindOf(const std::string &path) {
    if (!exists(path)) {
        return -1;
    }
    return isVolumeTop(path) || simulated::factsOf(path) ? 1 : 0;
}

// An empty directory on a simulated volume. 0 or an error number.
int makeEmpty(const std::string &path) {
    if (path.empty()) {
        return EINVAL;
    }
    if (path.size() - path.rfind('/') > 256) {
        return ENAMETOOLONG;
    }
    const std::string parent = directoryOf(path);
    if (!exists(parent)) {
        return ENOENT;
    }
    if (!simulated::isOnSimulatedVolume(parent)) {
        return ENOTTY;
    }
    return mkdir(path.c_str(), 0777) == 0 ? 0 : errno;
}

int takeSnapshot(const char *szSource, const char *szTarget, bool readOnly) {
    const std::string source = usable(szSource);
    const std::string target = usable(szTarget);
    struct stat from = {};
    struct stat parent = {};
    if (source.empty() || target.empty() || kindOf(source) == 0) {
        return fail(EINVAL, __LINE__);
    }
    if (lstat(source.c_str(), &from) != 0 || lstat(directoryOf(target).c_str(), &parent) != 0) {
        return fail(ENOENT, __LINE__);
    }
    if (from.st_dev != parent.st_dev) {
        return fail(EXDEV, __LINE__);
    }
    std::optional<Facts> facts = simulated::newFacts();
    if (!facts) {
        return fail(EIO, __LINE__);
    }
    const std::optional<Facts> origin = simulated::factsOf(source);
    facts->parentUuid = origin ? origin->uuid : "";
    facts->readOnly = readOnly;
    const int error = makeEmpty(target);
    if (error != 0) {
        return fail(error, __LINE__);
    }
    if (!simulated::copyContents(source, target) || !simulated::keepFacts(target, *facts)) {
        const int why = errno;
        (void)simulated::removeTree(target); // the failure before counts
        return fail(why, __LINE__);
    }
    return 0;
}

// 0 gone, by this call or before; -1 with errno.
int removeSubvolume(const std::string &path) {
    if (path.empty() || isVolumeTop(path)) {
        errno = EINVAL;
        return -1;
    }
    if (!exists(path)) {
        return 0;
    }
    if (!simulated::factsOf(path)) {
        errno = EINVAL;
        return -1;
    }
    return simulated::removeTree(path) ? 0 : -1;
}

std::string timeText(time_t when) {
    std::array<char, 64> text = {};
    tm parts = {};
    if (gmtime_r(&when, &parts) != nullptr) {
        (void)std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    }
    return text.data();
}

unsigned long counterOf(const std::string &directory) {
    std::array<char, 64> text = {};
    const ssize_t length = lgetxattr(directory.c_str(), "user.snapcount", text.data(), text.size() - 1);
    const long count = length > 0 ? std::strtol(text.data(), nullptr, 10) : 0;
    return count > 0 ? static_cast<unsigned long>(count) : 0;
}

unsigned long countersOn(const std::string &volume) {
    unsigned long total = 0;
    DIR *dir = opendir((volume + "/@sharesnap").c_str());
    if (dir == nullptr) {
        return 0;
    }
    while (const dirent *entry = readdir(dir)) {
        if (entry->d_name[0] != '.') {
            total += counterOf(volume + "/@sharesnap/" + entry->d_name);
        }
    }
    closedir(dir);
    return total;
}

} // namespace

int QOVABtrfsIsSubVol(const char *szPath) {
    const std::string path = usable(szPath);
    if (path.empty()) {
        return fail(EINVAL, __LINE__);
    }
    const int kind = kindOf(path);
    return kind < 0 ? fail(ENOENT, __LINE__) : kind;
}

int QOVABtrfsCreateSubVol(const char *szPath) {
    const std::string path = usable(szPath);
    const int error = makeEmpty(path);
    if (error != 0) {
        return fail(error, __LINE__);
    }
    const std::optional<Facts> facts = simulated::newFacts();
    if (!facts || !simulated::keepFacts(path, *facts)) {
        const int why = errno;
        (void)rmdir(path.c_str()); // the failure before counts
        return fail(why, __LINE__);
    }
    return 0;
}

int QOVABtrfsReadOnlySnapshotTake(const char *szSource, const char *szTarget) {
    const int result = takeSnapshot(szSource, szTarget, true);
    if (result == 0) {
        QLIBCErrSetEx(0, "", 0);
    }
    return result;
}

int QOVABtrfsSnapshotTake(const char *szSource, const char *szTarget) {
    return takeSnapshot(szSource, szTarget, false);
}

int QOVABtrfsSubvolHideAttrSet(const char *szPath, int blHide) {
    const std::string path = usable(szPath);
    std::optional<Facts> facts = simulated::factsOf(path);
    if (!facts) {
        return fail(exists(path) ? EINVAL : ENOENT, __LINE__);
    }
    facts->hidden = blHide != 0;
    return simulated::keepFacts(path, *facts) ? 0 : fail(errno, __LINE__);
}

int QOVABtrfsDeleteSubvolFaultTolerant(const char *szPath) {
    return removeSubvolume(usable(szPath)) == 0 ? 0 : fail(errno, __LINE__);
}

int QOVABtrfsDeleteSubvolListFaultTolerant(const char *szDirectory, const QLIBCSZLIST *pList) {
    int deleted = 0;
    return QOVABtrfsDeleteSubvolListFaultTolerantEx(szDirectory, pList, &deleted);
}

int QOVABtrfsDeleteSubvolListFaultTolerantEx(const char *szDirectory, const QLIBCSZLIST *pList, int *pDeleted) {
    const std::string directory = usable(szDirectory);
    if (directory.empty() || pList == nullptr || pDeleted == nullptr) {
        return fail(EINVAL, __LINE__);
    }
    *pDeleted = 0;
    if (!exists(directory)) {
        return fail(ENOENT, __LINE__);
    }
    for (int i = 0; i < pList->nItem; ++i) {
        const std::string name = QLIBCSzListGet(pList, i);
        if (!name.empty() && name[0] != '/' && !climbs(name) && removeSubvolume(directory + "/" + name) == 0) {
            ++*pDeleted;
        } else {
            (void)fail(errno, __LINE__); // goes on with the next
        }
    }
    return 0;
}

int QOVABtrfsDeletedSubvolAdd(const char *szShareSubvol, const char *szSnapshot) {
    const std::string share = usable(szShareSubvol);
    const std::optional<Facts> facts = simulated::factsOf(usable(szSnapshot));
    struct stat st = {};
    if (!facts || kindOf(share) != 1 || lstat(share.c_str(), &st) != 0) {
        return fail(EINVAL, __LINE__);
    }
    std::ofstream out(simulated::fileOf(st, "deleted"), std::ios::app);
    out << (std::to_string(facts->id) + " " + szSnapshot + "\n") << std::flush;
    return out ? 0 : fail(EIO, __LINE__);
}

// The cleaning of what is gone never ends here; a subvolume that still stands isn't being cleaned.
int QOVABtrfsDeletedSubvolGet(const char *szShareSubvol, QLIBCSZHASH **ppHash) {
    const std::string share = usable(szShareSubvol);
    struct stat st = {};
    if (ppHash == nullptr || kindOf(share) != 1 || lstat(share.c_str(), &st) != 0) {
        return fail(EINVAL, __LINE__);
    }
    std::ifstream in(simulated::fileOf(st, "deleted"));
    std::string id;
    std::string path;
    while (in >> id && std::getline(in >> std::ws, path)) {
        const std::optional<Facts> standing = simulated::factsOf(path);
        const bool gone = !standing || std::to_string(standing->id) != id;
        if (gone && QLIBCSzHashSetValue(ppHash, id.c_str(), path.c_str()) < 0) {
            return -1;
        }
    }
    return 0;
}

unsigned long QOVABtrfsSnapCountMaximumGet(void) {
    std::array<char, 64> value = {};
    const int found =
        QLIBCFileGetKeyValue("/etc.defaults/qovainfo.conf", "max_snapshots_per_system", value.data(), value.size(), 0);
    char *end = nullptr;
    const unsigned long maximum = std::strtoul(value.data(), &end, 10);
    return found >= 1 && value[0] >= '0' && value[0] <= '9' && *end == '\0' ? maximum : 65536;
}

int QOVABtrfsSnapCountReachMaxCheck(void) {
    unsigned long total = 0;
    for (const simulated::Mount &mount : simulated::mountsAtDepthOne()) {
        total += simulated::isSimulatedVolume(mount) ? countersOn(mount.point) : 0;
    }
    return total < QOVABtrfsSnapCountMaximumGet() ? 0 : -2;
}

int QOVASnapFillSubvolInfoWithPath(const char *szPath, QLIBCSZHASH **ppHash) {
    const std::string path = usable(szPath);
    const std::optional<Facts> facts = simulated::factsOf(path);
    if (ppHash == nullptr || !facts) {
        return fail(exists(path) ? EINVAL : ENOENT, __LINE__);
    }
    const std::array<std::pair<const char *, std::string>, 5> pairs = {{{"hide", facts->hidden ? "true" : "false"},
                                                                        {"ruuid", facts->uuid},
                                                                        {"uuid", facts->uuid},
                                                                        {"parent_uuid", facts->parentUuid},
                                                                        {"create_time", timeText(facts->created)}}};
    for (const auto &[key, value] : pairs) {
        if (QLIBCSzHashSetValue(ppHash, key, value.c_str()) < 0) {
            return -1;
        }
    }
    return 0;
}
