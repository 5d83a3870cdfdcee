// sharesnap attr: the attributes of a snapshot.
#include "failure.h"
#include "share_lookup.h"
#include "text.h"
#include "verbs.h"

#include <sharesnap/counters.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/error.h>

#include <memory>
#include <unistd.h>

namespace command {
namespace {

struct AttrArguments {
    std::string share;
    std::string snapshot;
    std::string key;
    std::string value;
};

std::string theSnapshot(const QOVASHARE &share, const AttrArguments &arguments) {
    return "snapshot " + quoted(arguments.snapshot) + " of " + named(share);
}

Failure noSuchAttribute(const QOVASHARE &share, const AttrArguments &arguments) {
    return {exitNotFound,
            theSnapshot(share, arguments) + " has no attribute " + quoted(arguments.key) + " [" +
                codeName(SNAP_ERR_NO_SUCH_KEY) + "]",
            "`sharesnap attr list " + printable(arguments.share) + " " + printable(arguments.snapshot) +
                "` shows those it has"};
}

int listAttributes(const AttrArguments &arguments, const OutputForm &form) {
    const Share share = requireBtrfsShare(arguments.share, "can't read attributes of");
    const Pairs pairs = pairsOf(requireSnapshot(*share, arguments.snapshot).get());
    if (form.json) {
        Json document = newDocument();
        document["share"] = share->szName;
        document["name"] = arguments.snapshot;
        document["attributes"] = objectOf(pairs);
        printDocument(document);
        return exitDone;
    }
    Table table({"KEY", "VALUE"});
    for (const auto &pair : pairs) {
        table.addRow({pair.first, pair.second});
    }
    table.print(form);
    return exitDone;
}

int getAttribute(const AttrArguments &arguments, const OutputForm &form) {
    const Share share = requireBtrfsShare(arguments.share, "can't read attributes of");
    const Hash pairs = requireSnapshot(*share, arguments.snapshot);
    const char *value = QLIBCSzHashGetValue(pairs.get(), arguments.key.c_str());
    if (value == nullptr) {
        throw noSuchAttribute(*share, arguments);
    }
    if (form.json) {
        Json document = newDocument();
        document["attributes"] = objectOf({{arguments.key, value}});
        printDocument(document);
    } else {
        // Programs get the very bytes, a terminal none that could play tricks with it.
        print((isatty(STDOUT_FILENO) != 0 ? printable(value) : std::string(value)) + "\n");
    }
    return exitDone;
}

// A changed "hide" changes what counts as visible.
void recount(const QOVASHARE &share) {
    forgetCause();
    if (QOVAShareSnapSyncSnapCount(&share) < 0) {
        throw libraryFailure("the attribute is set, but the snapshots of " + named(share) + " can't be counted again",
                             share, causeNow());
    }
}

int setAttribute(const AttrArguments &arguments) {
    checkKey(arguments.key);
    checkValue(arguments.key, arguments.value);
    if (arguments.key == "hide" && arguments.value != "true" && arguments.value != "false") {
        throw Failure(exitUsage, "bad value of \"hide\": " + quoted(arguments.value), "give true or false");
    }
    const std::string what = "can't set attribute " + quoted(arguments.key);
    requireRoot(what);
    const Share share = requireBtrfsShare(arguments.share, what + " in");
    (void)requireSnapshot(*share, arguments.snapshot); // its attributes aren't wanted, its absence is
    forgetCause();
    if (QOVAShareSnapAttrSet(share.get(), arguments.snapshot.c_str(), arguments.key.c_str(), arguments.value.c_str()) !=
        0) {
        throw libraryFailure(what + " of " + theSnapshot(*share, arguments), *share, causeNow());
    }
    if (arguments.key == "hide") {
        recount(*share);
    }
    return exitDone;
}

int unsetAttribute(const AttrArguments &arguments) {
    const std::string what = "can't take away attribute " + quoted(arguments.key);
    requireRoot(what);
    const Share share = requireBtrfsShare(arguments.share, what + " in");
    const Hash pairs = requireSnapshot(*share, arguments.snapshot);
    if (QLIBCSzHashGetValue(pairs.get(), arguments.key.c_str()) == nullptr) {
        throw noSuchAttribute(*share, arguments);
    }
    if (arguments.key == "hide") {
        throw Failure(exitRefused, what + " of " + theSnapshot(*share, arguments) + ": every snapshot has to have it",
                      "set it to true or false");
    }
    // A list ends at the first snapshot without attributes, so that the ones behind it would vanish from sight.
    if (pairs->nPair == 1) {
        throw Failure(exitRefused, what + " of " + theSnapshot(*share, arguments) + ": it is the last one",
                      "set another attribute first, or run `sharesnap sync " + printable(arguments.share) + "`");
    }
    forgetCause();
    if (QOVAShareSnapAttrDelete(share.get(), arguments.snapshot.c_str(), arguments.key.c_str()) != 0) {
        throw libraryFailure(what + " of " + theSnapshot(*share, arguments), *share, causeNow());
    }
    return exitDone;
}

} // namespace

void fillAttr(Verb &group) {
    auto arguments = std::make_shared<AttrArguments>();
    const OutputForm *form = &group.form();
    const auto verb = [&group, &arguments](const char *names, const char *help) {
        Verb added = group.add(names, help);
        added.takes("SHARE", arguments->share, "Name of the share")
            .takes("SNAPSHOT", arguments->snapshot, "Name of the snapshot");
        return added;
    };
    verb("list,ls", "List all attributes").runs([arguments, form] { return listAttributes(*arguments, *form); });
    verb("get", "Print the value of one attribute")
        .takes("KEY", arguments->key, "Name of the attribute")
        .runs([arguments, form] { return getAttribute(*arguments, *form); });
    verb("set", "Set one attribute")
        .takes("KEY", arguments->key, "Name of the attribute, up to 63 bytes")
        .takes("VALUE", arguments->value, "Its value, up to 511 bytes")
        .runs([arguments] { return setAttribute(*arguments); });
    verb("unset", "Take one attribute away").takes("KEY", arguments->key, "Name of the attribute").runs([arguments] {
        return unsetAttribute(*arguments);
    });
}

} // namespace command
