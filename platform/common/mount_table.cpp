#include "common/mount_table.h"

#include "common/descriptor.h"
#include "common/path_walk.h"

#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <sys/stat.h>

namespace QovaPlatform {

namespace {

/* The kernel writes blank, tab, line feed and backslash of a path as three octal digits. */
std::string Unescape(std::string_view szText) {
    std::string szResult;
    szResult.reserve(szText.size());
    for (size_t i = 0; i < szText.size(); ++i) {
        unsigned int uByte = 0;
        if (szText[i] == '\\' && i + 3 < szText.size() &&
            std::from_chars(&szText[i + 1], &szText[i + 1] + 3, uByte, 8).ptr == &szText[i + 1] + 3) {
            szResult.push_back(static_cast<char>(uByte));
            i += 3;
        } else {
            szResult.push_back(szText[i]);
        }
    }
    return szResult;
}

std::string_view NextField(std::string_view &szLine) {
    const size_t cbField = szLine.find(' ');
    const std::string_view szField = szLine.substr(0, cbField);
    szLine.remove_prefix(cbField == std::string_view::npos ? szLine.size() : cbField + 1);
    return szField;
}

bool ParseId(std::string_view szField, uint64_t &ullId) {
    const char *pEnd = szField.data() + szField.size();
    const auto result = std::from_chars(szField.data(), pEnd, ullId);
    return result.ec == std::errc() && result.ptr == pEnd;
}

/* "36 35 98:0 /root /mount/point rw,noatime master:1 - btrfs /dev/sda1 rw" */
bool ParseLine(std::string_view szLine, Mount &mount) {
    if (!ParseId(NextField(szLine), mount.ullId) || !ParseId(NextField(szLine), mount.ullParentId)) {
        return false;
    }
    (void)NextField(szLine); // device number: another one for each Btrfs subvolume, so of no use
    mount.szRoot = Unescape(NextField(szLine));
    mount.szMountPoint = Unescape(NextField(szLine));
    (void)NextField(szLine); // mount options
    while (!szLine.empty() && NextField(szLine) != "-") {}
    mount.szType = Unescape(NextField(szLine));
    mount.szSource = Unescape(NextField(szLine));
    return !mount.szType.empty() && mount.szMountPoint[0] == '/';
}

bool IsAbsent(int nErrno) {
    return nErrno == ENOENT || nErrno == ENOTDIR;
}

} // namespace

bool Mount::IsFuse() const {
    return szType == "fuse" || szType == "fuseblk" || szType.compare(0, 5, "fuse.") == 0;
}

bool Mount::IsAtDepthOne() const {
    return 1 < szMountPoint.size() && szMountPoint.find('/', 1) == std::string::npos;
}

MountTable::MountTable(std::string_view szText) {
    while (!szText.empty()) {
        const size_t cbLine = szText.find('\n');
        Mount mount;
        if (ParseLine(szText.substr(0, cbLine), mount)) {
            m_mounts.push_back(std::move(mount));
        }
        szText.remove_prefix(cbLine == std::string_view::npos ? szText.size() : cbLine + 1);
    }
}

bool MountTable::Read(std::string &szText) {
    const Descriptor file(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) {
        return false;
    }
    szText.clear();
    for (;;) {
        const size_t cbBefore = szText.size();
        szText.resize(cbBefore + 16384);
        const ssize_t cbRead = read(file.Get(), &szText[cbBefore], 16384);
        szText.resize(cbBefore + (0 < cbRead ? static_cast<size_t>(cbRead) : 0));
        if (cbRead == 0) {
            return true;
        }
        if (cbRead < 0 && errno != EINTR) {
            return false;
        }
    }
}

const Mount *MountTable::ById(uint64_t ullId) const {
    for (const Mount &mount : m_mounts) {
        if (mount.ullId == ullId) {
            return &mount;
        }
    }
    return nullptr;
}

const Mount *MountTable::ByMountPoint(std::string_view szMountPoint) const {
    for (auto it = m_mounts.rbegin(); it != m_mounts.rend(); ++it) {
        if (it->szMountPoint == szMountPoint) {
            return &*it;
        }
    }
    return nullptr;
}

const Mount *MountTable::LongestPrefix(std::string_view szPath) const {
    while (1 < szPath.size()) {
        if (const Mount *pMount = ByMountPoint(szPath)) {
            return pMount;
        }
        szPath = szPath.substr(0, szPath.find_last_of('/'));
    }
    return ByMountPoint("/");
}

const Mount *MountTable::Holding(const char *szPath) const {
    if (szPath[0] != '/') {
        errno = EINVAL;
        return nullptr;
    }
    const bool blTextTells = !HasParentComponent(szPath);
    std::string szRest = PlainPath(szPath);
    for (;;) {
        if (blTextTells) {
            const Mount *pMount = LongestPrefix(szRest);
            if (pMount != nullptr && pMount->IsFuse()) {
                return pMount;
            }
        }
        struct statx status = {};
        if (statx(AT_FDCWD, szRest.c_str(), AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT, STATX_MNT_ID, &status) == 0) {
            const Mount *pMount = (status.stx_mask & STATX_MNT_ID) != 0 ? ById(status.stx_mnt_id) : nullptr;
            if (pMount == nullptr) {
                errno = ENODEV; // mounted or unmounted since the table was read
            }
            return pMount;
        }
        if (!IsAbsent(errno) || szRest == "/") {
            return nullptr;
        }
        szRest.resize(std::max<size_t>(szRest.find_last_of('/'), 1));
    }
}

const Mount *MountTable::VolumeOf(const char *szPath) const {
    const Mount *pMount = Holding(szPath);
    if (pMount == nullptr) {
        return nullptr;
    }
    // A mount is its own parent at most once, at the top; the count ends a walk through a damaged table.
    for (size_t i = 0; i <= m_mounts.size() && pMount != nullptr; ++i) {
        if (pMount->IsAtDepthOne()) {
            return pMount;
        }
        if (pMount->szMountPoint == "/" || pMount->ullId == pMount->ullParentId) {
            break;
        }
        pMount = ById(pMount->ullParentId);
    }
    errno = ENODEV;
    return nullptr;
}

std::vector<const Mount *> MountTable::Volumes() const {
    std::vector<const Mount *> volumes;
    for (const Mount &mount : m_mounts) {
        if (mount.IsAtDepthOne() && ByMountPoint(mount.szMountPoint) == &mount) {
            volumes.push_back(&mount);
        }
    }
    return volumes;
}

std::string PlainPath(std::string_view szPath) {
    std::string szResult;
    szResult.reserve(szPath.size());
    while (!szPath.empty()) {
        const size_t cbComponent = szPath.find('/');
        const std::string_view szComponent = szPath.substr(0, cbComponent);
        if (!szComponent.empty() && szComponent != ".") {
            szResult.append("/").append(szComponent);
        }
        szPath.remove_prefix(cbComponent == std::string_view::npos ? szPath.size() : cbComponent + 1);
    }
    return szResult.empty() ? "/" : szResult;
}

} // namespace QovaPlatform
