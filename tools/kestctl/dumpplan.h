/// What `seeprom dump --all` does: which devices it dumps on which bus, and into which files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "platform/host/configuration/settings.h"

namespace kest::tools
{

struct plannedDump {
    std::string device; ///< name in the device table, or the device text of a row without one
    std::filesystem::path file;
    std::uint32_t bytes = 0;
};

/// The devices of one bus, which are dumped one after the other.
struct busDumps {
    std::string bus; ///< for people: "sim:planar", and the node where it is not the local one
    std::vector<plannedDump> dumps;
    [[nodiscard]] std::uint32_t bytes() const;
};

/// @return every SEEPROM of the table, in its order, bus by bus. No two have the same file. Rows whose text names no
/// device are left out
[[nodiscard]] std::vector<busDumps> planDumps(std::span<const host::deviceEntry> table,
                                              const std::filesystem::path& folder);

} // namespace kest::tools
