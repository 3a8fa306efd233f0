/// A write through the message service.
#pragma once

#include <cstdint>
#include <span>

#include "tools/client/client.h"
#include "tools/common/devicetext.h"

namespace kest::tools
{

/// Has the service write. Throws a `failure`: as requireServed(); an interruption() when a signal came, which says what
/// is known of the write then. The service goes on with what it has begun.
void writeByMessage(client::serviceConnection& service, const device& which, std::uint32_t offset,
                    std::span<const std::uint8_t> bytes);

} // namespace kest::tools
