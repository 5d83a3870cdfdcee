// What answers for /sbin/btrfs on simulated volumes: "subvolume list PATH" and "send -es ... PATH".
#include "support/simulated/registry.hpp"

#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <map>
#include <string>
#include <sys/stat.h>

namespace {

using Subvolumes = std::map<unsigned long, std::string>; // path relative to the volume, by id

void collect(const std::string &top, const std::string &relative, Subvolumes &found) {
    const std::string path = relative.empty() ? top : top + "/" + relative;
    DIR *dir = opendir(path.c_str());
    if (dir == nullptr) {
        return;
    }
    while (const dirent *entry = readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0 || entry->d_type != DT_DIR) {
            continue;
        }
        const std::string child = relative.empty() ? entry->d_name : relative + "/" + entry->d_name;
        const auto facts = simulated::factsOf(top + "/" + child);
        if (facts) {
            found[facts->id] = child;
        }
        collect(top, child, found);
    }
    closedir(dir);
}

int list(const std::string &top) {
    if (!simulated::isOnSimulatedVolume(top)) {
        std::fprintf(stderr, "ERROR: not a simulated volume: %s\n", top.c_str());
        return 1;
    }
    Subvolumes found;
    collect(top, "", found);
    for (const auto &[id, path] : found) {
        std::printf("ID %lu gen 1 top level 5 path %s\n", id, path.c_str());
    }
    std::printf("# end of list\n");
    return std::fflush(stdout) == 0 ? 0 : 1;
}

long long sizeBelow(const std::string &path) {
    struct stat st = {};
    if (lstat(path.c_str(), &st) != 0) {
        return 0;
    }
    long long size = S_ISREG(st.st_mode) ? static_cast<long long>(st.st_size) : 0;
    DIR *dir = S_ISDIR(st.st_mode) ? opendir(path.c_str()) : nullptr;
    if (dir == nullptr) {
        return size;
    }
    while (const dirent *entry = readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            size += sizeBelow(path + "/" + entry->d_name);
        }
    }
    closedir(dir);
    return size;
}

} // namespace

int main(int argc, char **argv) {
    if (argc == 4 && std::strcmp(argv[1], "subvolume") == 0 && std::strcmp(argv[2], "list") == 0) {
        return list(argv[3]);
    }
    // What a stream would hold of the last snapshot named: the bytes of its files.
    if (argc >= 4 && std::strcmp(argv[1], "send") == 0 && std::strcmp(argv[2], "-es") == 0 &&
        simulated::factsOf(argv[argc - 1])) {
        std::printf("About:%lld\n", sizeBelow(argv[argc - 1]));
        return 0;
    }
    std::fprintf(stderr, "ERROR: not known on simulated volumes\n");
    return 1;
}
