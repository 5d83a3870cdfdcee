// Directories of executables: what the administrator and installed packages put there is run by us as root, so only
// what belongs to root alone is taken.
#ifndef SHARESNAP_PLATFORM_COMMON_PROGRAM_DIRECTORY_H
#define SHARESNAP_PLATFORM_COMMON_PROGRAM_DIRECTORY_H

#include "common/descriptor.h"

#include <string>
#include <vector>

namespace QovaPlatform {

// An executable that has been checked. What is run is what the descriptor stands for, whatever happens to the path.
struct Program {
    std::string path;
    Descriptor file; // open for reading, closed on exec
};

enum class Unsafe { passOver, log };

// The programs of /etc/sharesnap/<subdirectory> and /usr/lib/sharesnap/<subdirectory> in the order of their names. An
// entry of the first directory hides one of the same name in the second, also when it can't be run itself. Names
// consist of letters, digits, '_' and '-'. File and directories, from /etc/sharesnap and /usr/lib/sharesnap on, have to
// be root's, writable by nobody else, and no symbolic links; the file has to be regular and executable. All else is
// passed over, and logged when it is unsafe and the caller asks for that. False with errno when a directory can't be read
// to its end, or something that could be such a program can't be opened for another reason, as for want of descriptors;
// what was found until then is given.
[[nodiscard]] bool openPrograms(const std::string &subdirectory, Unsafe unsafe, std::vector<Program> *programs);

// True for a name of letters, digits, '_' and '-' that isn't empty.
[[nodiscard]] bool isProgramName(const char *name);

} // namespace QovaPlatform

#endif
