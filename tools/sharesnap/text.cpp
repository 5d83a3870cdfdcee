#include "text.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace command {
namespace {

bool isControl(unsigned char byte) {
    return byte < 0x20 || byte == 0x7F;
}

bool continues(std::string_view text, size_t place) {
    return place < text.size() && (static_cast<unsigned char>(text[place]) & 0xC0) == 0x80;
}

// Length of the valid UTF-8 sequence at a place, 0 when there is none: no overlong forms, no surrogates.
size_t sequence(std::string_view text, size_t place) {
    const auto first = static_cast<unsigned char>(text[place]);
    const unsigned char second = place + 1 < text.size() ? static_cast<unsigned char>(text[place + 1]) : 0;
    if (first < 0x80) {
        return 1;
    }
    if (first >= 0xC2 && first <= 0xDF) {
        return continues(text, place + 1) ? 2 : 0;
    }
    if (first >= 0xE0 && first <= 0xEF) {
        const bool bad = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F);
        return !bad && continues(text, place + 1) && continues(text, place + 2) ? 3 : 0;
    }
    if (first >= 0xF0 && first <= 0xF4) {
        const bool bad = (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
        return !bad && continues(text, place + 1) && continues(text, place + 2) && continues(text, place + 3) ? 4 : 0;
    }
    return 0;
}

void escape(unsigned char byte, std::string &result) {
    char text[8];
    std::snprintf(text, sizeof(text), "\\x%02x", byte);
    result += text;
}

void appendCleaned(std::string &result, std::string_view text) {
    for (size_t place = 0; place < text.size();) {
        const size_t length = sequence(text, place);
        const auto byte = static_cast<unsigned char>(text[place]);
        if (length == 0) {
            result += "\xEF\xBF\xBD";
            ++place;
            continue;
        }
        const auto second = static_cast<unsigned char>(length > 1 ? text[place + 1] : 0);
        if (isControl(byte)) {
            escape(byte, result);
        } else if (byte == 0xC2 && second < 0xA0) { // the control characters U+0080 to U+009F
            escape(second, result);
        } else {
            result.append(text, place, length);
        }
        place += length;
    }
}

// True for printable ASCII. Eight bytes are looked at together: where none has its top bit set, adding 1 sets it in 0x7F
// only, and taking 0x20 away sets it in control characters.
bool isPlain(std::string_view text) {
    constexpr uint64_t ones = 0x0101010101010101;
    uint64_t found = 0;
    for (; text.size() >= sizeof(found); text.remove_prefix(sizeof(found))) {
        uint64_t bytes = 0;
        std::memcpy(&bytes, text.data(), sizeof(bytes));
        found |= bytes | (bytes + ones) | (bytes - 0x20 * ones);
    }
    for (const char byte : text) {
        const auto value = static_cast<unsigned char>(byte);
        found |= value >= 0x80 || isControl(value) ? 0x80 : 0;
    }
    return (found & (0x80 * ones)) == 0;
}

} // namespace

std::string printable(const std::string &text) {
    std::string result;
    (void)appendPrintable(result, text); // only the text is wanted
    return result;
}

size_t appendPrintable(std::string &result, std::string_view text) {
    if (isPlain(text)) {
        result += text;
        return text.size();
    }
    const size_t begin = result.size();
    appendCleaned(result, text);
    const auto continuing = [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; };
    const std::string_view added = std::string_view(result).substr(begin);
    return added.size() - static_cast<size_t>(std::count_if(added.begin(), added.end(), continuing));
}

} // namespace command
