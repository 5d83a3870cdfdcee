// sharesnap list: the snapshots of a share.
#include "failure.h"
#include "share_lookup.h"
#include "snapshots.h"
#include "times.h"
#include "verbs.h"

#include <algorithm>
#include <memory>
#include <numeric>

namespace command {
namespace {

struct ListArguments {
    std::string share;
    std::string since;
    std::string until;
    std::vector<std::string> attributes;
    bool hidden = false;
};

std::string_view textOf(const QLIBCSZHASH *section, const char *key) {
    const char *value = QLIBCSzHashGetValue(section, key);
    return value != nullptr ? value : "";
}

// A program's path is shown by its last part.
std::string_view shortProgram(std::string_view program) {
    return program.substr(program.rfind('/') + 1);
}

// The rows that have these times, from the oldest to the newest. As a rule they are so already.
void sortRows(Table &table, const std::vector<std::optional<time_t>> &times) {
    if (std::is_sorted(times.begin(), times.end(), isEarlier)) {
        return;
    }
    std::vector<size_t> order(times.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(),
                     [&times](size_t left, size_t right) { return isEarlier(times[left], times[right]); });
    table.arrange(order);
}

void printTable(const QOVASHARE &share, const Selection &selection, const OutputForm &form) {
    std::vector<std::string> headers = {"SNAPSHOT", "TIME"};
    if (selection.hidden) {
        headers.emplace_back("HIDDEN");
    }
    headers.insert(headers.end(), {"TAKEN BY", "DESCRIPTION"});
    Table table(headers);
    std::vector<std::optional<time_t>> times;
    visitSnapshots(share, selection, [&](const char *name, std::optional<time_t> time, const QLIBCSZHASH *section) {
        times.push_back(time);
        table.add(name);
        table.add(time ? shownTime(*time, form.utc) : "-");
        if (selection.hidden) {
            table.add(textOf(section, "hide") == "true" ? "yes" : "no");
        }
        table.add(shortProgram(textOf(section, "take-by")));
        table.add(textOf(section, "desc"));
    });
    sortRows(table, times);
    table.print(form);
}

Json snapshotDocument(const Snapshot &snapshot) {
    Json entry = Json::object();
    entry["name"] = snapshot.name;
    entry["time"] = snapshot.time ? Json(isoTime(*snapshot.time)) : Json();
    entry["hidden"] = snapshot.hidden();
    entry["attributes"] = objectOf(snapshot.attributes);
    return entry;
}

int listSnapshots(const ListArguments &arguments, const OutputForm &form) {
    Selection selection;
    selection.hidden = arguments.hidden;
    selection.attributes = arguments.attributes;
    if (!arguments.since.empty()) {
        selection.since = parseTime("--since", arguments.since, form.utc);
    }
    if (!arguments.until.empty()) {
        selection.until = parseTime("--until", arguments.until, form.utc);
    }
    const Share share = requireBtrfsShare(arguments.share, "can't list the snapshots of");
    if (!form.json) {
        printTable(*share, selection, form);
        return exitDone;
    }
    const std::vector<Snapshot> snapshots = gatherSnapshots(*share, selection);
    Json document = newDocument();
    document["share"] = share->szName;
    document["snapshots"] = Json::array();
    for (const Snapshot &snapshot : snapshots) {
        document["snapshots"].push_back(snapshotDocument(snapshot));
    }
    printDocument(document);
    return exitDone;
}

} // namespace

void fillList(Verb &verb) {
    auto arguments = std::make_shared<ListArguments>();
    verb.takes("SHARE", arguments->share, "Name of the share")
        .option("--since", arguments->since, "TIME",
                "Only snapshots of that time or later (2026-01-02, \"2026-01-02 03:04\", 12h ago: 12h)")
        .option("--until", arguments->until, "TIME", "Only snapshots of that time or earlier")
        .options("--attr", arguments->attributes, "FILTER",
                 "Only with this attribute: key, key=part, key==value, or !FILTER; may be repeated")
        .flag("--hidden", arguments->hidden, "Hidden snapshots, too")
        .runs([arguments, form = &verb.form()] { return listSnapshots(*arguments, *form); });
}

} // namespace command
