// The tree's file: lock, load, save, and the mark that keeps a damaged file from being read again.
#include <fcntl.h>
#include <libgen.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/file.h>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/platform/volume.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>

#include "frame/log.h"
#include "frame/owners.h"
#include "frame/path_format.h"
#include "snaptree/snaptree_archive.h"
#include "snaptree/snaptree_serialize.h"

namespace QovaSnapTree {

namespace {

constexpr char kLockDirectory[] = "/run/lock/sharesnap/snaptree_lock";
constexpr int kLockSeconds = 100;
constexpr std::streamoff kVersionOffset = 30;
constexpr signed char kLastOldVersion = 11;
// The oldest version of the current form, so that every reader of it can open our files.
constexpr char kWrittenVersion[] = {17, 0};

// Makes the lock's directory. Something else that stands there is refused without a word.
bool HasLockDirectory() {
    if (QLIBCFileCheckDir(kLockDirectory) != 0) {
        return true;
    }
    if (QLIBCFileExist(kLockDirectory) != 0) {
        return false;
    }
    if (mkdir(kLockDirectory, 0777) < 0 && errno != EEXIST) {
        SNAP_LOG(LOG_ERR, "Failed to mkdir [%s], errno=%d/%m\n", kLockDirectory, errno);
        SNAP_SET_ERR(SNAP_ERR_CREATE_FAILED);
        return false;
    }
    return true;
}

// Sets the mark beside a file that can't be read. Always false, for the caller to pass on.
bool MarkBroken(const char *szMark, const std::string &treeFile) {
    if (QLIBCFileTouch(szMark) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Fail to touch snap broken file [%s][0x%04X %s:%d]", szMark);
    }
    SNAP_LOG(LOG_ERR, "snaptree is broken, create broken file [%s]", treeFile.c_str());
    return false;
}

std::uintmax_t SizeOf(std::istream &in) {
    in.seekg(0, std::ios::end);
    const std::streamoff cb = in.tellg();
    in.seekg(0, std::ios::beg);
    return cb < 0 ? 0 : static_cast<std::uintmax_t>(cb);
}

bool SyncFile(const char *szPath) {
    const sharesnap::DescriptorOwner file(open(szPath, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    return file && fsync(file.get()) == 0;
}

// Makes the temporary file in the volume's @tmp; false when it can't be had.
bool MakeTemporary(const char *szVolume, char *szPath, std::size_t cbPath) {
    if (!sharesnap::FormatPath(szPath, cbPath, "%s/%s/snaptree.bin.XXXXXX", szVolume, "@tmp")) {
        return false;
    }
    const int nFd = mkstemp(szPath);
    if (nFd <= 0) {
        return false;
    }
    (void)close(nFd); // nothing was written through it
    return true;
}

} // namespace

std::string SnapTree::getFileName(const std::string &volume) const {
    std::string copy = volume;
    return std::string("/") + basename(copy.data()) + "/@eaDir/" + "snaptree.bin";
}

void SnapTree::setTreeFile(const std::string &path) {
    treeFile = path;
}

int SnapTree::lockSnapTreeFile(const std::string &volume, bool blExclusive) {
    const std::string path = std::string(kLockDirectory) + "/" + volume + ".lock";
    if (QOVAShareSnapCreateRunLockShareSnapDir() != 1 || !HasLockDirectory()) {
        return -1;
    }
    int nFd = -1;
    if (QLIBCFileLockTimeByFile(path.c_str(), blExclusive ? 1 : 0, kLockSeconds, &nFd) == 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get filelock %s[0x%04X %s:%d]", path.c_str());
        return -1;
    }
    return nFd;
}

void SnapTree::freeLock() {
    if (lockFd == -1) {
        return;
    }
    if (QLIBCFileUnlockByFile(lockFd) == 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to unlock filelock[0x%04X %s:%d]");
        return;
    }
    lockFd = -1;
}

int SnapTree::loadByVolume(const std::string &volume, bool blExclusive) {
    const std::string path = getFileName(volume);
    if (access(volume.c_str(), F_OK) < 0) {
        SNAP_LOG(LOG_ERR, "Invalid volume path [%s]", volume.c_str());
        return -1;
    }
    setTreeFile(path);
    lockFd = lockSnapTreeFile(volume, blExclusive);
    if (lockFd == -1) {
        SNAP_LOG(LOG_ERR, "Failed to get lock of snaptree of [%s]", volume.c_str());
        return -1;
    }
    if (QLIBCFileExist(treeFile.c_str()) != 0 && !load()) {
        SNAP_LOG(LOG_ERR, "Failed to load snaptree of [%s]", volume.c_str());
        return -1;
    }
    return 0;
}

bool SnapTree::load() {
    char szMark[1024];
    if (!sharesnap::FormatPath(szMark, sizeof(szMark), "%s.broken", treeFile.c_str())) {
        return false;
    }
    if (QLIBCFileExist(szMark) != 0) {
        SNAP_LOG_REG(LOG_ERR, "snaptree was broken [%s][0x%04X %s:%d]", treeFile.c_str());
        return false;
    }
    std::ifstream in(treeFile, std::ios::binary);
    if (!in.good()) {
        SNAP_LOG(LOG_ERR, "Fail to open snaptree");
        return MarkBroken(szMark, treeFile);
    }
    char version = 0;
    try {
        in.seekg(kVersionOffset, std::ios::beg);
        in.read(&version, 1);
    } catch (const std::exception &) {
        SNAP_LOG(LOG_ERR, "Fail to get version of snaptree");
        return MarkBroken(szMark, treeFile);
    }
    in.close();
    if (static_cast<signed char>(version) <= kLastOldVersion && !loadByOldSnapTree()) {
        return MarkBroken(szMark, treeFile);
    }
    std::ifstream current(treeFile, std::ios::binary);
    if (!current.good()) {
        return true;
    }
    try {
        const std::uintmax_t cbFile = SizeOf(current);
        GuardedInputArchive archive(current, cbFile);
        archive >> *this;
    } catch (const std::exception &) {
        return MarkBroken(szMark, treeFile);
    }
    return true;
}

namespace {

// Writes the tree to szPath. Clone points without children are pruned once the archive's header is written; the file
// never holds them.
bool WriteArchive(SnapTree *pTree, BaseNode *pRoot, const char *szVolume, const char *szPath) {
    try {
        std::ofstream out(szPath, std::ios::binary | std::ios::out | std::ios::trunc);
        if (!out.good()) {
            return false;
        }
        {
            boost::archive::binary_oarchive archive(out);
            (void)pTree->deleteUselessClone(*pRoot); // the root is no clone point: it never goes
            const SnapTree &tree = *pTree;
            archive << tree;
        }
        out.seekp(kVersionOffset, std::ios::beg);
        out.write(kWrittenVersion, sizeof(kWrittenVersion));
        out.flush();
        if (!out.good()) {
            throw std::ios_base::failure("the tree file wasn't written whole");
        }
        out.close();
    } catch (...) {
        SNAP_LOG(LOG_ERR, "save snaptree fail [%s]", szVolume);
        return false;
    }
    return true;
}

} // namespace

bool SnapTree::save() {
    bool blDone = false;
    char szVolume[QOVA_VOLUME_PATH_SIZE] = "";
    char szPath[1024];
    if (VolumePathParseEx(treeFile.c_str(), szVolume) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Fail to parse volume path from [%s][0x%04X %s:%d]", treeFile.c_str());
    } else if (MakeTemporary(szVolume, szPath, sizeof(szPath)) && WriteArchive(this, &root, szVolume, szPath)) {
        // On disk before the name changes: a crash leaves the old tree or the new one.
        if (!SyncFile(szPath)) {
            SNAP_LOG(LOG_ERR, "save snaptree fail [%s]", szVolume);
        } else if (rename(szPath, treeFile.c_str()) < 0) {
            SNAP_LOG(LOG_ERR, "snaptree temp file rename fail errno:%s", std::strerror(errno));
        } else {
            blDone = true;
        }
    }
    freeLock();
    return blDone;
}

void SnapTree::support() {}

} // namespace QovaSnapTree
