#include "log_capture.hpp"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex.h>
#include <sys/mman.h>
#include <unistd.h>

namespace testkit {
namespace {

// Shared memory, so that what a forked child says is seen. Records stand one behind the other; the place of a record
// is reserved first and its priority written last, which makes it valid.
constexpr size_t capacity = size_t(4) << 20;
constexpr size_t longestLine = 16384;

struct Record {
    std::atomic<int> priorityPlusOne;
    pid_t pid;
    size_t length;
};

struct Store {
    std::atomic<size_t> used;
    alignas(Record) std::array<char, capacity> bytes;
};

Store &store() {
    static Store *const shared = [] {
        void *memory = mmap(nullptr, sizeof(Store), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            std::perror("no memory for the log");
            std::abort();
        }
        return static_cast<Store *>(memory);
    }();
    return *shared;
}

size_t recordSize(size_t length) {
    constexpr size_t unit = alignof(Record);
    return (sizeof(Record) + length + unit - 1) / unit * unit;
}

__attribute__((format(printf, 2, 0))) void keep(int priority, const char *format, va_list arguments) {
    const int error = errno; // "%m" speaks of it, and the caller may still need it
    std::array<char, longestLine> text;
    const int wanted = vsnprintf(text.data(), text.size(), format, arguments);
    const size_t length = wanted < 0 ? 0 : std::min(static_cast<size_t>(wanted), text.size() - 1);
    Store &all = store();
    const size_t place = all.used.fetch_add(recordSize(length));
    if (place + recordSize(length) > capacity) {
        std::fputs("more log lines than a test may have\n", stderr);
        std::abort();
    }
    auto *record = reinterpret_cast<Record *>(&all.bytes[place]);
    record->pid = getpid();
    record->length = length;
    std::memcpy(&all.bytes[place + sizeof(Record)], text.data(), length);
    record->priorityPlusOne = LOG_PRI(priority) + 1;
    errno = error;
}

std::string withoutLineFeed(const std::string &text) {
    return !text.empty() && text.back() == '\n' ? text.substr(0, text.size() - 1) : text;
}

testing::AssertionResult verdict(bool found, const std::string &wanted) {
    if (found) {
        return testing::AssertionSuccess() << "logged: " << wanted;
    }
    return testing::AssertionFailure() << "not logged: " << wanted << "\nThe log:\n" << logText();
}

} // namespace

std::vector<LogLine> logLines() {
    std::vector<LogLine> lines;
    Store &all = store();
    const size_t used = all.used;
    for (size_t place = 0; place < used;) {
        const auto *record = reinterpret_cast<const Record *>(&all.bytes[place]);
        if (record->priorityPlusOne == 0) {
            break; // being written by another process, or left by one that was killed here
        }
        const char *text = &all.bytes[place + sizeof(Record)];
        lines.push_back({record->priorityPlusOne - 1, record->pid, std::string(text, record->length)});
        place += recordSize(record->length);
    }
    return lines;
}

std::string logText() {
    std::string text;
    for (const LogLine &line : logLines()) {
        text += "  <" + std::to_string(line.priority) + "> " + withoutLineFeed(line.text) + "\n";
    }
    return text;
}

size_t logCount(int priority, const std::string &part) {
    size_t count = 0;
    for (const LogLine &line : logLines()) {
        count += line.priority == priority && line.text.find(part) != std::string::npos ? 1U : 0U;
    }
    return count;
}

testing::AssertionResult logged(int priority, const std::string &part) {
    return verdict(logCount(priority, part) > 0, "<" + std::to_string(priority) + "> " + part);
}

testing::AssertionResult loggedMatch(int priority, const std::string &expression) {
    regex_t compiled;
    if (regcomp(&compiled, expression.c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
        return testing::AssertionFailure() << "not an expression: " << expression;
    }
    bool found = false;
    for (const LogLine &line : logLines()) {
        found = found || (line.priority == priority &&
                          regexec(&compiled, withoutLineFeed(line.text).c_str(), 0, nullptr, 0) == 0);
    }
    regfree(&compiled);
    return verdict(found, "<" + std::to_string(priority) + "> " + expression);
}

testing::AssertionResult nothingFailed() {
    for (const LogLine &line : logLines()) {
        if (line.priority <= LOG_ERR) {
            return testing::AssertionFailure() << "a failure was logged:\n" << logText();
        }
    }
    return testing::AssertionSuccess();
}

void logClear() {
    Store &all = store();
    std::memset(all.bytes.data(), 0, std::min(all.used.load(), capacity));
    all.used = 0;
}

} // namespace testkit

// What stands in for the C library's. The names are given to the linker apart from the declarations, because the
// headers' attributes differ from one C library to the next.
extern "C" {

#define TESTKIT_NAME(name) __asm__(#name) __attribute__((visibility("default")))

void testkitSyslog(int priority, const char *format, ...) TESTKIT_NAME(syslog);
void testkitSyslogChecked(int priority, int flag, const char *format, ...) TESTKIT_NAME(__syslog_chk);
void testkitVsyslog(int priority, const char *format, va_list arguments) TESTKIT_NAME(vsyslog);
void testkitVsyslogChecked(int priority, int flag, const char *format, va_list arguments) TESTKIT_NAME(__vsyslog_chk);
void testkitOpenlog(const char *, int, int) TESTKIT_NAME(openlog);
void testkitCloselog() TESTKIT_NAME(closelog);

__attribute__((format(printf, 2, 3))) void testkitSyslog(int priority, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    testkit::keep(priority, format, arguments);
    va_end(arguments);
}

__attribute__((format(printf, 3, 4))) void testkitSyslogChecked(int priority, int, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    testkit::keep(priority, format, arguments);
    va_end(arguments);
}

__attribute__((format(printf, 2, 0))) void testkitVsyslog(int priority, const char *format, va_list arguments) {
    testkit::keep(priority, format, arguments);
}

__attribute__((format(printf, 3, 0))) void testkitVsyslogChecked(int priority, int, const char *format,
                                                                 va_list arguments) {
    testkit::keep(priority, format, arguments);
}

void testkitOpenlog(const char *, int, int) {}
void testkitCloselog() {}
}
