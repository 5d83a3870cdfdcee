// Where the share database lies. One provider stands: `file`. Another one (the shares of a file server's own
// configuration, say) implements this interface and is chosen in shareProvider(); nothing above it changes.
#ifndef SHARESNAP_PLATFORM_QOVASDK_SHARE_PROVIDER_H
#define SHARESNAP_PLATFORM_QOVASDK_SHARE_PROVIDER_H

#include <string>
#include <vector>

namespace QovaPlatform {

constexpr int localShare = 1;

// A record as the database holds it: nothing in it is worked out from the machine's state.
struct ShareEntry {
    std::string name;
    std::string description;
    std::string path;
    std::string denyList; // the lists: names joined by ',', groups with a leading '@'
    std::string readWriteList;
    std::string readOnlyList;
    bool browseable = true;
    int ftpPrivilege = 0;
    unsigned int status = 0; // without the bit that tells whether an encrypted share is unlocked
    bool forbidden = false;
    int location = localShare;
};

// Every call that fails sets a code and leaves the database as it was.
class ShareProvider {
public:
    virtual ~ShareProvider() = default;

    // 0x2200 no such share; 0x0400 the database can't be read now, but soon; 0x0A00 the record can't be used.
    [[nodiscard]] virtual bool fetch(const std::string &name, ShareEntry *entry) = 0;
    // All usable records in the database's order. An absent database has none.
    [[nodiscard]] virtual bool fetchAll(std::vector<ShareEntry> *entries) = 0;

    // The write side, under the database's lock. 0x0800 the name is taken, 0x2200 no such share.
    [[nodiscard]] virtual bool add(const ShareEntry &entry) = 0;
    // What the record holds beside the fields of QOVASHARE stays as it is.
    [[nodiscard]] virtual bool replace(const ShareEntry &entry) = 0;
    [[nodiscard]] virtual bool rename(const std::string &name, const std::string &newName) = 0;
    [[nodiscard]] virtual bool remove(const std::string &name) = 0;
};

[[nodiscard]] ShareProvider &shareProvider();

// A name that can be a file's name and a section's: not empty, at most 255 bytes, not "." or "..", without '/', line
// feed or brackets.
[[nodiscard]] bool isShareName(const std::string &name);

// Makes a path plain: no double or trailing slashes. False when it isn't absolute, has "." or ".." components or a
// line feed, names the root, or is longer than 4095 bytes.
[[nodiscard]] bool makeSharePathPlain(std::string *path);

} // namespace QovaPlatform

#endif
