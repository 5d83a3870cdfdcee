// Entries for the system journal in its native protocol: one datagram a message. Written out here and not taken from
// libsystemd, because its call waits when the journal's queue is full, and because nothing else has to be loaded so.
#ifndef SHARESNAP_PLATFORM_COMMON_JOURNAL_H
#define SHARESNAP_PLATFORM_COMMON_JOURNAL_H

#include <string>
#include <string_view>

namespace QovaPlatform {

class JournalEntry {
public:
    // The message itself, its priority as in syslog, and the name of this program.
    JournalEntry(int priority, std::string_view message);

    // A field; the name has upper-case letters, digits and '_' only. Values are cut at 16 KiB, and any byte may stand
    // in them.
    void add(std::string_view name, std::string_view value);

    // 0 when the entry was handed over, or when the machine has no journal; -1 when it was lost, with errno. Never
    // waits.
    [[nodiscard]] int send() const;

private:
    std::string text_;
};

} // namespace QovaPlatform

#endif
