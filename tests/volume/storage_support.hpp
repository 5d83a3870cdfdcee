// What the tests of the storage core share.
#pragma once

#include <sharesnap/platform/error.h>
#include <sharesnap/platform/subvolume.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>

#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/process.hpp"
#include "support/sandbox.hpp"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

// Behind the C library's <fcntl.h> and <sys/stat.h>: the kernel's headers declare some of the same.
#include <linux/btrfs.h>

namespace storage {

inline void setCode(unsigned int code) {
    QLIBCErrSetEx(code, "test", 1);
}

class List {
public:
    List() : m_list(QLIBCSzListAlloc(1024)) {}
    explicit List(const std::vector<std::string> &items) : List() {
        for (const std::string &item : items) {
            EXPECT_LT(0, QLIBCSzListPush(&m_list, item.c_str()));
        }
    }
    List(const List &) = delete;
    List &operator=(const List &) = delete;
    ~List() { QLIBCSzListFree(m_list); }
    [[nodiscard]] const QLIBCSZLIST *get() const { return m_list; }

private:
    QLIBCSZLIST *m_list;
};

class Hash {
public:
    Hash() : m_hash(QLIBCSzHashAlloc(1024)) {}
    Hash(const Hash &) = delete;
    Hash &operator=(const Hash &) = delete;
    ~Hash() { QLIBCSzHashFree(m_hash); }
    [[nodiscard]] QLIBCSZHASH **address() { return &m_hash; }
    [[nodiscard]] int size() const { return m_hash->nPair; }
    // "(absent)" for a key that isn't there.
    [[nodiscard]] std::string operator[](const char *key) const {
        const char *value = QLIBCSzHashGetValue(m_hash, key);
        return value == nullptr ? "(absent)" : value;
    }

private:
    QLIBCSZHASH *m_hash;
};

// A descriptor that closes itself.
class File {
public:
    File(const std::string &path, int flags) : m_fd(open(path.c_str(), flags | O_CLOEXEC)) {}
    File(const File &) = delete;
    File &operator=(const File &) = delete;
    ~File() { close(m_fd); }
    [[nodiscard]] int get() const { return m_fd; }

private:
    int m_fd;
};

[[nodiscard]] inline bool isReadOnly(const std::string &path) {
    uint64_t flags = 0;
    const File file(path, O_RDONLY);
    return ioctl(file.get(), BTRFS_IOC_SUBVOL_GETFLAGS, &flags) == 0 && (flags & BTRFS_SUBVOL_RDONLY) != 0;
}

[[nodiscard]] inline bool setReadOnly(const std::string &path) {
    uint64_t flags = BTRFS_SUBVOL_RDONLY;
    const File file(path, O_RDONLY);
    return ioctl(file.get(), BTRFS_IOC_SUBVOL_SETFLAGS, &flags) == 0;
}

// The names of all extended attributes, each with a blank behind it.
[[nodiscard]] inline std::string attributeNames(const std::string &path) {
    std::string names(65536, '\0');
    const ssize_t size = listxattr(path.c_str(), names.data(), names.size());
    names.resize(size > 0 ? size_t(size) : 0);
    for (char &c : names) {
        c = c == '\0' ? ' ' : c;
    }
    return names;
}

// A share subvolume /vol1/docs with a file, and the subvolume /vol1/snaps for its snapshots.
class SnapshotTest : public testkit::VolumeTest {
protected:
    void SetUp() override {
        testkit::VolumeTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs"));
        ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/snaps"));
        ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "dear all"));
    }

    static std::string take(const std::string &name) {
        const std::string path = "/vol1/snaps/" + name;
        EXPECT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", path.c_str())) << name;
        return path;
    }
};

// A sender that has begun to send a snapshot and stands still, as one whose line is slow.
class StalledSend {
public:
    explicit StalledSend(const std::string &snapshot) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            return;
        }
        m_pid = fork();
        if (m_pid == 0) {
            dup2(ends[1], STDOUT_FILENO);
            execlp("btrfs", "btrfs", "send", "-q", snapshot.c_str(), nullptr);
            _exit(127);
        }
        close(ends[1]);
        m_output = ends[0];
        char byte = 0;
        m_begun = read(m_output, &byte, 1) == 1;
    }
    StalledSend(const StalledSend &) = delete;
    StalledSend &operator=(const StalledSend &) = delete;
    ~StalledSend() { stop(); }

    [[nodiscard]] bool begun() const { return m_begun; }
    void stop() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            close(m_output);
            testkit::waitForChild(m_pid);
            m_pid = -1;
        }
    }

private:
    pid_t m_pid = -1;
    int m_output = -1;
    bool m_begun = false;
};

} // namespace storage
