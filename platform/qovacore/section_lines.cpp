// The lines of sectioned files.

#include "section_lines.h"
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sharesnap/platform/section_file.h>

namespace qovacore {

std::string_view lineText(std::string_view line) {
    line = line.substr(0, line.find('\n'));
    return line.substr(0, line.find('\0'));
}

bool endsSection(std::string_view line) {
    return !line.empty() && line.front() == '[';
}

bool parseHeader(std::string_view line, std::string_view &name) {
    if (!endsSection(line)) {
        return false;
    }
    const std::string_view text = lineText(line);
    const size_t nEnd = text.rfind(']');
    if (nEnd == std::string_view::npos) {
        return false;
    }
    name = text.substr(1, nEnd - 1);
    return true;
}

bool isComment(std::string_view line) {
    return !line.empty() && (line.front() == ';' || line.front() == '#');
}

namespace {

// Where the '=' of a pair stands in a line that is text to its end; 0 when the line is no pair.
size_t signOf(std::string_view text) {
    if (isComment(text) || endsSection(text)) {
        return 0;
    }
    const size_t nSign = text.find('=');
    return nSign != std::string_view::npos ? nSign : 0;
}

} // namespace

bool splitPair(std::string_view line, std::string_view &key, std::string_view &value) {
    const std::string_view text = lineText(line);
    const size_t nSign = signOf(text);
    if (nSign == 0) {
        return false;
    }
    key = text.substr(0, nSign);
    value = text.substr(nSign + 1);
    return true;
}

UniqueFd openRegular(int fdDirectory, const char *szPath, bool blFollow, struct stat &status) {
    // Not to wait for the other end of a pipe that stands in the file's place.
    UniqueFd fd(
        openat(fdDirectory, szPath, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (blFollow ? 0 : O_NOFOLLOW)));
    if (!fd.valid() || fstat(fd.get(), &status) != 0) {
        QOVACORE_SET_CODE(SNAP_ERR_OPEN_FAILED);
        return UniqueFd();
    }
    if (!S_ISREG(status.st_mode)) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OPEN_FAILED, S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
        return UniqueFd();
    }
    return fd;
}

namespace {

// read at an offset, begun again when a signal came.
ssize_t readAt(int fd, char *pBuf, size_t cbBuf, off_t nOffset) {
    for (;;) {
        const ssize_t nRead = pread(fd, pBuf, cbBuf, nOffset);
        if (nRead >= 0 || errno != EINTR) {
            return nRead;
        }
    }
}

constexpr size_t BUFFER_BYTES = 65536;

} // namespace

LineReader::LineReader(int fd, off_t begin)
    : m_fd(fd), m_buffer(new char[BUFFER_BYTES]), m_cbBuffer(BUFFER_BYTES), m_offset(begin) {}

// Reads on behind what the buffer holds. 1 something came, 0 the file is at its end, -1 failure.
int LineReader::fill() {
    if (m_begin > 0) {
        memmove(m_buffer.get(), m_buffer.get() + m_begin, m_end - m_begin);
        m_offset += static_cast<off_t>(m_begin);
        m_end -= m_begin;
        m_begin = 0;
    }
    if (m_end == m_cbBuffer) {
        std::unique_ptr<char[]> larger(new char[m_cbBuffer * 2]);
        memcpy(larger.get(), m_buffer.get(), m_end);
        m_buffer = std::move(larger);
        m_cbBuffer *= 2;
    }
    const ssize_t nRead =
        readAt(m_fd, m_buffer.get() + m_end, m_cbBuffer - m_end, m_offset + static_cast<off_t>(m_end));
    if (nRead < 0) {
        QOVACORE_SET_CODE(SNAP_ERR_READ_FAILED);
        return -1;
    }
    m_end += static_cast<size_t>(nRead);
    return nRead > 0 ? 1 : 0;
}

void LineReader::passOverBodies() {
    const char *const pBuffer = m_buffer.get();
    if (m_begin == m_end || pBuffer[m_begin] == '[') {
        return;
    }
    size_t nSearch = m_begin + 1;
    while (const void *pFound = memchr(pBuffer + nSearch, '[', m_end - nSearch)) {
        const auto nFound = static_cast<size_t>(static_cast<const char *>(pFound) - pBuffer);
        if (pBuffer[nFound - 1] == '\n') {
            m_begin = nFound;
            return;
        }
        nSearch = nFound + 1;
    }
    if (const void *pLast = memrchr(pBuffer + m_begin, '\n', m_end - m_begin)) {
        m_begin = static_cast<size_t>(static_cast<const char *>(pLast) - pBuffer) + 1;
    }
}

int LineReader::next(Line &line) {
    size_t cbSearched = 0;
    for (;;) {
        const char *pBegin = m_buffer.get() + m_begin;
        const size_t cbHeld = m_end - m_begin;
        const auto *pEnd = static_cast<const char *>(memchr(pBegin + cbSearched, '\n', cbHeld - cbSearched));
        if (pEnd != nullptr || (m_blEnd && cbHeld > 0)) {
            const size_t cbText = pEnd != nullptr ? static_cast<size_t>(pEnd - pBegin) : cbHeld;
            line.text = {pBegin, cbText};
            line.begin = position();
            m_begin += cbText + (pEnd != nullptr ? 1 : 0);
            line.end = position();
            return 1;
        }
        if (m_blEnd) {
            return 0;
        }
        cbSearched = cbHeld;
        const int nFilled = fill();
        if (nFilled < 0) {
            return -1;
        }
        m_blEnd = nFilled == 0;
    }
}

ssize_t readBytes(int fd, off_t begin, char *pBuf, size_t cbBuf) {
    size_t cbHeld = 0;
    while (cbHeld < cbBuf) {
        const ssize_t nRead = readAt(fd, pBuf + cbHeld, cbBuf - cbHeld, begin + static_cast<off_t>(cbHeld));
        if (nRead < 0) {
            QOVACORE_SET_CODE(SNAP_ERR_READ_FAILED);
            return -1;
        }
        if (nRead == 0) {
            break;
        }
        cbHeld += static_cast<size_t>(nRead);
    }
    return static_cast<ssize_t>(cbHeld);
}

bool readRange(int fd, off_t begin, off_t end, std::string &text) {
    text.resize(static_cast<size_t>(end - begin));
    const ssize_t nRead = readBytes(fd, begin, text.data(), text.size());
    if (nRead < 0) {
        return false;
    }
    text.resize(static_cast<size_t>(nRead));
    return true;
}

} // namespace qovacore

using namespace qovacore;

int QLIBCIFileIsSection(const char *szLine, size_t cbLine) {
    std::string_view name;
    return szLine != nullptr && parseHeader({szLine, strnlen(szLine, cbLine)}, name) ? 1 : 0;
}

int QLIBCIFileMatchSection(const char *szLine, size_t cbLine, const char *szSection) {
    std::string_view name;
    return szLine != nullptr && szSection != nullptr && parseHeader({szLine, strnlen(szLine, cbLine)}, name) &&
                   name == szSection
               ? 1
               : 0;
}

int QLIBCFileParseSectionName(const char *szLine, char *szBuf, size_t cbBuf) {
    std::string_view name;
    if (szLine == nullptr || szBuf == nullptr || !parseHeader(szLine, name) || name.size() >= cbBuf) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return -1;
    }
    memcpy(szBuf, name.data(), name.size());
    szBuf[name.size()] = '\0';
    return 0;
}

int QLIBCStrSepPair(const char *szLine, QLIBCSZLIST **ppList) {
    const std::string_view text =
        szLine != nullptr ? std::string_view(szLine, static_cast<size_t>(strchrnul(szLine, '\n') - szLine)) : "";
    const size_t nSign = signOf(text);
    if (nSign == 0 || ppList == nullptr || *ppList == nullptr) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_BAD_PARAMETER, EINVAL);
        return -1;
    }
    return pushPair(ppList, text, nSign) < 0 ? -1 : 0;
}
