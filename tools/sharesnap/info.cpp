// sharesnap info: the configuration of the share as a snapshot froze it.
#include "failure.h"
#include "share_lookup.h"
#include "verbs.h"

#include <sharesnap/config.h>
#include <sharesnap/frame.h>

#include <cstdlib>
#include <memory>

namespace command {
namespace {

struct InfoArguments {
    std::string share;
    std::string snapshot;
    bool diff = false;
};

struct FreeMemory {
    void operator()(QOVAShareSnapShareInfo *info) const { std::free(info); }
};
using ShareInfo = std::unique_ptr<QOVAShareSnapShareInfo, FreeMemory>;

struct Setting {
    std::string key;
    std::string value;
};

std::string textOf(const char *value) {
    return value != nullptr ? value : "";
}

std::vector<Setting> settingsOf(const QOVAShareSnapShareInfo &info) {
    char status[16];
    std::snprintf(status, sizeof(status), "0x%x", info.uStatus);
    const std::vector<std::pair<uint32_t, Setting>> all = {
        {SHARE_INFO_DESC, {"description", textOf(info.szDesc)}},
        {SHARE_INFO_PRIVILEGE, {"denied", textOf(info.szDenyList)}},
        {SHARE_INFO_PRIVILEGE, {"read and write", textOf(info.szRWList)}},
        {SHARE_INFO_PRIVILEGE, {"read only", textOf(info.szROList)}},
        {SHARE_INFO_BROWSEABLE, {"browseable", std::to_string(info.nBrowseable)}},
        {SHARE_INFO_FTP_PRIVILEGE, {"ftp privilege", std::to_string(info.nFtpPrivilege)}},
        {SHARE_INFO_STATUS, {"status", status}},
        {SHARE_INFO_QUOTA, {"quota (MiB)", std::to_string(info.ullShareQuota)}},
        {SHARE_INFO_COW, {"copy on write", info.blCow != 0 ? "yes" : "no"}},
        {SHARE_INFO_COMPRESSION, {"compression", info.blCompression != 0 ? "yes" : "no"}},
    };
    std::vector<Setting> settings;
    for (const auto &entry : all) {
        if ((info.uMask & entry.first) != 0) {
            settings.push_back(entry.second);
        }
    }
    return settings;
}

std::vector<Setting> frozenSettings(const QOVASHARE &share, const std::string &snapshot) {
    (void)requireSnapshot(share, snapshot); // its attributes aren't wanted, its absence is
    const std::string what = "snapshot " + quoted(snapshot) + " of " + named(share);
    if (QOVAShareSnapHasShareInfoFile(&share, snapshot.c_str()) != 1) {
        throw Failure(exitNotFound, what + " holds no configuration",
                      "snapshots taken without --no-share-info hold one");
    }
    char path[pathSize] = "";
    (void)QOVAShareSnapGetSnapPath(&share, snapshot.c_str(), path, sizeof(path)); // it was found just now
    // Inside a snapshot the data lie open at its own path, also those of an encrypted share's back end.
    QOVASHARE record = share;
    record.szPath = path;
    record.uStatus &= ~static_cast<unsigned int>(QOVA_SHARE_STATUS_ENCRYPTED);
    QOVAShareSnapShareInfo *info = nullptr;
    forgetCause();
    if (QOVAShareSnapShareInfoGet(&record, &info) != 0) {
        throw libraryFailure("can't read the configuration in " + what, share, causeNow());
    }
    return settingsOf(*ShareInfo(info));
}

std::vector<Setting> liveSettings(const QOVASHARE &share) {
    Hash pairs = newHash();
    QOVAShareSnapShareInfo *info = nullptr;
    forgetCause();
    if (QOVAShareSnapShareInfoGetFromShare(&share, pairs.address(), SHARE_INFO_ALL) != 0 ||
        QOVAShareSnapShareInfoGetByHash(&share, pairs.get(), &info) != 0) {
        throw libraryFailure("can't read the configuration of " + named(share), share, causeNow());
    }
    return settingsOf(*ShareInfo(info));
}

const Setting *find(const std::vector<Setting> &settings, const std::string &key) {
    for (const Setting &setting : settings) {
        if (setting.key == key) {
            return &setting;
        }
    }
    return nullptr;
}

Json settingsDocument(const std::vector<Setting> &settings) {
    Json document = Json::object();
    for (const Setting &setting : settings) {
        document[setting.key] = setting.value;
    }
    return document;
}

void printFrozen(const std::vector<Setting> &frozen, const OutputForm &form, Json &document) {
    if (form.json) {
        document["configuration"] = settingsDocument(frozen);
        printDocument(document);
        return;
    }
    Table table({"SETTING", "VALUE"});
    for (const Setting &setting : frozen) {
        table.addRow({setting.key, setting.value});
    }
    table.print(form);
}

void printDifferences(const std::vector<Setting> &frozen, const std::vector<Setting> &live, const OutputForm &form,
                      Json &document) {
    Table table({"SETTING", "IN THE SNAPSHOT", "NOW"});
    document["differences"] = Json::object();
    for (const Setting &now : live) {
        const Setting *then = find(frozen, now.key);
        if (then != nullptr && then->value == now.value) {
            continue;
        }
        table.addRow({now.key, then != nullptr ? then->value : "-", now.value});
        document["differences"][now.key] = {{"snapshot", then != nullptr ? Json(then->value) : Json()},
                                            {"now", now.value}};
    }
    if (form.json) {
        printDocument(document);
    } else {
        table.print(form);
    }
}

int showInfo(const InfoArguments &arguments, const OutputForm &form) {
    requireRoot("can't read the configuration in a snapshot of share " + quoted(arguments.share));
    const Share share = requireBtrfsShare(arguments.share, "can't read a snapshot of");
    const std::vector<Setting> frozen = frozenSettings(*share, arguments.snapshot);
    Json document = newDocument();
    document["share"] = share->szName;
    document["name"] = arguments.snapshot;
    if (arguments.diff) {
        printDifferences(frozen, liveSettings(*share), form, document);
    } else {
        printFrozen(frozen, form, document);
    }
    return exitDone;
}

} // namespace

void fillInfo(Verb &verb) {
    auto arguments = std::make_shared<InfoArguments>();
    verb.takes("SHARE", arguments->share, "Name of the share")
        .takes("SNAPSHOT", arguments->snapshot, "Name of the snapshot")
        .flag("--diff", arguments->diff, "Only what differs from the share's configuration now")
        .runs([arguments, form = &verb.form()] { return showInfo(*arguments, *form); });
}

} // namespace command
