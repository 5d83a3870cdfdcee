#include "subvolume_state.h"

#include "failure.h"
#include "text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

namespace command {
namespace {

Failure failure(const std::string &what, const std::string &path) {
    return {exitFailed, what + " " + printable(path) + ": " + std::strerror(errno)};
}

class Subvolume {
public:
    explicit Subvolume(const std::string &path)
        : path_(path), fd_(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)) {
        if (fd_ < 0) {
            throw failure("can't open", path_);
        }
    }
    ~Subvolume() { (void)close(fd_); } // opened for reading
    Subvolume(const Subvolume &) = delete;
    Subvolume &operator=(const Subvolume &) = delete;

    [[nodiscard]] int fd() const { return fd_; }

    [[nodiscard]] bool isOnBtrfs() const {
        struct statfs system = {};
        if (fstatfs(fd_, &system) != 0) {
            throw failure("can't tell the file system of", path_);
        }
        return system.f_type == BTRFS_SUPER_MAGIC;
    }

    // False when the file system doesn't know the request.
    bool request(unsigned long number, void *argument, const char *what) const {
        if (ioctl(fd_, number, argument) >= 0) {
            return true;
        }
        if (errno == ENOTTY || errno == EOPNOTSUPP) {
            return false;
        }
        throw failure(what, path_);
    }

private:
    std::string path_;
    int fd_;
};

constexpr char cantTell[] = "can't tell when it was changed:";

// False on a file system other than Btrfs.
bool readFacts(const std::string &path, btrfs_ioctl_get_subvol_info_args &facts) {
    const Subvolume subvolume(path);
    if (subvolume.request(BTRFS_IOC_GET_SUBVOL_INFO, &facts, cantTell)) {
        return true;
    }
    if (subvolume.isOnBtrfs()) {
        throw Failure(exitFailed, std::string(cantTell) + " " + printable(path), "that takes Linux 5.8 or later");
    }
    return false;
}

bool isGone(const std::string &path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) != 0 && errno == ENOENT;
}

} // namespace

std::optional<SubvolumeState> stateOf(const std::string &path) {
    btrfs_ioctl_get_subvol_info_args facts = {};
    try {
        if (!readFacts(path, facts)) {
            return std::nullopt;
        }
    } catch (const Failure &) {
        if (isGone(path)) { // deleted by somebody else
            return std::nullopt;
        }
        throw;
    }
    SubvolumeState state = {facts.generation, facts.otransid, {}, {}};
    std::copy_n(facts.uuid, state.uuid.size(), state.uuid.begin());
    std::copy_n(facts.parent_uuid, state.parent.size(), state.parent.begin());
    return state;
}

void writeOut(const std::string &path) {
    const Subvolume subvolume(path);
    if (syncfs(subvolume.fd()) != 0) {
        throw failure("can't write out", path);
    }
}

void makeReadOnly(const std::string &path) {
    const Subvolume subvolume(path);
    __u64 flags = 0;
    if (!subvolume.request(BTRFS_IOC_SUBVOL_GETFLAGS, &flags, "can't read the flags of")) {
        return;
    }
    flags |= BTRFS_SUBVOL_RDONLY;
    (void)subvolume.request(BTRFS_IOC_SUBVOL_SETFLAGS, &flags, "can't make read-only"); // known, like the one above
}

void limitSize(const std::string &path, std::uint64_t bytes) {
    btrfs_ioctl_qgroup_limit_args limit = {}; // qgroup 0 stands for that of the subvolume itself
    limit.lim.flags = BTRFS_QGROUP_LIMIT_MAX_RFER;
    limit.lim.max_rfer = bytes;
    if (!Subvolume(path).request(BTRFS_IOC_QGROUP_LIMIT, &limit, "can't limit the size of")) {
        errno = EOPNOTSUPP;
        throw failure("can't limit the size of", path);
    }
}

} // namespace command
