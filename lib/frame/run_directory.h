// Directories below /run that the library makes on demand.
#ifndef SHARESNAP_FRAME_RUN_DIRECTORY_H
#define SHARESNAP_FRAME_RUN_DIRECTORY_H

namespace sharesnap {

// Makes szPath (0777, the umask applies) unless it stands. 1 it stands; 0 mkdir failed (logged, 0x0C00); -1 something
// else stands there (0xA000).
[[nodiscard]] int GetOrCreateRunDirectory(const char *szPath);

} // namespace sharesnap
#endif
