/// Dumping every SEEPROM of a machine in real time: eight buses of two devices against the slowest of them alone.
/// Prints one JSON object.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "bench/scratchfolder.h"

namespace
{

constexpr int buses = 8;
constexpr int rounds = 3;

[[noreturn]] void fail(const std::string& what)
{
    std::fprintf(stderr, "inventory_bench: %s\n", what.c_str());
    std::exit(1);
}

/// Two devices on each bus; those of the first take the longest.
void makeMachine(const std::filesystem::path& folder)
{
    std::filesystem::create_directory(folder);
    std::ofstream machine(folder / "machine.toml");
    for (int bus = 0; bus < buses; ++bus) {
        machine << "[[bus]]\nname = \"bus" << bus << "\"\nspeed_khz = 400\n";
        for (const char* address : {"A0", "A2"}) {
            const std::string image = "bus" + std::to_string(bus) + address + ".bin";
            machine << "[[chip]]\nbus = \"bus" << bus << "\"\ntype = \"" << (bus == 0 ? "24C256" : "24C128")
                    << "\"\naddress = 0x" << address << "\nimage = \"" << image << "\"\n";
            std::ofstream(folder / image) << std::string(bus == 0 ? 32768 : 16384, static_cast<char>('a' + bus));
        }
    }
}

/// @return the configuration with the devices of so many buses in its table
std::string configure(const std::filesystem::path& folder, int busesInTable)
{
    const std::filesystem::path file = folder / ("kest" + std::to_string(busesInTable) + ".toml");
    std::ofstream configuration(file);
    configuration << "state = \"state\"\nmachine.folder = \"machine\"\nmachine.time = \"real\"\n";
    for (int bus = 0; bus < busesInTable; ++bus) {
        for (const char* address : {"A0", "A2"}) {
            configuration << "[[device]]\nnumber = 0x" << bus << address << "\nname = \"bus" << bus << '-' << address
                          << "\"\nlocation = \"sim:bus" << bus << ",L," << (bus == 0 ? "2C0256" : "2C0128") << ','
                          << address << "\"\n";
        }
    }
    return file;
}

double dumpSeconds(const std::filesystem::path& folder, const std::string& configuration)
{
    const auto begin = std::chrono::steady_clock::now();
    const std::string command = std::string(KEST_BIN_DIR "/kestctl --config ") + configuration +
                                " seeprom dump --all " + (folder / "out").string() + " > /dev/null";
    if (std::system(command.c_str()) != 0) {
        fail(command);
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

} // namespace

int main()
{
    const kest::bench::scratchFolder scratch;
    const std::filesystem::path& folder = scratch.path();
    makeMachine(folder / "machine");
    const std::string one = configure(folder, 1);
    const std::string all = configure(folder, buses);
    double slowest = 1e9;
    double parallel = 1e9;
    for (int round = 0; round < rounds; ++round) {
        slowest = std::min(slowest, dumpSeconds(folder, one));
        parallel = std::min(parallel, dumpSeconds(folder, all));
    }
    std::printf("{\"inventory.parallel_ratio\": %.3f, \"inventory.seconds\": %.3f}\n", parallel / slowest, parallel);
    return 0;
}
