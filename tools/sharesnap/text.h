// Texts of any bytes, made fit for people.
#pragma once

#include <string>

namespace command {

// Valid UTF-8, with U+FFFD for every byte that isn't part of it, and without control characters, which could move the
// cursor or set colours: they show as \x1b.
[[nodiscard]] std::string printable(const std::string &text);

// Columns that a printable text takes, one a character.
[[nodiscard]] size_t columns(const std::string &text);

} // namespace command
