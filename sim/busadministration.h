/// What the keeper of a machine does with one of its buses: faults, power, recordings, listings.
#pragma once

#include "sim/buschips.h"
#include "sim/fault.h"
#include "sim/faultrecord.h"
#include "sim/sharedbus.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kest::sim
{

class busAdministration
{
public:
    /// @param shared  outlives the administration
    explicit busAdministration(sharedBus& shared) : m_shared{shared} {}

    /// Adds the registers of the bus's chips to a list. @return false when the bus can't be used
    bool listRegisters(std::vector<chipListing>& into);
    /// @return false when the bus can't be used, or an image does not take its torn page
    bool powerCycle();

    /// State of a new machine. Under the lock of all.
    void makeNew();
    /// Faults of the machine file instead of those it had before. Under the lock of all.
    void replaceFileFaults(std::vector<faultRecord> fromFile);

    /// @return false with `errno`: ENODEV when the bus can't be used, ENOSPC when there is no room for more
    bool addFault(const faultRecord& record);
    /// How many faults a new scenario may bring.
    std::size_t roomForFaults();
    /// @param number  none: all faults. @return how many there were; none when the bus can't be used
    std::optional<std::size_t> clearFaults(std::optional<std::uint32_t> number);
    /// Adds the bus's faults to a list. The strikes of a fault that is in the list already are added up.
    /// @return false when the bus can't be used
    bool listFaults(std::vector<listedFault>& into);

    /// Whether the bus can be used now.
    [[nodiscard]] bool usable();
    /// Puts a scenario in place of the one before. Times and numbers of transactions in it count from now.
    /// @return false with `errno`: ENODEV when the machine is gone, ENOSPC when there is no room for the faults
    bool play(std::vector<eventRecord> events);

    /// @param path  absolute. @return false with `errno`
    bool startWave(const std::string& path);
    /// Whether startWave() can begin, without a change. @return false with `errno`
    bool mayStartWave(const std::string& path);
    [[nodiscard]] bool isRecording();
    /// @return false with `errno`
    bool stopWave();

private:
    [[nodiscard]] std::size_t addedFaults();
    void endEffects();
    template <typename Change>
    void withFreedLines(waveText& wave, Change change);
    bool beginWave(busUse& use, int file, const std::string& path);

    sharedBus& m_shared;
};

} // namespace kest::sim
