// What an operation left behind.
#include "faults.hpp"
#include "files.hpp"
#include "process.hpp"

#include <sharesnap/platform/file_lock.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testkit {
namespace {

constexpr const char *lockDirectory = "/run/lock/sharesnap";

std::vector<std::string> openDescriptors() {
    std::vector<std::string> all;
    for (const std::string &number : directoryNames("/proc/self/fd")) {
        const std::string target = readLink("/proc/self/fd/" + number);
        // The descriptor of the reading itself is closed by now.
        if (!target.empty()) {
            all.push_back("descriptor " + number + ": " + target);
        }
    }
    return all;
}

// Children, the dead that nobody has waited for among them.
std::vector<std::string> children() {
    std::vector<std::string> all;
    const std::string own = std::to_string(getpid());
    for (const std::string &number : directoryNames("/proc")) {
        if (number.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        const std::string stat = readFile("/proc/" + number + "/stat");
        const size_t name = stat.find('(');
        const size_t end = stat.rfind(") ");
        if (end == std::string::npos || name == std::string::npos) {
            continue; // gone meanwhile
        }
        // After the name: state, parent.
        const std::string parent = stat.substr(end + 4, stat.find(' ', end + 4) - end - 4);
        if (parent == own) {
            all.push_back("child " + number + ": " + stat.substr(name, end + 1 - name) + " " + stat.substr(end + 2, 1));
        }
    }
    return all;
}

void filesBelow(const std::string &directory, std::vector<std::string> &all) {
    for (const std::string &name : directoryNames(directory)) {
        const std::string path = directory + "/" + name;
        struct stat st = {};
        if (lstat(path.c_str(), &st) != 0) {
            continue;
        }
        all.push_back("file " + path);
        if (S_ISDIR(st.st_mode)) {
            filesBelow(path, all);
        }
    }
}

// A child that holds nothing tries the locks: it gets those that nobody holds, and tells the numbers of the others.
void tellHeldLocks(const std::vector<std::string> &paths, int pipeEnd) {
    QLIBCFileCloseLock();
    for (size_t i = 0; i < paths.size(); ++i) {
        int fd = -1;
        if (QLIBCFileLockTimeByFile(paths[i].c_str(), 1, 0, &fd) == 0 && write(pipeEnd, &i, sizeof(i)) != sizeof(i)) {
            _exit(1);
        }
    }
    _exit(0);
}

std::vector<std::string> heldAmong(const std::vector<std::string> &paths) {
    std::vector<std::string> held;
    int ends[2];
    if (paths.empty() || pipe2(ends, O_CLOEXEC) != 0) {
        return paths; // what can't be tried counts as held
    }
    const pid_t pid = fork();
    if (pid == 0) {
        tellHeldLocks(paths, ends[1]);
    }
    (void)close(ends[1]);
    size_t number = 0;
    while (pid > 0 && read(ends[0], &number, sizeof(number)) == sizeof(number)) {
        held.push_back(paths[number]);
    }
    (void)close(ends[0]);
    const int status = pid > 0 ? waitForChild(pid) : -1;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? held : paths;
}

std::vector<std::string> heldLocks() {
    std::vector<std::string> files;
    filesBelow(lockDirectory, files);
    std::vector<std::string> paths;
    for (const std::string &file : files) {
        const std::string path = file.substr(std::string("file ").size());
        if (!isDirectory(path)) {
            paths.push_back(path);
        }
    }
    std::vector<std::string> held = heldAmong(paths);
    for (std::string &path : held) {
        path.insert(0, "lock ");
    }
    return held;
}

void addNew(std::string &text, const std::vector<std::string> &before, const std::vector<std::string> &now) {
    for (const std::string &thing : now) {
        if (std::find(before.begin(), before.end(), thing) == before.end()) {
            text += "left over: " + thing + "\n";
        }
    }
}

std::vector<std::string> allFiles(const std::vector<std::string> &directories) {
    std::vector<std::string> files;
    for (const std::string &directory : directories) {
        filesBelow(directory, files);
    }
    return files;
}

} // namespace

Leftovers::Leftovers(std::vector<std::string> directories)
    : directories_(std::move(directories)), descriptors_(openDescriptors()), children_(children()),
      files_(allFiles(directories_)), locks_(heldLocks()) {}

std::string Leftovers::compare() const {
    std::string text;
    addNew(text, descriptors_, openDescriptors());
    addNew(text, children_, children());
    addNew(text, files_, allFiles(directories_));
    addNew(text, locks_, heldLocks());
    return text;
}

} // namespace testkit
