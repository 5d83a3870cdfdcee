// "@restore-<share>" beside a share: what stands in for it while it is restored. After an interrupted restore, and after
// one that was done in part, it may hold the only copy of something.
#pragma once

#include <string>

namespace command {

[[nodiscard]] std::string standInPath(const std::string &volume, const std::string &share);

// Throws a Failure when it can't be looked at.
[[nodiscard]] bool standInIsLeft(const std::string &volume, const std::string &share);

// Throws a Failure (refused) when it stands. Only the next restore of a share of that name would find it again, so the
// share neither goes nor gets another name, and no other share gets its name. The caller holds the lock of moves.
void requireNoStandIn(const std::string &volume, const std::string &share, const std::string &what);

// "what a restore left stands at /vol1/@restore-docs", and what to do about it.
[[nodiscard]] std::string standInText(const std::string &volume, const std::string &share);
[[nodiscard]] std::string howToSettleStandIn(const std::string &volume, const std::string &share);

} // namespace command
