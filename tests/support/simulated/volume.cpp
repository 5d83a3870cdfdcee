// Volumes of the simulated storage core: what is mounted at depth one, a tmpfs at /vol... taken for Btrfs.
#include "registry.hpp"

#include <sharesnap/platform/error.h>
#include <sharesnap/platform/volume.h>

#include <cerrno>
#include <cstring>
#include <linux/magic.h>
#include <sys/statfs.h>

namespace {

int fail(unsigned int code, int error, int line) {
    QLIBCErrSetEx(code, __FILE__, line);
    errno = error;
    return -1;
}

int typeOf(const simulated::Mount &mount) {
    if (simulated::isSimulatedVolume(mount) || mount.type == "btrfs") {
        return FS_TYPE_BTRFS;
    }
    if (mount.type == "ext4") {
        return FS_TYPE_EXT4;
    }
    return mount.type == "tmpfs" ? FS_TYPE_TMPFS : FS_TYPE_UNKNOWN;
}

void fill(QOVAMOUNTVOLINFO &info, const simulated::Mount &mount) {
    info.nFsType = typeOf(mount);
    std::strncpy(info.szMountPath, mount.point.c_str(), sizeof(info.szMountPath) - 1);
    std::strncpy(info.szDevice, mount.source.c_str(), sizeof(info.szDevice) - 1);
}

// The mount at the path's first component. An absent path has the volume it would lie on.
bool volumeOf(const char *path, simulated::Mount &volume) {
    if (path == nullptr || path[0] != '/') {
        return false;
    }
    const std::string text = path;
    const std::string top = text.substr(0, text.find('/', 1));
    for (const simulated::Mount &mount : simulated::mountsAtDepthOne()) {
        if (mount.point == top) {
            volume = mount;
            return true;
        }
    }
    return false;
}

bool isDirectory(const char *path) {
    struct stat st = {};
    return path != nullptr && lstat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

} // namespace

int QOVAShareVolPathGet(const char *szPath, char *szBuf, size_t cbBuf) {
    simulated::Mount volume;
    if (szBuf == nullptr || !volumeOf(szPath, volume)) {
        return fail(SNAP_ERR_OPERATION_FAILED, ENODEV, __LINE__);
    }
    if (cbBuf <= volume.point.size()) {
        return fail(SNAP_ERR_BAD_PARAMETER, ENAMETOOLONG, __LINE__);
    }
    std::memcpy(szBuf, volume.point.c_str(), volume.point.size() + 1);
    return 0;
}

int VolumePathParseEx(const char *szPath, char *szBuf) {
    if (szPath == nullptr || szBuf == nullptr || szPath[0] != '/') {
        return fail(SNAP_ERR_BAD_PARAMETER, EINVAL, __LINE__);
    }
    const char *name = szPath + std::strspn(szPath, "/");
    const std::string first = "/" + std::string(name, std::strcspn(name, "/"));
    if (first == "/" || first == "/." || first == "/..") {
        return fail(SNAP_ERR_BAD_PARAMETER, EINVAL, __LINE__);
    }
    if (first.size() >= QOVA_VOLUME_PATH_SIZE) {
        return fail(SNAP_ERR_BAD_PARAMETER, ENAMETOOLONG, __LINE__);
    }
    std::memcpy(szBuf, first.c_str(), first.size() + 1);
    return 0;
}

int QOVAVolIDParse(const char *szVolPath) {
    const std::string text = szVolPath == nullptr ? "" : szVolPath;
    const size_t digits = text.find_last_not_of("0123456789") + 1;
    const bool good = text.size() > 1 && text[0] == '/' && text.find('/', 1) == std::string::npos &&
                      digits < text.size() && text.size() - digits < 10;
    return good ? std::stoi(text.substr(digits)) : fail(SNAP_ERR_BAD_PARAMETER, EINVAL, __LINE__);
}

int QOVAGetFSType(const char *szPath, int) {
    simulated::Mount volume;
    if (volumeOf(szPath, volume)) {
        return typeOf(volume);
    }
    struct statfs fs = {};
    if (szPath == nullptr || statfs(szPath, &fs) != 0) {
        return fail(SNAP_ERR_OPERATION_FAILED, szPath == nullptr ? EINVAL : errno, __LINE__);
    }
    return fs.f_type == TMPFS_MAGIC ? FS_TYPE_TMPFS : FS_TYPE_UNKNOWN;
}

int QOVAMountVolInfoGet(const char *szPath, QOVAMOUNTVOLINFO *pInfo) {
    simulated::Mount volume;
    if (pInfo == nullptr || !volumeOf(szPath, volume)) {
        return fail(SNAP_ERR_OPERATION_FAILED, ENODEV, __LINE__);
    }
    fill(*pInfo, volume);
    return 0;
}

QOVAMOUNTVOLINFO *QOVAMountVolAllEnum(int nType, int, int) {
    QOVAMOUNTVOLINFO *first = nullptr;
    QOVAMOUNTVOLINFO **end = &first;
    for (const simulated::Mount &mount : simulated::mountsAtDepthOne()) {
        if (nType == 0 || typeOf(mount) == nType) {
            *end = new QOVAMOUNTVOLINFO();
            fill(**end, mount);
            end = &(*end)->pNext;
        }
    }
    return first;
}

void QOVAMountVolInfoFree(QOVAMOUNTVOLINFO *pInfo) {
    while (pInfo != nullptr) {
        QOVAMOUNTVOLINFO *next = pInfo->pNext;
        delete pInfo;
        pInfo = next;
    }
}

// No directory in memory has the two properties.
int QLIBFSGetBTRFSNodatacow(const char *szPath) {
    return isDirectory(szPath) ? 0 : fail(SNAP_ERR_OPERATION_FAILED, ENOENT, __LINE__);
}

int QLIBFSGetBTRFSCompression(const char *szPath) {
    return isDirectory(szPath) ? 0 : fail(SNAP_ERR_OPERATION_FAILED, ENOENT, __LINE__);
}
