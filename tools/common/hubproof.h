/// The width of a part behind a 922 hub, as the hub itself shows it: it knows its devices, and refuses a read with the
/// wrong number of offset bytes.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>

#include "tools/common/widthengine.h"

namespace kest::tools
{

/// The hub, as the proof sees it. Nobody else uses it meanwhile.
struct hubQuestion {
    /// Reads the part behind offset bytes. @return the hub's status; nothing when the hub is silent
    std::function<std::optional<std::uint8_t>(std::span<const std::uint8_t> offset, std::span<std::uint8_t> into)>
        readStatus;
    /// Takes a status from the hub, which then goes on. @return false when the hub is silent
    std::function<bool()> clearStatus;
};

/// Asks with one offset byte and with two. A refusal may be that of an earlier transfer, so one offset byte is asked
/// with again: two are sent only when the part's own byte is known, or the hub has refused one twice. Another status, or
/// silence, ends it at once.
/// @return nothing when the hub takes both: reads of the part must decide
[[nodiscard]] std::optional<widthFinding> proveByHub(const hubQuestion& question);

} // namespace kest::tools
