/* Copying of a regular file. The copy grows under a temporary name beside the target and takes the target's name when
   it is whole and on disk, so nobody ever sees a part of it. */
#include <sharesnap/platform/file_operation.h>

#include "common/failure.h"
#include "common/path_walk.h"

#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/random.h>
#include <sys/stat.h>

using namespace QovaPlatform;

namespace {

constexpr size_t COPY_CHUNK = 16 * 1024 * 1024;
constexpr size_t BUFFER_SIZE = 64 * 1024;
constexpr int NAME_ATTEMPTS = 100;

enum OptionWord { OPTION_OVERWRITE = 0, OPTION_KEEP_MODE_AND_TIMES = 2, OPTION_KEEP_OWNER = 3 };

/* A file under a temporary name, which goes with its owner unless it got its final name. */
class TemporaryFile {
public:
    explicit TemporaryFile(int nDirectory) : m_nDirectory(nDirectory) {}
    TemporaryFile(const TemporaryFile &) = delete;
    TemporaryFile &operator=(const TemporaryFile &) = delete;
    ~TemporaryFile() {
        if (m_file.IsOpen() && !m_blNamed) {
            const int nSaved = errno;
            (void)unlinkat(m_nDirectory, m_szName.c_str(), 0); // the failure that led here is what is reported
            errno = nSaved;
        }
    }

    bool Create() {
        for (int i = 0; i < NAME_ATTEMPTS; ++i) {
            uint64_t ullRandom = 0;
            if (getrandom(&ullRandom, sizeof(ullRandom), 0) != static_cast<ssize_t>(sizeof(ullRandom))) {
                return false;
            }
            char szName[40];
            (void)snprintf(szName, sizeof(szName), ".copy.%016llx", static_cast<unsigned long long>(ullRandom));
            m_szName = szName;
            m_file =
                Descriptor(openat(m_nDirectory, szName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
            if (m_file.IsOpen() || errno != EEXIST) {
                break;
            }
        }
        return m_file.IsOpen();
    }

    /* Gives it its final name, over what stands there or only when nothing does. */
    bool Name(const std::string &szName, bool blOverwrite) {
        const unsigned int uFlags = blOverwrite ? 0 : RENAME_NOREPLACE;
        m_blNamed = renameat2(m_nDirectory, m_szName.c_str(), m_nDirectory, szName.c_str(), uFlags) == 0;
        return m_blNamed;
    }

    [[nodiscard]] int Get() const { return m_file.Get(); }

private:
    int m_nDirectory;
    Descriptor m_file;
    std::string m_szName;
    bool m_blNamed = false;
};

/* Copies from the present places of both files to the source's end. */
bool CopyByBuffer(int nSource, int nTarget) {
    std::string buffer(BUFFER_SIZE, '\0');
    for (;;) {
        const ssize_t cbRead = read(nSource, &buffer[0], buffer.size());
        if (cbRead == 0) {
            return true;
        }
        if (cbRead < 0 && errno != EINTR) {
            return false;
        }
        for (ssize_t cbDone = 0; cbDone < cbRead;) {
            const ssize_t cbWritten =
                write(nTarget, &buffer[static_cast<size_t>(cbDone)], static_cast<size_t>(cbRead - cbDone));
            if (cbWritten < 0 && errno != EINTR) {
                return false;
            }
            cbDone += 0 < cbWritten ? cbWritten : 0;
        }
    }
}

bool CopyData(int nSource, int nTarget) {
    for (;;) {
        const ssize_t cbCopied = copy_file_range(nSource, nullptr, nTarget, nullptr, COPY_CHUNK, 0);
        if (cbCopied == 0) {
            // Some file systems give nothing out this way; the buffer finds nothing left where all went well.
            return CopyByBuffer(nSource, nTarget);
        }
        if (cbCopied < 0 && errno != EINTR) {
            const bool blCannot = errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP;
            return blCannot && CopyByBuffer(nSource, nTarget);
        }
    }
}

bool CopyProperties(const struct stat &source, int nTarget, const QOVAFILECOPYOPTIONS &options) {
    // The owner first: a change of the owner may take bits of the mode away.
    if (options.rgWord[OPTION_KEEP_OWNER] != 0 && fchown(nTarget, source.st_uid, source.st_gid) != 0) {
        return false;
    }
    const bool blKeep = options.rgWord[OPTION_KEEP_MODE_AND_TIMES] != 0;
    if (fchmod(nTarget, blKeep ? source.st_mode & 07777 : 0644) != 0) {
        return false;
    }
    const struct timespec rgTime[2] = {source.st_atim, source.st_mtim};
    return !blKeep || futimens(nTarget, rgTime) == 0;
}

int Copy(const char *szSource, const char *szTarget, const QOVAFILECOPYOPTIONS &options) {
    // Not blocked by a pipe that somebody has put there; it is refused as no regular file.
    const Descriptor source(open(szSource, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!source.IsOpen() || fstat(source.Get(), &status) != 0) {
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return -1;
    }
    const ParentAndName target = OpenParent(szTarget);
    if (!target.directory.IsOpen()) {
        return -1;
    }
    TemporaryFile copy(target.directory.Get());
    const bool blDone = copy.Create() && CopyData(source.Get(), copy.Get()) &&
                        CopyProperties(status, copy.Get(), options) && fsync(copy.Get()) == 0 &&
                        copy.Name(target.szName, options.rgWord[OPTION_OVERWRITE] != 0);
    return blDone ? 0 : -1;
}

} // namespace

int QOVAFileCopy(const char *szSource, const char *szTarget, const QOVAFILECOPYOPTIONS *pOptions) {
    if (szSource == nullptr || szTarget == nullptr) {
        QOVA_FAIL_ARGUMENT(EINVAL);
        return -1;
    }
    static constexpr QOVAFILECOPYOPTIONS none = {};
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        const int nResult = Copy(szSource, szTarget, pOptions == nullptr ? none : *pOptions);
        if (nResult != 0) {
            QOVA_FAIL_ERRNO();
        }
        return nResult;
    });
}
