// sharesnap show: one snapshot with all that is known of it.
#include "failure.h"
#include "holds.h"
#include "share_lookup.h"
#include "times.h"
#include "verbs.h"

#include <sharesnap/config.h>
#include <sharesnap/frame.h>

#include <memory>

namespace command {
namespace {

struct ShowArguments {
    std::string share;
    std::string snapshot;
};

struct Facts {
    std::string path;
    bool onVolume = false; // its subvolume stands
    bool frozenConfiguration = false;
    std::vector<Hold> holds;
    Pairs attributes;
};

Facts gatherFacts(const QOVASHARE &share, const std::string &snapshot) {
    Facts facts;
    facts.attributes = pairsOf(requireSnapshot(share, snapshot).get());
    char path[pathSize] = "";
    facts.onVolume = QOVAShareSnapGetSnapPath(&share, snapshot.c_str(), path, sizeof(path)) == 1;
    facts.path = path;
    facts.frozenConfiguration = facts.onVolume && QOVAShareSnapHasShareInfoFile(&share, snapshot.c_str()) == 1;
    facts.holds = holdsOf(share, snapshot);
    return facts;
}

void printFacts(const ShowArguments &arguments, const Facts &facts, const OutputForm &form) {
    const auto time = timeOfName(arguments.snapshot);
    Table table({"FACT", "VALUE"});
    table.addRow({"share", arguments.share});
    table.addRow({"snapshot", arguments.snapshot});
    table.addRow({"time", time ? shownTime(*time, form.utc) : "-"});
    table.addRow({"path", facts.onVolume ? facts.path : facts.path + " (missing: run sharesnap sync)"});
    table.addRow({"frozen configuration", facts.frozenConfiguration ? "yes" : "no"});
    for (const Hold &hold : facts.holds) {
        table.addRow({"held by", hold.holder + " (" + timesText(hold.count) + ")"});
    }
    for (const auto &pair : facts.attributes) {
        table.addRow({"attribute " + pair.first, pair.second});
    }
    table.print(form);
}

int showSnapshot(const ShowArguments &arguments, const OutputForm &form) {
    const Share share = requireBtrfsShare(arguments.share, "can't show a snapshot of");
    const Facts facts = gatherFacts(*share, arguments.snapshot);
    if (!form.json) {
        printFacts(arguments, facts, form);
        return exitDone;
    }
    const auto time = timeOfName(arguments.snapshot);
    Json document = newDocument();
    document["share"] = share->szName;
    document["name"] = arguments.snapshot;
    document["time"] = time ? Json(isoTime(*time)) : Json();
    document["path"] = facts.path;
    document["on_volume"] = facts.onVolume;
    document["frozen_configuration"] = facts.frozenConfiguration;
    document["holds"] = holdsDocument(facts.holds);
    document["attributes"] = objectOf(facts.attributes);
    printDocument(document);
    return exitDone;
}

} // namespace

void fillShow(Verb &verb) {
    auto arguments = std::make_shared<ShowArguments>();
    verb.takes("SHARE", arguments->share, "Name of the share")
        .takes("SNAPSHOT", arguments->snapshot, "Name of the snapshot")
        .runs([arguments, form = &verb.form()] { return showSnapshot(*arguments, *form); });
}

} // namespace command
