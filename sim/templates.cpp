#include "sim/templates.h"

#include "base/hex.h"
#include "sim/demo.h"
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

const char* const hostileMachineText =
    R"(# A hostile bench: what software meets that leaves the laboratory. Every fault comes by chance, and the seed decides
# when; another seed is another bad day. See docs/simulated-machine.md for every key.
seed = 1

# ---- good chips, and wires that are not

[[bus]]
name = "flaky"
speed_khz = 100

[[chip]]
bus = "flaky"
type = "24C256"
address = 0xA0
image = "flaky-system.bin"

[[chip]]
bus = "flaky"
type = "PCA9552"
address = 0xC0

[[chip]]
bus = "flaky"
type = "PCA9555"
address = 0x40

[[chip]]
bus = "flaky"
type = "LM75"
address = 0x90

[[chip]]
bus = "flaky"
type = "HUB922"
address = 0x80

[[chip]]
bus = "flaky"
hub = 0x80
port = 3
type = "24C128"
address = 0xA2
image = "flaky-riser.bin"

[[fault]]                        # a contact that comes and goes
kind = "nack"
bus = "flaky"
probability = 0.1

[[fault]]
kind = "nack-data"
bus = "flaky"
byte = 2
probability = 0.05

[[fault]]
kind = "corrupt"
bus = "flaky"
way = "read"
byte = 5
value = 0x01
probability = 0.05

[[fault]]
kind = "short"
bus = "flaky"
byte = 3
probability = 0.05

[[fault]]                        # a second controller
kind = "arbitration"
bus = "flaky"
probability = 0.05

[[fault]]
kind = "hold-sda"
bus = "flaky"
probability = 0.02

[[fault]]
kind = "hub-status"
bus = "flaky"
value = 6
probability = 0.1

[[fault]]
kind = "hub-bad-first-byte"
bus = "flaky"
probability = 0.05

# ---- slow chips behind a small controller

[[bus]]
name = "slow"
speed_khz = 50
adapter = { message_bytes = 32 }

[[chip]]
bus = "slow"
type = "24C512"
address = 0xA0
image = "slow-system.bin"
write_cycle_ms = 10

[[chip]]                         # far beyond every data sheet
bus = "slow"
type = "24C32"
address = 0xA2
image = "slow-panel.bin"
write_cycle_ms = 60

[[chip]]
bus = "slow"
type = "LM92"
address = 0x96
celsius = 131

[[fault]]
kind = "stuck-write-cycle"
bus = "slow"
address = 0xA0
value = 25
probability = 0.2

# ---- parts that are not what their label says: the device table has the labels

[[bus]]
name = "wrong"

[[chip]]                         # labelled 24C256: offsets beyond 8 KiB come round to the start
bus = "wrong"
type = "24C64"
address = 0xA0
image = "wrong-small.bin"

[[chip]]                         # takes every write and keeps none
bus = "wrong"
type = "24C02"
address = 0xA2
image = "wrong-silent.bin"
protect = "silent"

[[chip]]                         # refuses every write
bus = "wrong"
type = "24C02"
address = 0xA4
image = "wrong-refused.bin"
protect = "nak"

[[chip]]                         # labelled PCA9555
bus = "wrong"
type = "PCA9554"
address = 0x40

[[chip]]                         # labelled LM75
bus = "wrong"
type = "LM92"
address = 0x90
celsius = -5.5

# ---- parts of other makers

[[bus]]
name = "parts"

[[chip]]                         # half the page that its type promises
bus = "parts"
type = "24C32"
address = 0xA0
image = "parts-page16.bin"
page = 16

[[chip]]                         # ferroelectric: no pages, no write cycle
bus = "parts"
type = "24C256"
address = 0xA2
image = "parts-fram.bin"
kind = "fram"

[[chip]]
bus = "parts"
type = "24C64"
address = 0xA4
image = "parts-high.bin"
half_offset = "high"

[[chip]]
bus = "parts"
type = "24C128"
address = 0xA6
image = "parts-keep.bin"
page = 256
half_offset = "keep"

[[chip]]                         # block bits: 0xA8 to 0xAE
bus = "parts"
type = "24C08"
address = 0xA8
image = "parts-blocks4.bin"

[[chip]]                         # pin 7 protects the part at port 4
bus = "parts"
type = "PCA9554"
address = 0x40

[[chip]]
bus = "parts"
type = "HUB922"
address = 0x80

[[chip]]
bus = "parts"
hub = 0x80
port = 0
type = "24C04"
address = 0xA0
image = "parts-blocks2.bin"

[[chip]]
bus = "parts"
hub = 0x80
port = 1
type = "24C16"
address = 0xA0
image = "parts-blocks8.bin"

[[chip]]
bus = "parts"
hub = 0x80
port = 2
type = "24C02"
address = 0xA4
image = "parts-half.bin"
page = 4
protect = "nak"
protect_area = "half"

[[chip]]
bus = "parts"
hub = 0x80
port = 3
type = "24C32"
address = 0xA4
image = "parts-quarter.bin"
protect = "silent"
protect_area = "quarter"

[[chip]]
bus = "parts"
hub = 0x80
port = 4
type = "24C02"
address = 0xA4
image = "parts-pin.bin"
protect = "silent"
protect_chip = 0x40
protect_pin = 7

[[bus]]
name = "deaf"

[[chip]]                         # ignores its address pins: answers at 0xA0 to 0xAE
bus = "deaf"
type = "24C02"
address = 0xA0
addresses = "all"
image = "deaf.bin"
page = 4

# ---- a bus of another node whose adapter comes and goes

[[bus]]
name = "flaky"
node = "far"

[[chip]]
bus = "flaky"
node = "far"
type = "24C02"
address = 0xA0
image = "far-system.bin"

[[chip]]
bus = "flaky"
node = "far"
type = "LM75"
address = 0x90

[[fault]]
kind = "gone"
node = "far"
probability = 0.2
)";

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
