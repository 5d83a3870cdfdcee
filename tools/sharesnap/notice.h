// Notifications: what an administrator wants to hear of without looking into a log.
#pragma once

#include <sharesnap/platform/share.h>

#include <string>

namespace command {

// Tags, by which notification programs and the journal tell them apart.
constexpr char noticeCreateFailed[] = "SnapshotCreateFailed";
constexpr char noticeDeleteFailed[] = "SnapshotDeleteFailed";

// Sends one about the share, with what went wrong under %REASON%. One that can't be sent is only complained about.
void sendNotice(const char *tag, const QOVASHARE &share, const std::string &reason);

} // namespace command
