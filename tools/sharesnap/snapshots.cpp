#include "snapshots.h"

#include "failure.h"
#include "times.h"

#include <sharesnap/frame.h>
#include <sharesnap/metadata.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

namespace command {
namespace {

// What the library's selectors answer.
enum Answer { keep = 0, skip = 1, stopFailing = 3 };

struct Gathering {
    const Selection &selection;
    bool outOfMemory;
    List keys; // one list for all sections
    std::vector<Snapshot> snapshots;
};

Pairs chosenPairs(const QLIBCSZHASH *section, const std::vector<std::string> &keys) {
    Pairs pairs;
    pairs.reserve(keys.size());
    for (const std::string &key : keys) {
        const char *value = QLIBCSzHashGetValue(section, key.c_str());
        if (value != nullptr) {
            pairs.emplace_back(key, value);
        }
    }
    return pairs;
}

Pairs allPairs(const QLIBCSZHASH *section, List &keys) {
    Pairs pairs;
    QLIBCSzListRemoveAll(keys.get());
    if (QLIBCSzHashEnumKey(section, keys.address()) < 0) {
        throw std::bad_alloc();
    }
    pairs.reserve(static_cast<size_t>(keys->nItem));
    for (int i = 0; i < keys->nItem; ++i) {
        const char *key = QLIBCSzListGet(keys.get(), i);
        pairs.emplace_back(key, QLIBCSzHashGetValue(section, key));
    }
    return pairs;
}

void takeSection(Gathering &gathering, const char *name, const QLIBCSZHASH *section) {
    const char *hide = QLIBCSzHashGetValue(section, "hide");
    if (!gathering.selection.hidden && hide != nullptr && std::strcmp(hide, "true") == 0) {
        return;
    }
    const std::vector<std::string> &keys = gathering.selection.keys;
    Snapshot &snapshot = gathering.snapshots.emplace_back();
    snapshot.name = name;
    snapshot.time = timeOfName(snapshot.name);
    snapshot.attributes = keys.empty() ? allPairs(section, gathering.keys) : chosenPairs(section, keys);
}

// Stands last in the chain, so it meets what the filters let through. It takes the section for itself: the list of
// names that the library makes isn't wanted.
int gather(const char *name, const QLIBCSZHASH *section, void *data) {
    auto &gathering = *static_cast<Gathering *>(data);
    try {
        takeSection(gathering, name, section);
    } catch (const std::bad_alloc &) {
        gathering.outOfMemory = true; // no exception may pass through the library
        return stopFailing;
    }
    return skip;
}

// A chain of selectors with the texts that its links point to.
class Chain {
public:
    Chain() = default;
    Chain(const Chain &) = delete;
    Chain &operator=(const Chain &) = delete;
    ~Chain() { QOVAShareSnapEnumFree(first_); }

    // What is added later is asked earlier.
    void add(QOVAShareSnapSelector selector, void *data) {
        if (QOVAShareSnapSelectorAdd(&first_, selector, data) != 0) {
            throw std::bad_alloc(); // the data are good, so nothing else can fail
        }
    }
    void addTime(const char *comparison, std::optional<time_t> time, std::string &text) {
        if (!time) {
            return;
        }
        std::array<char, 64> name = {};
        if (SnapNameGenerateByTime(name.data(), name.size(), *time, 0) != 0) {
            throw Failure(exitUsage, "the time @" + std::to_string(*time) + " is out of range");
        }
        text = std::string(comparison) + name.data();
        add(QOVAShareSnapTimeSelector, text.data());
    }
    [[nodiscard]] const QOVAShareSnapEnum *get() const { return first_; }

private:
    QOVAShareSnapEnum *first_ = nullptr;
};

bool olderFirst(const Snapshot &left, const Snapshot &right) {
    if (left.time.has_value() != right.time.has_value()) {
        return left.time.has_value();
    }
    return left.time < right.time;
}

} // namespace

const std::string *Snapshot::attribute(const std::string &key) const {
    for (const auto &pair : attributes) {
        if (pair.first == key) {
            return &pair.second;
        }
    }
    return nullptr;
}

std::string Snapshot::text(const std::string &key) const {
    const std::string *value = attribute(key);
    return value != nullptr ? *value : "";
}

void checkAttributeFilters(const std::vector<std::string> &filters) {
    for (const std::string &filter : filters) {
        const std::string positive = filter.substr(filter.compare(0, 1, "!") == 0 ? 1 : 0);
        if (positive.empty() || positive[0] == '=') {
            throw Failure(exitUsage, "--attr: " + quoted(filter) + " names no attribute",
                          "give key, key=part or key==value, with ! before it for the opposite");
        }
    }
}

std::vector<Snapshot> gatherSnapshots(const QOVASHARE &share, const Selection &selection) {
    checkAttributeFilters(selection.attributes);
    Gathering gathering{selection, false, newList(), {}};
    std::vector<std::string> filters = selection.attributes;
    std::string since;
    std::string until;
    Chain chain;
    chain.add(gather, &gathering);
    for (std::string &filter : filters) {
        chain.add(QOVAShareSnapAttrSelector, filter.data());
    }
    chain.addTime(">=", selection.since, since);
    chain.addTime("<=", selection.until, until);

    List names = newList();
    forgetCause();
    if (QOVAShareSnapList(&share, names.address(), chain.get()) != 0) {
        const Cause cause = causeNow();
        if (gathering.outOfMemory) {
            throw std::bad_alloc();
        }
        throw libraryFailure("can't list the snapshots of " + named(share), share, cause);
    }
    // As a rule they stand in the list as they were taken.
    if (!std::is_sorted(gathering.snapshots.begin(), gathering.snapshots.end(), olderFirst)) {
        std::stable_sort(gathering.snapshots.begin(), gathering.snapshots.end(), olderFirst);
    }
    return std::move(gathering.snapshots);
}

} // namespace command
