#include "common/program_directory.h"

#include <array>
#include <cerrno>
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

// Reasons for which there is nothing to be run here, other than one that may be gone at the next attempt.
bool isNoProgram(int reason) {
    return reason == ENOENT || reason == ENOTDIR || reason == ELOOP || reason == EACCES || reason == ENXIO;
}

// Something that is passed over has no open descriptor and no failure.
struct Opened {
    Descriptor file;
    int failure = 0;
};

Opened notOpened(int reason) {
    return {Descriptor(), isNoProgram(reason) ? 0 : reason};
}

// Opens one directory beneath another (or a base directory) and checks it.
Opened openDirectory(int above, const std::string &name, const std::string &path, Unsafe unsafe) {
    Descriptor directory(openat(above, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st = {};
    if (!directory.IsOpen() || fstat(directory.Get(), &st) != 0) {
        return notOpened(errno);
    }
    if (!belongsToRootAlone(st)) {
        tellUnsafe(path, unsafe);
        return {};
    }
    return {std::move(directory), 0};
}

Opened openChain(const std::string &base, const std::string &subdirectory, Unsafe unsafe) {
    std::string path = base;
    Opened directory = openDirectory(AT_FDCWD, base, path, unsafe);
    for (std::string_view rest = subdirectory; directory.file.IsOpen() && !rest.empty();) {
        const size_t end = rest.find('/');
        const std::string name(rest.substr(0, end));
        path += "/" + name;
        directory = openDirectory(directory.file.Get(), name, path, unsafe);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    }
    return directory;
}

Opened openProgram(int directory, const char *name, const std::string &path, Unsafe unsafe) {
    // A FIFO must not make us wait.
    Descriptor file(openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st = {};
    if (!file.IsOpen() || fstat(file.Get(), &st) != 0) {
        return notOpened(errno);
    }
    if (!S_ISREG(st.st_mode) || (st.st_mode & 0111) == 0) {
        return {};
    }
    if (!belongsToRootAlone(st)) {
        tellUnsafe(path, unsafe);
        return {};
    }
    return {std::move(file), 0};
}

using ProgramsByName = std::map<std::string, Program>;

// Adds the programs of one directory whose names aren't there yet. 0 or the reason of a failure.
int addPrograms(const std::string &base, const std::string &subdirectory, Unsafe unsafe, ProgramsByName *programs) {
    const Opened chain = openChain(base, subdirectory, unsafe);
    if (!chain.file.IsOpen()) {
        return chain.failure;
    }
    Descriptor copy(fcntl(chain.file.Get(), F_DUPFD_CLOEXEC, 3));
    const DirectoryOwner directory(copy.IsOpen() ? fdopendir(copy.Get()) : nullptr);
    if (directory == nullptr) {
        return errno;
    }
    (void)copy.Release(); // the stream has taken it over
    for (;;) {
        errno = 0;
        const dirent *entry = readdir(directory.get());
        if (entry == nullptr) {
            return errno; // 0 at the end
        }
        if (!isProgramName(entry->d_name) || programs->count(entry->d_name) != 0) {
            continue;
        }
        std::string path = base + "/" + subdirectory + "/" + entry->d_name;
        Opened program = openProgram(chain.file.Get(), entry->d_name, path, unsafe);
        if (program.failure != 0) {
            return program.failure;
        }
        programs->emplace(entry->d_name, Program{std::move(path), std::move(program.file)});
    }
}

} // namespace

bool isProgramName(const char *name) {
    const std::string_view text(name);
    return !text.empty() &&
           text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-") ==
               std::string_view::npos;
}

bool openPrograms(const std::string &subdirectory, Unsafe unsafe, std::vector<Program> *programs) {
    ProgramsByName byName;
    int failure = 0;
    for (const char *base : baseDirectories) {
        const int reason = addPrograms(base, subdirectory, unsafe, &byName);
        failure = failure == 0 ? reason : failure;
    }
    for (auto &item : byName) {
        if (item.second.file.IsOpen()) {
            programs->push_back(std::move(item.second));
        }
    }
    errno = failure;
    return failure == 0;
}

} // namespace QovaPlatform
