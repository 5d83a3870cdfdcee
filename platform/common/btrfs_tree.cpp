#include "common/btrfs_tree.h"

#include <cerrno>
#include <cstring>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <memory>
#include <sys/ioctl.h>

namespace QovaPlatform {

namespace {

constexpr size_t SEARCH_BUFFER_SIZE = 256 * 1024;

struct SearchBuffer {
    btrfs_ioctl_search_key key;
    uint64_t ullSize;
    char rgItem[SEARCH_BUFFER_SIZE];
};
static_assert(offsetof(SearchBuffer, ullSize) == offsetof(btrfs_ioctl_search_args_v2, buf_size));
static_assert(offsetof(SearchBuffer, rgItem) == sizeof(btrfs_ioctl_search_args_v2));

/* The kernel goes by whole keys: the next search begins right behind the last item. False at the end of all keys. */
bool StepBehind(const BtrfsKey &key, btrfs_ioctl_search_key &search) {
    search.min_objectid = key.ullObject;
    search.min_type = key.uType;
    search.min_offset = key.ullOffset + 1;
    if (search.min_offset == 0 && ++search.min_type > 255) {
        search.min_type = 0;
        return ++search.min_objectid != 0;
    }
    return true;
}

} // namespace

int BtrfsTreeSearch(int nFd, uint64_t ullTree, const BtrfsKey &first, const BtrfsKey &last,
                    const std::function<bool(const BtrfsKey &, const char *, size_t)> &onItem) {
    const std::unique_ptr<SearchBuffer> buffer(new SearchBuffer);
    buffer->key = {};
    buffer->key.tree_id = ullTree;
    buffer->key.min_objectid = first.ullObject;
    buffer->key.min_type = first.uType;
    buffer->key.min_offset = first.ullOffset;
    buffer->key.max_objectid = last.ullObject;
    buffer->key.max_type = last.uType;
    buffer->key.max_offset = last.ullOffset;
    buffer->key.max_transid = UINT64_MAX;
    for (;;) {
        buffer->key.nr_items = UINT32_MAX;
        buffer->ullSize = SEARCH_BUFFER_SIZE;
        if (ioctl(nFd, BTRFS_IOC_TREE_SEARCH_V2, buffer.get()) != 0) {
            return -1;
        }
        if (buffer->key.nr_items == 0) {
            return 0;
        }
        const char *pNext = buffer->rgItem;
        BtrfsKey key;
        for (uint32_t i = 0; i < buffer->key.nr_items; ++i) {
            btrfs_ioctl_search_header header;
            memcpy(&header, pNext, sizeof(header));
            key = {header.objectid, header.type, header.offset};
            if (!onItem(key, pNext + sizeof(header), header.len)) {
                return 0;
            }
            pNext += sizeof(header) + header.len;
        }
        if (!StepBehind(key, buffer->key)) {
            return 0;
        }
    }
}

int BtrfsSubvolumeId(int nFd, uint64_t *pullId) {
    btrfs_ioctl_ino_lookup_args args = {};
    args.objectid = BTRFS_FIRST_FREE_OBJECTID;
    if (ioctl(nFd, BTRFS_IOC_INO_LOOKUP, &args) != 0) {
        return -1;
    }
    *pullId = args.treeid;
    return 0;
}

int BtrfsDirectoryPath(int nFd, uint64_t ullSubvolume, uint64_t ullInode, std::string &szPath) {
    btrfs_ioctl_ino_lookup_args args = {};
    args.treeid = ullSubvolume;
    args.objectid = ullInode;
    if (ioctl(nFd, BTRFS_IOC_INO_LOOKUP, &args) != 0) {
        return -1;
    }
    szPath.assign(args.name, strnlen(args.name, sizeof(args.name)));
    while (!szPath.empty() && szPath.back() == '/') {
        szPath.pop_back();
    }
    return 0;
}

} // namespace QovaPlatform
