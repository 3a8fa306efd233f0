/// Whether the part that a write goes to is the one that the device table expects.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "tools/client/frame.h"

namespace kest::service
{

struct partCheck {
    std::string trouble; ///< why the write is refused; empty when it is not
    std::optional<client::frame> failedRead; ///< the reply to a read that the library could not do
};

using frameServer = std::function<client::frame(const client::frame& request)>;

/// Reads what the device table expects at a device's place, from where the write goes. A blank part passes. Behind a hub
/// bytes count when two reads in a row agree: a read that recovers by itself can return bytes that were never read.
/// @param location  device text; one that names no device passes, as does one of which nothing is expected
/// @param hardware  whether the hardware takes the write; else copy 0
/// @param serve     has the library serve a read
[[nodiscard]] partCheck examinePart(const std::string& location, bool hardware, const frameServer& serve);

} // namespace kest::service
