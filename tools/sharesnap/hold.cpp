// sharesnap hold: counted claims that keep a snapshot from deletion.
#include "failure.h"
#include "holds.h"
#include "share_lookup.h"
#include "snapshots.h"
#include "text.h"
#include "verbs.h"

#include <sharesnap/counters.h>
#include <sharesnap/platform/error.h>

#include <memory>

namespace command {
namespace {

struct HoldArguments {
    std::string share;
    std::string snapshot;
    std::string holder;
    bool all = false;
};

constexpr size_t holderMost = 255;

void checkHolder(const std::string &holder) {
    std::string reason;
    if (holder.empty()) {
        reason = "it is empty";
    } else if (holder.find_first_of("=\n") != std::string::npos ||
               std::string("[;#").find(holder[0]) != std::string::npos) {
        reason = "it holds a \"=\" or a line feed, or begins with [, ; or #";
    } else if (holder.size() > holderMost) {
        reason = "it has more than " + std::to_string(holderMost) + " bytes";
    }
    if (!reason.empty()) {
        throw Failure(exitUsage, "bad holder " + quoted(holder) + ": " + reason, "choose another name");
    }
}

int addHold(const HoldArguments &arguments) {
    checkHolder(arguments.holder);
    requireRoot("can't hold a snapshot of share " + quoted(arguments.share));
    const Share share = requireBtrfsShare(arguments.share, "can't hold a snapshot of");
    (void)requireSnapshot(*share, arguments.snapshot); // its attributes aren't wanted, its absence is
    forgetCause();
    if (QOVAShareSnapSysLockIncrement(share.get(), arguments.snapshot.c_str(), arguments.holder.c_str()) != 1) {
        throw libraryFailure("can't hold snapshot " + quoted(arguments.snapshot) + " of " + named(*share), *share,
                             causeNow());
    }
    return exitDone;
}

// The snapshot need not exist: a hold that outlived it can be released, too.
int releaseHold(const HoldArguments &arguments) {
    checkHolder(arguments.holder);
    requireRoot("can't release a snapshot of share " + quoted(arguments.share));
    const Share share = requireBtrfsShare(arguments.share, "can't release a snapshot of");
    if (holdCount(*share, arguments.snapshot, arguments.holder) == 0) {
        (void)requireSnapshot(*share, arguments.snapshot); // tells of a wrong name first
        throw Failure(exitNotFound,
                      quoted(arguments.holder) + " doesn't hold snapshot " + quoted(arguments.snapshot) + " of " +
                          named(*share) + " [" + codeName(SNAP_ERR_NO_SUCH_KEY) + "]",
                      "`sharesnap hold list " + printable(arguments.share) + "` shows who holds what");
    }
    forgetCause();
    const auto release = arguments.all ? QOVAShareSnapSysLockRemove : QOVAShareSnapSysLockDecrement;
    if (release(share.get(), arguments.snapshot.c_str(), arguments.holder.c_str()) != 1) {
        throw libraryFailure("can't release snapshot " + quoted(arguments.snapshot) + " of " + named(*share), *share,
                             causeNow());
    }
    return exitDone;
}

int listHolds(const HoldArguments &arguments, const OutputForm &form) {
    const Share share = requireBtrfsShare(arguments.share, "can't list the holds of");
    std::vector<std::string> names;
    if (!arguments.snapshot.empty()) {
        (void)requireSnapshot(*share, arguments.snapshot); // its attributes aren't wanted, its absence is
        names.push_back(arguments.snapshot);
    } else {
        Selection selection;
        selection.keys = {"hide"}; // only the names are wanted
        selection.hidden = true;
        for (const Snapshot &snapshot : gatherSnapshots(*share, selection)) {
            names.push_back(snapshot.name);
        }
    }
    Table table({"SNAPSHOT", "HELD BY", "COUNT"});
    table.alignRight(2);
    Json document = newDocument();
    document["share"] = share->szName;
    document["snapshots"] = Json::array();
    for (const std::string &name : names) {
        const std::vector<Hold> holds = holdsOf(*share, name);
        for (const Hold &hold : holds) {
            table.addRow({name, hold.holder, std::to_string(hold.count)});
        }
        if (!holds.empty()) {
            Json entry = Json::object();
            entry["name"] = name;
            entry["holds"] = holdsDocument(holds);
            document["snapshots"].push_back(entry);
        }
    }
    if (form.json) {
        printDocument(document);
    } else {
        table.print(form);
    }
    return exitDone;
}

} // namespace

void fillHold(Verb &group) {
    auto arguments = std::make_shared<HoldArguments>();
    Verb list = group.add("list,ls", "List who holds what");
    list.takes("SHARE", arguments->share, "Name of the share")
        .takesOptional("SNAPSHOT", arguments->snapshot, "Only this snapshot")
        .runs([arguments, form = &group.form()] { return listHolds(*arguments, *form); });
    const auto verb = [&group, &arguments](const char *name, const char *help) {
        Verb added = group.add(name, help);
        added.takes("SHARE", arguments->share, "Name of the share")
            .takes("SNAPSHOT", arguments->snapshot, "Name of the snapshot")
            .takes("HOLDER", arguments->holder, "Who holds it, such as the name of a service");
        return added;
    };
    verb("add", "Hold a snapshot once more").runs([arguments] { return addHold(*arguments); });
    verb("release", "Release a snapshot once")
        .flag("--all", arguments->all, "However often the holder holds it")
        .runs([arguments] { return releaseHold(*arguments); });
}

} // namespace command
