// sharesnap list: the snapshots of a share.
#include "failure.h"
#include "share_lookup.h"
#include "snapshots.h"
#include "times.h"
#include "verbs.h"

#include <memory>

namespace command {
namespace {

struct ListArguments {
    std::string share;
    std::string since;
    std::string until;
    std::vector<std::string> attributes;
    bool hidden = false;
};

std::string_view textOf(const Snapshot &snapshot, const std::string &key) {
    const std::string *value = snapshot.attribute(key);
    return value != nullptr ? std::string_view(*value) : "";
}

// A program's path is shown by its last part.
std::string_view shortProgram(std::string_view program) {
    return program.substr(program.rfind('/') + 1);
}

void printTable(const std::vector<Snapshot> &snapshots, const ListArguments &arguments, const OutputForm &form) {
    std::vector<std::string> headers = {"SNAPSHOT", "TIME"};
    if (arguments.hidden) {
        headers.emplace_back("HIDDEN");
    }
    headers.insert(headers.end(), {"TAKEN BY", "DESCRIPTION"});
    Table table(headers);
    for (const Snapshot &snapshot : snapshots) {
        table.add(snapshot.name);
        table.add(snapshot.time ? shownTime(*snapshot.time, form.utc) : "-");
        if (arguments.hidden) {
            table.add(snapshot.hidden() ? "yes" : "no");
        }
        table.add(shortProgram(textOf(snapshot, "take-by")));
        table.add(textOf(snapshot, "desc"));
    }
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
        selection.keys = {"take-by", "desc"}; // the table shows no others
        if (arguments.hidden) {
            selection.keys.emplace_back("hide");
        }
    }
    const std::vector<Snapshot> snapshots = gatherSnapshots(*share, selection);
    if (!form.json) {
        printTable(snapshots, arguments, form);
        return exitDone;
    }
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
