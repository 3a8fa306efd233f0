/// The host platform's configuration: kest.toml, or defaults.
#pragma once

#include <filesystem>
#include <string>

#include "platform/host/configuration/settings.h"

namespace kest::host
{

/// The process's configuration, read at first use from the file given to useConfigurationFile(), $KEST_CONFIG,
/// /etc/kest/kest.toml, else defaults. An unusable file gives the defaults, and configurationError() says why. Any
/// thread, static initialisation included. With it the trace folder is known: the process's trace rings move there.
/// Throws std::bad_alloc when there is no memory for the first reading; the next call tries again.
const configuration& currentConfiguration();
/// @return what was wrong with the file, empty when nothing was
const std::string& configurationError();
/// Names the file before first use (`--config`). @return false when the configuration has been read already
bool useConfigurationFile(const std::filesystem::path& file);
/// Reads the file again and, when it is good, makes it the current one; references handed out before stay valid. The
/// trace follows.
/// @return what was wrong, "no memory" included; empty when nothing was
std::string reloadConfiguration() noexcept;

} // namespace kest::host
