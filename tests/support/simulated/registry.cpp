#include "registry.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <linux/magic.h>
#include <sstream>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/statfs.h>
#include <unistd.h>

namespace simulated {
namespace {

constexpr const char *directory = "/run/simulated";

bool makeRegistry() {
    return mkdir(directory, 0755) == 0 || errno == EEXIST;
}

std::string newUuid() {
    std::array<unsigned char, 16> bytes = {};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        return "";
    }
    std::string text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        std::array<char, 3> hex;
        std::snprintf(hex.data(), hex.size(), "%02x", bytes[i]);
        text += (i == 4 || i == 6 || i == 8 || i == 10) ? "-" : "";
        text += hex.data();
    }
    return text;
}

// The next number, from a file under a lock. 0 on failure.
unsigned long newId() {
    const int fd = open((std::string(directory) + "/next").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 || flock(fd, LOCK_EX) != 0) {
        return 0;
    }
    unsigned long id = 0;
    if (read(fd, &id, sizeof(id)) != static_cast<ssize_t>(sizeof(id))) {
        id = 256;
    }
    const unsigned long next = id + 1;
    const bool kept = pwrite(fd, &next, sizeof(next), 0) == static_cast<ssize_t>(sizeof(next));
    close(fd);
    return kept ? id : 0;
}

} // namespace

std::string fileOf(const struct stat &st, const std::string &purpose) {
    return std::string(directory) + "/" + purpose + "-" + std::to_string(st.st_dev) + "-" + std::to_string(st.st_ino);
}

std::optional<Facts> factsOf(const std::string &path) {
    struct stat st = {};
    if (lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        return std::nullopt;
    }
    std::ifstream in(fileOf(st, "subvolume"));
    Facts facts;
    std::string parent;
    if (!(in >> facts.id >> facts.uuid >> parent >> facts.created >> facts.readOnly >> facts.hidden)) {
        return std::nullopt;
    }
    facts.parentUuid = parent == "-" ? "" : parent;
    return facts;
}

bool keepFacts(const std::string &path, const Facts &facts) {
    struct stat st = {};
    if (lstat(path.c_str(), &st) != 0 || !makeRegistry()) {
        return false;
    }
    // Whole or not at all: others read it at any time.
    const std::string file = fileOf(st, "subvolume");
    const std::string aside = file + "." + std::to_string(getpid());
    std::ofstream out(aside);
    out << facts.id << ' ' << facts.uuid << ' ' << (facts.parentUuid.empty() ? "-" : facts.parentUuid) << ' '
        << facts.created << ' ' << facts.readOnly << ' ' << facts.hidden << '\n';
    out.close();
    return out && rename(aside.c_str(), file.c_str()) == 0;
}

std::optional<Facts> newFacts() {
    Facts facts;
    if (!makeRegistry()) {
        return std::nullopt;
    }
    facts.id = newId();
    facts.uuid = newUuid();
    facts.created = time(nullptr);
    if (facts.id == 0 || facts.uuid.empty()) {
        return std::nullopt;
    }
    return facts;
}

void forgetFacts(const struct stat &st) {
    (void)unlink(fileOf(st, "subvolume").c_str()); // one that wasn't a subvolume has none
}

std::vector<Mount> mountsAtDepthOne() {
    std::ifstream table("/proc/self/mounts");
    std::vector<Mount> mounts;
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        Mount mount;
        fields >> mount.source >> mount.point >> mount.type;
        if (mount.point.size() < 2 || mount.point.find('/', 1) != std::string::npos) {
            continue;
        }
        mounts.erase(std::remove_if(mounts.begin(), mounts.end(),
                                    [&mount](const Mount &other) { return other.point == mount.point; }),
                     mounts.end());
        mounts.push_back(mount);
    }
    return mounts;
}

bool isSimulatedVolume(const Mount &mount) {
    return mount.type == "tmpfs" && mount.point.compare(0, 4, "/vol") == 0;
}

bool isOnSimulatedVolume(const std::string &path) {
    struct statfs fs = {};
    const bool below = path.compare(0, 4, "/vol") == 0;
    return below && statfs(path.c_str(), &fs) == 0 && fs.f_type == TMPFS_MAGIC;
}

} // namespace simulated
