#include "common/program_directory.h"

#include <array>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <syslog.h>

namespace QovaPlatform {
namespace {

constexpr std::array<const char *, 2> baseDirectories = {"/etc/sharesnap", "/usr/lib/sharesnap"};

struct DirectoryClose {
    void operator()(DIR *directory) const { (void)closedir(directory); } // only read
};
using DirectoryOwner = std::unique_ptr<DIR, DirectoryClose>;

bool belongsToRootAlone(const struct stat &st) {
    return st.st_uid == 0 && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

void tellUnsafe(const std::string &path, Unsafe unsafe) {
    if (unsafe == Unsafe::log) {
        syslog(LOG_WARNING, "%s:%d Not run, since others than root could change it: %s", __FILE_NAME__, __LINE__,
               path.c_str());
    }
}

// Opens one directory beneath another (or a base directory) and checks it.
Descriptor openDirectory(int above, const std::string &name, const std::string &path, Unsafe unsafe) {
    Descriptor directory(openat(above, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st = {};
    if (!directory.IsOpen() || fstat(directory.Get(), &st) != 0) {
        return Descriptor();
    }
    if (!belongsToRootAlone(st)) {
        tellUnsafe(path, unsafe);
        return Descriptor();
    }
    return directory;
}

Descriptor openChain(const std::string &base, const std::string &subdirectory, Unsafe unsafe) {
    std::string path = base;
    Descriptor directory = openDirectory(AT_FDCWD, base, path, unsafe);
    for (std::string_view rest = subdirectory; directory.IsOpen() && !rest.empty();) {
        const size_t end = rest.find('/');
        const std::string name(rest.substr(0, end));
        path += "/" + name;
        directory = openDirectory(directory.Get(), name, path, unsafe);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    }
    return directory;
}

Descriptor openProgram(int directory, const char *name, const std::string &path, Unsafe unsafe) {
    // A FIFO must not make us wait.
    Descriptor file(openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st = {};
    if (!file.IsOpen() || fstat(file.Get(), &st) != 0 || !S_ISREG(st.st_mode) || (st.st_mode & 0111) == 0) {
        return Descriptor();
    }
    if (!belongsToRootAlone(st)) {
        tellUnsafe(path, unsafe);
        return Descriptor();
    }
    return file;
}

} // namespace

bool isProgramName(const char *name) {
    const std::string_view text(name);
    return !text.empty() &&
           text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-") ==
               std::string_view::npos;
}

std::vector<Program> openPrograms(const std::string &subdirectory, Unsafe unsafe) {
    std::map<std::string, Program> byName;
    for (const char *base : baseDirectories) {
        Descriptor chain = openChain(base, subdirectory, unsafe);
        if (!chain.IsOpen()) {
            continue;
        }
        const int copy = fcntl(chain.Get(), F_DUPFD_CLOEXEC, 3); // fdopendir takes it over
        const DirectoryOwner directory(copy < 0 ? nullptr : fdopendir(copy));
        if (directory == nullptr) {
            const Descriptor unused(copy);
            continue;
        }
        while (const dirent *entry = readdir(directory.get())) {
            if (isProgramName(entry->d_name) && byName.count(entry->d_name) == 0) {
                std::string path = std::string(base) + "/" + subdirectory + "/" + entry->d_name;
                Descriptor file = openProgram(chain.Get(), entry->d_name, path, unsafe);
                byName.emplace(entry->d_name, Program{std::move(path), std::move(file)});
            }
        }
    }
    std::vector<Program> programs;
    for (auto &item : byName) {
        if (item.second.file.IsOpen()) {
            programs.push_back(std::move(item.second));
        }
    }
    return programs;
}

} // namespace QovaPlatform
