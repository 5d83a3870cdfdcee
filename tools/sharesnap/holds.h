// Who holds a snapshot, and how often.
#pragma once

#include "output.h"

#include <sharesnap/platform/share.h>

#include <cstdint>
#include <string>
#include <vector>

namespace command {

struct Hold {
    std::string holder;
    uint32_t count;
};

// Throws a Failure when the holds can't be read.
[[nodiscard]] std::vector<Hold> holdsOf(const QOVASHARE &share, const std::string &snapshot);
[[nodiscard]] uint32_t holdCount(const QOVASHARE &share, const std::string &snapshot, const std::string &holder);

// "once", "3 times".
[[nodiscard]] std::string timesText(uint32_t count);
// "backup (once), sync (3 times)".
[[nodiscard]] std::string holdsText(const std::vector<Hold> &holds);
[[nodiscard]] Json holdsDocument(const std::vector<Hold> &holds);

} // namespace command
