/// Reads kest.toml. docs/configuration.md describes the file.
#pragma once

#include <filesystem>
#include <string>

#include "platform/host/configuration/settings.h"

namespace kest::host
{

/// A configuration, or why there is none.
struct configurationResult {
    configuration value; ///< defaults when `error` is not empty
    std::string error; ///< "FILE:LINE:COLUMN: key 'K': expected ..., found ...", or "... 'K': no TOML: ..."
};

/// Reads one file. Relative paths in it count from the file's folder. Of several faults the first in the file is reported.
configurationResult readConfiguration(const std::filesystem::path& file);

} // namespace kest::host
