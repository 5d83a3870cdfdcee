// Making the namespace and what stands in it; volumes are made in sandbox_volume.cpp.
#include "sandbox.hpp"

#include "files.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace testkit {
namespace {

// On the new root, so that it needs no mount of its own. Its presence tells a sandbox within a sandbox.
constexpr const char *privateDir = "/sandbox";

// A tmpfs each.
constexpr const char *ownPaths[] = {"/run", "/usr/qova", "/etc.defaults", "/etc/sharesnap", "/usr/lib/sharesnap"};

Sandbox::Kind currentKind = Sandbox::Kind::none;
std::string noSandboxReason = "the sandbox was not entered";
std::string startDirectory;

// The first step that fails names itself; the later ones are not tried.
class Steps {
public:
    Steps &operator()(const char *what, bool done) {
        if (!done && failure_.empty()) {
            failure_ = std::string(what) + ": " + std::strerror(errno);
        }
        return *this;
    }
    [[nodiscard]] bool ok() const { return failure_.empty(); }
    [[nodiscard]] const std::string &failure() const { return failure_; }

private:
    std::string failure_;
};

bool makeDirectory(const std::string &path, mode_t mode) {
    return mkdir(path.c_str(), mode) == 0 || (errno == EEXIST && isDirectory(path));
}

bool mountAt(const char *source, const std::string &target, const char *type, unsigned long flags,
             const std::string &options = "") {
    return mount(source, target.c_str(), type, flags, options.c_str()) == 0;
}

int pivotRoot(const char *newRoot, const char *putOld) {
    return static_cast<int>(syscall(SYS_pivot_root, newRoot, putOld));
}

bool enterUserNamespace() {
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return false;
    }
    return writeFile("/proc/self/setgroups", "deny") &&
           writeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1\n") &&
           writeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1\n");
}

// Root of a user namespace can mount what needs no device only, as can root of many containers.
bool isRootOfTheMachine() {
    std::istringstream map(readFile("/proc/self/uid_map"));
    unsigned long inside = 1;
    unsigned long outside = 1;
    unsigned long count = 0;
    map >> inside >> outside >> count;
    return geteuid() == 0 && inside == 0 && outside == 0 && count == 0xFFFFFFFFUL;
}

// The namespace alone. Root without the right to make one (a container) may still have user namespaces.
Sandbox::Kind unshareMounts(Steps &step) {
    const bool machine = isRootOfTheMachine();
    if (geteuid() == 0 && unshare(CLONE_NEWNS) == 0) {
        return machine ? Sandbox::Kind::root : Sandbox::Kind::userNamespace;
    }
    step("no mount namespace", enterUserNamespace());
    return Sandbox::Kind::userNamespace;
}

// A directory of the machine with a layer above it that takes the writes. The missing mount points are made in the
// layer beforehand: in a user namespace nobody may write into what the machine's root owns.
bool mountWithLayer(const std::string &lower, const std::string &name, bool userNamespace) {
    const std::string upper = std::string("newroot") + privateDir + "/" + name + ".upper";
    const std::string work = std::string("newroot") + privateDir + "/" + name + ".work";
    std::string options = "lowerdir=" + lower + ",upperdir=" + upper + ",workdir=" + work;
    options += userNamespace ? ",userxattr" : "";
    bool made = makeDirectory(upper, 0755) && makeDirectory(work, 0755);
    for (const char *path : ownPaths) {
        const std::string within = "/" + name + "/";
        if (std::string(path).compare(0, within.size(), within) == 0) {
            made = made && makeDirectories(upper + "/" + (path + within.size()));
        }
    }
    return made && mountAt("sandbox", "newroot/" + name, "overlay", 0, options);
}

bool isLayered(const std::string &name, bool nested) {
    return !nested && (name == "usr" || name == "etc");
}

// One entry of the old root: a link stays a link, a directory is mounted again with all that is mounted in it.
void carryOver(Steps &step, const std::string &name, bool nested, bool userNamespace) {
    const std::string from = "oldroot/" + name;
    const std::string to = "newroot/" + name;
    struct stat st = {};
    if (lstat(from.c_str(), &st) != 0) {
        return;
    }
    if (S_ISLNK(st.st_mode)) {
        step("link on the new root", symlink(readLink(from).c_str(), to.c_str()) == 0);
        return;
    }
    if (!S_ISDIR(st.st_mode)) {
        return;
    }
    step("directory on the new root", makeDirectory(to, 0755));
    if (isLayered(name, nested) && mountWithLayer(from, name, userNamespace)) {
        return;
    }
    step(("mount of /" + name).c_str(), mountAt(from.c_str(), to, "none", MS_BIND | MS_REC));
}

bool belongsToSandbox(const std::string &name) {
    return name == "run" || name == "etc.defaults" || name == "sandbox" || name.compare(0, 3, "vol") == 0;
}

void carryOverAll(Steps &step, bool userNamespace) {
    DIR *dir = opendir("oldroot");
    step("reading the root directory", dir != nullptr);
    if (dir == nullptr) {
        return;
    }
    const bool nested = isDirectory(std::string("oldroot") + privateDir);
    while (const dirent *entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && !belongsToSandbox(name)) {
            carryOver(step, name, nested, userNamespace);
        }
    }
    closedir(dir);
}

// The new root is built on a tmpfs that covers /tmp for a moment, with the old root moved beneath it.
void changeRoot(Steps &step, bool userNamespace) {
    step("making mounts private", mountAt("none", "/", "none", MS_REC | MS_PRIVATE));
    step("tmpfs on /tmp", step.ok() && mountAt("sandbox", "/tmp", "tmpfs", 0, "mode=0755"));
    step("workshop",
         step.ok() && chdir("/tmp") == 0 && makeDirectory("oldroot", 0755) && makeDirectory("newroot", 0755));
    step("tmpfs for the new root", step.ok() && mountAt("sandbox", "newroot", "tmpfs", 0, "mode=0755"));
    step("moving the old root", step.ok() && pivotRoot(".", "oldroot") == 0 && chdir("/") == 0);
    if (!step.ok()) {
        return;
    }
    step("private directory", makeDirectory(std::string("newroot") + privateDir, 0755));
    carryOverAll(step, userNamespace);
    step("changing the root", step.ok() && chdir("newroot") == 0 && pivotRoot(".", ".") == 0);
    step("letting the old root go", step.ok() && umount2(".", MNT_DETACH) == 0 && chdir("/") == 0);
}

void makeMountPoints(Steps &step) {
    for (const char *path : ownPaths) {
        step(path, makeDirectory(path, 0755));
    }
    step("scratch", makeDirectory(Sandbox::scratch(), 0755));
}

// Everything mounted there, however often; what is still open in it lives until it is closed.
void detach(const std::string &path) {
    while (umount2(path.c_str(), MNT_DETACH) == 0) {}
}

bool makeFresh(const std::string &path) {
    detach(path);
    return mountAt("sandbox", path, "tmpfs", MS_NOSUID, "mode=0755");
}

bool makeAllFresh() {
    bool done = makeFresh(Sandbox::scratch());
    for (const char *path : ownPaths) {
        done = done && makeFresh(path);
    }
    // The umask would take bits from /run/lock.
    done = done && makeDirectory("/run/lock", 0755) && chmod("/run/lock", S_ISVTX | 0777) == 0;
    return done && makeDirectory("/usr/qova/etc", 0755);
}

void dropVolumes() {
    for (int number = 1; number <= 9; ++number) {
        const std::string path = "/vol" + std::to_string(number);
        detach(path);
        (void)rmdir(path.c_str()); // it stands only if this test had mounted it
    }
}

} // namespace

bool Sandbox::enter() {
    startDirectory = currentDirectory();
    umask(022);
    Steps step;
    const Kind kind = unshareMounts(step);
    if (step.ok()) {
        changeRoot(step, kind == Kind::userNamespace);
    }
    if (step.ok()) {
        makeMountPoints(step);
    }
    step("fresh directories", step.ok() && makeAllFresh());
    if (!step.ok()) {
        noSandboxReason = "no sandbox: " + step.failure();
        return false;
    }
    (void)chdir(startDirectory.c_str()); // a directory under /run is gone: then the root will do
    noSandboxReason.clear();
    currentKind = kind;
    return true;
}

Sandbox::Kind Sandbox::kind() {
    return currentKind;
}

const std::string &Sandbox::reason() {
    return noSandboxReason;
}

bool Sandbox::simulated() {
    return dlsym(RTLD_DEFAULT, "QOVASimulatedStorageCore") != nullptr;
}

void Sandbox::reset() {
    if (currentKind == Kind::none) {
        return;
    }
    umask(022);
    (void)chdir("/"); // so that no volume is held by it
    dropVolumes();
    if (!makeAllFresh()) {
        std::perror("the sandbox can't be made fresh");
        std::abort();
    }
    (void)chdir(startDirectory.c_str());
}

bool Sandbox::unmountVolume(const std::string &mountPoint) {
    return umount2(mountPoint.c_str(), 0) == 0 && rmdir(mountPoint.c_str()) == 0;
}

const std::string &Sandbox::scratch() {
    static const std::string path = std::string(privateDir) + "/scratch";
    return path;
}

} // namespace testkit
