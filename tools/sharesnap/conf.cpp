// sharesnap conf: the snapshot settings of shares.
#include "failure.h"
#include "rename_guard.h"
#include "share_lookup.h"
#include "text.h"
#include "verbs.h"

#include <sharesnap/config.h>
#include <sharesnap/platform/error.h>

#include <memory>
#include <unistd.h>

namespace command {
namespace {

struct ConfArguments {
    std::string share;
    std::string key;
    std::string value;
};

Hash settingsOf(const QOVASHARE &share) {
    Hash settings = newHash();
    forgetCause();
    if (QOVAShareSnapConfList(share.szName, settings.address()) < 0) {
        throw libraryFailure("can't read the snapshot settings of " + named(share), share, causeNow());
    }
    return settings;
}

void addRows(Table &table, const QOVASHARE &share, const Pairs &settings) {
    for (const auto &setting : settings) {
        table.addRow({share.szName, setting.first, setting.second});
    }
}

// With a share its settings, else those of all shares that have any.
int listSettings(const ConfArguments &arguments, const OutputForm &form) {
    const std::vector<std::string> names =
        arguments.share.empty() ? shareNames() : std::vector<std::string>{arguments.share};
    Table table({"SHARE", "KEY", "VALUE"});
    Json document = newDocument();
    document["shares"] = Json::object();
    for (const std::string &name : names) {
        const Share share = requireShare(name);
        const Pairs settings = pairsOf(settingsOf(*share).get());
        addRows(table, *share, settings);
        if (!arguments.share.empty() || !settings.empty()) {
            document["shares"][name] = objectOf(settings);
        }
    }
    if (form.json) {
        printDocument(document);
    } else {
        table.print(form);
    }
    return exitDone;
}

Failure noSuchSetting(const QOVASHARE &share, const std::string &key) {
    return {exitNotFound, named(share) + " has no setting " + quoted(key) + " [" + codeName(SNAP_ERR_NO_SUCH_KEY) + "]",
            "`sharesnap conf list " + printable(share.szName) + "` shows those it has"};
}

int getSetting(const ConfArguments &arguments, const OutputForm &form) {
    const Share share = requireShare(arguments.share);
    const Hash settings = settingsOf(*share);
    const char *value = QLIBCSzHashGetValue(settings.get(), arguments.key.c_str());
    if (value == nullptr) {
        throw noSuchSetting(*share, arguments.key);
    }
    if (form.json) {
        Json document = newDocument();
        document["settings"] = objectOf({{arguments.key, value}});
        printDocument(document);
    } else {
        print((isatty(STDOUT_FILENO) != 0 ? printable(value) : std::string(value)) + "\n");
    }
    return exitDone;
}

int setSetting(const ConfArguments &arguments) {
    checkKey(arguments.key);
    checkValue(arguments.key, arguments.value);
    const std::string what = "can't set " + quoted(arguments.key) + " of share " + quoted(arguments.share);
    requireRoot(what);
    requireNoNoteOf(arguments.share);
    const Share share = requireShare(arguments.share);
    forgetCause();
    if (QOVAShareSnapConfSet(share->szName, arguments.key.c_str(), arguments.value.c_str()) != 0) {
        throw libraryFailure(what, *share, causeNow());
    }
    return exitDone;
}

int unsetSetting(const ConfArguments &arguments) {
    const std::string what = "can't take away " + quoted(arguments.key) + " of share " + quoted(arguments.share);
    requireRoot(what);
    requireNoNoteOf(arguments.share);
    const Share share = requireShare(arguments.share);
    if (QLIBCSzHashGetValue(settingsOf(*share).get(), arguments.key.c_str()) == nullptr) {
        throw noSuchSetting(*share, arguments.key);
    }
    forgetCause();
    if (QOVAShareSnapConfSet(share->szName, arguments.key.c_str(), nullptr) != 0) {
        throw libraryFailure(what, *share, causeNow());
    }
    return exitDone;
}

} // namespace

void fillConf(Verb &group) {
    auto arguments = std::make_shared<ConfArguments>();
    const OutputForm *form = &group.form();
    Verb list = group.add("list,ls", "List the settings of a share, or of all shares");
    list.takesOptional("SHARE", arguments->share, "Name of the share").runs([arguments, form] {
        return listSettings(*arguments, *form);
    });
    const auto verb = [&group, &arguments](const char *name, const char *help) {
        Verb added = group.add(name, help);
        added.takes("SHARE", arguments->share, "Name of the share")
            .takes("KEY", arguments->key, "Name of the setting, such as local_time_format");
        return added;
    };
    verb("get", "Print the value of one setting").runs([arguments, form] { return getSetting(*arguments, *form); });
    verb("set", "Set one setting").takes("VALUE", arguments->value, "Its value").runs([arguments] {
        return setSetting(*arguments);
    });
    verb("unset", "Take one setting away").runs([arguments] { return unsetSetting(*arguments); });
}

} // namespace command
