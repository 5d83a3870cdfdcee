// Stopping the command in the middle: a test holds a lock and waits until the command has come to it.
#pragma once

#include "command.hpp"

#include <chrono>
#include <future>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "support/lock_holder.hpp"

namespace commandtest {

// True when another process than that one has the file open.
inline bool isOpenElsewhere(const std::string &path, pid_t but) {
    struct stat wanted = {};
    if (stat(path.c_str(), &wanted) != 0) {
        return false;
    }
    for (const std::string &process : testkit::directoryNames("/proc")) {
        if (process.find_first_not_of("0123456789") != std::string::npos || process == std::to_string(but)) {
            continue;
        }
        const std::string directory = "/proc/" + process + "/fd";
        for (const std::string &fd : testkit::directoryNames(directory)) {
            struct stat status = {};
            if (stat((directory + "/" + fd).c_str(), &status) == 0 && status.st_dev == wanted.st_dev &&
                status.st_ino == wanted.st_ino) {
                return true;
            }
        }
    }
    return false;
}

using Running = std::future<testkit::ProcessResult>;

inline Running begin(const Arguments &arguments) {
    return std::async(std::launch::async, [arguments] { return sharesnap(arguments); });
}

// False when the command ended before it came to the lock.
inline bool comesToWait(const Running &running, const testkit::LockHolder &holder, const std::string &lock) {
    while (running.wait_for(std::chrono::milliseconds(2)) == std::future_status::timeout) {
        if (isOpenElsewhere(lock, holder.pid())) {
            return true;
        }
    }
    return false;
}

inline std::string listLock(const std::string &share) {
    return "/run/lock/sharesnap/sharesnap_meta_lock/" + share + ".lock";
}

inline std::string treeLock(const std::string &volume) {
    return "/run/lock/sharesnap/snaptree_lock/" + volume + ".lock";
}

} // namespace commandtest
