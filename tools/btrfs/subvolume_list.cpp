/* The subvolumes of a volume. Their paths begin at the volume's top, the subvolume that is mounted, whatever lies above
   it in the file system; all that is known of them comes out of one search of the tree of trees. */
#include "btrfs/commands.h"

#include "common/btrfs_tree.h"
#include "common/descriptor.h"
#include "common/mount_table.h"

#include <cerrno>
#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <endian.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <map>
#include <optional>
#include <utility>

using namespace QovaPlatform;

namespace BtrfsTool {

namespace {

/* Readers take a line in pieces of 1023 bytes: a longer one would come to them as two, the second of them a text of
   the choice of whoever made the subvolume. */
constexpr size_t LONGEST_LINE = 1023;

struct Subvolume {
    uint64_t ullGeneration = 0;
    uint64_t ullParent = 0; // the subvolume that it lies in, 0 for one that is deleted
    uint64_t ullDirectory = 0;
    std::string szName;
};

int Fail(const char *szWhat, const char *szPath) {
    (void)fprintf(stderr, "ERROR: %s '%s': %s\n", szWhat, szPath, strerror(errno));
    return 1;
}

/* Opens the mount point of the volume that holds the path. */
Descriptor OpenTop(const char *szPath) {
    std::string szTable;
    if (!MountTable::Read(szTable)) {
        return Descriptor();
    }
    const MountTable table(szTable);
    const Descriptor directory(open(szPath, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.IsOpen()) {
        return Descriptor();
    }
    const std::string szSelf = "/proc/self/fd/" + std::to_string(directory.Get());
    const Mount *pMount = table.Holding(szSelf.c_str());
    return Descriptor(pMount == nullptr ? -1 : open(pMount->szMountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

class Listing {
public:
    explicit Listing(int nFd) : m_nFd(nFd) {}

    [[nodiscard]] bool Read() {
        const BtrfsKey first = {BTRFS_FIRST_FREE_OBJECTID, BTRFS_ROOT_ITEM_KEY, 0};
        const BtrfsKey last = {BTRFS_LAST_FREE_OBJECTID, BTRFS_ROOT_BACKREF_KEY, UINT64_MAX};
        return BtrfsSubvolumeId(m_nFd, &m_ullTop) == 0 &&
               BtrfsTreeSearch(m_nFd, BTRFS_ROOT_TREE_OBJECTID, first, last,
                               [this](const BtrfsKey &key, const char *pItem, size_t cbItem) {
                                   Take(key, pItem, cbItem);
                                   return true;
                               }) == 0;
    }

    void Print() {
        for (const auto &[ullId, subvolume] : m_subvolumes) {
            const std::optional<std::string> szPath = subvolume.ullParent == 0 ? std::nullopt : PathOf(ullId);
            if (szPath.has_value() && !szPath->empty()) {
                PrintLine(ullId, subvolume, *szPath);
            }
        }
    }

private:
    void Take(const BtrfsKey &key, const char *pItem, size_t cbItem) {
        constexpr size_t GENERATION_AT = offsetof(btrfs_root_item, generation);
        if (key.uType == BTRFS_ROOT_ITEM_KEY && GENERATION_AT + sizeof(uint64_t) <= cbItem) {
            uint64_t ullGeneration = 0;
            memcpy(&ullGeneration, pItem + GENERATION_AT, sizeof(ullGeneration));
            m_subvolumes[key.ullObject].ullGeneration = le64toh(ullGeneration);
        }
        btrfs_root_ref ref;
        if (key.uType == BTRFS_ROOT_BACKREF_KEY && sizeof(ref) < cbItem) {
            memcpy(&ref, pItem, sizeof(ref));
            Subvolume &subvolume = m_subvolumes[key.ullObject];
            subvolume.ullParent = key.ullOffset;
            subvolume.ullDirectory = le64toh(ref.dirid);
            subvolume.szName.assign(pItem + sizeof(ref), cbItem - sizeof(ref));
        }
    }

    /* Path of a directory inside a subvolume, with a slash behind it; "" for the subvolume's top. */
    const std::optional<std::string> &DirectoryOf(uint64_t ullSubvolume, uint64_t ullInode) {
        const auto key = std::make_pair(ullSubvolume, ullInode);
        auto it = m_directories.find(key);
        if (it == m_directories.end()) {
            std::string szPath;
            std::optional<std::string> found = "";
            if (ullInode != BTRFS_FIRST_FREE_OBJECTID) {
                const bool blFound = BtrfsDirectoryPath(m_nFd, ullSubvolume, ullInode, szPath) == 0;
                found = blFound ? std::optional<std::string>(szPath + "/") : std::nullopt;
            }
            it = m_directories.emplace(key, std::move(found)).first;
        }
        return it->second;
    }

    /* Path from the top; "" for the top itself, nothing for a subvolume that isn't below it or has just gone. */
    std::optional<std::string> PathOf(uint64_t ullId) {
        std::string szPath;
        while (ullId != m_ullTop) {
            const auto it = m_subvolumes.find(ullId);
            if (it == m_subvolumes.end() || it->second.ullParent == 0 || LONGEST_LINE < szPath.size()) {
                return std::nullopt;
            }
            const Subvolume &subvolume = it->second;
            const std::optional<std::string> &szDirectory = DirectoryOf(subvolume.ullParent, subvolume.ullDirectory);
            if (!szDirectory.has_value()) {
                return std::nullopt;
            }
            szPath.insert(0, *szDirectory + subvolume.szName + (szPath.empty() ? "" : "/"));
            ullId = subvolume.ullParent;
        }
        return szPath;
    }

    static void PrintLine(uint64_t ullId, const Subvolume &subvolume, const std::string &szPath) {
        char szHead[128];
        const int cbHead =
            snprintf(szHead, sizeof(szHead), "ID %" PRIu64 " gen %" PRIu64 " top level %" PRIu64 " path ", ullId,
                     subvolume.ullGeneration, subvolume.ullParent);
        // A name may hold a line feed; a line can't, and who makes one of it makes a line of his own.
        if (static_cast<size_t>(cbHead) + szPath.size() + 1 <= LONGEST_LINE && szPath.find('\n') == std::string::npos) {
            (void)fputs(szHead, stdout);
            (void)fputs(szPath.c_str(), stdout);
            (void)fputc('\n', stdout);
        }
    }

    int m_nFd;
    uint64_t m_ullTop = 0;
    std::map<uint64_t, Subvolume> m_subvolumes;
    std::map<std::pair<uint64_t, uint64_t>, std::optional<std::string>> m_directories;
};

} // namespace

int ListSubvolumes(const char *szPath) {
    const Descriptor top = OpenTop(szPath);
    if (!top.IsOpen()) {
        return Fail("cannot access", szPath);
    }
    Listing listing(top.Get());
    if (!listing.Read()) {
        return Fail("cannot list the subvolumes of", szPath);
    }
    listing.Print();
    (void)fputs("# end of list\n", stdout);
    if (fflush(stdout) != 0 || ferror(stdout) != 0) {
        return Fail("cannot write the list of", szPath);
    }
    return 0;
}

} // namespace BtrfsTool
