#include "notice.h"

#include "failure.h"
#include "handles.h"

#include <sharesnap/lifecycle.h>

namespace command {

void sendNotice(const char *tag, const QOVASHARE &share, const std::string &reason) {
    Hash variables = newHash();
    setValue(variables, "%REASON%", reason);
    if (QOVAShareSnapSendNotification(tag, share.szName, variables.address()) != 0) {
        complain("no notification could be sent about " + named(share));
    }
}

} // namespace command
