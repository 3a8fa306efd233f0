/// Which store this build has.
#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "platform/host/errorlog/entrystore.h"
#include "platform/host/errorlog/limits.h"
#include "platform/host/errorlog/places.h"

namespace kest::host
{

/// The store, and the spools for what it can't take.
struct logStorage {
    logLimits limits;
    std::unique_ptr<entryStore> store; ///< not open yet
    std::vector<spoolPlace> spools; ///< in the order in which they are tried
    /// When a commit looks at the spools outside the state folder the next time: other processes may have filled them.
    std::chrono::steady_clock::time_point looksElsewhereAt = std::chrono::steady_clock::time_point::min();
};

logStorage openStore(const configuration& settings);

} // namespace kest::host
