#include "sim/machinefile.h"
#include "tests/sim/machinetest.h"

#include <stdexcept>
#include <string>

namespace kest::sim::test
{

namespace
{

// two lines
const std::string bus = "[[bus]]\nname = \"planar\"\n";

std::string troubleOf(const std::string& text)
{
    std::string what;
    try {
        parseMachine(text, "machine.toml");
    } catch (const std::runtime_error& error) {
        what = error.what();
    }
    return what;
}

std::string eepromAt(const std::string& more)
{
    // three lines
    return "[[chip]]\nbus = \"planar\"\ntype = \"24C02\"\n" + more;
}

TEST(MachineFile, SaysWhereAndWhatIsWrong)
{
    const std::string hub = "[[chip]]\nbus = \"planar\"\ntype = \"HUB922\"\naddress = 0x80\n";
    const std::string a0 = eepromAt("address = 0xA0\nimage = \"a.bin\"\n");
    struct Row {
        std::string text, trouble;
    };
    const Row rows[] = {
        {"", "machine.toml:1:1: no [[bus]]"},
        {"[[bus]\n", "machine.toml:1:7: Error while parsing table header: expected ']', saw '\\n'"},
        {bus + "  [[\n", "machine.toml:3:3: expected plain TOML, found a '[' without the name of a table"},
        {"[\x82]\n", "machine.toml:1:1: expected plain TOML, found a '[' without the name of a table"},
        {bus + "[[", "machine.toml:3:1: expected plain TOML, found a '[' without the name of a table"},
        {"x = \xEF\xB9\xBF\n",
         "machine.toml:1:5: expected plain TOML, found a character beyond ASCII outside a comment"},
        {bus + "# \xC3\xA4 \n x = 'a\"#' \"\\\"#\" \xC3\xA4",
         "machine.toml:4:18: expected plain TOML, found a character beyond ASCII outside a comment"},
        {bus + "x = \"\"\"\n\"\"\"\n", "machine.toml:3:5: expected plain TOML, found a string of several lines"},
        {"[bus]\nname = \"planar\"\n", "machine.toml:1:1: key 'bus': expected tables, written [[bus]]"},
        {"seed = -1\n" + bus, "machine.toml:1:8: key 'seed': must be from 0 to 9223372036854775807"},
        {"seed = \"x\"\n" + bus, "machine.toml:1:8: key 'seed': expected a whole number"},
        {"bus = 3\n", "machine.toml:1:7: key 'bus': expected tables, written [[bus]]"},
        {bus + "speed = 3\n",
         "machine.toml:3:1: unknown key 'speed' in [[bus]]: expected one of name, node, speed_khz, adapter"},
        {bus + "[machine]\n",
         "machine.toml:3:2: unknown key 'machine' in a machine file: expected one of seed, bus, chip, fault"},
        {"[[bus]]\n", "machine.toml:1:1: key 'name': missing"},
        {"[[bus]]\nname = 3\n", "machine.toml:2:8: key 'name': expected a text"},
        {"[[bus]]\nname = \"a@b\"\n",
         "machine.toml:2:8: key 'name': expected a name of at most 63 letters, digits, '_', '.' and '-'"},
        {"[[bus]]\nname = \"\"\n",
         "machine.toml:2:8: key 'name': expected a name of at most 63 letters, digits, '_', '.' and '-'"},
        {bus + "speed_khz = 0\n", "machine.toml:3:13: key 'speed_khz': must be from 1 to 1000"},
        {bus + "speed_khz = 1001\n", "machine.toml:3:13: key 'speed_khz': must be from 1 to 1000"},
        {bus + "adapter = { stretch_limit_us = -1 }\n",
         "machine.toml:3:32: key 'stretch_limit_us': must be from 0 to 1000000"},
        {bus + "speed_khz = 1.5\n", "machine.toml:3:13: key 'speed_khz': expected a whole number"},
        {bus + "adapter = \"smbus\"\n",
         "machine.toml:3:11: key 'adapter': expected a table, written { KEY = VALUE, ... }"},
        {bus + "adapter = { stretching = \"bad\" }\n",
         "machine.toml:3:26: key 'stretching': expected 'good' or 'loses-bits'"},
        {bus + a0 + "max_khz = 0\n", "machine.toml:8:11: key 'max_khz': must be from 1 to 1000"},
        {bus + a0 + "max_khz = 3400\n", "machine.toml:8:11: key 'max_khz': must be from 1 to 1000"},
        {bus + a0 + "too_fast = \"slow\"\n", "machine.toml:8:12: key 'too_fast': expected 'silent' or 'garbled'"},
        {bus + a0 + "stretch_us = 1000001\n", "machine.toml:8:14: key 'stretch_us': must be from 0 to 1000000"},
        {bus + hub + "stretch_us = 1\n", "machine.toml:7:1: unknown key 'stretch_us' in [[chip]] of type HUB922: "
                                         "expected one of bus, node, type, address, max_khz"},
        {bus + "adapter = { messages = 0 }\n", "machine.toml:3:24: key 'messages': must be from 1 to 42"},
        {bus + "adapter = { message_bytes = 8193 }\n",
         "machine.toml:3:29: key 'message_bytes': must be from 1 to 8192"},
        {bus + "adapter = { timeout_ms = 60001 }\n", "machine.toml:3:26: key 'timeout_ms': must be from 1 to 60000"},
        {bus + "adapter = { smbus = \"bytes\" }\n", "machine.toml:3:21: key 'smbus': expected 'words' or 'blocks'"},
        {bus + "adapter = { smbus = \"words\", messages = 2 }\n",
         "machine.toml:3:41: key 'messages': not together with 'smbus'"},
        {bus + "adapter = { absent = \"silence\" }\n", "machine.toml:3:22: key 'absent': expected 'nack' or 'timeout'"},
        {bus + "adapter = { stop_between = 1 }\n", "machine.toml:3:28: key 'stop_between': expected true or false"},
        {bus + "adapter = { bytes = 3 }\n",
         "machine.toml:3:13: unknown key 'bytes' in 'adapter': expected one of message_bytes, messages, smbus, "
         "timeout_ms, absent, no_empty_messages, stop_between, stretch_limit_us, stretching"},
        {bus + bus, "machine.toml:4:8: key 'name': a second bus 'planar'"},
        {bus + "[[chip]]\ntype = \"24C02\"\n", "machine.toml:3:1: key 'image': missing"},
        {bus + "[[chip]]\nbus = \"planar\"\n", "machine.toml:3:1: key 'type': missing"},
        {bus + "[[chip]]\nbus = \"planar\"\ntype = \"24C03\"\n",
         "machine.toml:5:8: key 'type': unknown type of chip '24C03'"},
        {bus + eepromAt("image = \"a.bin\"\n"), "machine.toml:3:1: key 'address': missing"},
        {bus + eepromAt("image = \"a.bin\"\naddress = 0xA1\n"),
         "machine.toml:7:11: key 'address': addresses are in the 8-bit form, and even"},
        {bus + eepromAt("image = \"a.bin\"\naddress = 0x02\n"),
         "machine.toml:7:11: key 'address': reserved address: must be from 0x10 to 0xEE"},
        {bus + eepromAt("image = \"a.bin\"\naddress = 0x1A0\n"),
         "machine.toml:7:11: key 'address': must be from 0 to 255"},
        {bus + eepromAt("image = \"a.bin\"\naddress = \"A0\"\n"),
         "machine.toml:7:11: key 'address': expected a whole number"},
        {bus + eepromAt("image = \"../a\"\naddress = 0xA0\n"),
         "machine.toml:6:9: key 'image': expected a file name in the machine's folder: letters, digits, '_', '.' and "
         "'-'"},
        {bus + eepromAt("image = \"machine.toml\"\naddress = 0xA0\n"),
         "machine.toml:6:9: key 'image': expected a file name in the machine's folder: letters, digits, '_', '.' and "
         "'-'"},
        {bus + a0 + "protect = \"yes\"\n", "machine.toml:8:11: key 'protect': expected 'no', 'silent' or 'nak'"},
        {bus + a0 + "write_cycle_ms = -1\n", "machine.toml:8:18: key 'write_cycle_ms': must be from 0 to 1000"},
        {bus + a0 + "write_cycle_ms = nan\n", "machine.toml:8:18: key 'write_cycle_ms': must be from 0 to 1000"},
        {bus + a0 + "celsius = 3\n",
         "machine.toml:8:1: unknown key 'celsius' in [[chip]] of type 24C02: expected one of bus, node, hub, port, "
         "type, address, max_khz, too_fast, stretch_us, addresses, image, kind, half_offset, protect, protect_area, "
         "protect_chip, protect_pin, hold_sda_after_cut, page, write_cycle_ms, write_cycle_min_ms"},
        {bus + a0 + "page = 512\n", "machine.toml:8:8: key 'page': must be from 4 to 256"},
        {bus + a0 + "page = 12\n", "machine.toml:8:8: key 'page': expected 4, 8, 16, 32, 64, 128 or 256"},
        {bus + a0 + "kind = \"flash\"\n", "machine.toml:8:8: key 'kind': expected 'eeprom' or 'fram'"},
        {bus + a0 + "kind = \"fram\"\npage = 8\n",
         "machine.toml:9:1: unknown key 'page' in [[chip]] of type 24C02, kind fram: expected one of bus, node, hub, "
         "port, type, address, max_khz, too_fast, stretch_us, addresses, image, kind, half_offset, protect, "
         "protect_area, protect_chip, protect_pin, hold_sda_after_cut"},
        {bus + a0 + "half_offset = \"high\"\n", "machine.toml:8:15: key 'half_offset': a 24C02 has one offset byte"},
        {bus + a0 + "addresses = \"some\"\n", "machine.toml:8:13: key 'addresses': expected 'all'"},
        {bus + a0 + "addresses = \"all\"\n" + eepromAt("address = 0xA6\nimage = \"b.bin\"\n"),
         "machine.toml:9:1: a second chip at 0xA6"},
        {bus + eepromAt("address = 0x90\nimage = \"a.bin\"\naddresses = \"all\"\n"),
         "machine.toml:6:11: key 'address': a chip that answers all addresses is at 0xA0 to 0xAE"},
        {bus + "[[chip]]\nbus = \"planar\"\ntype = \"24C64\"\naddress = 0xA0\nimage = \"a.bin\"\naddresses = \"all\"\n",
         "machine.toml:8:13: key 'addresses': only a 24C02 may answer all addresses"},
        {bus + "[[chip]]\nbus = \"planar\"\ntype = \"24C08\"\naddress = 0xA4\nimage = \"b.bin\"\n",
         "machine.toml:6:11: key 'address': a 24C08 answers 4 addresses: the first is a multiple of 8"},
        {bus + "[[chip]]\nbus = \"planar\"\ntype = \"24C08\"\naddress = 0xA0\nimage = \"b.bin\"\n" +
             eepromAt("address = 0xA6\nimage = \"a.bin\"\n"),
         "machine.toml:8:1: a second chip at 0xA6"},
        {bus + a0 + "protect_area = \"half\"\n",
         "machine.toml:8:16: key 'protect_area': needs 'protect', 'silent' or 'nak'"},
        {bus + a0 + "protect = \"nak\"\nprotect_area = \"third\"\n",
         "machine.toml:9:16: key 'protect_area': expected 'all', 'half' or 'quarter'"},
        {bus + a0 + "protect = \"nak\"\nprotect_area = \"quarter\"\npage = 128\n",
         "machine.toml:10:8: key 'page': is larger than what 'protect_area' covers"},
        {bus + a0 + "protect = \"nak\"\nprotect_pin = 3\n",
         "machine.toml:9:15: key 'protect_pin': 'protect_chip' and 'protect_pin' need each other"},
        {bus + a0 + "protect = \"nak\"\nprotect_chip = 0x40\nprotect_pin = 3\n",
         "machine.toml:3:1: key 'protect_chip': no PCA955x at 0x40 on bus 'planar'"},
        {bus + a0 + "protect = \"nak\"\nprotect_chip = 0x40\nprotect_pin = 8\n" +
             "[[chip]]\nbus = \"planar\"\ntype = \"PCA9554\"\naddress = 0x40\n",
         "machine.toml:3:1: key 'protect_chip': a PCA9554 has no pin 8"},
        {bus + a0 + "write_cycle_ms = 2\nwrite_cycle_min_ms = 3\n",
         "machine.toml:9:22: key 'write_cycle_min_ms': must be from 0 to 2"},
        {bus + a0 + "hold_sda_after_cut = 1\n", "machine.toml:8:22: key 'hold_sda_after_cut': expected true or false"},
        {bus + a0 + eepromAt("address = 0xA0\nimage = \"b.bin\"\n"), "machine.toml:8:1: a second chip at 0xA0"},
        {bus + a0 + eepromAt("address = 0xA2\nimage = \"a.bin\"\n"),
         "machine.toml:8:1: image 'a.bin' belongs to another chip already"},
        {bus + eepromAt("address = 0xA0\nimage = \"a.bin\"\nhub = 0x80\nport = 1\n"),
         "machine.toml:3:1: key 'hub': no HUB922 at 0x80 on bus 'planar'"},
        {bus + hub + eepromAt("address = 0xA0\nimage = \"a.bin\"\nhub = 0x80\nport = 8\n"),
         "machine.toml:13:8: key 'port': must be from 0 to 7"},
        {bus + hub + eepromAt("address = 0xA0\nimage = \"a.bin\"\nhub = 0x80\n"),
         "machine.toml:7:1: key 'port': missing: 'hub' needs it"},
        {bus + a0 + "port = 3\n", "machine.toml:8:8: key 'port': only together with 'hub'"},
        {bus + "[[chip]]\nbus = \"planar\"\ntype = \"HUB922\"\naddress = 0x84\n",
         "machine.toml:6:11: key 'address': a HUB922 is at 0x80, 0x82, 0x88 or 0x8A"},
        {bus + hub + "hub = 0x82\nport = 1\n", "machine.toml:7:1: unknown key 'hub' in [[chip]] of type HUB922: "
                                               "expected one of bus, node, type, address, max_khz"},
        {bus + "[[chip]]\nbus = \"other\"\ntype = \"PCA9554\"\naddress = 0x40\n",
         "machine.toml:4:7: key 'bus': no bus 'other'"},
        {bus + "[[chip]]\nbus = \"planar\"\ntype = \"PCA9554\"\naddress = 0x40\ninputs = 0x100\n",
         "machine.toml:7:10: key 'inputs': must be from 0 to 255"},
        {bus + "[[chip]]\nbus = \"planar\"\ntype = \"PCA9554\"\naddress = 0x40\ninputs = [1, 2]\n",
         "machine.toml:7:14: key 'inputs': a level is 0 or 1"},
        {bus + "[[chip]]\nbus = \"planar\"\ntype = \"PCA9554\"\naddress = 0x40\ninputs = [1, 1, 1, 1, 1, 1, 1, 1, 1]\n",
         "machine.toml:7:10: key 'inputs': more levels than the chip's 8 pins"},
        {bus + "[[chip]]\nbus = \"planar\"\ntype = \"LM75\"\naddress = 0x90\ncelsius = 126\n",
         "machine.toml:7:11: key 'celsius': must be from -55 to 125"},
        {bus + "[[chip]]\nbus = \"planar\"\ntype = \"LM75\"\naddress = 0x90\nbits = 10\n",
         "machine.toml:7:8: key 'bits': an LM75 has 9 or 11"},
        {bus + "[[fault]]\nkind = \"mischief\"\n", "machine.toml:3:1: unknown kind of fault 'mischief'"},
        {bus + "[[fault]]\nkind = \"nack\"\nprobability = 2\n",
         "machine.toml:5:15: key 'probability': must be from 0 to 1"},
        {bus + "[[fault]]\nkind = \"nack\"\nbus = \"other\"\n", "machine.toml:5:7: key 'bus': no bus 'other'"},
        {bus + "[[fault]]\nkind = \"nack\"\nnode = \"other\"\n",
         "machine.toml:5:8: key 'node': no bus on node 'other'"},
        {bus + "[[fault]]\nkind = \"nack\"\nnth = -1\n",
         "machine.toml:5:7: key 'nth': must be from 0 to 9223372036854775807"},
    };
    for (const auto& [text, trouble] : rows) {
        EXPECT_EQ(troubleOf(text), trouble) << text;
    }
}

TEST(MachineFile, CommentsMayHaveAnyLetters)
{
    EXPECT_EQ("", troubleOf("# K\xC3\xA4se [[ \"\"\"\n" + bus + "speed_khz = 100 # \xE2\x82\xAC\n"));
}

TEST(MachineFile, TakesTheLimitsOfAnAdapter)
{
    const std::string limits = "adapter = { message_bytes = 32, messages = 2, timeout_ms = 25, absent = \"timeout\", "
                               "no_empty_messages = true, stop_between = true }\n";
    EXPECT_EQ((adapterKind{.messageBytes = 32,
                           .messages = 2,
                           .timeoutMs = 25,
                           .absentTimesOut = true,
                           .noEmptyMessages = true,
                           .stopBetween = true}),
              parseMachine(bus + limits, "machine.toml").buses.front().adapter);
    EXPECT_EQ((adapterKind{.smbus = smbusCalls::blocks}),
              parseMachine(bus + "[bus.adapter]\nsmbus = \"blocks\"\n", "machine.toml").buses.front().adapter);
    EXPECT_EQ(adapterKind{}, parseMachine(bus, "machine.toml").buses.front().adapter);
}

TEST(MachineFile, SameAddressOnAnotherBusPortOrHubIsFine)
{
    const std::string hubs = "[[chip]]\nbus = \"planar\"\ntype = \"HUB922\"\naddress = 0x80\n"
                             "[[chip]]\nbus = \"planar\"\ntype = \"HUB922\"\naddress = 0x82\n";
    const auto at = [](const std::string& image, const std::string& place) {
        return "[[chip]]\ntype = \"24C02\"\naddress = 0xA0\nimage = \"" + image + "\"\n" + place;
    };
    EXPECT_EQ("", troubleOf(bus + "[[bus]]\nname = \"other\"\n" + hubs + at("1", "bus = \"planar\"\n") +
                            at("2", "bus = \"other\"\n") + at("3", "bus = \"planar\"\nhub = 0x80\nport = 0\n") +
                            at("4", "bus = \"planar\"\nhub = 0x80\nport = 1\n") +
                            at("5", "bus = \"planar\"\nhub = 0x82\nport = 1\n")));
}

} // namespace
} // namespace kest::sim::test
