#include "text.h"

#include <algorithm>
#include <cstdio>

namespace command {
namespace {

bool isControl(unsigned char byte) {
    return byte < 0x20 || byte == 0x7F;
}

bool continues(const std::string &text, size_t place) {
    return place < text.size() && (static_cast<unsigned char>(text[place]) & 0xC0) == 0x80;
}

// Length of the valid UTF-8 sequence at a place, 0 when there is none: no overlong forms, no surrogates.
size_t sequence(const std::string &text, size_t place) {
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

std::string cleaned(const std::string &text) {
    std::string result;
    result.reserve(text.size());
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
    return result;
}

} // namespace

std::string printable(const std::string &text) {
    const auto plain = [](char byte) {
        const auto value = static_cast<unsigned char>(byte);
        return value < 0x80 && !isControl(value);
    };
    return std::all_of(text.begin(), text.end(), plain) ? text : cleaned(text);
}

size_t columns(const std::string &text) {
    size_t count = 0;
    for (const char byte : text) {
        count += (static_cast<unsigned char>(byte) & 0xC0) != 0x80 ? 1 : 0;
    }
    return count;
}

} // namespace command
