#include "common/journal.h"

#include "common/descriptor.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace QovaPlatform {
namespace {

constexpr const char *journalSocket = "/run/systemd/journal/socket";
constexpr size_t valueLimit = 16U * 1024U;

// A value with a line feed is preceded by its length, 64 bits, little endian.
void appendLength(std::string *text, uint64_t length) {
    for (int shift = 0; shift < 64; shift += 8) {
        text->push_back(static_cast<char>((length >> shift) & 0xFFU));
    }
}

} // namespace

JournalEntry::JournalEntry(int priority, std::string_view message) {
    add("MESSAGE", message);
    add("PRIORITY", std::to_string(priority));
    add("SYSLOG_IDENTIFIER", program_invocation_short_name);
}

void JournalEntry::add(std::string_view name, std::string_view value) {
    value = value.substr(0, valueLimit);
    text_.append(name);
    if (value.find('\n') == std::string_view::npos) {
        text_.push_back('=');
    } else {
        text_.push_back('\n');
        appendLength(&text_, value.size());
    }
    text_.append(value);
    text_.push_back('\n');
}

int JournalEntry::send() const {
    const Descriptor out(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!out.IsOpen()) {
        return -1;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, journalSocket, sizeof(address.sun_path) - 1);
    if (sendto(out.Get(), text_.data(), text_.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
               reinterpret_cast<const sockaddr *>(&address), sizeof(address)) >= 0) {
        return 0;
    }
    // Nobody has made the socket, or nobody listens to it: a machine without a journal.
    return errno == ENOENT || errno == ENOTDIR || errno == ECONNREFUSED ? 0 : -1;
}

} // namespace QovaPlatform
