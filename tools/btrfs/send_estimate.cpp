/* The length of a send stream without reading the data that it would hold.

   A stream without data tells by one record for each extent what would have been written there. Each of these is
   counted as the write records that stand in its place in a stream with data; all others are the same in both. */
#include "btrfs/commands.h"

#include "common/descriptor.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <endian.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

using QovaPlatform::Descriptor;

namespace BtrfsTool {

namespace {

constexpr char STREAM_MAGIC[] = "btrfs-stream"; // with its NUL
constexpr size_t STREAM_HEADER_SIZE = sizeof(STREAM_MAGIC) + 4;
constexpr size_t RECORD_HEADER_SIZE = 10; // length, command, checksum
constexpr size_t ATTRIBUTE_HEADER_SIZE = 4;
constexpr uint64_t WRITE_SIZE = 48 * 1024; // data in one write record at most
constexpr uint32_t LARGEST_RECORD = 16 * 1024 * 1024;
constexpr uint16_t COMMAND_END = 21;
constexpr uint16_t COMMAND_UPDATE_EXTENT = 22;
constexpr uint16_t ATTRIBUTE_SIZE = 4;
constexpr uint16_t ATTRIBUTE_PATH = 15;

template <typename Number>
Number ReadNumber(const char *pBytes) {
    Number number;
    memcpy(&number, pBytes, sizeof(number));
    if constexpr (sizeof(Number) == 2) {
        return le16toh(number);
    } else if constexpr (sizeof(Number) == 4) {
        return le32toh(number);
    } else {
        return le64toh(number);
    }
}

/* Bytes of the write records for one extent of a file. */
uint64_t PriceOfWrites(uint64_t cbPath, uint64_t cbExtent) {
    const uint64_t ullRecords = cbExtent / WRITE_SIZE + (cbExtent % WRITE_SIZE != 0 ? 1 : 0);
    const uint64_t cbFrame = RECORD_HEADER_SIZE + ATTRIBUTE_HEADER_SIZE + cbPath + ATTRIBUTE_HEADER_SIZE +
                             sizeof(uint64_t) + ATTRIBUTE_HEADER_SIZE;
    return ullRecords * cbFrame + cbExtent;
}

/* Adds up a stream that comes in pieces of any size. */
class StreamLength {
public:
    /* False when it isn't a stream. */
    [[nodiscard]] bool Take(const char *pBytes, size_t cbBytes) {
        m_pending.append(pBytes, cbBytes);
        size_t uDone = 0;
        size_t cbNext = 0;
        while ((cbNext = Next(&m_pending[uDone], m_pending.size() - uDone)) != 0 && m_blGood) {
            uDone += cbNext;
        }
        m_pending.erase(0, uDone);
        return m_blGood;
    }

    /* Whether the stream ended behind the record that tells its end. */
    [[nodiscard]] bool IsWhole() const { return m_blGood && m_pending.empty() && m_blEnded; }
    [[nodiscard]] uint64_t Length() const { return m_ullLength; }

private:
    /* Counts the stream header or record at the front. Its length, 0 when it isn't whole yet. */
    size_t Next(const char *pBytes, size_t cbBytes) {
        if (cbBytes < STREAM_HEADER_SIZE && cbBytes < RECORD_HEADER_SIZE) {
            return 0;
        }
        if (memcmp(pBytes, STREAM_MAGIC, std::min(cbBytes, sizeof(STREAM_MAGIC))) == 0) {
            if (cbBytes < STREAM_HEADER_SIZE) {
                return 0;
            }
            // Another version packs and cuts data in another way.
            m_blGood = ReadNumber<uint32_t>(pBytes + sizeof(STREAM_MAGIC)) == 1;
            m_ullLength += STREAM_HEADER_SIZE;
            m_blBegun = true;
            return STREAM_HEADER_SIZE;
        }
        const uint32_t cbBody = ReadNumber<uint32_t>(pBytes);
        if (!m_blBegun || LARGEST_RECORD < cbBody) {
            m_blGood = false;
            return 0;
        }
        if (cbBytes < RECORD_HEADER_SIZE + cbBody) {
            return 0;
        }
        const uint16_t uCommand = ReadNumber<uint16_t>(pBytes + sizeof(uint32_t));
        m_blEnded = uCommand == COMMAND_END;
        if (uCommand == COMMAND_UPDATE_EXTENT) {
            CountExtent(pBytes + RECORD_HEADER_SIZE, cbBody);
        } else {
            m_ullLength += RECORD_HEADER_SIZE + cbBody;
        }
        return RECORD_HEADER_SIZE + cbBody;
    }

    void CountExtent(const char *pBody, size_t cbBody) {
        uint64_t cbPath = 0;
        uint64_t cbExtent = 0;
        bool blSize = false;
        while (ATTRIBUTE_HEADER_SIZE <= cbBody) {
            const uint16_t uType = ReadNumber<uint16_t>(pBody);
            const size_t cbValue = ReadNumber<uint16_t>(pBody + sizeof(uint16_t));
            if (cbBody < ATTRIBUTE_HEADER_SIZE + cbValue) {
                break;
            }
            if (uType == ATTRIBUTE_PATH) {
                cbPath = cbValue;
            } else if (uType == ATTRIBUTE_SIZE && cbValue == sizeof(uint64_t)) {
                cbExtent = ReadNumber<uint64_t>(pBody + ATTRIBUTE_HEADER_SIZE);
                blSize = true;
            }
            pBody += ATTRIBUTE_HEADER_SIZE + cbValue;
            cbBody -= ATTRIBUTE_HEADER_SIZE + cbValue;
        }
        m_blGood = m_blGood && cbBody == 0 && blSize;
        m_ullLength += PriceOfWrites(cbPath, cbExtent);
    }

    std::string m_pending;
    uint64_t m_ullLength = 0;
    bool m_blGood = true;
    bool m_blBegun = false;
    bool m_blEnded = false;
};

/* Starts the real tool with its output on a pipe. The process id, -1 with errno. */
pid_t StartSend(const std::vector<const char *> &arguments, Descriptor &output) {
    std::vector<const char *> command = {"btrfs", "send", "-q", "-e", "--no-data"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    std::vector<char *> rgszArgument;
    for (const char *szArgument : command) {
        rgszArgument.push_back(const_cast<char *>(szArgument));
    }
    rgszArgument.push_back(nullptr);

    int rgPipe[2];
    if (pipe2(rgPipe, O_CLOEXEC) != 0) {
        return -1;
    }
    output = Descriptor(rgPipe[0]);
    const Descriptor input(rgPipe[1]);
    posix_spawn_file_actions_t actions;
    int nResult = posix_spawn_file_actions_init(&actions);
    pid_t pid = -1;
    if (nResult == 0) {
        nResult = posix_spawn_file_actions_adddup2(&actions, input.Get(), STDOUT_FILENO);
        if (nResult == 0) {
            nResult = posix_spawn(&pid, REAL_BTRFS, &actions, nullptr, rgszArgument.data(), environ);
        }
        (void)posix_spawn_file_actions_destroy(&actions); // frees memory only
    }
    errno = nResult;
    return nResult == 0 ? pid : -1;
}

/* Reads to the end. False with errno, 0 when what came was no stream. */
bool CountStream(int nFd, StreamLength &length) {
    std::vector<char> buffer(256 * 1024);
    for (;;) {
        const ssize_t cbRead = read(nFd, buffer.data(), buffer.size());
        if (cbRead == 0) {
            return true;
        }
        if (0 < cbRead && !length.Take(buffer.data(), static_cast<size_t>(cbRead))) {
            errno = 0;
            return false;
        }
        if (cbRead < 0 && errno != EINTR) {
            return false;
        }
    }
}

bool EndedWell(pid_t pid) {
    int nStatus = 0;
    while (waitpid(pid, &nStatus, 0) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0;
}

} // namespace

int EstimateSend(const std::vector<const char *> &arguments) {
    Descriptor output;
    const pid_t pid = StartSend(arguments, output);
    if (pid < 0) {
        (void)fprintf(stderr, "ERROR: cannot run %s: %s\n", REAL_BTRFS, strerror(errno));
        return 1;
    }
    StreamLength length;
    const bool blRead = CountStream(output.Get(), length);
    output.Close(); // a tool that still writes ends now
    if (!EndedWell(pid)) {
        return 1; // the tool has told why
    }
    if (!blRead || !length.IsWhole()) {
        (void)fprintf(stderr, "ERROR: the output of %s is no stream of a known form\n", REAL_BTRFS);
        return 1;
    }
    (void)printf("About:%" PRIu64 "\n", length.Length());
    return fflush(stdout) == 0 ? 0 : 1;
}

} // namespace BtrfsTool
