/// What `sim new` writes beside a template's machine: contents of images, and the configuration.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "sim/templates.h"

namespace kest::tools
{

/// "demo, rack, ..."
[[nodiscard]] std::string templateNames();

/// One line for each template, for the help.
[[nodiscard]] std::string templateHelp();

/// Throws a `failure` (exit code 2) that names the templates when there is none of that name.
[[nodiscard]] const sim::machineTemplate& findTemplate(const std::string& name);

/// Bytes at the start of images, by file name.
[[nodiscard]] std::map<std::string, std::vector<std::uint8_t>> contentsOf(const sim::machineTemplate& which);

/// Text of the kest.toml: device table and nodes. A device that a template mislabels has its label's type there.
[[nodiscard]] std::string configurationOf(const sim::machineTemplate& which);

} // namespace kest::tools
