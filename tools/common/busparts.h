/// Finds out what parts may be on a bus, for somebody who meets it for the first time.
///
/// Nothing is written to any part, and no register is read: an address answers, the kernel names a part, or the width
/// proof tells one memory part from another. Parts with registers can't be told apart in this way. Their types are
/// guesses by address.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/host/iic/sysfs.h"
#include "tools/common/devicetext.h"
#include "tools/common/foundpart.h"
#include "tools/common/memoryparts.h"

namespace kest::tools
{

struct partSearch {
    /// Whether the parts at hubs' addresses are 922 hubs, so that there may be parts behind them. Nobody can find out
    /// without sending bytes that another part at such an address takes for data.
    bool hubsAreCertain = false;
    partAsking asking = {};
};

/// Scans a bus, and examines what answers or what the kernel knows. Throws a `failure` when the bus can't be opened, and
/// as memoryProofs::judge().
/// @return parts by address, those behind a hub after the hub
[[nodiscard]] std::vector<foundPart> findParts(const busName& bus, const host::iic::sysfs& kernel,
                                               const partSearch& search);

} // namespace kest::tools
