/// A chip of a bus with its memory and its record in the state file. What nobody uses is not loaded.
#pragma once

#include "sim/chip.h"
#include "sim/image.h"
#include "sim/machinedescription.h"
#include "sim/pagewrite.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace kest::sim
{

class storedChip;

/// One use of a bus: what its chips are loaded from, and which of them are.
struct chipUse {
    std::span<std::uint8_t> records; ///< of all chips, chipStateBytes each
    std::uint64_t busTime = 0; ///< at the begin, ns
    pageWrite* page = nullptr; ///< gets what memory chips program
    std::vector<std::uint32_t> faults; ///< numbers of the bus's faults at the begin
    std::vector<storedChip*> loaded;
    const char* damage = nullptr; ///< the first field that was damaged; null: none
};

class storedChip
{
public:
    /// @param about   one of the chips of `all`; outlives the chip
    /// @param number  among the chips of its bus
    storedChip(const machineDescription& all, const chipDescription& about, std::uint32_t number,
               const std::filesystem::path& folder);

    [[nodiscard]] const chipDescription& about() const { return *m_about; }
    /// Its name for people.
    [[nodiscard]] const std::string& label() const { return m_label; }
    /// Null for chips without memory. What it does to a page needs a chip in use.
    [[nodiscard]] image* cells() const { return m_cells.get(); }

    /// The chip with its state in the file. One whose record is damaged is out of its place, and what was done in this
    /// use must not count.
    chip& in(chipUse& use);
    /// Only takes note of the use: all of the state is set anew.
    chip& unread(chipUse& use);
    /// The chip itself, for what does not depend on its state.
    [[nodiscard]] chip& model() const { return *m_model; }

    /// Stores it if it was loaded. @param records  of all chips
    void store(std::span<std::uint8_t> records) const;
    /// Ends the use that loaded it.
    void endUse();

private:
    void load(chipUse& use);
    [[nodiscard]] std::span<std::uint8_t> recordIn(std::span<std::uint8_t> records) const
    {
        return records.subspan(std::size_t{m_number} * chipStateBytes, chipStateBytes);
    }

    const chipDescription* m_about;
    std::uint32_t m_number;
    std::unique_ptr<image> m_cells;
    std::unique_ptr<chip> m_model;
    std::string m_label;
    bool m_loaded = false;
};

} // namespace kest::sim
