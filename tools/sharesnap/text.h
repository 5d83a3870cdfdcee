// Texts of any bytes, made fit for people and for programs.
#pragma once

#include <string>

namespace command {

// The same text with U+FFFD for every byte that isn't part of a valid UTF-8 sequence.
[[nodiscard]] std::string validUtf8(const std::string &text);

// Valid UTF-8 without control characters, which could move the cursor or set colours: they show as \x1b.
[[nodiscard]] std::string printable(const std::string &text);

// Columns that a printable text takes, one a character.
[[nodiscard]] size_t columns(const std::string &text);

} // namespace command
