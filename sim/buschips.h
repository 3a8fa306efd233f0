/// The chips of one bus: those on the bus itself, and those behind its hubs.
#pragma once

#include "sim/chip.h"
#include "sim/faultrecord.h"
#include "sim/hub922.h"
#include "sim/image.h"
#include "sim/machinefile.h"
#include "sim/pagewrite.h"
#include "sim/pca955x.h"
#include "sim/sensor.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
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

class busChips
{
public:
    /// @param all  outlives the chips
    busChips(const machineDescription& all, std::size_t bus, const std::filesystem::path& folder);

    /// The chip that answers an address on the bus itself; null: nobody does.
    [[nodiscard]] chip* find(std::uint8_t address) const;
    [[nodiscard]] hub922* findHub(std::uint8_t address) const;
    /// Whether there is a chip in the machine file, in its place or not. @param hub, port  as for findSensor()
    [[nodiscard]] bool has(std::uint8_t address, std::uint8_t hub, std::uint8_t port) const
    {
        return findMember(address, hub, port) != nullptr;
    }
    /// Takes a chip out of its place. @return whether it was there: settle() is due as after a loss of power
    bool remove(std::uint8_t address, std::uint8_t hub, std::uint8_t port, std::uint64_t now) const;
    /// Puts it back, with its registers at their defaults.
    void insert(std::uint8_t address, std::uint8_t hub, std::uint8_t port, std::uint64_t now) const;
    /// The sensor at an address of the bus itself, or behind a hub of it; null: there is none.
    /// @param hub   address of the hub, 0: on the bus itself
    /// @param port  of the hub
    [[nodiscard]] sensor* findSensor(std::uint8_t address, std::uint8_t hub = 0, std::uint8_t port = 0) const;

    /// Brings hubs into reset or out of it, as their lines are and have been since the last call. Ends the faults that
    /// last until then.
    /// @param now  bus time, ns
    void driveResetLines(std::vector<faultRecord>& faults, std::uint64_t now) const;

    /// Each has chipStateBytes of the state file.
    [[nodiscard]] std::size_t count() const { return m_members.size(); }
    /// Begins a use of the bus with the chips as a record of the state file has them.
    /// @param page  gets what memory chips program, until endUse()
    /// @return what is damaged in the record; null: nothing
    const char* load(std::span<std::uint8_t> record, std::uint64_t busTime, pageWrite& page);
    void store(std::span<std::uint8_t> record) const;
    void endUse();

    /// Missing images are made. Throws std::runtime_error.
    void prepareImages(const std::string& machineFile);
    /// Missing images are made, where the system allows it.
    void makeMissingImages() const;
    /// Whether a page is of one of their images.
    [[nodiscard]] bool holds(const pageWrite& page) const;
    /// @return false when the image would not take the page
    bool store(const pageWrite& page);
    /// Whether an image could not be read since load().
    [[nodiscard]] bool imageLost() const;

    /// A power cycle. Once the state has been stored, settle() brings torn pages into the images.
    void losePower(std::uint64_t now);
    /// @return false when an image would not take its page
    bool settle();
    void asNew();
    void endEffects(const faultEnded& ended);
    [[nodiscard]] std::vector<chipListing> list(std::uint64_t now) const;

private:
    struct member {
        const chipDescription* about;
        std::unique_ptr<image> cells; ///< null for chips without memory
        std::unique_ptr<chip> model;
        std::string label;
    };
    struct resetLine {
        std::uint8_t hubAddress;
        hub922* hub;
        pca955x* driver;
    };

    void add(const machineDescription& all, const chipDescription& chip, const std::filesystem::path& folder);
    [[nodiscard]] const member* findMember(std::uint8_t address, std::uint8_t hub, std::uint8_t port) const;
    void connectToBus(const member& added);
    void connectToHub(const member& added);
    void connectResetLines(const member& driver);
    void connectWriteProtection(const member& part);

    std::vector<member> m_members;
    std::array<chip*, 128> m_at{};
    std::array<hub922*, 128> m_hubAt{};
    std::vector<resetLine> m_resetLines;
};

} // namespace kest::sim
