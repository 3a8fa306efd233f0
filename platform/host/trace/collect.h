/// The part of this process's traces that an error log entry takes.
#pragma once

#include <string>

namespace kest::host
{

/// The latest whole lines of a trace buffer that fit into `bytes` bytes, oldest first, each with a line end.
/// @return empty when the process has no such buffer, or not even its latest line fits
std::string collectTrace(const char* name, unsigned bytes);

} // namespace kest::host
