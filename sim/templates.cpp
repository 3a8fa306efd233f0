#include "sim/templates.h"

#include "base/hex.h"
#include "sim/demo.h"
#include "sim/hostilemachine.h"
#include "sim/hub922.h"

#include <array>
#include <cstdint>
#include <utility>

namespace kest::sim
{

namespace
{

std::string hexAddress(std::uint8_t address)
{
    std::string text{"0x"};
    appendHexByte(text, address, upperHexDigits);
    return text;
}

/// One after the other, the tables of a machine file.
class tomlWriter
{
public:
    explicit tomlWriter(const char* comment) : m_text{comment} {}

    /// The bus that the chips after it are on. @param node  "" the local one
    void bus(const std::string& name, const std::string& node)
    {
        m_bus = "bus = \"" + name + "\"\n" + (node.empty() ? "" : "node = \"" + node + "\"\n");
        m_text += "\n[[bus]]\nname = \"" + name + "\"\n" + (node.empty() ? "" : "node = \"" + node + "\"\n");
    }
    /// @param more  further keys, each with its line's end
    void chip(const char* type, std::uint8_t address, const std::string& more = {})
    {
        m_text += "\n[[chip]]\n" + m_bus + "type = \"" + type + "\"\naddress = " + hexAddress(address) + "\n" + more;
    }
    [[nodiscard]] std::string take() { return std::move(m_text); }

private:
    std::string m_text;
    std::string m_bus;
};

std::string imageKey(const std::string& name) { return "image = \"" + name + ".bin\"\n"; }

std::string behindHub(std::uint8_t hub, unsigned port)
{
    return "hub = " + hexAddress(hub) + "\nport = " + std::to_string(port) + "\n";
}

constexpr unsigned shelves = 8, machinesOfShelf = 8, cardsOfMachine = 6;

/// 16 devices. @param name  begins the names of its images
void addSmallMachine(tomlWriter& to, const std::string& name)
{
    to.chip("24C64", 0xA0, imageKey(name + "-system"));
    to.chip("24C02", 0xA4, imageKey(name + "-panel"));
    to.chip("PCA9552", 0xC0);
    to.chip("PCA9551", 0xC4);
    to.chip("PCA9555", 0x40);
    to.chip("PCA9554", 0x42);
    to.chip("LM75", 0x90);
    to.chip("LM75", 0x92, "celsius = 35.5\n");
    to.chip("LM92", 0x96, "celsius = 52.25\n");
    to.chip("HUB922", 0x80);
    for (unsigned port = 0; port < cardsOfMachine; ++port) {
        to.chip("24C02", 0xA2, behindHub(0x80, port) + imageKey(name + "-card" + std::to_string(port)));
    }
}

std::string rackText()
{
    tomlWriter to{
        "# A rack: eight shelves of eight small machines, each a bus with 16 devices. The first shelf is on the local\n"
        "# node, shelf 1 to 7 are nodes of their own. See docs/simulated-machine.md for every key.\n"};
    for (unsigned shelf = 0; shelf < shelves; ++shelf) {
        for (unsigned place = 0; place < machinesOfShelf; ++place) {
            const std::string name = "m" + std::to_string(place);
            to.bus(name, shelf == 0 ? "" : "shelf" + std::to_string(shelf));
            addSmallMachine(to, "s" + std::to_string(shelf) + name);
        }
    }
    return to.take();
}

std::string hubsText()
{
    constexpr std::array<std::uint8_t, 4> hubs{0x80, 0x82, 0x88, 0x8A};
    constexpr std::array types{"24C02", "24C32", "24C64", "24C128", "24C256", "24C512"};
    tomlWriter to{"# A tree of hubs: all four that a bus can have, with chips behind all 32 ports. Pin 15 of the LED "
                  "drivers is the\n"
                  "# reset line of two hubs each. See docs/simulated-machine.md for every key.\n"};
    to.bus("tree", "");
    to.chip("PCA9552", 0xC0);
    to.chip("PCA9552", 0xC2);
    std::size_t next = 0;
    for (const std::uint8_t hub : hubs) {
        to.chip("HUB922", hub);
        for (unsigned port = 0; port < hub922::ports; ++port) {
            const std::string name = hexAddress(hub).substr(2) + "-" + std::to_string(port);
            to.chip(types[next++ % types.size()], 0xA2, behindHub(hub, port) + imageKey(name + "-riser"));
            to.chip("24C02", 0xA4, behindHub(hub, port) + imageKey(name + "-panel"));
        }
    }
    return to.take();
}

std::string demoText() { return demoMachineText; }

std::string hostileText() { return hostileMachineText; }

constexpr std::array templates{
    machineTemplate{.name = "demo", .about = "one bus with every type of chip", .text = demoText},
    machineTemplate{.name = "rack", .about = "eight nodes, 64 buses with 16 devices each", .text = rackText},
    machineTemplate{.name = "hubs", .about = "four hubs with chips behind every port", .text = hubsText},
    machineTemplate{.name = "hostile", .about = "flaky wires, slow chips, wrong parts", .text = hostileText},
};

} // namespace

std::span<const machineTemplate> machineTemplates() { return templates; }

} // namespace kest::sim
