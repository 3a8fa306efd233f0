/// The chips of one bus: those on the bus itself, and those behind its hubs.
#pragma once

#include "sim/busstate.h"
#include "sim/chip.h"
#include "sim/faultrecord.h"
#include "sim/folderwatch.h"
#include "sim/hub922.h"
#include "sim/machinedescription.h"
#include "sim/pagewrite.h"
#include "sim/pca955x.h"
#include "sim/sensor.h"
#include "sim/storedchip.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kest::sim
{

/// The registers of one chip, for people.
struct chipListing {
    std::string chip;
    std::vector<listedRegister> registers;
};

/// A chip is loaded when it is first needed in a use of the bus, and stored only then. So a bus with many chips costs
/// little more than one with few.
class busChips
{
public:
    /// @param all  outlives the chips
    busChips(const machineDescription& all, std::size_t bus, const std::filesystem::path& folder);
    busChips(const busChips&) = delete;
    busChips& operator=(const busChips&) = delete;

    // The next two need no use of the bus.

    /// Whether there is a chip in the machine file, in its place or not. @param hub, port  as for findSensor()
    [[nodiscard]] bool has(std::uint8_t address, std::uint8_t hub, std::uint8_t port) const
    {
        return numberOf(address, hub, port).has_value();
    }
    /// Whether it is a sensor.
    [[nodiscard]] bool hasSensor(std::uint8_t address, std::uint8_t hub, std::uint8_t port) const;

    /// The chip that answers an address on the bus itself; null: nobody does.
    [[nodiscard]] chip* find(std::uint8_t address);
    [[nodiscard]] hub922* findHub(std::uint8_t address);
    /// Takes a chip out of its place, and a hub with the chips behind it.
    /// @return whether it was there: settle() is due as after a loss of power
    bool remove(std::uint8_t address, std::uint8_t hub, std::uint8_t port, std::uint64_t now);
    /// Puts it back, with the registers at their defaults.
    void insert(std::uint8_t address, std::uint8_t hub, std::uint8_t port, std::uint64_t now);
    /// The sensor at an address of the bus itself, or behind a hub of it; null: there is none.
    /// @param hub   address of the hub, 0: on the bus itself
    /// @param port  of the hub
    [[nodiscard]] sensor* findSensor(std::uint8_t address, std::uint8_t hub = 0, std::uint8_t port = 0);

    /// Brings hubs into reset or out of it, as their lines are and have been since the last call. Ends the faults that
    /// last until then.
    /// @param now  bus time, ns
    void driveResetLines(std::vector<faultRecord>& faults, std::uint64_t now);

    /// Each has chipStateBytes of the state file.
    [[nodiscard]] std::size_t count() const { return m_members.size(); }
    /// Begins a use of the bus with the chips as their records in the state file have them.
    /// @param records  stay as they are until the next store() or endUse()
    /// @param state    of the bus, as it was stored with them; its page gets what memory chips program, until endUse()
    void beginUse(std::span<std::uint8_t> records, busState& state);
    /// Loads those that are not loaded yet.
    void loadAll();
    /// What is damaged in the records of the chips that are loaded; null: nothing.
    [[nodiscard]] const char* damage() const { return m_use.damage; }
    /// Stores those that are loaded, and carries the records of the others over. The use goes on with the new records.
    /// @param from  the records as they were
    void store(std::span<const std::uint8_t> from, std::span<std::uint8_t> into);
    void endUse();

    /// Missing images are made. Throws std::runtime_error.
    void prepareImages(const std::string& machineFile);
    /// Missing images are made, where the system allows it.
    void makeMissingImages();
    /// Whether a page is of one of their images.
    [[nodiscard]] bool holds(const pageWrite& page) const;
    /// @return false when the image would not take the page
    bool store(const pageWrite& page);
    /// Whether an image could not be read since beginUse().
    [[nodiscard]] bool imageLost() const;

    /// A power cycle. Once the state has been stored, settle() brings torn pages into the images.
    void losePower(std::uint64_t now);
    /// @return false when an image would not take its page
    bool settle();
    /// Whatever they were.
    void asNew();
    void endEffects(const faultEnded& ended);
    [[nodiscard]] std::vector<chipListing> list(std::uint64_t now);

private:
    struct resetLine {
        storedChip* hub;
        storedChip* driver;
    };

    [[nodiscard]] std::optional<std::size_t> numberOf(std::uint8_t address, std::uint8_t hub, std::uint8_t port) const;
    [[nodiscard]] storedChip* findMember(std::uint8_t address, std::uint8_t hub, std::uint8_t port);
    [[nodiscard]] std::vector<chip*> poweredThrough(const storedChip& source);
    void connectToBus(storedChip& added);
    void connectToHub(storedChip& added);
    void connectResetLines(storedChip& driver);
    void connectWriteProtection(const storedChip& part);
    template <typename Model>
    Model& use(storedChip& some)
    {
        return static_cast<Model&>(some.in(m_use));
    }

    folderWatch m_folder;
    chipUse m_use;
    std::vector<storedChip> m_members;
    std::array<storedChip*, 128> m_at{};
    std::vector<resetLine> m_resetLines;
};

} // namespace kest::sim
