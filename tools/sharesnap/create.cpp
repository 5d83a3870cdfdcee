// sharesnap create: takes a snapshot.
#include "actor.h"
#include "failure.h"
#include "notice.h"
#include "rename_guard.h"
#include "share_lookup.h"
#include "text.h"
#include "times.h"
#include "verbs.h"
#include "volume_tree.h"

#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/error.h>

#include <ctime>
#include <memory>
#include <set>

namespace command {
namespace {

struct CreateArguments {
    std::string share;
    std::string description;
    std::vector<std::string> attributes;
    bool hide = false;
    bool noShareInfo = false;
    bool waitHooks = false;
};

// Names have a resolution of one second, so of several creators on one share one wins each second.
constexpr int attempts = 60;
constexpr int conflict = -2;
constexpr size_t nameSize = 4096;

Pairs splitAttributes(const CreateArguments &arguments) {
    Pairs pairs;
    for (const std::string &text : arguments.attributes) {
        const size_t equals = text.find('=');
        if (equals == std::string::npos) {
            throw Failure(exitUsage, "--attr: " + quoted(text) + " has no value", "give it as key=value");
        }
        pairs.emplace_back(text.substr(0, equals), text.substr(equals + 1));
    }
    if (!arguments.description.empty()) {
        pairs.emplace_back("desc", arguments.description);
    }
    if (arguments.hide) {
        pairs.emplace_back("hide", "true");
    }
    return pairs;
}

// A snapshot gets four attributes without being asked, and the facts of its subvolume. They have to fit, too.
void checkAttributes(const Pairs &pairs) {
    std::set<std::string> keys = {"take-by", "lock", "desc", "hide", "ruuid", "uuid", "parent_uuid", "create_time"};
    const size_t own = keys.size();
    for (const auto &pair : pairs) {
        checkKey(pair.first);
        checkValue(pair.first, pair.second);
        keys.insert(pair.first);
        if (pair.first == "hide" && pair.second != "true" && pair.second != "false") {
            throw Failure(exitUsage, "bad value of \"hide\": " + quoted(pair.second), "give true or false");
        }
    }
    if (keys.size() > SNAP_ATTR_MAX_PAIRS) {
        throw Failure(exitRefused,
                      "too many attributes: a snapshot holds " + std::to_string(SNAP_ATTR_MAX_PAIRS) + ", " +
                          std::to_string(own) + " of them its own [" + codeName(SNAP_ERR_TOO_MANY_ATTRIBUTES) + "]",
                      "give fewer");
    }
}

void waitForNextSecond() {
    timespec now = {};
    (void)clock_gettime(CLOCK_REALTIME, &now); // can't fail with this clock
    timespec rest = {0, 1000000000L - now.tv_nsec};
    if (rest.tv_nsec >= 1000000000L) {
        rest = {1, 0};
    }
    (void)nanosleep(&rest, nullptr); // a signal only makes the next attempt early
}

int takeOnce(const QOVASHARE &share, const CreateArguments &arguments, char *name, const Pairs &pairs) {
    Hash attributes = newHash();
    for (const auto &pair : pairs) {
        setValue(attributes, pair.first, pair.second);
    }
    forgetCause(); // what an earlier attempt left would be taken for a conflict of this one
    if (arguments.noShareInfo) {
        return QOVAShareSnapCreateNoShareInfo(&share, name, nameSize, attributes.address());
    }
    const unsigned int flags = arguments.waitHooks ? +SNAP_CREATE_BLOCKING_POST : 0U;
    return QOVAShareSnapCreateEx(&share, name, nameSize, attributes.address(), flags);
}

std::string takeSnapshot(const QOVASHARE &share, const CreateArguments &arguments, const Pairs &pairs) {
    const std::string actor = actorName();
    char name[nameSize] = "";
    int result = takeOnce(share, arguments, name, pairs);
    for (int attempt = 1; result == conflict && attempt < attempts; ++attempt) {
        waitForNextSecond();
        result = takeOnce(share, arguments, name, pairs);
    }
    if (result != 0) {
        const Cause cause = causeNow();
        (void)QOVAShareSnapCreateLogSet(&share, nullptr, actor.c_str(), 0); // a missing event doesn't change the result
        const Failure failure = libraryFailure("can't take a snapshot of " + named(share), share, cause);
        sendNotice(noticeCreateFailed, share, failure.message());
        throw failure;
    }
    if (QOVAShareSnapCreateLogSet(&share, name, actor.c_str(), 1) != 0) {
        complain("snapshot " + quoted(name) + " of " + named(share) + " stands, but no event could be written for it");
    }
    return name;
}

int createSnapshot(const CreateArguments &arguments, const OutputForm &form) {
    if (arguments.noShareInfo && arguments.waitHooks) {
        throw Failure(exitUsage, "--no-share-info and --wait-hooks don't go together", "leave one of them out");
    }
    const Pairs pairs = splitAttributes(arguments);
    checkAttributes(pairs);
    requireRoot("can't take a snapshot of share " + quoted(arguments.share));
    requireNoNoteOf(arguments.share);
    const Share share = requireBtrfsShare(arguments.share, "can't take a snapshot of");
    requireDataSubvolume(*share, "can't take a snapshot of");
    const std::string name = takeSnapshot(*share, arguments, pairs);
    const int status = treeSnapshotTaken(*share, name) ? exitDone : exitInPart;
    if (!form.json) {
        print(printable(name) + "\n");
        return status;
    }
    const auto time = timeOfName(name);
    Json document = newDocument();
    document["share"] = share->szName;
    document["name"] = name;
    document["time"] = time ? Json(isoTime(*time)) : Json();
    printDocument(document);
    return status;
}

} // namespace

void fillCreate(Verb &verb) {
    auto arguments = std::make_shared<CreateArguments>();
    verb.takes("SHARE", arguments->share, "Name of the share")
        .option("--desc", arguments->description, "TEXT", "Description")
        .options("--attr", arguments->attributes, "KEY=VALUE", "Attribute; may be repeated")
        .flag("--hide", arguments->hide, "Hidden: not counted, and listed only when asked for")
        .flag("--no-share-info", arguments->noShareInfo, "Don't freeze the share's configuration into the snapshot")
        .flag("--wait-hooks", arguments->waitHooks, "Wait for the plug-ins that run afterwards")
        .runs([arguments, form = &verb.form()] { return createSnapshot(*arguments, *form); });
}

} // namespace command
