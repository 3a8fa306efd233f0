/// What the parts of this platform know of each other, and what its programs may ask beyond the platform interface.
#pragma once

#include <cstdint>
#include <string>

namespace minimal
{

/// @return the committed entries with that log id as text; empty when there are none
std::string committedText(std::uint32_t logId);
/// @return the latest whole lines of a trace buffer that fit into `bytes`; empty when there is no such buffer
std::string latestTrace(const char* bufferName, unsigned int bytes);

} // namespace minimal
