/// @file
/// The version of the library, when a program is compiled and when it runs.
#pragma once

/// Major, minor and patch as text. This line is the version's home: the build reads it.
#define KEST_VERSION "0.2.0"
#define KEST_VERSION_MAJOR 0 ///< the first number of it
#define KEST_VERSION_MINOR 2 ///< the second
#define KEST_VERSION_PATCH 0 ///< the third

namespace kest
{

/// Returns the version of the library that the program runs with. It differs from `KEST_VERSION` where the program was
/// compiled with the headers of another version. Any thread may call it.
/// @return major, minor and patch, as `KEST_VERSION` has them; static text
const char* kest_version();

} // namespace kest

using kest::kest_version;
