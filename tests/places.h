/// Where the build is. Defined in places.cpp, the only file that is compiled with paths: compiler caches serve every
/// clone.
#pragma once

namespace kest::tests
{

extern const char* const sourceFolder; ///< top of the source tree, without a slash at the end
extern const char* const programFolder; ///< where kestctl and kestd are built
extern const char* const
    emulator; ///< command that runs the target's programs, words parted by ';'; empty when none is needed

inline bool isEmulated() { return *emulator != '\0'; }

} // namespace kest::tests
