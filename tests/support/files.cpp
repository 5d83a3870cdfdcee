#include "files.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace testkit {

bool isDirectory(const std::string &path) {
    struct stat st = {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool exists(const std::string &path) {
    struct stat st = {};
    return lstat(path.c_str(), &st) == 0;
}

bool writeFile(const std::string &path, const std::string &text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    size_t done = 0;
    bool ok = true;
    while (ok && done < text.size()) {
        const ssize_t count = write(fd, text.data() + done, text.size() - done);
        ok = count > 0 || (count < 0 && errno == EINTR);
        done += count > 0 ? static_cast<size_t>(count) : 0;
    }
    const int error = errno;
    ok = (close(fd) == 0) && ok;
    errno = error;
    return ok;
}

std::string readFile(const std::string &path) {
    std::string text;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return text;
    }
    std::array<char, 65536> buffer;
    ssize_t count = 0;
    while ((count = read(fd, buffer.data(), buffer.size())) > 0) {
        text.append(buffer.data(), static_cast<size_t>(count));
    }
    close(fd);
    return text;
}

std::string readLink(const std::string &path) {
    std::array<char, PATH_MAX> buffer;
    const ssize_t length = readlink(path.c_str(), buffer.data(), buffer.size());
    return length < 0 ? std::string() : std::string(buffer.data(), static_cast<size_t>(length));
}

std::string currentDirectory() {
    std::array<char, PATH_MAX> buffer;
    return getcwd(buffer.data(), buffer.size()) == nullptr ? std::string("/") : std::string(buffer.data());
}

std::vector<std::string> directoryNames(const std::string &path) {
    std::vector<std::string> names;
    DIR *dir = opendir(path.c_str());
    if (dir == nullptr) {
        return names;
    }
    while (const dirent *entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

bool makeDirectories(const std::string &path) {
    for (size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
        if (mkdir(path.substr(0, end).c_str(), 0755) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return mkdir(path.c_str(), 0755) == 0 || (errno == EEXIST && isDirectory(path));
}

} // namespace testkit
