/// What a machine consists of: its buses, chips and faults.
#pragma once

#include "sim/adapter.h"
#include "sim/chance.h"
#include "sim/eeprom.h"
#include "sim/fault.h"
#include "sim/pace.h"
#include "sim/pca955x.h"
#include "sim/sensor.h"
#include "sim/texttables.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kest::sim
{

enum class chipKind : std::uint8_t {
    eeprom,
    pca955x,
    sensor,
    hub
};

struct busDescription {
    std::string name;
    std::string node;
    std::uint32_t speedKhz = 400;
    adapterKind adapter;
};

struct chipDescription {
    std::size_t bus = 0; ///< index of its bus
    chipKind kind = chipKind::eeprom;
    std::size_t type = 0; ///< row in the kind's table
    std::string typeName;
    std::uint8_t address = 0;
    bool behindHub = false;
    std::uint8_t hub = 0;
    std::uint8_t port = 0;
    std::string image; ///< file name in the machine's folder
    std::string place; ///< "LINE:COLUMN" in the file

    chipPace pace{.maxKhz = 400};

    std::uint8_t lowestAddress = 0; ///< of those that it answers
    std::uint8_t addresses = 1; ///< how many it answers

    bool ferroelectric = false;
    std::uint8_t protectChip = 0; ///< address of the chip whose pin protects it; 0: no pin
    std::uint8_t protectPin = 0;
    eepromSettings memory;
    std::uint16_t inputs = 0xFFFF; ///< levels that drive the pins from outside
    double celsius = 25.0;
    unsigned temperatureBits = 9;

    /// The addresses that it answers, 8-bit form.
    [[nodiscard]] std::vector<std::uint8_t> answers() const;
    /// Whether the other's write protection follows a pin of this chip.
    [[nodiscard]] bool drivesProtectionOf(const chipDescription& other) const;
};

/// The chips of a bus, as far as the layout of the state file depends on them.
struct busLayout {
    std::uint32_t chips = 0; ///< how many there are
    std::uint64_t mark = 0; ///< a number that changes with what they are

    bool operator==(const busLayout&) const = default;
};

struct machineDescription {
    std::vector<busDescription> buses;
    std::vector<chipDescription> chips;
    std::vector<faultDescription> faults;
    /// Of buses, chips and faults, each in the order of their lists.
    std::array<std::vector<tablePlace>, 3> places;
    std::uint64_t seed = chance::defaultSeed; ///< of all random choices

    /// By bus.
    [[nodiscard]] std::vector<busLayout> layouts() const;
    /// A number that changes with anything that the state file's layout depends on. @param layouts  of its buses
    [[nodiscard]] std::uint64_t layoutMark(const std::vector<busLayout>& layouts) const;
    [[nodiscard]] std::uint64_t layoutMark() const { return layoutMark(layouts()); }
    [[nodiscard]] std::uint64_t faultMark() const;
    /// @param name  "BUS" or "NODE:BUS"
    [[nodiscard]] std::optional<std::size_t> findBus(std::string_view name) const;
    [[nodiscard]] bool hasNode(std::string_view node) const;
    /// The nodes that have buses; "" is the local one.
    [[nodiscard]] std::vector<std::string> nodes() const;
    [[nodiscard]] std::vector<std::string> busNames(std::string_view node) const;
    /// Random choices of a chip, by its place alone, and of a bus.
    [[nodiscard]] chance choicesOf(const chipDescription& chip) const;
    [[nodiscard]] chance choicesOf(const busDescription& bus) const;
    /// Whether a fault is one of that bus's.
    [[nodiscard]] bool concerns(const faultDescription& what, std::size_t bus) const;
};

/// Name of a bus for people and faults: "BUS" on the local node, else "NODE:BUS".
std::string fullName(const std::string& bus, const std::string& node);
std::string fullName(const busDescription& bus);

/// "LINE:COLUMN", for error texts.
std::string placeText(const tablePlace& place);

/// "0xA0": an address in the 8-bit form.
std::string addressText(std::uint8_t address);

} // namespace kest::sim
