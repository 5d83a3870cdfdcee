#include "times.h"

#include "failure.h"

#include <sharesnap/frame.h>

#include <cctype>
#include <charconv>
#include <cstring>

namespace command {
namespace {

std::optional<time_t> durationOf(const std::string &text) {
    constexpr time_t most = 10000LL * 366 * 86400;
    time_t total = 0;
    size_t place = 0;
    while (place < text.size()) {
        const size_t start = place;
        time_t number = 0;
        while (place < text.size() && std::isdigit(static_cast<unsigned char>(text[place])) != 0 && number <= most) {
            number = number * 10 + (text[place++] - '0');
        }
        if (place == start || place == text.size()) {
            return std::nullopt;
        }
        time_t unit = 0;
        switch (text[place++]) {
        case 's':
            unit = 1;
            break;
        case 'm':
            unit = 60;
            break;
        case 'h':
            unit = 3600;
            break;
        case 'd':
            unit = 86400;
            break;
        case 'w':
            unit = 7 * 86400;
            break;
        default:
            return std::nullopt;
        }
        if (number > most / unit || (total += number * unit) > most) {
            return std::nullopt;
        }
    }
    return text.empty() ? std::nullopt : std::optional<time_t>(total);
}

std::optional<time_t> calendarTime(std::string text, bool utc) {
    if (!text.empty() && text.back() == 'Z') {
        utc = true;
        text.pop_back();
    }
    for (const char *form :
         {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%dT%H:%M:%S"}) {
        tm parts = {};
        const char *end = strptime(text.c_str(), form, &parts);
        if (end != nullptr && *end == '\0') {
            parts.tm_isdst = -1;
            return utc ? timegm(&parts) : mktime(&parts);
        }
    }
    return std::nullopt;
}

std::optional<time_t> secondsSinceEpoch(const std::string &text) {
    if (text.size() < 2 || text.size() > 13 || text[0] != '@') {
        return std::nullopt;
    }
    time_t seconds = 0;
    for (size_t i = 1; i < text.size(); ++i) {
        if (std::isdigit(static_cast<unsigned char>(text[i])) == 0) {
            return std::nullopt;
        }
        seconds = seconds * 10 + (text[i] - '0');
    }
    return seconds;
}

// Writes a separator and a number of two digits. Gives the place behind them.
char *writeDigits(char *place, char separator, int number) {
    *place++ = separator;
    *place++ = static_cast<char>('0' + number / 10);
    *place++ = static_cast<char>('0' + number % 10);
    return place;
}

} // namespace

std::string isoTime(time_t time) {
    tm parts = {};
    char text[64];
    if (gmtime_r(&time, &parts) == nullptr) {
        return "";
    }
    return {text, strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

std::string shownTime(time_t time, bool utc) {
    tm parts = {};
    if ((utc ? gmtime_r(&time, &parts) : localtime_r(&time, &parts)) == nullptr) {
        return "";
    }
    // A listing shows thousands: strftime would be a good part of it.
    char text[64];
    char *end = std::to_chars(text, text + 32, parts.tm_year + 1900LL).ptr;
    end = writeDigits(end, '-', parts.tm_mon + 1);
    end = writeDigits(end, '-', parts.tm_mday);
    end = writeDigits(end, ' ', parts.tm_hour);
    end = writeDigits(end, ':', parts.tm_min);
    end = writeDigits(end, ':', parts.tm_sec);
    if (utc) {
        *end++ = 'Z';
    }
    return {text, end};
}

std::optional<time_t> timeOfName(const char *name) {
    time_t time = 0;
    if (std::strncmp(name, "GMT", 3) != 0 || QOVAShareSnapTimeGet(name, &time) != 0) {
        return std::nullopt;
    }
    return time;
}

time_t parseTime(const std::string &option, const std::string &text, bool utc) {
    if (const auto seconds = secondsSinceEpoch(text)) {
        return *seconds;
    }
    if (const auto time = calendarTime(text, utc)) {
        return *time;
    }
    if (const auto time = timeOfName(text)) {
        return *time;
    }
    if (const auto ago = durationOf(text)) {
        return ::time(nullptr) - *ago;
    }
    throw Failure(exitUsage, option + ": " + quoted(text) + " is no time",
                  "give 2026-01-02, \"2026-01-02 03:04:05\", @SECONDS, a snapshot's name, or how long ago (12h, 30d)");
}

time_t parseDuration(const std::string &option, const std::string &text) {
    if (const auto duration = durationOf(text)) {
        return *duration;
    }
    throw Failure(exitUsage, option + ": " + quoted(text) + " is no duration",
                  "give a number with s, m, h, d or w behind it, such as 12h or 30d");
}

} // namespace command
