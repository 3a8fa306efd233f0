/// What the tests of kestctl's areas "seeprom" and "copy" share.
#pragma once

#include <string>
#include <vector>

#include "tests/tools/program.h"

namespace kest::test
{

/// Bytes that do not repeat: a part that holds them shows how many offset bytes it takes.
std::string variedBytes(std::size_t length);

/// Areas "seeprom" and "copy" on the demo machine: planar-vpd is a 24C256 at A0, panel-vpd a 24C02 at A4, riser-vpd a
/// 24C128 behind the hub.
class SeepromTest : public MachineTest
{
protected:
    [[nodiscard]] std::string image(const std::string& name) const { return readFile(machine() / (name + ".bin")); }
    [[nodiscard]] std::string file(const std::string& name, const std::string& content) const
    {
        writeFile(folder() / name, content);
        return (folder() / name).string();
    }
    /// The one line that a failing command prints, without "kestctl: ".
    std::string complaint(int exit, std::vector<std::string> arguments, RunOptions options = {}) const;
    void fault(std::vector<std::string> words) const
    {
        std::vector<std::string> command{"sim", "fault", "add"};
        command.insert(command.end(), words.begin(), words.end());
        says(command);
    }
    void clearFaults() const { says({"sim", "fault", "clear"}); }
};

} // namespace kest::test
