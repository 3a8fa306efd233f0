/// A kernel bus's, over /dev/i2c-N.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "platform/host/iic/bus.h"

namespace kest::host::iic
{

/// @param pathPrefix         put before /dev/i2c-N
/// @param setAdapterTimeout  change the adapter's time-out for each transaction; 1 s after it, because the kernel does
///     not tell the old one
/// @return 0, or ENOENT, ENODEV, EACCES, ENOSYS, ENOMEM, ETIME, EIO
int openLinuxBus(const std::string& pathPrefix, unsigned int number, const std::filesystem::path& lockFolder,
                 bool setAdapterTimeout, std::shared_ptr<bus>& opened);

} // namespace kest::host::iic
