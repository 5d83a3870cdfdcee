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

struct Visiting {
    const Selection &selection;
    const Visit &visit;
    bool outOfMemory;
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

// Stands last in the chain, so it meets what the filters let through. It takes the section for itself: the list of
// names that the library makes isn't wanted.
int visitSection(const char *name, const QLIBCSZHASH *section, void *data) {
    auto &visiting = *static_cast<Visiting *>(data);
    const char *hide = QLIBCSzHashGetValue(section, "hide");
    if (!visiting.selection.hidden && hide != nullptr && std::strcmp(hide, "true") == 0) {
        return skip;
    }
    try {
        visiting.visit(name, timeOfName(name), section);
    } catch (const std::bad_alloc &) {
        visiting.outOfMemory = true; // no exception may pass through the library
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

void visitSnapshots(const QOVASHARE &share, const Selection &selection, const Visit &visit) {
    checkAttributeFilters(selection.attributes);
    Visiting visiting{selection, visit, false};
    std::vector<std::string> filters = selection.attributes;
    std::string since;
    std::string until;
    Chain chain;
    chain.add(visitSection, &visiting);
    for (std::string &filter : filters) {
        chain.add(QOVAShareSnapAttrSelector, filter.data());
    }
    chain.addTime(">=", selection.since, since);
    chain.addTime("<=", selection.until, until);

    List names = newList();
    forgetCause();
    if (QOVAShareSnapList(&share, names.address(), chain.get()) != 0) {
        const Cause cause = causeNow();
        if (visiting.outOfMemory) {
            throw std::bad_alloc();
        }
        throw libraryFailure("can't list the snapshots of " + named(share), share, cause);
    }
}

bool isEarlier(std::optional<time_t> left, std::optional<time_t> right) {
    return left.has_value() != right.has_value() ? left.has_value() : left < right;
}

std::vector<Snapshot> gatherSnapshots(const QOVASHARE &share, const Selection &selection) {
    std::vector<Snapshot> snapshots;
    List keys = newList(); // one for all sections
    visitSnapshots(share, selection, [&](const char *name, std::optional<time_t> time, const QLIBCSZHASH *section) {
        snapshots.push_back(
            {name, time, selection.keys.empty() ? allPairs(section, keys) : chosenPairs(section, selection.keys)});
    });
    const auto earlier = [](const Snapshot &left, const Snapshot &right) { return isEarlier(left.time, right.time); };
    std::stable_sort(snapshots.begin(), snapshots.end(), earlier);
    return snapshots;
}

} // namespace command
