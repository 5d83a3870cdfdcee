// Small file helpers of the tests. All of them follow symbolic links and none is meant for untrusted places.
#pragma once

#include <string>
#include <vector>

namespace testkit {

[[nodiscard]] bool isDirectory(const std::string &path);
[[nodiscard]] bool exists(const std::string &path); // a dangling link exists, too

// Writes the whole text over what was there; false with errno.
[[nodiscard]] bool writeFile(const std::string &path, const std::string &text);

// The whole file, empty when it can't be read.
[[nodiscard]] std::string readFile(const std::string &path);

[[nodiscard]] std::string readLink(const std::string &path);
[[nodiscard]] std::string currentDirectory();

// Sorted names of a directory without "." and "..".
[[nodiscard]] std::vector<std::string> directoryNames(const std::string &path);

// Makes a directory and those above it, mode 0755.
[[nodiscard]] bool makeDirectories(const std::string &path);

} // namespace testkit
