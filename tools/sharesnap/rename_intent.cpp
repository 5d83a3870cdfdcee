#include "rename_intent.h"

#include "failure.h"
#include "handles.h"
#include "text.h"

#include <sharesnap/platform/error.h>
#include <sharesnap/platform/file.h>
#include <sharesnap/platform/section_file.h>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace command {
namespace {

// Beside the database of shares: both outlive a reboot.
constexpr char directory[] = "/etc/sharesnap/renames";
constexpr char section[] = "rename";

Failure failure(const std::string &what, const std::string &path) {
    return {exitFailed, what + " " + printable(path) + ": " + std::strerror(errno),
            "see to the directory " + std::string(directory)};
}

void syncDirectory(const std::string &path) {
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 || fsync(fd) != 0) {
        const Failure broken = failure("can't write", path);
        if (fd >= 0) {
            (void)close(fd); // opened for reading
        }
        throw broken;
    }
    (void)close(fd); // opened for reading
}

// As it stands: a note that wasn't written whole has empty texts, and so has one that is gone by now.
RenameIntent noteIn(const std::string &path) {
    Hash pairs = newHash();
    errno = 0;
    if (QLIBCFileGetSection(path.c_str(), section, pairs.address()) < 0 && QLIBCFileExist(path.c_str()) != 0) {
        throw failure("can't read the note of a rename in", path);
    }
    const auto value = [&](const char *key) {
        const char *text = QLIBCSzHashGetValue(pairs.get(), key);
        return std::string(text == nullptr ? "" : text);
    };
    return {value("old_name"), value("new_name"), value("old_path"), value("new_path")};
}

void makeDirectory(const std::string &path) {
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
        throw failure("can't make", path);
    }
}

} // namespace

std::string intentPath(const std::string &oldName) {
    return std::string(directory) + "/" + oldName;
}

void writeIntent(const RenameIntent &intent) {
    makeDirectory("/etc/sharesnap");
    makeDirectory(directory);
    Hash pairs = newHash();
    setValue(pairs, "old_name", intent.oldName);
    setValue(pairs, "new_name", intent.newName);
    setValue(pairs, "old_path", intent.oldPath);
    setValue(pairs, "new_path", intent.newPath);
    const std::string path = intentPath(intent.oldName);
    errno = 0;
    if (QLIBCFileTouch(path.c_str()) < 0 || QLIBCFileAddSection(path.c_str(), section, pairs.get(), nullptr) != 1) {
        throw failure("can't note the rename in", path);
    }
    syncDirectory(directory);
}

std::optional<RenameIntent> readIntent(const std::string &oldName) {
    const std::string path = intentPath(oldName);
    if (QLIBCFileExist(path.c_str()) == 0) {
        return std::nullopt;
    }
    const RenameIntent intent = noteIn(path);
    if (intent.oldName != oldName || intent.newName.empty() || intent.oldPath.empty() || intent.newPath.empty()) {
        // The note wasn't written whole: nothing had begun. Somebody else may be removing it, too.
        if (unlink(path.c_str()) != 0 && errno != ENOENT) {
            throw failure("can't remove", path);
        }
        return std::nullopt;
    }
    return intent;
}

void removeIntent(const RenameIntent &intent) {
    const std::string path = intentPath(intent.oldName);
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        throw failure("can't remove the note of the finished rename", path);
    }
    syncDirectory(directory);
}

std::set<std::string> namesUnderRename() {
    std::set<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR *)> opened(opendir(directory), closedir);
    if (!opened && errno != ENOENT) {
        throw failure("can't read", directory);
    }
    errno = 0;
    while (const dirent *entry = opened ? readdir(opened.get()) : nullptr) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.insert(name);
            names.insert(noteIn(intentPath(name)).newName); // or an empty one, which is nobody's
        }
        errno = 0;
    }
    if (opened && errno != 0) {
        throw failure("can't read", directory);
    }
    return names;
}

} // namespace command
