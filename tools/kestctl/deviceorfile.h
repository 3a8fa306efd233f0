/// Arguments that are a device or a file.
#pragma once

#include <string>

namespace kest::tools
{

/// Whether an argument names a device: a device text, or a name or number of the device table. Else it is a file, and
/// "-" is standard input. Throws a `failure` (exit code 2) for a text that could be both.
[[nodiscard]] bool namesDevice(const std::string& argument);

/// Throws a `failure` (exit code 4) for an argument that names no device, when there is no file of that name either.
/// @param step  what is done with it: "show"
void requireFile(const std::string& argument, const std::string& step);

} // namespace kest::tools
