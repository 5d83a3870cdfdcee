// The journal's end of its socket, held by the test: what was sent to the journal can be read as fields.
#pragma once

#include "support/files.hpp"

#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace testkit {

using JournalFields = std::map<std::string, std::string>;

class JournalSocket {
public:
    JournalSocket() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const std::string path = "/run/systemd/journal/socket";
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_TRUE(makeDirectories("/run/systemd/journal"));
        EXPECT_EQ(0, bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)));
    }
    ~JournalSocket() { (void)close(fd_); }
    JournalSocket(const JournalSocket &) = delete;
    JournalSocket &operator=(const JournalSocket &) = delete;

    // All entries that have arrived. A field that stands twice has its values joined by "|".
    [[nodiscard]] std::vector<JournalFields> entries() const {
        std::vector<JournalFields> all;
        std::vector<char> buffer(1024U * 1024U);
        for (;;) {
            const ssize_t size = recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (size < 0) {
                return all;
            }
            all.push_back(parsed(std::string(buffer.data(), static_cast<size_t>(size))));
        }
    }

private:
    static JournalFields parsed(const std::string &text) {
        JournalFields fields;
        for (size_t at = 0; at < text.size();) {
            const size_t lineEnd = text.find('\n', at);
            const std::string line = text.substr(at, lineEnd - at);
            const size_t equals = line.find('=');
            if (equals != std::string::npos) {
                store(fields, line.substr(0, equals), line.substr(equals + 1));
                at = lineEnd + 1;
                continue;
            }
            size_t length = 0;
            for (size_t byte = 0; byte < 8; ++byte) {
                length |= static_cast<size_t>(static_cast<unsigned char>(text.at(lineEnd + 1 + byte))) << (8 * byte);
            }
            store(fields, line, text.substr(lineEnd + 9, length));
            at = lineEnd + 9 + length + 1;
        }
        return fields;
    }

    static void store(JournalFields &fields, const std::string &name, const std::string &value) {
        const auto [place, isNew] = fields.emplace(name, value);
        if (!isNew) {
            place->second += "|" + value;
        }
    }

    int fd_;
};

} // namespace testkit
