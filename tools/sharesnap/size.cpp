// sharesnap size: how much a snapshot holds, as a stream of it would take.
#include "failure.h"
#include "share_lookup.h"
#include "verbs.h"

#include <sharesnap/lifecycle.h>

#include <memory>

namespace command {
namespace {

struct SizeArguments {
    std::string share;
    std::string snapshot;
    std::string parent;
};

int estimateSize(const SizeArguments &arguments, const OutputForm &form) {
    requireRoot("can't tell the size of a snapshot of share " + quoted(arguments.share));
    const Share share = requireBtrfsShare(arguments.share, "can't tell the size of a snapshot of");
    const std::string what = "can't tell the size of snapshot " + quoted(arguments.snapshot);
    const List paths = listOf({requireSnapshotPath(*share, arguments.snapshot, what)});
    const std::string parent = arguments.parent.empty() ? "" : requireSnapshotPath(*share, arguments.parent, what);
    uint64_t size = 0;
    forgetCause();
    if (QOVAShareSnapCalculateTotalSize(paths.get(), nullptr, parent.empty() ? nullptr : parent.c_str(), &size,
                                        nullptr) != 0) {
        throw libraryFailure(what + " of " + named(*share), *share, causeNow());
    }
    if (form.json) {
        Json document = newDocument();
        document["share"] = share->szName;
        document["name"] = arguments.snapshot;
        document["parent"] = arguments.parent.empty() ? Json() : Json(arguments.parent);
        document["bytes"] = size;
        printDocument(document);
        return exitDone;
    }
    Table table({"SNAPSHOT", "BYTES"});
    table.alignRight(1);
    table.addRow({arguments.snapshot, std::to_string(size)});
    table.print(form);
    return exitDone;
}

} // namespace

void fillSize(Verb &verb) {
    auto arguments = std::make_shared<SizeArguments>();
    verb.takes("SHARE", arguments->share, "Name of the share")
        .takes("SNAPSHOT", arguments->snapshot, "Name of the snapshot")
        .option("--parent", arguments->parent, "SNAPSHOT", "Only what has changed since this snapshot")
        .runs([arguments, form = &verb.form()] { return estimateSize(*arguments, *form); });
}

} // namespace command
