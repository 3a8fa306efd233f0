/// The buses of an opened machine: its folder's files, and each bus made ready when it is first used.
#pragma once

#include "sim/busadministration.h"
#include "sim/busmodel.h"
#include "sim/machinesource.h"
#include "sim/realclock.h"
#include "sim/sharedbus.h"
#include "sim/statefile.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kest::sim
{

/// A bus: what its users share, and the two ways to use it.
struct machineBus {
    machineBus(std::shared_ptr<const machineDescription> all, std::size_t index, const std::filesystem::path& folder,
               realClock* clock)
        : about{std::move(all)}, shared{*about, index, folder, clock}
    {
    }
    const std::shared_ptr<const machineDescription> about;
    sharedBus shared;
    busModel wires{shared};
    busAdministration administration{shared};
    bool prepared = false; ///< its images, once
    bool checked = false; ///< since the machine had its first user
};

/// Buses are made when they are first used: what nobody touches costs nothing.
class machineBuses
{
public:
    /// Under the opening lock. Throws as openMachine().
    machineBuses(const std::filesystem::path& folder, realClock* clock);

    [[nodiscard]] const std::filesystem::path& folder() const { return m_folder; }
    /// Buses without their chips.
    [[nodiscard]] const machineDescription& about() const { return m_about; }

    // Each takes the opening lock. Those that make buses ready throw as openMachine().

    [[nodiscard]] std::shared_ptr<const machineDescription> whole();
    machineBus& ready(std::size_t index);
    const std::vector<std::unique_ptr<machineBus>>& all();

    /// @return 0 when the machine is gone
    std::uint32_t takeFaultNumber();
    /// Whether a file is one that the machine keeps or has as an image.
    [[nodiscard]] bool isOwnFile(const std::filesystem::path& file);

    // Under the opening lock.

    /// Whether they still stand for what is in the folder.
    bool stillStand();
    /// Before the first user after a time without any.
    void forgetChecks();

private:
    // Under the opening lock.
    void openStateFile();
    void openState();
    [[nodiscard]] bool isUpToDate() const;
    void bringUpToDate();
    void startAnew();
    void prepareImages(machineBus& bus) const;
    [[nodiscard]] std::string damageOf(machineBus& bus, const stateFile::hold& lock) const;
    machineBus& made(std::size_t index);
    machineBus& makeReady(std::size_t index);
    void takeFileFaults();
    void setDamagedStateAside(const std::string& what) const;

    const std::filesystem::path m_folder;
    realClock* const m_clock;
    machineSource m_source;
    const machineDescription& m_about;
    std::uint64_t m_layoutMark = 0; ///< that the state has
    std::unique_ptr<stateFile> m_states;
    std::vector<std::unique_ptr<machineBus>> m_buses; ///< null: not made yet
};

} // namespace kest::sim
