// What a process inherits from whoever started it, brought into the state that the command counts on.
#pragma once

namespace command {

// To be called before anything else. Opens what stands in for closed standard streams: files of ours would get their
// numbers otherwise, and messages would be written into them. Makes ended children wait for us again where they were
// ignored.
void mendInheritedState();

} // namespace command
