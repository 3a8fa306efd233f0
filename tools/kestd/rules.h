/// What a configuration says about the service.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/host/configuration/configuration.h"
#include "tools/kestd/devices.h"
#include "tools/kestd/permissions.h"

namespace kest::service
{

/// Made from a configuration. Never changed once it is in use.
struct serviceRules {
    host::serviceSettings limits;
    permissionTable permissions;
    deviceDirectory devices;
    std::uint64_t generation = 0; ///< counts the configurations that were read
};

} // namespace kest::service
