// sharesnap count: how many visible snapshots there are.
#include "failure.h"
#include "share_lookup.h"
#include "verbs.h"

#include <sharesnap/counters.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/platform/subvolume.h>

#include <memory>

namespace command {
namespace {

struct CountArguments {
    std::string share;
    bool sync = false;
};

int countOf(const QOVASHARE &share, bool sync) {
    forgetCause();
    const int count = ShareSnapSnapCountGet(&share, sync ? 1 : 0);
    if (count < 0) {
        throw libraryFailure("can't count the snapshots of " + named(share), share, causeNow());
    }
    return count;
}

int printCounts(const std::vector<std::pair<std::string, int>> &counts, bool total, const OutputForm &form) {
    const int limit = QOVAShareSnapMaximumGet();
    int sum = 0;
    Table table({"SHARE", "SNAPSHOTS", "LIMIT"});
    table.alignRight(1);
    table.alignRight(2);
    Json document = newDocument();
    document["limit_per_share"] = limit;
    document["shares"] = Json::object();
    for (const auto &entry : counts) {
        table.addRow({entry.first, std::to_string(entry.second), std::to_string(limit)});
        document["shares"][entry.first] = entry.second;
        sum += entry.second;
    }
    if (total) {
        const unsigned long most = QOVABtrfsSnapCountMaximumGet();
        table.addRow({"all", std::to_string(sum), std::to_string(most)});
        document["total"] = sum;
        document["limit_total"] = most;
    }
    if (form.json) {
        printDocument(document);
    } else {
        table.print(form);
    }
    return exitDone;
}

int countAll(const CountArguments &arguments, const OutputForm &form) {
    int status = exitDone;
    std::vector<std::pair<std::string, int>> counts;
    for (const std::string &name : shareNames()) {
        try {
            const Share share = requireShare(name);
            if (onBtrfs(*share)) {
                counts.emplace_back(name, countOf(*share, arguments.sync));
            }
        } catch (const Failure &failure) {
            complain(failure.message(), failure.next());
            status = exitInPart;
        }
    }
    (void)printCounts(counts, true, form); // always done
    return status;
}

int countSnapshots(const CountArguments &arguments, const OutputForm &form) {
    if (arguments.sync) {
        requireRoot("can't correct the counters");
    }
    if (arguments.share.empty()) {
        return countAll(arguments, form);
    }
    const Share share = requireBtrfsShare(arguments.share, "can't count the snapshots of");
    return printCounts({{arguments.share, countOf(*share, arguments.sync)}}, false, form);
}

} // namespace

void fillCount(Verb &verb) {
    auto arguments = std::make_shared<CountArguments>();
    verb.takesOptional("SHARE", arguments->share, "Name of the share")
        .flag("--sync", arguments->sync, "Count them again from the lists and correct the counters")
        .runs([arguments, form = &verb.form()] { return countSnapshots(*arguments, *form); });
}

} // namespace command
