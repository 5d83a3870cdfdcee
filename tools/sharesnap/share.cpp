// sharesnap share: the shares that can have snapshots.
#include "failure.h"
#include "rename_guard.h"
#include "share_admin.h"
#include "share_lookup.h"
#include "stand_in.h"
#include "verbs.h"

#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>

#include <memory>
#include <unistd.h>

namespace command {
namespace {

Json shareDocument(const QOVASHARE &share) {
    Json entry = Json::object();
    entry["name"] = share.szName;
    entry["path"] = share.szPath;
    entry["description"] = share.szDesc;
    entry["encrypted"] = isEncrypted(share);
    return entry;
}

// A rename or restore that is under way holds the lock, and is no interrupted one. Only root can lock.
template <typename Telling>
void whenNothingMoves(Telling tell) {
    if (geteuid() != 0) {
        return;
    }
    const MoveLock lock(MoveLock::together, 0);
    if (lock.held()) {
        tell();
    }
}

void tellOfInterruptedRenames() {
    whenNothingMoves([] {
        for (const RenameIntent &intent : interruptedRenames()) {
            complain(interruptedText(intent), howToSettle(intent));
        }
    });
}

void tellOfStandIn(const QOVASHARE &share) {
    whenNothingMoves([&share] {
        if (onBtrfs(share)) {
            const std::string volume = volumeOf(share, "can't show");
            if (standInIsLeft(volume, share.szName)) {
                complain(standInText(volume, share.szName), howToSettleStandIn(volume, share.szName));
            }
        }
    });
}

int listShares(const OutputForm &form) {
    int status = exitDone;
    Table table({"SHARE", "PATH", "ENCRYPTED", "DESCRIPTION"});
    Json document = newDocument();
    document["shares"] = Json::array();
    for (const std::string &name : shareNames()) {
        try {
            const Share share = requireShare(name);
            table.addRow({name, share->szPath, isEncrypted(*share) ? "yes" : "no", share->szDesc});
            document["shares"].push_back(shareDocument(*share));
        } catch (const Failure &failure) { // one bad record doesn't hide the others
            complain(failure.message(), failure.next());
            status = exitInPart;
        }
    }
    if (form.json) {
        printDocument(document);
    } else {
        table.print(form);
    }
    tellOfInterruptedRenames();
    return status;
}

// What makes a share fit for snapshots, in words; empty when it is.
std::string obstacle(const QOVASHARE &share) {
    try {
        const std::string what = "no snapshots of";
        const Share checked = requireBtrfsShare(share.szName, what);
        requireDataSubvolume(*checked, what);
        forgetCause();
        if (QOVAShareSnapCheckSupport(&share, nullptr, SNAP_CREATE) != 0) {
            return libraryFailure("no snapshots of " + named(share), share, causeNow()).message();
        }
    } catch (const Failure &failure) {
        return failure.message();
    }
    return "";
}

// How many visible snapshots there are; -1, with a complaint, when that can't be told.
int countOrComplaint(const QOVASHARE &share) {
    forgetCause();
    const int count = ShareSnapSnapCountGet(&share, 0);
    if (count >= 0) {
        return count;
    }
    const Failure failure = libraryFailure("can't count the snapshots of " + named(share), share, causeNow());
    complain(failure.message(), failure.next());
    return -1;
}

std::string snapshotsText(const std::string &no, int count, int limit) {
    if (!no.empty()) {
        return no;
    }
    return (count >= 0 ? std::to_string(count) : "unknown") + " of " + std::to_string(limit);
}

int showShare(const std::string &name, const OutputForm &form) {
    const Share share = requireShare(name);
    const std::string no = obstacle(*share);
    const int count = no.empty() ? countOrComplaint(*share) : -1;
    const int limit = QOVAShareSnapMaximumGet();
    const int status = no.empty() && count < 0 ? +exitInPart : +exitDone;
    if (form.json) {
        Json document = newDocument();
        document["share"] = shareDocument(*share);
        document["supported"] = no.empty();
        document["reason"] = no.empty() ? Json() : Json(no);
        document["snapshots"] = count >= 0 ? Json(count) : Json();
        document["limit"] = limit;
        printDocument(document);
        tellOfStandIn(*share);
        return status;
    }
    Table table({"FACT", "VALUE"});
    table.addRow({"share", name});
    table.addRow({"path", share->szPath});
    table.addRow({"description", share->szDesc});
    table.addRow({"encrypted", isEncrypted(*share) ? "yes" : "no"});
    table.addRow({"denied", share->szDenyList});
    table.addRow({"read and write", share->szRWList});
    table.addRow({"read only", share->szROList});
    table.addRow({"snapshots", snapshotsText(no, count, limit)});
    table.print(form);
    tellOfStandIn(*share);
    return status;
}

} // namespace

void fillShare(Verb &group) {
    const OutputForm *form = &group.form();
    group.add("list,ls", "List the shares").runs([form] { return listShares(*form); });

    auto name = std::make_shared<std::string>();
    Verb show = group.add("show", "Show one share, and whether it can have snapshots");
    show.takes("SHARE", *name, "Name of the share").runs([name, form] { return showShare(*name, *form); });

    auto adding = std::make_shared<ShareAddition>();
    Verb add = group.add("add", "Make a share: its subvolume and its record");
    add.takes("SHARE", adding->name, "Name of the new share")
        .takes("PATH", adding->path, "Its path, /VOLUME/SHARE")
        .option("--desc", adding->description, "TEXT", "Description")
        .flag("--existing", adding->existing, "The subvolume stands already: only write the record")
        .flag("--encrypted", adding->encrypted,
              "With --existing: the data are a gocryptfs back end at /VOLUME/@SHARE@, mounted at PATH")
        .runs([adding] { return addShare(*adding); });

    auto removal = std::make_shared<ShareRemoval>();
    Verb remove = group.add("remove,rm", "Take a share away: its record and settings, with --data all of it");
    remove.takes("SHARE", removal->name, "Name of the share")
        .flag("--clean", removal->clean, "Remove the empty list of snapshots and the empty snapshot directory, too")
        .flag("--data", removal->data, "Its files and all its snapshots, too; asks first")
        .flag("--yes", removal->yes, "With --data: don't ask")
        .runs([removal] { return removal->data ? eraseShare(*removal) : removeShare(*removal); });

    auto renaming = std::make_shared<ShareRenaming>();
    Verb rename = group.add("rename,mv", "Give a share another name, and its snapshots with it");
    rename.takes("SHARE", renaming->name, "Its name until now")
        .takesOptional("NEW", renaming->newName, "Its new name")
        .flag("--finish", renaming->finish, "Bring an interrupted rename of this share to its end")
        .flag("--undo", renaming->undo, "Take an interrupted rename of this share back")
        .runs([renaming] { return renameShare(*renaming); });
}

} // namespace command
