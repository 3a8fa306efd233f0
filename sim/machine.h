/// The simulated machine: a folder of buses and chips that any number of processes use at the same time.
///
/// The folder holds machine.toml (buses and chips), one raw image file for each chip with memory, and a mapped state
/// file for the volatile registers, bus times and faults. Each bus transaction holds its bus, across processes.
#pragma once

#include "sim/bus.h"
#include "sim/fault.h"
#include "sim/realclock.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace kest::sim
{

/// What a chip of the machine file is; for listings.
struct chipInfo {
    std::string bus;
    std::string node; ///< of the bus; "" the local one
    std::string type; ///< as in machine.toml
    std::uint8_t address = 0;
    bool behindHub = false;
    std::uint8_t hubAddress = 0;
    std::uint8_t port = 0;
    std::filesystem::path image; ///< empty for chips without memory
};

/// A machine opened in this process. Cheap to open twice: one folder is one object.
class machine
{
public:
    virtual ~machine() = default;
    /// @param node  "" for the local node. @return null when there is no such bus
    /// Throws as openMachine() when the bus cannot be made ready for use.
    virtual std::shared_ptr<bus> findBus(const std::string& name, const std::string& node) = 0;
    [[nodiscard]] virtual std::vector<std::string> busNames(const std::string& node) const = 0;
    [[nodiscard]] virtual std::vector<chipInfo> chips() const = 0;
    [[nodiscard]] virtual const std::filesystem::path& folder() const = 0;
    /// Registers of every chip for people: name, value, what the pins do.
    struct registerValue {
        std::string chip;
        std::string name;
        std::uint32_t value;
        std::string meaning;
    };
    /// Throws std::system_error, ENODEV, when a bus cannot be used.
    virtual std::vector<registerValue> registers() = 0;
    /// Registers to their defaults, hubs out of reset, held lines free, write cycles over. Images stay, but for the
    /// pages whose write cycles ran: these are torn.
    /// @return false when a bus could not be used, or an image not take its torn page; the other buses had their cycle
    virtual bool powerCycle() = 0;

    using fault = faultDescription;
    using listedFault = sim::listedFault;
    /// @return a number to clear it by. Throws std::invalid_argument for an unknown kind, bus, node or value, and
    /// std::system_error, ENODEV, when a bus that it concerns cannot be used. After any throw no bus has it.
    /// @param what  with `bus` and `node`: of that bus on that node
    virtual std::uint32_t addFault(const fault& what) = 0;

    /// Throws std::invalid_argument where addFault() does, and adds nothing.
    virtual void checkFault(const fault& what) const = 0;

    // The next three throw std::system_error, ENODEV, when a bus cannot be used. Faults of the other buses are cleared.

    /// @return whether there was one
    virtual bool clearFault(std::uint32_t number) = 0;
    virtual void clearFaults() = 0;
    virtual std::vector<listedFault> faults() = 0;

    /// Records what goes over a bus, by all processes, as a VCD file (SCL, SDA) until stopped. Ends the recording under
    /// way when it begins. @param busName  "NODE:BUS" on a node that is not the local one
    /// @return false with errno: EEXIST when the file holds anything but a waveform
    virtual bool startWave(const std::string& busName, const std::filesystem::path& file) = 0;
    /// @return false with errno, ENOENT when nothing is being recorded, also because the file was lost
    virtual bool stopWave(const std::string& busName) = 0;
    /// Whether startWave() can begin, without a change. @return false with errno
    virtual bool mayStartWave(const std::string& busName, const std::filesystem::path& file) = 0;
    /// Whether something is being recorded on a bus.
    virtual bool isRecording(const std::string& busName) = 0;

    /// Makes every bus ready for use, with its images. Throws as openMachine().
    virtual void checkBuses() = 0;
    /// The nodes that have buses; "" is the local one.
    [[nodiscard]] virtual std::vector<std::string> nodes() const = 0;
    /// Lets what a scenario lists happen on the machine, for all processes, instead of the scenario before. Times and
    /// numbers of transactions count from now. Throws std::runtime_error with "FILE:LINE:COLUMN: what is wrong".
    /// @param fileName  appears in error texts only
    /// @return how many events there are. Throws std::system_error, ENODEV, when a bus is unusable: then none changes.
    virtual std::size_t play(const std::string& scenario, const std::string& fileName) = 0;
    /// The same without an effect: the scenario before goes on.
    virtual std::size_t checkScenario(const std::string& scenario, const std::string& fileName) = 0;
    /// startWave() and stopWave() for a bus of any node. @param node  "" the local one
    bool startWave(const std::string& busName, const std::string& node, const std::filesystem::path& file);
    bool stopWave(const std::string& busName, const std::string& node);
};

/// Opens the machine in a folder. It costs nothing that grows with the buses and chips that nobody uses: a bus and its
/// images are looked at when the bus is first used. A damaged state file is kept as machine.state.damaged: a line on standard error says
/// so, and the machine starts anew.
/// @param realTime  transactions also take their bus time
/// Throws std::runtime_error with "FILE:LINE: what" for an unusable folder, and std::system_error with the system's code
/// where the system refused something.
std::shared_ptr<machine> openMachine(const std::filesystem::path& folder, bool realTime);

/// A machine in the real time of a clock. @param clock  outlives the machine and all its buses
std::shared_ptr<machine> openMachine(const std::filesystem::path& folder, realClock& clock);

} // namespace kest::sim
