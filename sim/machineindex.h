/// Where the tables of a machine file are, so that a process parses only those that it needs.
#pragma once

#include "sim/machinefile.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kest::sim
{

/// The tables of one text. It is made when the text is parsed whole, and other processes find it in a file.
class machineIndex
{
public:
    /// @param whole  what the text was parsed into
    /// @return none when tables share lines: parts of such a text are no machine file
    static std::optional<machineIndex> make(std::string_view text, const machineDescription& whole);
    /// @return none when the file has no index of that text, whatever else it holds
    static std::optional<machineIndex> load(const std::filesystem::path& file, std::string_view text);
    /// Replaces the file. When that fails, the next process parses the text whole.
    void save(const std::filesystem::path& file, std::string_view text) const;

    /// The marks of the whole text's description.
    [[nodiscard]] std::uint64_t layoutMark() const { return m_layout; }
    [[nodiscard]] std::uint64_t faultMark() const { return m_faults; }
    [[nodiscard]] std::size_t chipsOf(std::size_t bus) const;

    /// Parses the tables of all buses, and those of the chips of one. No faults.
    /// Throws std::runtime_error when the index is not one of the text.
    /// @param bus  none: no chips
    [[nodiscard]] machineDescription parse(std::string_view text, const std::string& fileName,
                                           std::optional<std::size_t> bus) const;

private:
    /// From the line on which a table begins to the one on which the next begins.
    struct piece {
        std::uint32_t offset = 0, length = 0;
        tablePlace place;
        std::uint32_t bus = 0; ///< of a chip
    };
    struct head;

    [[nodiscard]] bool isOf(std::string_view text) const;

    std::uint64_t m_layout = 0, m_faults = 0;
    std::uint32_t m_headBytes = 0; ///< of the text before its first table
    std::vector<piece> m_buses;
    std::vector<piece> m_chips;
};

} // namespace kest::sim
