/// The devices that requests may name.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/host/configuration/configuration.h"

namespace kest::service
{

/// Where the library serves requests from.
enum class byteSource : std::uint8_t {
    hardware,
    mixed, ///< copy 0 if there is one, else the hardware
    copy
};

/// A device that a text names, as far as it matters here.
struct namedDevice {
    /// Bus after node mapping, types, addresses and ports: the same for all texts of one device.
    std::string place;
    std::uint32_t bytes = 0; ///< capacity of the type; 0 for types that are not read like a SEEPROM
};

/// The device table and read mode of a configuration. Not changed once it is made.
class deviceDirectory
{
public:
    explicit deviceDirectory(const host::configuration& settings);

    struct tableRow {
        std::string text; ///< as the table has it
        std::uint32_t bytes = 0;
    };
    /// @return the row of the table for the device of `text`, with the same types all along the chain; null when there
    /// is none
    [[nodiscard]] const tableRow* find(std::string_view text) const;
    /// @return nothing when the text names no device, or one on a node that is not mapped
    [[nodiscard]] std::optional<namedDevice> understand(const std::string& text) const;

    [[nodiscard]] bool hasNumberZero() const { return m_hasNumberZero; }
    [[nodiscard]] byteSource source() const { return m_source; }

private:
    host::nodeMap m_nodes;
    std::map<std::string, tableRow> m_rows; ///< by place
    std::map<std::string, tableRow, std::less<>> m_texts; ///< the same rows, by each text of the table
    byteSource m_source = byteSource::hardware;
    bool m_hasNumberZero = false;
};

} // namespace kest::service
