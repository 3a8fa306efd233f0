// Machine files, and transactions on a machine. The first byte chooses: even, the rest is a machine file; odd, the rest are transactions
// on a fixed machine (address and direction, length, bytes; length 0 with an odd address byte resets the bus).
#include "sim/machine.h"
#include "sim/machinefile.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace
{

using namespace kest::sim;

constexpr const char* machineText = R"(
[[bus]]
name = "b"
[[chip]]
bus = "b"
type = "24C02"
address = 0xA0
image = "a"
hold_sda_after_cut = true
[[chip]]
bus = "b"
type = "PCA9552"
address = 0xC0
[[chip]]
bus = "b"
type = "PCA9555"
address = 0x40
[[chip]]
bus = "b"
type = "LM92"
address = 0x96
[[chip]]
bus = "b"
type = "HUB922"
address = 0x80
[[chip]]
bus = "b"
hub = 0x80
port = 3
type = "24C128"
address = 0xA2
image = "r"
)";

void parse(std::string_view text)
{
    try {
        const machineDescription machine = parseMachine(text, "f");
        for (const auto& chip : machine.chips)
            if (chip.bus >= machine.buses.size() || (chip.address & 1) != 0)
                abort();
    } catch (const std::runtime_error& error) {
        if (!std::string_view{error.what()}.starts_with("f:"))
            abort();
    }
}

std::shared_ptr<machine> openOnce()
{
    std::string name = (std::filesystem::temp_directory_path() / "kest-fuzz-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        abort();
    std::ofstream{std::filesystem::path{name} / "machine.toml"} << machineText;
    static const std::string folder = name;
    atexit([] { std::filesystem::remove_all(folder); });
    return openMachine(name, false);
}

void transact(std::string_view script)
{
    static const auto machine = openOnce();
    static const auto bus     = machine->findBus("b", "");
    machine->powerCycle();
    while (script.size() >= 2) {
        const auto        first  = static_cast<std::uint8_t>(script[0]);
        const std::size_t length = std::min<std::size_t>(static_cast<std::uint8_t>(script[1]), script.size() - 2);
        std::string       sent   = std::string{script.substr(2, length)};
        const std::span   content{reinterpret_cast<std::uint8_t*>(sent.data()), sent.size()};
        std::uint8_t      got[16]  = {};
        segment           parts[2] = {{static_cast<std::uint8_t>(first & 0xFE), direction::write, content, false},
                                      {static_cast<std::uint8_t>(first & 0xFE), direction::read, got, false}};
        if ((first & 1) != 0 && length == 0)
            bus->reset();
        else
            bus->transfer({parts, (first & 1) != 0 ? 2U : 1U}, 0);
        bus->idle(1'000'000);
        script.remove_prefix(2 + length);
    }
    machine->registers();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view all{reinterpret_cast<const char*>(data), size};
    if (size != 0 && (data[0] & 1) == 0)
        parse(all.substr(1));
    else if (size != 0)
        transact(all.substr(1));
    return 0;
}
