// Readers of sectioned files and of flat ones.

#include "section_lines.h"
#include <algorithm>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sharesnap/platform/section_file.h>
#include <unordered_map>
#include <unordered_set>

using namespace qovacore;

namespace {

// What tells one state of a file from any other.
struct FileState {
    dev_t device = 0;
    ino_t inode = 0;
    off_t nSize = -1;
    timespec modified{};
    timespec changed{};

    FileState() = default;
    explicit FileState(const struct stat &status)
        : device(status.st_dev), inode(status.st_ino), nSize(status.st_size), modified(status.st_mtim),
          changed(status.st_ctim) {}

    bool operator==(const FileState &other) const {
        return device == other.device && inode == other.inode && nSize == other.nSize &&
               modified.tv_sec == other.modified.tv_sec && modified.tv_nsec == other.modified.tv_nsec &&
               changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
    }

    // Files are stamped by a clock that ticks in milliseconds. Once it shows a later time than that of the last change, a
    // further change shows in the times.
    [[nodiscard]] bool isSettled() const {
        timespec tick{};
        (void)clock_gettime(CLOCK_REALTIME_COARSE, &tick); // can't fail for this clock
        return tick.tv_sec > changed.tv_sec || (tick.tv_sec == changed.tv_sec && tick.tv_nsec > changed.tv_nsec);
    }
};

// Where the sections of the last file read stand: a caller may ask for one value of each of a thousand sections. The
// first reading of a file only notes its state, a second one of the same state makes the index. One a thread, so that
// nobody waits for it and no fork finds it half made.
class SectionIndex {
public:
    // 1 and the range, 0 absent, -1 failure.
    [[nodiscard]] int find(int fd, const struct stat &status, const std::string &section, SectionRange &range) {
        const FileState state(status);
        if (!(state == m_state)) {
            forget();
            m_state = state;
            return search(fd, section, range);
        }
        if (!m_blFilled && !fill(fd)) {
            return search(fd, section, range);
        }
        const auto entry = m_sections.find(section);
        if (entry == m_sections.end()) {
            return 0;
        }
        range = entry->second;
        return 1;
    }

    void forget() {
        m_state = FileState();
        m_blFilled = false;
        std::unordered_map<std::string, SectionRange>().swap(m_sections);
    }

    // Without the index: the first section of the name.
    [[nodiscard]] static int search(int fd, const std::string &section, SectionRange &range) {
        bool blFound = false;
        off_t end = 0;
        const int nResult = walkSections(fd, &end, [&](const std::string &name, const SectionRange &one) {
            blFound = name == section;
            range = one;
            return !blFound;
        });
        return nResult < 0 ? -1 : (blFound ? 1 : 0);
    }

private:
    static constexpr size_t MOST_SECTIONS = 65536;

    [[nodiscard]] bool fill(int fd) {
        if (!m_state.isSettled()) {
            return false;
        }
        off_t end = 0;
        m_sections.clear();
        const int nResult = walkSections(fd, &end, [this](const std::string &name, const SectionRange &range) {
            m_sections.emplace(name, range); // the first of a name stays
            return m_sections.size() <= MOST_SECTIONS;
        });
        struct stat status;
        m_blFilled = nResult == 0 && m_sections.size() <= MOST_SECTIONS && fstat(fd, &status) == 0 &&
                     FileState(status) == m_state;
        if (!m_blFilled) {
            forget();
        }
        return m_blFilled;
    }

    FileState m_state;
    bool m_blFilled = false;
    std::unordered_map<std::string, SectionRange> m_sections;
};

thread_local SectionIndex t_index;

// The text of a section with its header. 1; 0 with 0x2200 when it is absent; -1 on failure.
int readSection(const char *szFile, const std::string &section, std::string &text) {
    struct stat status;
    const UniqueFd fd = openRegular(AT_FDCWD, szFile, false, status);
    if (!fd.valid()) {
        return -1;
    }
    SectionRange range;
    std::string_view name;
    int nFound = t_index.find(fd.get(), status, section, range);
    if (nFound > 0 && !readRange(fd.get(), range.header, range.end, text)) {
        return -1;
    }
    if (nFound > 0 && !(parseHeader(std::string_view(text).substr(0, text.find('\n')), name) && name == section)) {
        // The file was written in place, past everybody's lock.
        t_index.forget();
        nFound = SectionIndex::search(fd.get(), section, range);
        if (nFound > 0 && !readRange(fd.get(), range.header, range.end, text)) {
            return -1;
        }
    }
    if (nFound == 0) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_NO_SUCH_SECTION, ENOENT);
    }
    return nFound;
}

void copyCut(std::string_view value, char *szBuf, size_t cbBuf) {
    const size_t cbValue = std::min(value.size(), cbBuf - 1);
    memcpy(szBuf, value.data(), cbValue);
    szBuf[cbValue] = '\0';
}

int getSection(const char *szFile, const char *szSection, QLIBCSZHASH **ppHash) {
    std::string text;
    const int nFound = readSection(szFile, szSection, text);
    if (nFound <= 0) {
        return nFound;
    }
    // The texts of a pair end where the line ends: each is ended in place for the hash.
    std::unordered_set<std::string_view> keys;
    bool blFailed = false;
    size_t nBegin = text.find('\n');
    while (nBegin != std::string::npos && !blFailed) {
        ++nBegin;
        const size_t nEnd = text.find('\n', nBegin);
        const std::string_view line =
            std::string_view(text).substr(nBegin, nEnd == std::string::npos ? nEnd : nEnd - nBegin);
        std::string_view key;
        std::string_view value;
        if (splitPair(line, key, value)) {
            char *const pText = text.data();
            pText[key.data() - text.data() + static_cast<ptrdiff_t>(key.size())] = '\0';
            pText[value.data() - text.data() + static_cast<ptrdiff_t>(value.size())] = '\0';
            blFailed = QLIBCSzHashSetValue(ppHash, key.data(), value.data()) < 0;
            keys.insert(key);
        }
        nBegin = nEnd;
    }
    return blFailed ? -1 : static_cast<int>(keys.size());
}

int getSectionValue(const char *szFile, const char *szSection, const char *szKey, char *szBuf, size_t cbBuf) {
    std::string text;
    const int nFound = readSection(szFile, szSection, text);
    if (nFound <= 0) {
        return -1;
    }
    bool blValue = false;
    const std::string_view wanted(szKey);
    std::string_view result;
    forEachLine(text, [&](std::string_view line) {
        std::string_view key;
        std::string_view value;
        // The first look at a line is a cheap one: a section may have many long lines.
        if (line.compare(0, wanted.size(), wanted) == 0 && splitPair(line, key, value) && key == wanted) {
            result = value;
            blValue = true;
        }
    });
    if (!blValue) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_NO_SUCH_KEY, ENOENT);
        return -1;
    }
    copyCut(result, szBuf, cbBuf);
    return 0;
}

int enumSection(const char *szFile, QLIBCSZLIST **ppList) {
    struct stat status;
    const UniqueFd fd = openRegular(AT_FDCWD, szFile, false, status);
    if (!fd.valid()) {
        return -1;
    }
    std::unordered_set<std::string> names;
    bool blPushed = true;
    off_t end = 0;
    const int nResult = walkSections(fd.get(), &end, [&](const std::string &name, const SectionRange &) {
        // Of a name that stands twice only the first section is ever read.
        blPushed = !names.insert(name).second || QLIBCSzListPush(ppList, name.c_str()) >= 0;
        return blPushed;
    });
    return nResult == 0 && blPushed ? 0 : -1;
}

// A text without the blanks and the pair of quotes around it.
std::string_view trimmed(std::string_view text) {
    const char *const szBlanks = " \t\r";
    const size_t nBegin = text.find_first_not_of(szBlanks);
    if (nBegin == std::string_view::npos) {
        return {};
    }
    text = text.substr(nBegin, text.find_last_not_of(szBlanks) - nBegin + 1);
    if (text.size() >= 2 && (text.front() == '"' || text.front() == '\'') && text.back() == text.front()) {
        text = text.substr(1, text.size() - 2);
    }
    return text;
}

int getKeyValue(const char *szFile, std::string_view wanted, char *szBuf, size_t cbBuf) {
    struct stat status;
    const UniqueFd fd = openRegular(AT_FDCWD, szFile, true, status);
    if (!fd.valid()) {
        return -1;
    }
    LineReader reader(fd.get());
    Line line{};
    std::string result;
    bool blFound = false;
    int nResult = reader.next(line);
    for (; nResult > 0; nResult = reader.next(line)) {
        std::string_view key;
        std::string_view value;
        if (splitPair(line.text, key, value) && trimmed(key) == wanted) {
            result.assign(trimmed(value));
            blFound = true;
        }
    }
    if (nResult < 0) {
        return -1;
    }
    if (!blFound) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_NO_SUCH_KEY, ENOENT);
        return 0;
    }
    copyCut(result, szBuf, cbBuf);
    return 1;
}

int badParameter() {
    QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
    return -1;
}

} // namespace

int QLIBCFileGetSection(const char *szFile, const char *szSection, QLIBCSZHASH **ppHash) {
    if (szFile == nullptr || szSection == nullptr || ppHash == nullptr || *ppHash == nullptr) {
        return badParameter();
    }
    return guarded([=] { return getSection(szFile, szSection, ppHash); });
}

int QLIBCFileGetSectionValue(const char *szFile, const char *szSection, const char *szKey, char *szBuf, size_t cbBuf) {
    if (szFile == nullptr || szSection == nullptr || szKey == nullptr || szBuf == nullptr || cbBuf == 0) {
        return badParameter();
    }
    return guarded([=] { return getSectionValue(szFile, szSection, szKey, szBuf, cbBuf); });
}

int QLIBCFileEnumSection(const char *szFile, QLIBCSZLIST **ppList) {
    if (szFile == nullptr || ppList == nullptr || *ppList == nullptr) {
        return badParameter();
    }
    return guarded([=] { return enumSection(szFile, ppList); });
}

int QLIBCFileGetKeyValue(const char *szFile, const char *szKey, char *szBuf, size_t cbBuf, int nFlags) {
    if (szFile == nullptr || szKey == nullptr || szBuf == nullptr || cbBuf == 0 || nFlags != 0) {
        return badParameter();
    }
    return guarded([=] { return getKeyValue(szFile, szKey, szBuf, cbBuf); });
}
