/// `seeprom dump --all`: every SEEPROM of the device table, the buses in parallel.
#pragma once

#include <filesystem>

#include "tools/kestctl/context.h"
#include "tools/kestctl/seepromchoice.h"

namespace kest::tools
{

/// Dumps every SEEPROM of the device table into a file of its own. Nothing stops at a failure.
/// @param from  how they are read; its device, offset and length are not used
/// @param folder  is made if it is not there
/// @return the highest of their exit codes
[[nodiscard]] int dumpAll(const context& shared, const seepromOptions& from, const std::filesystem::path& folder);

} // namespace kest::tools
