/// How well the IIC layer uses a bus, in simulated bus time: what a whole read and a long write take, against the least
/// that the wires need.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/host/configuration/configuration.h"
#include "platform/mern.h"
#include "sim/bittiming.h"
#include "sim/machine.h"

namespace
{

constexpr std::uint32_t speedKhz = 400;
constexpr std::uint64_t bitLastingNs = 1'000'000 / speedKhz;
constexpr double bitNs = bitLastingNs;
// eight bits and the acknowledge
constexpr double bitsOfByte = 9;
constexpr double writeCycleNs = 3.5e6;
// all of a 24C512
constexpr std::size_t readBytes = 65536;
// written to a 24C256
constexpr std::size_t writtenBytes = 4096;
constexpr std::size_t pageBytes = 64;

/// A machine folder with a kest.toml, which this process uses. The destructor removes the folder.
class scratchMachine
{
public:
    scratchMachine()
    {
        std::string name = (std::filesystem::temp_directory_path() / "kest-bench-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no scratch folder");
        }
        m_folder = name;
        std::ofstream(m_folder / "kest.toml") << "state = \"state\"\n[machine]\nfolder = \".\"\n";
        std::ofstream(m_folder / "machine.toml")
            << "[[bus]]\nname = \"planar\"\n"
               "[[chip]]\nbus = \"planar\"\ntype = \"24C512\"\naddress = 0xA0\nimage = \"large.bin\"\n"
               "[[chip]]\nbus = \"planar\"\ntype = \"24C256\"\naddress = 0xA2\nimage = \"main.bin\"\n"
               "write_cycle_ms = 3.5\nwrite_cycle_min_ms = 3.5\n";
        if (!kest::host::useConfigurationFile(m_folder / "kest.toml")) {
            throw std::runtime_error("the configuration was read too early");
        }
        m_wires = kest::sim::openMachine(m_folder, false)->findBus("planar", "");
    }
    scratchMachine(const scratchMachine&) = delete;
    scratchMachine& operator=(const scratchMachine&) = delete;
    ~scratchMachine() { std::filesystem::remove_all(m_folder); }

    [[nodiscard]] double busNs() const { return static_cast<double>(m_wires->busTimeNs()); }

private:
    std::filesystem::path m_folder;
    std::shared_ptr<kest::sim::bus> m_wires;
};

/// Opens and configures a chip as the library does.
mern_t openChip(const char* path, std::uint16_t address, std::uint32_t page)
{
    const MernNode local;
    mern_t handle = mern_iic_open(local, path, MERN_OPEN_READ_WRITE_SYNC);
    mern_iic_block block{};
    block.address = address;
    block.offsetLength = 2;
    block.writeCycleMs = 15;
    block.pageSize = page;
    block.busyWaitMs = 1000;
    std::uint32_t speed = speedKhz;
    if (mern_iic_config(handle, MERN_CONFIG_SET, WOBU_IIC_BLOCK, &block, sizeof block) != 0 ||
        mern_iic_config(handle, MERN_CONFIG_SET, WOBU_IIC_SPEED, &speed, sizeof speed) != 0) {
        throw std::runtime_error("the chip can't be configured");
    }
    return handle;
}

/// @return bus time of a whole read, divided by that of one transaction: the least that the wires need
double readRatio(const scratchMachine& machine)
{
    mern_t handle = openChip("sim:planar", 0xA0, 128);
    std::vector<std::uint8_t> data(readBytes);
    const double before = machine.busNs();
    const int moved = mern_iic_read(handle, data.data(), readBytes);
    const double taken = machine.busNs() - before;
    mern_iic_close(handle);
    if (moved != static_cast<int>(readBytes)) {
        throw std::runtime_error("the read failed");
    }
    // START, address, offset, address again, data, STOP; and the repeated START
    constexpr double bits = 1 + bitsOfByte * (1 + 2 + 1 + readBytes) + 1;
    return taken / (bits * bitNs + static_cast<double>(kest::sim::repeatedStartNs(bitLastingNs)));
}

/// @return bus time of a long write, divided by that of each page's bits and its true write cycle. The write ends with
/// the STOP of the last page, so neither side counts that page's write cycle.
double writeRatio(const scratchMachine& machine)
{
    mern_t handle = openChip("sim:planar", 0xA2, pageBytes);
    const std::vector<std::uint8_t> data(writtenBytes, 0x5A);
    const double before = machine.busNs();
    const int moved = mern_iic_write(handle, data.data(), writtenBytes);
    const double taken = machine.busNs() - before;
    mern_iic_close(handle);
    if (moved != static_cast<int>(writtenBytes)) {
        throw std::runtime_error("the write failed");
    }
    constexpr double pages = static_cast<double>(writtenBytes) / pageBytes;
    // START, address, offset, data, STOP
    constexpr double pageBits = 1 + bitsOfByte * (1 + 2 + pageBytes) + 1;
    return taken / (pages * pageBits * bitNs + (pages - 1) * writeCycleNs);
}

} // namespace

int main()
{
    int result = 1;
    try {
        const scratchMachine machine;
        const double read = readRatio(machine);
        const double write = writeRatio(machine);
        std::printf("{\"bus.read_ratio\": %.6f, \"bus.write_ratio\": %.6f}\n", read, write);
        result = 0;
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "bus_bench: %s\n", problem.what());
    }
    return result;
}
