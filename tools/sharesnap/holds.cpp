#include "holds.h"

#include "failure.h"
#include "handles.h"
#include "text.h"

#include <sharesnap/counters.h>

namespace command {
namespace {

Failure cantRead(const QOVASHARE &share, const std::string &snapshot, Cause cause) {
    return libraryFailure("can't read who holds snapshot " + quoted(snapshot) + " of " + named(share), share, cause);
}

} // namespace

uint32_t holdCount(const QOVASHARE &share, const std::string &snapshot, const std::string &holder) {
    uint32_t count = 0;
    forgetCause();
    if (QOVAShareSnapSysLockGet(&share, snapshot.c_str(), holder.c_str(), &count) != 1) {
        throw cantRead(share, snapshot, causeNow());
    }
    return count;
}

std::vector<Hold> holdsOf(const QOVASHARE &share, const std::string &snapshot) {
    List holders = newList();
    forgetCause();
    if (QOVAShareSnapSysLockInitiatorList(&share, snapshot.c_str(), holders.address()) != 1) {
        throw cantRead(share, snapshot, causeNow());
    }
    std::vector<Hold> holds;
    for (const std::string &holder : itemsOf(holders)) {
        holds.push_back({holder, holdCount(share, snapshot, holder)});
    }
    return holds;
}

std::string timesText(uint32_t count) {
    return count == 1 ? "once" : std::to_string(count) + " times";
}

std::string holdsText(const std::vector<Hold> &holds) {
    std::string text;
    for (const Hold &hold : holds) {
        text += (text.empty() ? "" : ", ") + printable(hold.holder) + " (" + timesText(hold.count) + ")";
    }
    return text;
}

Json holdsDocument(const std::vector<Hold> &holds) {
    Json document = Json::array();
    for (const Hold &hold : holds) {
        Json entry = Json::object();
        entry["holder"] = hold.holder;
        entry["count"] = hold.count;
        document.push_back(entry);
    }
    return document;
}

} // namespace command
