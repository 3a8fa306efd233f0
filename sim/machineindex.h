/// Which chips of a machine file are on which bus, so that a process parses only those that it needs.
#pragma once

#include "sim/machinedescription.h"
#include "sim/texttables.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kest::sim
{

/// The index of one text. It is made when the text is parsed whole, and other processes find it in a file. What the file
/// says is a hint: the tables are found in the text itself, and the chips of a bus must have the mark that they had.
class machineIndex
{
public:
    /// @param text   outlives the index
    /// @param whole  what the text was parsed into
    /// @return none when tables share lines: parts of such a text are no machine file
    static std::optional<machineIndex> make(std::string_view text, const machineDescription& whole);
    /// @param text  outlives the index
    /// @return none when the file has no index of that text, whatever else it holds
    static std::optional<machineIndex> load(const std::filesystem::path& file, std::string_view text);
    /// Replaces the file. When that fails, the next process parses the text whole.
    void save(const std::filesystem::path& file) const;

    /// By bus.
    [[nodiscard]] const std::vector<busLayout>& layouts() const { return m_layouts; }
    /// Parses the tables of all buses and faults. @return none when they are not in order, or not as many as the index says
    [[nodiscard]] std::optional<machineDescription> parseBuses(const std::string& fileName) const;
    /// Parses the tables of all buses, and those of the chips of one.
    /// @return none when they are not in order, or not what the index says
    [[nodiscard]] std::optional<machineDescription> parseChipsOf(std::size_t bus, const std::string& fileName) const;

    /// Whether two indexes of one text say the same.
    bool operator==(const machineIndex& other) const
    {
        return m_busOfChip == other.m_busOfChip && m_layouts == other.m_layouts;
    }

private:
    struct head;

    machineIndex(std::string_view text, textTables tables) : m_text{text}, m_tables{std::move(tables)} {}
    void exchange(stateFields& fields);
    [[nodiscard]] bool fits() const;
    [[nodiscard]] std::string headAndBuses() const;

    std::string_view m_text;
    textTables m_tables;
    std::vector<std::uint32_t> m_busOfChip; ///< in the order of the text
    std::vector<busLayout> m_layouts;
};

} // namespace kest::sim
