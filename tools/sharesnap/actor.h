// Who stands behind this command.
#pragma once

#include <string>

namespace command {

// Name of the user who logged in, or who called sudo, or whom the process belongs to; its number when it has no name.
[[nodiscard]] std::string actorName();

} // namespace command
