/* Properties of a directory that new files in it inherit. */
#include <sharesnap/platform/volume.h>

#include "common/descriptor.h"
#include "common/failure.h"
#include "common/mount_table.h"

#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/xattr.h>

using namespace QovaPlatform;

namespace {

/* An encrypted share is seen through a FUSE mount that knows nothing of these properties: the directory that holds its
   data has them, and is the source of that mount. */
std::string DirectoryWithData(const char *szPath) {
    std::string szTable;
    if (MountTable::Read(szTable)) {
        const MountTable table(szTable); // what it gives lives as long as it does
        const Mount *pMount = table.ByMountPoint(PlainPath(szPath));
        if (pMount != nullptr && pMount->szType == "fuse.gocryptfs" && pMount->szSource[0] == '/') {
            return pMount->szSource;
        }
    }
    return szPath;
}

/* The inode flags of a directory; 0 of one whose file system has none. */
int InodeFlags(int nFd, unsigned int *puFlags) {
    int nFlags = 0; // the kernel writes an int, whatever the request's number says
    if (ioctl(nFd, FS_IOC_GETFLAGS, &nFlags) != 0) {
        if (errno != ENOTTY && errno != EOPNOTSUPP && errno != ENOSYS) {
            return -1;
        }
        nFlags = 0;
    }
    *puFlags = static_cast<unsigned int>(nFlags);
    return 0;
}

/* Opens the directory and reads its flags. The descriptor isn't open on failure, with code and errno. */
Descriptor OpenWithFlags(const char *szPath, unsigned int *puFlags) {
    Descriptor directory(
        open(DirectoryWithData(szPath).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!directory.IsOpen() || InodeFlags(directory.Get(), puFlags) != 0) {
        QOVA_FAIL_ERRNO();
        return Descriptor();
    }
    return directory;
}

} // namespace

int QLIBFSGetBTRFSNodatacow(const char *szPath) {
    if (szPath == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        unsigned int uFlags = 0;
        const Descriptor directory = OpenWithFlags(szPath, &uFlags);
        if (!directory.IsOpen()) {
            return -1;
        }
        return (uFlags & FS_NOCOW_FL) != 0 ? 1 : 0;
    });
}

int QLIBFSGetBTRFSCompression(const char *szPath) {
    if (szPath == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        unsigned int uFlags = 0;
        const Descriptor directory = OpenWithFlags(szPath, &uFlags);
        if (!directory.IsOpen()) {
            return -1;
        }
        if ((uFlags & FS_COMPR_FL) != 0) {
            return 1;
        }
        char szMethod[32] = "";
        const ssize_t cbMethod = fgetxattr(directory.Get(), "btrfs.compression", szMethod, sizeof(szMethod) - 1);
        const bool blNone = cbMethod <= 0 || strcmp(szMethod, "no") == 0 || strcmp(szMethod, "none") == 0;
        return blNone ? 0 : 1;
    });
}
