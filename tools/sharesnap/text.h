// Texts of any bytes, made fit for people.
#pragma once

#include <string>
#include <string_view>

namespace command {

// Valid UTF-8, with U+FFFD for every byte that isn't part of it, and without control characters, which could move the
// cursor or set colours: they show as \x1b.
[[nodiscard]] std::string printable(const std::string &text);

// Appends a text in that form to another one. Gives the columns that it takes, one a character.
size_t appendPrintable(std::string &result, std::string_view text);

} // namespace command
