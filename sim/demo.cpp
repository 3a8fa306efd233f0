#include "sim/demo.h"

#include "base/descriptor.h"
#include "sim/machinefile.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace kest::sim
{

const char* const demoMachineText =
    R"(# A simulated machine: buses and the chips on them. Addresses are in the 8-bit form. Each chip with memory keeps it in a raw file
# beside this one; volatile registers are in machine.state. See docs/simulated-machine.md for every key.

[[bus]]
name = "planar"                  # device path sim:planar
speed_khz = 400

[[chip]]                         # vital product data of the system
bus = "planar"
type = "24C256"
address = 0xA0
image = "system.bin"
write_cycle_ms = 3.5

[[chip]]                         # and of its parts
bus = "planar"
type = "24C02"
address = 0xA4
image = "panel.bin"
write_cycle_ms = 3.5

[[chip]]
bus = "planar"
type = "24C512"
address = 0xA6
image = "firmware.bin"
write_cycle_ms = 3.5

[[chip]]
bus = "planar"
type = "24C32"
address = 0xA8
image = "power.bin"
write_cycle_ms = 3.5

[[chip]]                         # front panel LEDs on pins 0-14; pin 15 low holds the hub in reset
bus = "planar"
type = "PCA9552"
address = 0xC0

[[chip]]                         # fan LEDs
bus = "planar"
type = "PCA9551"
address = 0xC4

[[chip]]                         # presence of eight cards on port 0: 0 is "plugged"
bus = "planar"
type = "PCA9555"
address = 0x40
inputs = 0xFFF5

[[chip]]                         # straps: levels from pin 0 on
bus = "planar"
type = "PCA9554"
address = 0x42
inputs = [1, 0, 1, 1]

[[chip]]                         # air inlet
bus = "planar"
type = "LM75"
address = 0x90
celsius = 25.5

[[chip]]                         # processor
bus = "planar"
type = "LM92"
address = 0x96
celsius = 48.25

[[chip]]
bus = "planar"
type = "HUB922"
address = 0x80

[[chip]]                         # behind the hub: a riser card
bus = "planar"
hub = 0x80
port = 3
type = "24C128"
address = 0xA2
image = "riser.bin"
write_cycle_ms = 3.5

[[chip]]                         # and a fan card
bus = "planar"
hub = 0x80
port = 1
type = "24C02"
address = 0xA4
image = "fan.bin"
write_cycle_ms = 3.5
)";

namespace
{

[[noreturn]] void failToWrite(const std::filesystem::path& file)
{
    throw std::system_error{errno, std::generic_category(), file.string() + ": cannot be written"};
}

void writeNew(const std::filesystem::path& file, std::string_view text)
{
    fileDescriptor out{ownDescriptor(open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666))};
    if (!out.valid() || writeAll(out.number(), text) != 0 || close(out.release()) != 0) {
        failToWrite(file);
    }
}

} // namespace

void writeMachine(const std::filesystem::path& folder, const std::string& text,
                  const std::map<std::string, std::vector<std::uint8_t>>& contents)
{
    const auto machineFile = folder / "machine.toml";
    const machineDescription machine = parseMachine(text, machineFile.string());
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) {
        throw std::runtime_error{folder.string() + ": " + error.message()};
    }
    if (std::filesystem::exists(machineFile)) {
        throw std::runtime_error{machineFile.string() + ": is there already"};
    }
    std::map<std::string, std::uint32_t> sizes;
    for (const auto& chip : machine.chips) {
        if (chip.kind == chipKind::eeprom) {
            sizes[chip.image] = eepromTypes.at(chip.type).sizeBytes;
        }
    }
    for (const auto& [name, bytes] : contents) {
        if (!sizes.contains(name) || bytes.size() > sizes.at(name)) {
            throw std::runtime_error{"contents for '" + name + "' fit no chip"};
        }
    }
    for (const auto& [name, size] : sizes) {
        std::string image(size, '\xFF');
        if (const auto given = contents.find(name); given != contents.end()) {
            std::ranges::copy(given->second, image.begin());
        }
        if (!std::filesystem::exists(folder / name)) {
            writeNew(folder / name, image);
        }
    }
    // last: a folder without it is no machine
    writeNew(machineFile, text);
}

void writeDemoMachine(const std::filesystem::path& folder,
                      const std::map<std::string, std::vector<std::uint8_t>>& contents)
{
    writeMachine(folder, demoMachineText, contents);
}

} // namespace kest::sim
