// Times as the command reads and shows them.
#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace command {

// "2026-01-02T03:04:05Z".
[[nodiscard]] std::string isoTime(time_t time);

// "2026-01-02 03:04:05" in local time, or in UTC with a "Z" behind it.
[[nodiscard]] std::string shownTime(time_t time, bool utc);

// The time in a snapshot's name; nothing for a name of another make.
[[nodiscard]] std::optional<time_t> timeOfName(const char *name);
[[nodiscard]] inline std::optional<time_t> timeOfName(const std::string &name) {
    return timeOfName(name.c_str());
}

// A time as people give it: 2026-01-02, "2026-01-02 03:04[:05]" or with a T, with Z for UTC, @SECONDS, a snapshot's
// name, or a duration that lies so long in the past. Throws a Failure (usage) that names the option.
[[nodiscard]] time_t parseTime(const std::string &option, const std::string &text, bool utc);

// Seconds of 90s, 45m, 12h, 30d, 2w or a row of them such as 1d12h. Throws a Failure (usage) that names the option.
[[nodiscard]] time_t parseDuration(const std::string &option, const std::string &text);

} // namespace command
