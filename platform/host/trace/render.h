/// Trace records as lines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/host/trace/record.h"

namespace kest::host
{

/// One line without its end: time of day (UTC), thread, hash, source line, text; " name size: bytes in hex" for binary
/// data.
/// @param dataBytes  bytes of binary data to show at most; "..." shows that some are left out
std::string renderRecord(const traceRecord& record, std::size_t dataBytes = SIZE_MAX);

} // namespace kest::host
