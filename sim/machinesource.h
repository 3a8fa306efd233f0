/// What a machine's folder says of its buses and chips. A large machine is parsed bus by bus, as its buses are used.
#pragma once

#include "sim/machinefile.h"
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

    /// Buses and seed, without chips and faults.
    [[nodiscard]] const machineDescription& buses() const { return *m_buses; }
    [[nodiscard]] std::size_t chipsOf(std::size_t bus) const { return m_chips[bus]; }
    [[nodiscard]] std::uint64_t layoutMark() const { return m_layout; }
    [[nodiscard]] std::uint64_t faultMark() const { return m_faults; }

    /// All buses, and at least the chips of one.
    std::shared_ptr<const machineDescription> withChipsOf(std::size_t bus);
    std::shared_ptr<const machineDescription> whole();

    /// Leaves an index for the next processes when the machine is large. Under the lock of all buses.
    void keepIndex() const;

private:
    void parseWhole();
    bool takeIndex();

    const std::filesystem::path m_indexFile;
    machineText m_text;
    std::optional<machineIndex> m_index;
    bool m_indexIsKept = false;
    std::shared_ptr<const machineDescription> m_buses, m_whole;
    std::vector<std::size_t> m_chips; ///< by bus
    std::uint64_t m_layout = 0, m_faults = 0;
};

} // namespace kest::sim
