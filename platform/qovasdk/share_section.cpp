#include "qovasdk/share_section.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string_view>

namespace QovaPlatform {
namespace {

constexpr const char *keyPath = "path";
constexpr const char *keyComment = "comment";
constexpr const char *keyDeny = "invalid users";
constexpr const char *keyReadWrite = "write list";
constexpr const char *keyReadOnly = "read list";
constexpr const char *keyBrowseable = "browseable";
constexpr const char *keyFtpPrivilege = "sharesnap:ftp_privilege";
constexpr const char *keyStatus = "sharesnap:status";
constexpr const char *keyForbidden = "sharesnap:forbidden";
constexpr const char *keyLocation = "sharesnap:location";

constexpr std::string_view blanks = " \t\r";

std::string trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return std::string(text.substr(first, text.find_last_not_of(blanks) - first + 1));
}

std::string plainKey(const std::string &key) {
    std::string plain = trimmed(key);
    for (char &letter : plain) {
        letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    }
    return plain;
}

bool truthOf(const std::string &value, bool otherwise) {
    const std::string word = plainKey(value);
    if (word == "yes" || word == "true" || word == "1" || word == "on") {
        return true;
    }
    if (word == "no" || word == "false" || word == "0" || word == "off") {
        return false;
    }
    return otherwise;
}

// The names of a list without blanks around them: people write "alice, @staff".
std::string plainList(const std::string &list) {
    std::string plain;
    for (std::string_view rest = list; !rest.empty();) {
        const size_t end = rest.find(',');
        const std::string name = trimmed(rest.substr(0, end));
        if (!name.empty()) {
            plain += (plain.empty() ? "" : ",") + name;
        }
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    }
    return plain;
}

int locationOf(const std::string &value) {
    const std::string text = trimmed(value);
    return text.size() == 1 && text[0] >= '0' && text[0] <= '3' ? text[0] - '0' : localShare;
}

void takePair(const std::string &key, const std::string &value, ShareEntry *entry) {
    if (key == keyPath) {
        entry->path = value;
    } else if (key == keyComment) {
        entry->description = value;
    } else if (key == keyDeny) {
        entry->denyList = plainList(value);
    } else if (key == keyReadWrite) {
        entry->readWriteList = plainList(value);
    } else if (key == keyReadOnly) {
        entry->readOnlyList = plainList(value);
    } else if (key == keyBrowseable || key == "browsable") {
        entry->browseable = truthOf(value, true);
    } else if (key == keyFtpPrivilege) {
        entry->ftpPrivilege = static_cast<int>(std::strtol(value.c_str(), nullptr, 10));
    } else if (key == keyStatus) {
        entry->status = static_cast<unsigned int>(std::strtoul(value.c_str(), nullptr, 0));
    } else if (key == keyForbidden) {
        entry->forbidden = truthOf(value, false);
    } else if (key == keyLocation) {
        entry->location = locationOf(value);
    }
}

// Keys that a field of QOVASHARE stands for.
bool belongsToRecord(const std::string &key) {
    return key == keyPath || key == keyComment || key == keyDeny || key == keyReadWrite || key == keyReadOnly ||
           key == keyBrowseable || key == "browsable" || key == keyFtpPrivilege || key == keyStatus;
}

void setPair(HashOwner *pairs, const char *key, const std::string &value) {
    if (QLIBCSzHashSetValue(pairs->address(), key, value.c_str()) < 0) {
        throw std::bad_alloc();
    }
}

} // namespace

bool entryFromPairs(const std::string &name, const QLIBCSZHASH *pairs, ShareEntry *entry) {
    ListOwner keys;
    if (QLIBCSzHashEnumKey(pairs, keys.address()) < 0) {
        throw std::bad_alloc();
    }
    *entry = ShareEntry();
    entry->name = name;
    for (int index = 0; index < keys.get()->nItem; ++index) {
        const std::string key = QLIBCSzListGet(keys.get(), index);
        const char *value = QLIBCSzHashGetValue(pairs, key.c_str());
        // Blanks around the key tell a line written by hand; in our own lines all of the value belongs to it.
        const bool byHand = trimmed(key) != key;
        takePair(plainKey(key), byHand ? trimmed(value) : value, entry);
    }
    return makeSharePathPlain(&entry->path);
}

void pairsFromEntry(const ShareEntry &entry, const QLIBCSZHASH *old, HashOwner *pairs) {
    char status[16] = {};
    (void)std::snprintf(status, sizeof(status), "0x%02x", entry.status); // always fits
    setPair(pairs, keyPath, entry.path);
    setPair(pairs, keyComment, entry.description);
    setPair(pairs, keyDeny, entry.denyList);
    setPair(pairs, keyReadWrite, entry.readWriteList);
    setPair(pairs, keyReadOnly, entry.readOnlyList);
    setPair(pairs, keyBrowseable, entry.browseable ? "yes" : "no");
    setPair(pairs, keyFtpPrivilege, std::to_string(entry.ftpPrivilege));
    setPair(pairs, keyStatus, status);
    if (old == nullptr) {
        return;
    }
    ListOwner keys;
    if (QLIBCSzHashEnumKey(old, keys.address()) < 0) {
        throw std::bad_alloc();
    }
    for (int index = 0; index < keys.get()->nItem; ++index) {
        const char *key = QLIBCSzListGet(keys.get(), index);
        if (!belongsToRecord(plainKey(key))) {
            setPair(pairs, key, QLIBCSzHashGetValue(old, key));
        }
    }
}

} // namespace QovaPlatform
