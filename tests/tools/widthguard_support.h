/// What the tests of the guard of offset widths share.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "tests/tools/seeprom_support.h"

namespace kest::test
{

/// A blank part with one offset byte on a bus of its own, named as a 24C256.
class KestctlWidthGuard : public SeepromTest
{
protected:
    /// @param keys  of the chip. @param adapter  what its bus lacks
    void part(const std::string& keys, const std::string& type = "24C02", std::size_t bytes = 256,
              const std::string& adapter = "") const
    {
        const std::string bus = "[[bus]]\nname = \"f\"\nadapter = { " + adapter + " }\n";
        const std::string chip = "[[chip]]\nbus = \"f\"\naddress = 0xA0\nimage = \"f.bin\"\n";
        writeFile(machine() / "machine.toml", bus + chip + "type = \"" + type + "\"\n" + keys);
        writeFile(machine() / "kest.toml", "state = \"state\"\n[undo]\nkeep = 1\n[machine]\nfolder = \".\"\n");
        fill(std::string(bytes, '\xFF'));
    }
    void fill(const std::string& bytes) const { writeFile(machine() / "f.bin", bytes); }
    void large() const { part("", "24C256", 32768); }
    void ferroelectric() const { part("kind = \"fram\"\n"); }
    /// A read of the part that a STOP cuts off.
    void shortRead(int nth, int count = 1) const
    {
        fault({"short", "--address", "0xA0", "--way", "read", "--nth", std::to_string(nth), "--count",
               std::to_string(count)});
    }
    /// A read of the part one byte of which arrives as 5A.
    void wrongRead(int nth, int byte = 0) const
    {
        fault({"corrupt", "--address", "0xA0", "--way", "read", "--nth", std::to_string(nth), "--count", "1", "--byte",
               std::to_string(byte), "--value", "0x5A"});
    }
    /// One byte sent to the part that arrives with other bits.
    void wrongSent(int nth, int byte, const std::string& mask) const
    {
        fault({"corrupt", "--address", "0xA0", "--way", "write", "--nth", std::to_string(nth), "--count", "1", "--byte",
               std::to_string(byte), "--value", mask});
    }
    [[nodiscard]] std::string content() const { return image("f"); }
    [[nodiscard]] std::ptrdiff_t undoFiles() const
    {
        const std::filesystem::path undo = machine() / "state/undo";
        return std::filesystem::exists(undo) ? std::distance(std::filesystem::directory_iterator(undo), {}) : 0;
    }

    static constexpr const char* asLarge = "sim:f,L,2C0256,A0";
    const std::string blank = std::string(256, '\xFF');
    const std::vector<std::string> write{"seeprom", "write", asLarge, "--hex", "5A5B5C5D", "--yes"};
};

} // namespace kest::test
