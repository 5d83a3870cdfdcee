// Events for an administrator. Their explanations stand in the journal's message catalog (packaging/catalog).
#include "common/failure.h"
#include "common/journal.h"
#include "common/keepers.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <sharesnap/platform/event_log.h>
#include <string>
#include <syslog.h>
#include <vector>

namespace {

using namespace QovaPlatform;

constexpr int systemEvent = 9;
constexpr size_t textLimit = 16;

// Where the texts of an event stand in its message and in which fields they can be searched for.
struct EventForm {
    unsigned int event;
    const char *messageId;
    const char *message; // $1 to $9 are the texts
    std::array<const char *, 3> fields;
};

constexpr std::array<EventForm, 4> eventForms = {{
    {0x13C00001,
     "345973bfb98941ecb577d73ae3a11dd9",
     "User $1 took snapshot $2 of shared folder $3.",
     {"ACTOR", "SNAPSHOT", "SHARE"}},
    {0x13C00002,
     "850caeac5f85458085b34863e79993fc",
     "User $1 failed to take a snapshot of shared folder $2: $3.",
     {"ACTOR", "SHARE", "REASON"}},
    {0x13C00003,
     "23e59d18a7564320b0ea5b04f1e0e36a",
     "User $1 deleted snapshot $3 of shared folder $2.",
     {"ACTOR", "SHARE", "SNAPSHOT"}},
    {0x13C00004,
     "6e508e20ef444e0d9a460d659653d736",
     "User $1 failed to delete snapshot $3 of shared folder $2.",
     {"ACTOR", "SHARE", "SNAPSHOT"}},
}};

const EventForm *formOf(unsigned int event) {
    for (const EventForm &form : eventForms) {
        if (form.event == event) {
            return &form;
        }
    }
    return nullptr;
}

std::string eventNumber(unsigned int event) {
    char text[16] = {};
    (void)std::snprintf(text, sizeof(text), "0x%08X", event); // always fits
    return text;
}

// A text that ends in its own full stop or blank isn't given a second one.
std::string tidied(const std::string &text) {
    const size_t last = text.find_last_not_of(" .");
    return last == std::string::npos ? text : text.substr(0, last + 1);
}

std::string messageOf(const EventForm *form, unsigned int event, const std::vector<std::string> &texts) {
    std::string message;
    if (form == nullptr) {
        message = "Event " + eventNumber(event);
        for (const std::string &text : texts) {
            message += (message.back() == ':' ? " " : ": ") + text;
        }
        return message;
    }
    for (const char *at = form->message; *at != '\0'; ++at) {
        const bool isPlace = at[0] == '$' && at[1] >= '1' && at[1] <= '9';
        if (!isPlace) {
            message.push_back(*at);
            continue;
        }
        ++at;
        const auto index = static_cast<size_t>(*at - '1');
        message += index < texts.size() ? tidied(texts[index]) : std::string("(unknown)");
    }
    return message;
}

int priorityOf(int level) {
    constexpr std::array<int, 3> priorities = {LOG_INFO, LOG_WARNING, LOG_ERR};
    return priorities[static_cast<size_t>(level - 1)];
}

int sendEvent(int level, unsigned int event, const std::vector<std::string> &texts) {
    const EventForm *form = formOf(event);
    JournalEntry entry(priorityOf(level), messageOf(form, event, texts));
    entry.add("SHARESNAP_EVENT", eventNumber(event));
    for (size_t index = 0; index < texts.size(); ++index) {
        entry.add("SHARESNAP_TEXT_" + std::to_string(index + 1), texts[index]);
    }
    if (form != nullptr) {
        entry.add("MESSAGE_ID", form->messageId);
        for (size_t index = 0; index < texts.size() && index < form->fields.size(); ++index) {
            entry.add(form->fields[index], texts[index]);
        }
    }
    if (entry.send() != 0) {
        QOVA_SET_CODE(SNAP_ERR_OPERATION_FAILED);
        return -1;
    }
    return 0;
}

} // namespace

extern "C" int QOVALogSet1(int nType, int nLevel, unsigned int uEvent, ...) {
    const ErrnoKeeper keeper;
    if (nType != systemEvent || nLevel < 1 || nLevel > 3) {
        QOVA_SET_CODE(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    va_list arguments;
    va_start(arguments, uEvent);
    const int result = Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        std::vector<std::string> texts;
        for (const char *text = va_arg(arguments, const char *); text != nullptr && texts.size() < textLimit;
             text = va_arg(arguments, const char *)) {
            texts.emplace_back(text);
        }
        return sendEvent(nLevel, uEvent, texts);
    });
    va_end(arguments);
    return result;
}
