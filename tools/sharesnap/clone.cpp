// sharesnap clone: a new share out of a share or of one of its snapshots.
#include "failure.h"
#include "rename_guard.h"
#include "share_admin.h"
#include "share_lookup.h"
#include "stand_in.h"
#include "text.h"
#include "verbs.h"
#include "volume_tree.h"

#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/share_admin.h>

#include <memory>

namespace command {
namespace {

struct CloneArguments {
    std::string share;
    std::string newName;
    std::string snapshot;
};

constexpr char elsewhere[] = "choose another name, or move it away";

// Everything is as in the share it comes from but for name and path.
QOVASHARE cloneRecord(const QOVASHARE &share, std::string &name, std::string &path) {
    QOVASHARE record = share;
    record.szName = name.data();
    record.szPath = path.data();
    return record;
}

int cloneShare(const CloneArguments &arguments) {
    checkShareName(arguments.newName);
    const std::string what = "can't clone share " + quoted(arguments.share) + " to " + quoted(arguments.newName);
    requireRoot(what);
    const SettledNames settled({arguments.share, arguments.newName});
    const Share share = requireBtrfsShare(arguments.share, "can't clone");
    requireDataSubvolume(*share, "can't clone");
    requireFreeName(arguments.newName, what);
    std::string name = arguments.newName;
    const std::string volume = volumeOf(*share, "can't clone");
    std::string path = volume + "/" + name;
    requireNoStandIn(volume, name, what);
    const QOVASHARE record = cloneRecord(*share, name, path);
    requireNothingAt(path, what, elsewhere);
    requireNothingAt(dataPath(record), what, elsewhere);
    const char *snapshot = nullptr;
    if (!arguments.snapshot.empty()) {
        (void)requireSnapshotPath(*share, arguments.snapshot, what); // only that it stands
        snapshot = arguments.snapshot.c_str();
    }
    // Plug-ins that are told of the clone find its record.
    forgetCause();
    if (QOVAShareRecordAdd(&record) != 0) {
        throw libraryFailure(what + " (" + printable(path) + ")", record, causeNow());
    }
    forgetCause();
    if (QOVAShareSnapClone(share.get(), &record, snapshot) != 0) {
        const Cause cause = causeNow();
        (void)QOVAShareRecordRemove(name.c_str()); // the failure that is told is the clone's
        throw libraryFailure(what + " (" + printable(path) + ")", *share, cause);
    }
    return treeShareCloned(*share, record, arguments.snapshot) ? exitDone : exitInPart;
}

} // namespace

void fillClone(Verb &verb) {
    auto arguments = std::make_shared<CloneArguments>();
    verb.takes("SHARE", arguments->share, "Name of the share to clone")
        .takes("NEW", arguments->newName, "Name of the new share; it lies on the same volume and has no quota")
        .option("--snapshot", arguments->snapshot, "SNAPSHOT", "From this snapshot instead of the share as it is")
        .runs([arguments] { return cloneShare(*arguments); });
}

} // namespace command
