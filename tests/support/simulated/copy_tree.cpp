#include "copy_tree.hpp"

#include "registry.hpp"

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace simulated {
namespace {

bool namesIn(const std::string &path, std::vector<std::string> &names) {
    DIR *dir = opendir(path.c_str());
    if (dir == nullptr) {
        return false;
    }
    while (const dirent *entry = readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(dir);
    return true;
}

bool copyData(const std::string &from, const std::string &to, mode_t mode) {
    const int in = open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    const int out = in < 0 ? -1 : open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode & 0777);
    ssize_t count = out < 0 ? -1 : 1;
    while (count > 0) {
        count = sendfile(out, in, nullptr, size_t(1) << 20);
    }
    const int error = errno;
    if (in >= 0) {
        close(in);
    }
    const bool closed = out < 0 || close(out) == 0;
    errno = count < 0 ? error : errno;
    return count == 0 && closed;
}

bool copyLink(const std::string &from, const std::string &to) {
    std::array<char, PATH_MAX> target;
    const ssize_t length = readlink(from.c_str(), target.data(), target.size());
    return length >= 0 && symlink(std::string(target.data(), static_cast<size_t>(length)).c_str(), to.c_str()) == 0;
}

bool copyAttributes(const std::string &from, const std::string &to) {
    std::array<char, 65536> names;
    const ssize_t size = llistxattr(from.c_str(), names.data(), names.size());
    for (ssize_t at = 0; at < size; at += static_cast<ssize_t>(std::strlen(&names[static_cast<size_t>(at)])) + 1) {
        const char *name = &names[static_cast<size_t>(at)];
        std::array<char, 65536> value;
        const ssize_t length = lgetxattr(from.c_str(), name, value.data(), value.size());
        if (std::strncmp(name, "user.", 5) == 0 &&
            (length < 0 || lsetxattr(to.c_str(), name, value.data(), static_cast<size_t>(length), 0) != 0)) {
            return false;
        }
    }
    return true;
}

bool copyStatus(const struct stat &st, const std::string &from, const std::string &to) {
    const bool link = S_ISLNK(st.st_mode);
    const timespec times[2] = {st.st_atim, st.st_mtim};
    return (link || copyAttributes(from, to)) &&
           // In a user namespace there is one owner only.
           (lchown(to.c_str(), st.st_uid, st.st_gid) == 0 || errno == EINVAL || errno == EPERM) &&
           (link || chmod(to.c_str(), st.st_mode & 07777) == 0) &&
           utimensat(AT_FDCWD, to.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
}

bool copyEntry(const std::string &from, const std::string &to) {
    struct stat st = {};
    if (lstat(from.c_str(), &st) != 0) {
        return false;
    }
    bool copied = false;
    if (S_ISDIR(st.st_mode)) {
        copied = mkdir(to.c_str(), 0700) == 0 && (factsOf(from) || copyContents(from, to));
    } else if (S_ISLNK(st.st_mode)) {
        copied = copyLink(from, to);
    } else if (S_ISREG(st.st_mode)) {
        copied = copyData(from, to, st.st_mode);
    } else {
        copied = mknod(to.c_str(), st.st_mode, st.st_rdev) == 0;
    }
    return copied && copyStatus(st, from, to);
}

} // namespace

bool copyContents(const std::string &from, const std::string &to) {
    std::vector<std::string> names;
    if (!namesIn(from, names)) {
        return false;
    }
    for (const std::string &name : names) {
        if (!copyEntry(from + "/" + name, to + "/" + name)) {
            return false;
        }
    }
    struct stat st = {};
    return lstat(from.c_str(), &st) == 0 && copyStatus(st, from, to);
}

bool removeTree(const std::string &path) {
    struct stat st = {};
    if (lstat(path.c_str(), &st) != 0) {
        return errno == ENOENT;
    }
    if (!S_ISDIR(st.st_mode)) {
        return unlink(path.c_str()) == 0;
    }
    std::vector<std::string> names;
    if (!namesIn(path, names)) {
        return false;
    }
    for (const std::string &name : names) {
        if (!removeTree(path + "/" + name)) {
            return false;
        }
    }
    if (rmdir(path.c_str()) != 0) {
        return false;
    }
    forgetFacts(st);
    return true;
}

} // namespace simulated
