#include "tests/system/iic_machine.h"

namespace kest::test
{

IicMachine::IicMachine(double writeCycleMs) : OwnMachine("[nodes]\n3 = \"sim:three\"\n")
{
    const std::string cycle = "write_cycle_ms = " + std::to_string(writeCycleMs) + "\n";
    const std::string onHub = cycle + "hub = 0x80\nport = ";
    const std::string farNode = "node = \"three\"\n";
    fill("main.bin", pattern(32768, 1));
    fill("small.bin", pattern(256, 2));
    fill("large.bin", pattern(65536, 3));
    fill("protected.bin", pattern(4096, 4));
    fill("riser.bin", pattern(16384, 5));
    fill("card.bin", pattern(256, 6));
    fill("far.bin", pattern(32768, 7));
    power("[[bus]]\nname = \"planar\"\n[[bus]]\nname = \"planar\"\n" + farNode +
          eeprom("24C256", 0xA0, "main.bin", cycle) + eeprom("24C02", 0xA8, "small.bin", cycle) +
          eeprom("24C512", 0xA4, "large.bin", cycle) + eeprom("24C32", 0xAA, "protected.bin", "protect = \"nak\"\n") +
          chip("PCA9552", 0xC0) + chip("LM75", 0x90) + chip("HUB922", 0x80) +
          eeprom("24C128", 0xA2, "riser.bin", onHub + "3\n") + eeprom("24C02", 0xA6, "card.bin", onHub + "1\n") +
          eeprom("24C256", 0xA0, "far.bin", farNode));
}

} // namespace kest::test
