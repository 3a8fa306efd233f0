/// Helpers of the fuzz targets that need a simulated machine.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace kest::fuzz
{

/// Ends the run, as a finding, when a condition does not hold.
inline void require(bool holds)
{
    if (!holds) {
        abort();
    }
}

/// Makes a machine with one bus "b" and chips of many kinds. Its folder is removed when the process ends. Call it once.
/// Write cycles end after a few bytes of bus time, so nothing waits for them.
inline std::filesystem::path makeMachineFolder()
{
    std::string name = (std::filesystem::temp_directory_path() / "kest-fuzz-XXXXXX").string();
    require(mkdtemp(name.data()) != nullptr);
    static const std::filesystem::path folder = name;
    std::ofstream{folder / "machine.toml"} << R"(
[[bus]]
name = "b"
[[chip]]
bus = "b"
type = "24C02"
address = 0xA0
image = "a"
write_cycle_ms = 0.2
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
type = "LM75"
address = 0x90
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
write_cycle_ms = 0.2
)";
    atexit([] { std::filesystem::remove_all(folder); });
    return folder;
}

} // namespace kest::fuzz
