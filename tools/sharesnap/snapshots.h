// The snapshots of a share, gathered in one pass over its list.
#pragma once

#include "handles.h"

#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace command {

struct Snapshot {
    std::string name;
    std::optional<time_t> time; // none when the name holds no time
    Pairs attributes;

    // The value of an attribute; null when it hasn't got it.
    [[nodiscard]] const std::string *attribute(const std::string &key) const;
    [[nodiscard]] std::string text(const std::string &key) const; // empty without it
    [[nodiscard]] bool hidden() const { return text("hide") == "true"; }
};

struct Selection {
    bool hidden = false; // hidden ones, too
    std::optional<time_t> since;
    std::optional<time_t> until;
    std::vector<std::string> keys;       // take only these attributes of each; all when empty
    std::vector<std::string> attributes; // as QOVAShareSnapAttrSelector takes them: key, key=part, key==value, !...
};

// What is done with each snapshot that passes, in the order of the list. Its section is there for this call only.
using Visit = std::function<void(const char *name, std::optional<time_t> time, const QLIBCSZHASH *section)>;
// Throws a Failure. Nothing but std::bad_alloc may come out of the visit.
void visitSnapshots(const QOVASHARE &share, const Selection &selection, const Visit &visit);

// True when the first of two times comes first: the older one, and those without a time last.
[[nodiscard]] bool isEarlier(std::optional<time_t> left, std::optional<time_t> right);

// Those that pass, sorted by time. Throws a Failure.
[[nodiscard]] std::vector<Snapshot> gatherSnapshots(const QOVASHARE &share, const Selection &selection);

// Throws a Failure (usage) for an attribute filter that says nothing.
void checkAttributeFilters(const std::vector<std::string> &filters);

} // namespace command
