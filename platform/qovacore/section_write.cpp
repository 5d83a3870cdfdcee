// Writers of sectioned files. Each makes a new file beside the old one and renames it over it, so that a crash leaves
// the old file or the new one, and a reader sees one of them as a whole.

#include "section_lines.h"
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sharesnap/platform/section_file.h>
#include <sys/random.h>
#include <vector>

using namespace qovacore;

namespace {

constexpr size_t LONGEST_NAME = 1023; // what the readers of section names have room for
constexpr size_t BUFFER_BYTES = 65536;

// The new file: written through a buffer, renamed over the old one by commit, gone without it.
class NewFile {
public:
    NewFile() = default;
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;
    ~NewFile() { discard(); }

    [[nodiscard]] bool create(int fdDirectory, const std::string &target, mode_t mode) {
        static constexpr char LETTERS[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
        for (int nTry = 0; nTry < 100; ++nTry) {
            unsigned char rgRandom[6];
            if (getrandom(rgRandom, sizeof(rgRandom), 0) != static_cast<ssize_t>(sizeof(rgRandom))) {
                break;
            }
            m_name = target + '.';
            for (const unsigned char uRandom : rgRandom) {
                m_name += LETTERS[uRandom % (sizeof(LETTERS) - 1)];
            }
            m_fd.reset(openat(fdDirectory, m_name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
            if (m_fd.valid()) {
                m_fdDirectory = fdDirectory;
                return true;
            }
            if (errno != EEXIST) {
                break;
            }
        }
        QOVACORE_SET_CODE(SNAP_ERR_CREATE_FAILED);
        return false;
    }

    [[nodiscard]] bool write(std::string_view text) {
        if (text.empty()) {
            return true;
        }
        m_lastByte = text.back();
        if (m_cbBuffered + text.size() > BUFFER_BYTES && !flush()) {
            return false;
        }
        if (text.size() >= BUFFER_BYTES) {
            return writeOut(text);
        }
        memcpy(m_buffer.get() + m_cbBuffered, text.data(), text.size());
        m_cbBuffered += text.size();
        return true;
    }

    // A line of its own: the file may have ended without a line feed.
    [[nodiscard]] bool writeLine(std::string_view line) { return endLine() && write(line) && write("\n"); }
    [[nodiscard]] bool endLine() { return m_lastByte == '\n' || write("\n"); }

    // The bytes of the old file between two offsets. They are read into the buffer itself: a list of snapshots is copied
    // twice for each one that is taken.
    [[nodiscard]] bool copy(int fdOld, off_t begin, off_t end) {
        while (begin < end) {
            if (m_cbBuffered == BUFFER_BYTES && !flush()) {
                return false;
            }
            const auto cbPart = std::min(static_cast<size_t>(end - begin), BUFFER_BYTES - m_cbBuffered);
            const ssize_t nRead = readBytes(fdOld, begin, m_buffer.get() + m_cbBuffered, cbPart);
            if (nRead < 0) {
                return false;
            }
            if (static_cast<size_t>(nRead) != cbPart) {
                QOVACORE_SET_CODE_ERRNO(SNAP_ERR_READ_FAILED, EIO); // somebody cut the file short
                return false;
            }
            m_cbBuffered += cbPart;
            m_lastByte = m_buffer[m_cbBuffered - 1];
            begin += static_cast<off_t>(cbPart);
        }
        return true;
    }

    // Owner and mode of the old file, when there is one; then the data to the disk, and only then the name.
    [[nodiscard]] bool commit(const std::string &target, const struct stat *pOld) {
        struct stat status;
        if (!flush()) {
            return false;
        }
        bool blDone = fstat(m_fd.get(), &status) == 0;
        if (blDone && pOld != nullptr && (status.st_uid != pOld->st_uid || status.st_gid != pOld->st_gid)) {
            blDone = fchown(m_fd.get(), pOld->st_uid, pOld->st_gid) == 0;
        }
        if (blDone && pOld != nullptr) {
            blDone = fchmod(m_fd.get(), pOld->st_mode & 07777) == 0;
        }
        blDone = blDone && fsync(m_fd.get()) == 0;
        blDone = blDone && close(m_fd.release()) == 0;
        if (!blDone) {
            QOVACORE_SET_CODE(SNAP_ERR_WRITE_FAILED);
            return false;
        }
        if (renameat(m_fdDirectory, m_name.c_str(), m_fdDirectory, target.c_str()) != 0) {
            QOVACORE_SET_CODE(SNAP_ERR_RENAME_FAILED);
            return false;
        }
        m_fdDirectory = -1;
        return true;
    }

private:
    [[nodiscard]] bool flush() {
        const bool blDone = writeOut({m_buffer.get(), m_cbBuffered});
        m_cbBuffered = 0;
        return blDone;
    }

    [[nodiscard]] bool writeOut(std::string_view text) {
        while (!text.empty()) {
            const ssize_t nWritten = ::write(m_fd.get(), text.data(), text.size());
            if (nWritten < 0 && errno != EINTR) {
                QOVACORE_SET_CODE(SNAP_ERR_WRITE_FAILED);
                return false;
            }
            if (nWritten > 0) {
                text.remove_prefix(static_cast<size_t>(nWritten));
            }
        }
        return true;
    }

    void discard() {
        if (m_fdDirectory >= 0) {
            const ErrnoKeeper keeper;
            (void)unlinkat(m_fdDirectory, m_name.c_str(), 0); // nothing more can be done about it
        }
    }

    UniqueFd m_fd;
    int m_fdDirectory = -1; // not owned; -1: no file of ours has the name
    std::string m_name;
    std::unique_ptr<char[]> m_buffer{new char[BUFFER_BYTES]};
    size_t m_cbBuffered = 0;
    char m_lastByte = '\n';
};

// One change of a sectioned file: the old file, where the section stands in it, and the new file.
class Change {
public:
    // Opens the old file. blMayLack: a missing one counts as empty.
    [[nodiscard]] bool open(const char *szFile, bool blMayLack) {
        const std::string path(szFile);
        const size_t nSlash = path.rfind('/');
        m_name = path.substr(nSlash == std::string::npos ? 0 : nSlash + 1);
        const std::string directory = nSlash == std::string::npos ? "." : path.substr(0, nSlash + 1);
        if (m_name.empty()) {
            QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OPEN_FAILED, path.empty() ? ENOENT : EISDIR);
            return false;
        }
        m_directory.reset(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!m_directory.valid()) {
            QOVACORE_SET_CODE(SNAP_ERR_OPEN_FAILED);
            return false;
        }
        m_old = openRegular(m_directory.get(), m_name.c_str(), false, m_status);
        return m_old.valid() || (blMayLack && errno == ENOENT);
    }

    // Finds all sections of the name, and whether there is one of the other name. False on a read failure.
    [[nodiscard]] bool find(const std::string &section, const char *szOther) {
        if (!m_old.valid()) {
            return true;
        }
        return walkSections(m_old.get(), &m_end, [&](const std::string &name, const SectionRange &range) {
                   if (name == section) {
                       m_sections.push_back(range);
                   }
                   m_blOther = m_blOther || (szOther != nullptr && name == szOther);
                   return true;
               }) == 0;
    }

    [[nodiscard]] const std::vector<SectionRange> &sections() const { return m_sections; }
    [[nodiscard]] bool hasOther() const { return m_blOther; }

    // Begins the new file with what stands ahead of the section, or with the whole old file when there is none.
    [[nodiscard]] bool begin() {
        m_position = m_sections.empty() ? m_end : m_sections.front().header;
        return m_new.create(m_directory.get(), m_name, m_old.valid() ? S_IRUSR | S_IWUSR : 0644) &&
               (m_position == 0 || m_new.copy(m_old.get(), 0, m_position));
    }

    [[nodiscard]] bool readBody(const SectionRange &range, std::string &body) {
        m_position = range.end;
        return readRange(m_old.get(), range.body, range.end, body);
    }

    // Ends the new file with what stands behind the section; of further sections of its name only comments stay.
    [[nodiscard]] bool finish() {
        std::string body;
        for (size_t i = 1; i < m_sections.size(); ++i) {
            if (!m_new.copy(m_old.get(), m_position, m_sections[i].header) || !readBody(m_sections[i], body) ||
                !writeComments(body)) {
                return false;
            }
        }
        if (m_position < m_end && !(m_new.endLine() && m_new.copy(m_old.get(), m_position, m_end))) {
            return false;
        }
        return m_new.commit(m_name, m_old.valid() ? &m_status : nullptr);
    }

    [[nodiscard]] bool writeComments(std::string_view body) {
        bool blDone = true;
        forEachLine(body,
                    [&](std::string_view line) { blDone = blDone && (!isComment(line) || m_new.writeLine(line)); });
        return blDone;
    }

    [[nodiscard]] NewFile &newFile() { return m_new; }

private:
    UniqueFd m_directory;
    UniqueFd m_old;
    struct stat m_status {};
    std::string m_name;
    std::vector<SectionRange> m_sections;
    bool m_blOther = false;
    off_t m_end = 0;
    off_t m_position = 0; // what comes of the old file next
    NewFile m_new;
};

int refuse() {
    QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
    return -1;
}

bool hasLineFeed(std::string_view text) {
    return text.find('\n') != std::string_view::npos;
}

// What wouldn't be read back as it was written is refused.
bool isGoodName(std::string_view name) {
    return !name.empty() && name.size() <= LONGEST_NAME && !hasLineFeed(name);
}

bool isGoodPair(std::string_view key, std::string_view value) {
    std::string_view readKey;
    std::string_view readValue;
    std::string line(key);
    line.append("=").append(value);
    return splitPair(line, readKey, readValue) && readKey == key && readValue == value;
}

bool isGoodFormat(const char *szFormat) {
    return szFormat == nullptr || strcmp(szFormat, "%s=%s\n") == 0;
}

// The lines of the pairs; false with a code when one of them can't stand in a file.
bool pairLines(const QLIBCSZHASH *pHash, std::string &lines) {
    QLIBCSZLIST *pKeys = QLIBCSzListAlloc(1024);
    struct ListOwner {
        QLIBCSZLIST **ppList;
        ~ListOwner() { QLIBCSzListFree(*ppList); }
    } const owner{&pKeys};
    if (pKeys == nullptr || QLIBCSzHashEnumKey(pHash, &pKeys) < 0) {
        return false;
    }
    for (int i = 0; i < pKeys->nItem; ++i) {
        const char *szKey = QLIBCSzListGet(pKeys, i);
        const char *szValue = QLIBCSzHashGetValue(pHash, szKey);
        if (szValue == nullptr || !isGoodPair(szKey, szValue)) {
            return refuse() == 0;
        }
        lines.append(szKey).append("=").append(szValue).append("\n");
    }
    return true;
}

int noSuchSection() {
    QOVACORE_SET_CODE_ERRNO(SNAP_ERR_NO_SUCH_SECTION, ENOENT);
    return -1;
}

int addSection(const char *szFile, const std::string &section, const QLIBCSZHASH *pHash) {
    Change change;
    std::string lines;
    if (!pairLines(pHash, lines) || !change.open(szFile, true) || !change.find(section, nullptr)) {
        return -1;
    }
    if (!change.sections().empty()) {
        return 0;
    }
    NewFile &file = change.newFile();
    return change.begin() && file.writeLine('[' + section + ']') && file.write(lines) && change.finish() ? 1 : -1;
}

int setSection(const char *szFile, const std::string &section, const char *szNewSection, const QLIBCSZHASH *pHash) {
    Change change;
    std::string lines;
    std::string body;
    const std::string newSection = szNewSection != nullptr ? szNewSection : section;
    if (!pairLines(pHash, lines) || !change.open(szFile, false) || !change.find(section, newSection.c_str())) {
        return -1;
    }
    if (change.sections().empty()) {
        return noSuchSection();
    }
    if (newSection != section && change.hasOther()) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_ALREADY_EXISTS, EEXIST);
        return -1;
    }
    if (!change.begin() || !change.readBody(change.sections().front(), body)) {
        return -1;
    }
    // Comments ahead of the first pair stay ahead of the pairs, the others come behind them.
    size_t nFirstPair = std::string::npos;
    forEachLine(body, [&](std::string_view line) {
        std::string_view key;
        std::string_view value;
        if (nFirstPair == std::string::npos && splitPair(line, key, value)) {
            nFirstPair = static_cast<size_t>(line.data() - body.data());
        }
    });
    const std::string_view all(body);
    const std::string_view behind = nFirstPair == std::string::npos ? std::string_view() : all.substr(nFirstPair);
    NewFile &file = change.newFile();
    return file.writeLine('[' + newSection + ']') && change.writeComments(all.substr(0, nFirstPair)) &&
                   file.write(lines) && change.writeComments(behind) && change.finish()
               ? 1
               : -1;
}

// The body of a section with the pair in the place of its key's first one, or behind the last pair.
std::string bodyWithPair(std::string_view body, std::string_view wanted, const std::string &pairLine) {
    size_t cbBehindPairs = 0; // of the result
    bool blWritten = false;
    std::string result;
    forEachLine(body, [&](std::string_view line) {
        std::string_view key;
        std::string_view value;
        const bool blPair = splitPair(line, key, value);
        if (!blPair || key != wanted) {
            result.append(line).append("\n");
        } else if (!blWritten) {
            result.append(pairLine);
            blWritten = true;
        }
        if (blPair) {
            cbBehindPairs = result.size();
        }
    });
    if (!blWritten) {
        result.insert(cbBehindPairs, pairLine);
    }
    return result;
}

int setSectionValue(const char *szFile, const std::string &section, const char *szKey, const char *szValue) {
    Change change;
    std::string body;
    if (!change.open(szFile, false) || !change.find(section, nullptr)) {
        return -1;
    }
    if (change.sections().empty()) {
        return noSuchSection();
    }
    if (!change.begin() || !change.readBody(change.sections().front(), body)) {
        return -1;
    }
    const std::string pairLine = std::string(szKey).append("=").append(szValue).append("\n");
    NewFile &file = change.newFile();
    return file.writeLine('[' + section + ']') && file.write(bodyWithPair(body, szKey, pairLine)) && change.finish()
               ? 0
               : -1;
}

int removeSection(const char *szFile, const std::string &section) {
    Change change;
    std::string body;
    if (!change.open(szFile, false) || !change.find(section, nullptr)) {
        return -1;
    }
    if (change.sections().empty()) {
        return 0;
    }
    return change.begin() && change.readBody(change.sections().front(), body) && change.writeComments(body) &&
                   change.finish()
               ? 1
               : -1;
}

} // namespace

int QLIBCFileAddSection(const char *szFile, const char *szSection, const QLIBCSZHASH *pHash, const char *szFormat) {
    if (szFile == nullptr || szSection == nullptr || !isGoodName(szSection) || pHash == nullptr ||
        !isGoodFormat(szFormat)) {
        return refuse();
    }
    return guarded([=] { return addSection(szFile, szSection, pHash); });
}

int QLIBCFileSetSection(const char *szFile, const char *szSection, const char *szNewSection, const QLIBCSZHASH *pHash,
                        const char *szFormat) {
    if (szFile == nullptr || szSection == nullptr || pHash == nullptr || !isGoodFormat(szFormat) ||
        (szNewSection != nullptr && !isGoodName(szNewSection))) {
        return refuse();
    }
    return guarded([=] { return setSection(szFile, szSection, szNewSection, pHash); });
}

int QLIBCFileSetSectionValue(const char *szFile, const char *szSection, const char *szKey, const char *szValue) {
    if (szFile == nullptr || szSection == nullptr || szKey == nullptr || szValue == nullptr) {
        return refuse();
    }
    return guarded(
        [=] { return isGoodPair(szKey, szValue) ? setSectionValue(szFile, szSection, szKey, szValue) : refuse(); });
}

int QLIBCFileRemoveSection(const char *szFile, const char *szSection) {
    if (szFile == nullptr || szSection == nullptr) {
        return refuse();
    }
    return guarded([=] { return removeSection(szFile, szSection); });
}
