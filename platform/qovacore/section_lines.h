// What reading and writing of sectioned files have in common: the forms of a line, and a walk over the lines of a file.
#ifndef QOVACORE_SECTION_LINES_H
#define QOVACORE_SECTION_LINES_H

#include "support.h"
#include <memory>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>

namespace qovacore {

// A line as text: up to its line feed or, as everybody handles lines as C strings, up to a NUL byte.
[[nodiscard]] std::string_view lineText(std::string_view line);
// Any line that begins so ends the section ahead of it, header or not.
[[nodiscard]] bool endsSection(std::string_view line);
// The name between '[' in column 0 and the last ']'. False when the line is no header.
[[nodiscard]] bool parseHeader(std::string_view line, std::string_view &name);
[[nodiscard]] bool isComment(std::string_view line);
// Splits at the first '='. False for comments, for what begins like a header, and without '=' or without a key.
[[nodiscard]] bool splitPair(std::string_view line, std::string_view &key, std::string_view &value);

// Opens a regular file for reading, a link at the last component not followed unless blFollow. Sets 0x0900 and errno.
[[nodiscard]] UniqueFd openRegular(int fdDirectory, const char *szPath, bool blFollow, struct stat &status);

// One line of a file and where it stands.
struct Line {
    std::string_view text; // without the line feed; valid until the next line is taken
    off_t begin;
    off_t end; // behind the line feed
};

// The lines of a file of any size, one after the other, with no more in memory than a buffer and the longest line.
class LineReader {
public:
    explicit LineReader(int fd, off_t begin = 0);
    // 1 and the line, 0 at the end, -1 with 0x0A00 when the file can't be read.
    [[nodiscard]] int next(Line &line);
    // Passes over lines in the buffer that don't begin a section, in one search for all of them. The next line may still
    // be one of that kind, where the buffer ends.
    void passOverBodies();
    // The offset behind the last line taken or passed over.
    [[nodiscard]] off_t position() const { return m_offset + static_cast<off_t>(m_begin); }

private:
    [[nodiscard]] int fill();

    int m_fd;
    std::unique_ptr<char[]> m_buffer; // not filled with anything: most files are small
    size_t m_cbBuffer;
    size_t m_begin = 0; // what isn't taken yet
    size_t m_end = 0;
    off_t m_offset; // of the buffer in the file
    bool m_blEnd = false;
};

// Where a section stands in its file.
struct SectionRange {
    off_t header = 0;
    off_t body = 0;
    off_t end = 0;
};

// Walks over the sections of a file: onSection(name, range) for each, until it returns false. Lines that belong to no
// section are passed over. 0, or -1 with 0x0A00; *pEnd is the offset that was reached.
template <class Function>
int walkSections(int fd, off_t *pEnd, Function onSection) {
    LineReader reader(fd);
    Line line{};
    std::string name;
    SectionRange range;
    bool blOpen = false;
    for (;;) {
        reader.passOverBodies();
        const int nResult = reader.next(line);
        if (nResult < 0) {
            return -1;
        }
        if (blOpen && (nResult == 0 || endsSection(line.text))) {
            range.end = nResult == 0 ? reader.position() : line.begin;
            blOpen = false;
            if (!onSection(name, range)) {
                break;
            }
        }
        std::string_view header;
        if (nResult == 0) {
            break;
        }
        if (parseHeader(line.text, header)) {
            name.assign(header);
            range = {line.begin, line.end, line.end};
            blOpen = true;
        }
    }
    *pEnd = reader.position();
    return 0;
}

// Calls onLine(line) for each line of a text, given without its line feed.
template <class Function>
void forEachLine(std::string_view text, Function onLine) {
    while (!text.empty()) {
        const size_t nEnd = text.find('\n');
        onLine(text.substr(0, nEnd));
        text.remove_prefix(nEnd == std::string_view::npos ? text.size() : nEnd + 1);
    }
}

// Reads from a place of a file. The bytes that came, fewer than asked for where the file ends; -1 with 0x0A00.
[[nodiscard]] ssize_t readBytes(int fd, off_t begin, char *pBuf, size_t cbBuf);
// Reads a range of a file. A file that ends before gives what there is. False with 0x0A00.
[[nodiscard]] bool readRange(int fd, off_t begin, off_t end, std::string &text);

// Runs a function behind the C boundary: what it throws for want of memory becomes 0x0200 and -1.
template <class Function>
int guarded(Function function) {
    try {
        return function();
    } catch (const std::exception &) {
        QOVACORE_SET_CODE_ERRNO(SNAP_ERR_OUT_OF_MEMORY, ENOMEM);
        return -1;
    }
}

} // namespace qovacore

#endif
