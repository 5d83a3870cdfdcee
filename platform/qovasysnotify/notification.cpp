// Notifications: handed to the programs that the administrator and desktop packages put into notify.d, and to the
// journal.
#include "common/failure.h"
#include "common/journal.h"
#include "common/keepers.h"
#include "common/owners.h"
#include "common/program_directory.h"
#include "common/program_run.h"

#include <cctype>
#include <sharesnap/platform/notification.h>
#include <string>
#include <syslog.h>
#include <utility>
#include <vector>

namespace {

using namespace QovaPlatform;

constexpr const char *messageId = "f680e8e3a367473685366c3701cee161";

using Variables = std::vector<std::pair<std::string, std::string>>;

// "%SHARE%" becomes SHARE: a name for the environment and for a field of the journal.
std::string plainName(const std::string &key) {
    std::string name;
    for (const char letter : key) {
        if (letter != '%') {
            const int upper = std::toupper(static_cast<unsigned char>(letter));
            name.push_back(std::isalnum(upper) != 0 && upper < 0x80 ? static_cast<char>(upper) : '_');
        }
    }
    return name;
}

Variables variablesOf(const QLIBCSZHASH *hash) {
    ListOwner keys;
    if (QLIBCSzHashEnumKey(hash, keys.address()) < 0) {
        throw std::bad_alloc();
    }
    Variables variables;
    for (int index = 0; index < keys.get()->nItem; ++index) {
        const char *key = QLIBCSzListGet(keys.get(), index);
        variables.emplace_back(plainName(key), QLIBCSzHashGetValue(hash, key));
    }
    return variables;
}

void tellJournal(const std::string &tag, const Variables &variables) {
    std::string share;
    for (const auto &variable : variables) {
        if (variable.first == "SHARE") {
            share = variable.second;
        }
    }
    JournalEntry entry(LOG_INFO,
                       "Notification " + tag + " for shared folder " + (share.empty() ? "(none)" : share) + ".");
    entry.add("MESSAGE_ID", messageId);
    entry.add("SHARESNAP_NOTIFICATION", tag);
    for (const auto &variable : variables) {
        entry.add("SHARESNAP_NOTIFY_" + variable.first, variable.second);
    }
    (void)entry.send(); // the programs are the way of a notification, the entry is its trace
}

int startPrograms(const std::string &tag, const Variables &variables) {
    ProgramCall call({tag});
    for (const auto &variable : variables) {
        (void)call.setVariable("NOTIFY_" + variable.first, variable.second); // such a name may always be set
    }
    std::vector<Program> programs;
    int result = 0;
    if (!openPrograms("notify.d", Unsafe::log, &programs)) {
        QOVA_SET_CODE(SNAP_ERR_OPERATION_FAILED);
        result = -1;
    }
    for (const Program &program : programs) {
        if (!startProgram(program, call)) {
            QOVA_SET_CODE(SNAP_ERR_OPERATION_FAILED);
            result = -1;
        }
    }
    return result;
}

} // namespace

extern "C" int QOVASysNotifySendNotifiction(const char *szTag, QLIBCSZHASH **ppHash) {
    if (szTag == nullptr || *szTag == '\0' || ppHash == nullptr || *ppHash == nullptr) {
        return QOVA_BAD_ARGUMENT();
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        const Variables variables = variablesOf(*ppHash);
        tellJournal(szTag, variables);
        return startPrograms(szTag, variables);
    });
}
