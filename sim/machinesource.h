/// What a machine's folder says of its buses and chips. A large machine is parsed bus by bus, as its buses are used.
#pragma once

#include "sim/machinedescription.h"
#include "sim/machineindex.h"
#include "sim/machinetext.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kest::sim
{

/// Not for use by two threads at once.
class machineSource
{
public:
    /// Throws std::runtime_error with "FILE:LINE:COLUMN: what is wrong" for a machine file that is not in order.
    explicit machineSource(const std::filesystem::path& folder);

    [[nodiscard]] std::string fileName() const { return m_text.file().string(); }
    /// Whether the machine file still says the same.
    bool stillHolds() { return m_text.stillHolds(); }

    /// Buses, faults and seed, without chips.
    [[nodiscard]] const machineDescription& buses() const { return *m_buses; }
    /// How many chips a bus has. This and the next are what an index says, as long as isByIndex() is.
    [[nodiscard]] std::size_t chipsOf(std::size_t bus) const { return m_layouts[bus].chips; }
    [[nodiscard]] std::uint64_t layoutMark() const { return m_layout; }
    [[nodiscard]] std::uint64_t faultMark() const { return m_faults; }

    /// Whether the file has not been parsed whole. An index may be forged: nothing is to be lost for it.
    [[nodiscard]] bool isByIndex() const { return m_whole == nullptr; }

    // After each of the next two the index may be gone: with another layoutMark() if it was wrong.

    /// All buses, and at least the chips of one.
    std::shared_ptr<const machineDescription> withChipsOf(std::size_t bus);
    std::shared_ptr<const machineDescription> whole();

    /// Leaves an index for the next processes when the machine is large. Under the lock of the state file's header.
    void keepIndex();

private:
    void parseWhole();
    bool takeIndex();
    void makeIndex();

    const std::filesystem::path m_indexFile;
    machineText m_text;
    std::optional<machineIndex> m_index;
    bool m_indexIsKept = false;
    std::shared_ptr<const machineDescription> m_buses, m_whole;
    std::vector<busLayout> m_layouts; ///< by bus
    std::uint64_t m_layout = 0, m_faults = 0;
};

} // namespace kest::sim
