/// Machine files, and transactions on a machine. When the first byte is even, the rest is a machine file. When it is
/// odd, the rest are transactions on a fixed machine: address and direction, length, bytes. Length 0 with an odd
/// address byte resets the bus. The machine is opened once and keeps its memory contents; each input gets new
/// registers.
#include <stdexcept>
#include <string>
#include <string_view>

#include "fuzz/machinefolder.h"
#include "sim/machine.h"
#include "sim/machinefile.h"

namespace
{

using namespace kest::sim;

void parse(std::string_view text)
{
    try {
        const machineDescription machine = parseMachine(text, "f");
        for (const auto& chip : machine.chips) {
            kest::fuzz::require(chip.bus < machine.buses.size() && (chip.address & 1) == 0);
        }
    } catch (const std::runtime_error& error) {
        kest::fuzz::require(std::string_view{error.what()}.starts_with("f:"));
    }
}

// of one input: more would take longer and find nothing new
constexpr int mostTransactions = 12;

void transact(std::string_view script)
{
    static const auto machine = openMachine(kest::fuzz::makeMachineFolder(), false);
    static const auto bus = machine->findBus("b", "");
    machine->powerCycle();
    for (int count = 0; count < mostTransactions && script.size() >= 2; ++count) {
        const auto first = static_cast<std::uint8_t>(script[0]);
        const std::size_t length = std::min<std::size_t>(static_cast<std::uint8_t>(script[1]), script.size() - 2);
        std::string sent = std::string{script.substr(2, length)};
        const std::span content{reinterpret_cast<std::uint8_t*>(sent.data()), sent.size()};
        std::uint8_t got[16] = {};
        segment parts[2] = {{static_cast<std::uint8_t>(first & 0xFE), direction::write, content, false},
                            {static_cast<std::uint8_t>(first & 0xFE), direction::read, got, false}};
        if ((first & 1) != 0 && length == 0) {
            bus->reset();
        } else {
            bus->transfer({parts, (first & 1) != 0 ? 2U : 1U}, 0);
        }
        script.remove_prefix(2 + length);
    }
    if (!script.empty()) {
        machine->registers();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view all{reinterpret_cast<const char*>(data), size};
    if (size != 0 && (data[0] & 1) == 0) {
        parse(all.substr(1));
    } else if (size != 0) {
        transact(all.substr(1));
    }
    return 0;
}
