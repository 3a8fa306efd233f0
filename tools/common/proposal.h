/// A kest.toml that is proposed from what was found on buses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "platform/host/configuration/settings.h"
#include "tools/common/foundpart.h"
#include "tools/common/json.h"

namespace kest::tools
{

/// The number after those of the device table: the copies of its devices stay theirs. 1 when there is none after them.
[[nodiscard]] std::uint64_t firstFreeNumber(const host::configuration& current);

/// Builds the file, bus by bus. Rows that can be used as they are stand in it ready; those that somebody has to decide
/// on are comments.
class proposal
{
public:
    /// @param current  where the buses were found: what leads to them is taken over. Lives as long as the proposal
    explicit proposal(const host::configuration& current);

    void add(const busName& bus, const std::vector<foundPart>& parts);

    /// The file.
    [[nodiscard]] std::string text() const;
    /// What was found, with the rows of the file.
    [[nodiscard]] jsonValue buses() const { return m_buses; }
    [[nodiscard]] std::size_t readyRows() const { return m_readyRows; }
    [[nodiscard]] std::size_t rowsToDecide() const { return m_rowsToDecide; }

private:
    [[nodiscard]] std::string head() const;
    [[nodiscard]] std::string nameOf(const busName& bus, const foundPart& part);
    void addRow(const busName& bus, const foundPart& part, jsonValue& json);

    const host::configuration& m_current;
    std::string m_rows;
    std::uint64_t m_number; ///< of the next row
    std::set<std::string> m_names;
    jsonList m_buses;
    std::size_t m_readyRows = 0;
    std::size_t m_rowsToDecide = 0;
};

/// A text as TOML has it, in double quotes and in ASCII. Bytes that are no UTF-8 become replacement characters.
[[nodiscard]] std::string tomlText(const std::string& text);

} // namespace kest::tools
