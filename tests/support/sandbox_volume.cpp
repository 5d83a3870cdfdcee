// Volumes of the sandbox: a sparse image in memory, a loop device that clears itself, a mount.
#include "files.hpp"
#include "process.hpp"
#include "sandbox.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

namespace testkit {
namespace {

std::string because(const std::string &what) {
    return what + ": " + std::strerror(errno);
}

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    Descriptor &operator=(Descriptor &&) = delete;
    ~Descriptor() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool valid() const { return fd_ >= 0; }

private:
    int fd_;
};

bool knowsFileSystem(const std::string &type) {
    const std::string known = readFile("/proc/filesystems");
    return known.find("\t" + type + "\n") != std::string::npos;
}

// A file in memory with a file system on it. Each gets an identity of its own: Btrfs refuses two of the same.
std::string makeImage(const std::string &path, const std::string &type, unsigned sizeMiB) {
    const Descriptor image(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!image.valid() || ftruncate(image.get(), static_cast<off_t>(sizeMiB) << 20) != 0) {
        return because("no image for a volume");
    }
    std::vector<std::string> command = {"mkfs." + type, "-q"};
    if (type == "btrfs") {
        command.insert(command.end(), {"-K", "-f", "-m", "single"});
    } else {
        command.insert(command.end(), {"-F", "-E", "nodiscard"});
    }
    command.push_back(path);
    const ProcessResult made = runProcess(command);
    if (made.exitStatus != 0) {
        return "mkfs." + type + " failed: " + made.output;
    }
    return "";
}

// The node of a loop device; a container's /dev may lack it.
std::string loopNode(int number) {
    std::string path = "/dev/loop" + std::to_string(number);
    if (!exists(path)) {
        path = "/sandbox/loop" + std::to_string(number);
        (void)mknod(path.c_str(), S_IFBLK | 0600, makedev(7, static_cast<unsigned>(number))); // opening tells
    }
    return path;
}

bool configureLoop(int loop, int image) {
    loop_config config = {};
    config.fd = static_cast<unsigned>(image);
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    if (ioctl(loop, LOOP_CONFIGURE, &config) == 0) {
        return true;
    }
    if (errno != EINVAL && errno != ENOTTY) {
        return false;
    }
    // Kernels before 5.8 know the two steps only.
    if (ioctl(loop, LOOP_SET_FD, image) != 0) {
        return false;
    }
    if (ioctl(loop, LOOP_SET_STATUS64, &config.info) == 0) {
        return true;
    }
    const int error = errno;
    (void)ioctl(loop, LOOP_CLR_FD, 0);
    errno = error;
    return false;
}

// Other tests take loop devices at the same time: the one found free may be taken when it is asked for.
std::pair<Descriptor, std::string> attachLoop(int image, std::string &node) {
    const Descriptor control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    if (!control.valid()) {
        return {Descriptor(-1), because("no loop devices (/dev/loop-control)")};
    }
    for (int attempt = 0; attempt < 2000; ++attempt) {
        const int number = ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number >= 0) {
            node = loopNode(number);
            Descriptor loop(open(node.c_str(), O_RDWR | O_CLOEXEC));
            if (loop.valid() && configureLoop(loop.get(), image)) {
                return {std::move(loop), ""};
            }
        }
        const bool transient = errno == EBUSY || errno == EAGAIN || errno == ENXIO || errno == EINTR;
        if (!transient) {
            break;
        }
        usleep(2000);
    }
    return {Descriptor(-1), because("no loop device")};
}

std::string mountImage(const std::string &imagePath, const std::string &mountPoint, const std::string &type) {
    const Descriptor image(open(imagePath.c_str(), O_RDWR | O_CLOEXEC));
    (void)unlink(imagePath.c_str()); // from here on only the loop device holds it
    if (!image.valid()) {
        return because("no image for a volume");
    }
    std::string node;
    const auto loop = attachLoop(image.get(), node);
    if (!loop.first.valid()) {
        return loop.second;
    }
    if (mkdir(mountPoint.c_str(), 0755) != 0) {
        return because("no directory " + mountPoint);
    }
    if (mount(node.c_str(), mountPoint.c_str(), type.c_str(), 0, nullptr) != 0) {
        const std::string failure = because("no mount of " + type + " at " + mountPoint);
        (void)rmdir(mountPoint.c_str());
        return failure;
    }
    return "";
}

} // namespace

std::string Sandbox::mountVolume(const std::string &mountPoint, const std::string &type, unsigned sizeMiB) {
    if (kind() == Kind::none) {
        return reason();
    }
    if (kind() != Kind::root) {
        return "a real volume needs root";
    }
    if (!knowsFileSystem(type)) {
        (void)runProcess({"modprobe", type}); // a machine may load it on demand only
        if (!knowsFileSystem(type)) {
            return "the kernel has no " + type;
        }
    }
    const std::string imagePath = "/sandbox" + mountPoint + ".img";
    (void)unlink(imagePath.c_str()); // left by a mount that failed
    const std::string failure = makeImage(imagePath, type, sizeMiB);
    return failure.empty() ? mountImage(imagePath, mountPoint, type) : failure;
}

std::string Sandbox::useSimulatedTool() {
    if (!exists(SHARESNAP_BTRFS_TOOL)) {
        return std::string("not built: ") + SHARESNAP_BTRFS_TOOL;
    }
    return mount(SHARESNAP_SIMULATED_TOOL, SHARESNAP_BTRFS_TOOL, "none", MS_BIND, nullptr) == 0
               ? ""
               : because("no simulated tool");
}

std::string Sandbox::mountSimulatedVolume(const std::string &mountPoint) {
    if (kind() == Kind::none) {
        return reason();
    }
    if (mkdir(mountPoint.c_str(), 0755) != 0) {
        return because("no directory " + mountPoint);
    }
    if (mount("sandbox", mountPoint.c_str(), "tmpfs", 0, "mode=0755") != 0) {
        return because("no tmpfs at " + mountPoint);
    }
    if (setxattr(mountPoint.c_str(), "user.probe", "1", 1, 0) != 0) {
        return because("a tmpfs of this kernel keeps no user attributes");
    }
    return removexattr(mountPoint.c_str(), "user.probe") == 0 ? "" : because("no user attributes");
}

} // namespace testkit
