/// Where the build is. Defined in places.cpp, the only file that is compiled with paths: compiler caches serve every
/// clone.
#pragma once

#include <string>
#include <vector>

namespace kest::test
{

// Top of the source tree, without a slash at the end.
extern const char* const sourceFolder;
// Where kestctl and kestd are built.
extern const char* const programFolder;
// Command that runs the target's programs, with ';' between its words; empty when none is needed.
extern const char* const emulator;

inline bool isEmulated() { return *emulator != '\0'; }

/// The words that start a program of the build: the emulator's, if there is one, and the program's path.
std::vector<std::string> commandOf(const std::string& program);

} // namespace kest::test
