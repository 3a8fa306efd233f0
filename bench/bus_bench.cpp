/// How well the IIC layer uses a bus, in simulated bus time: what a whole read and a long write take, against the least
/// that the wires need, and how long one transaction of a whole read at 100 kHz keeps the bus from others. Prints one
/// JSON object.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/scratchfolder.h"
#include "platform/host/configuration/configuration.h"
#include "platform/host/iic/bus_sim.h"
#include "platform/host/iic/reads.h"
#include "platform/mern.h"
#include "sim/bittiming.h"
#include "sim/machine.h"

namespace
{

namespace iic = kest::host::iic;

constexpr std::uint32_t speedKhz = 400;
// of every device
constexpr std::uint32_t slowSpeedKhz = 100;
constexpr std::uint64_t bitLastingNs(std::uint32_t khz) { return 1'000'000 / khz; }
constexpr double bitNs = bitLastingNs(speedKhz);
// eight bits and the acknowledge
constexpr double bitsOfByte = 9;
constexpr double writeCycleNs = 3.5e6;
// all of a 24C512
constexpr std::size_t readBytes = 65536;
// written to a 24C256
constexpr std::size_t writtenBytes = 4096;
constexpr std::size_t pageBytes = 64;

/// A machine folder with a kest.toml, which this process uses.
class scratchMachine
{
public:
    scratchMachine()
    {
        std::ofstream(m_folder.path() / "kest.toml") << "state = \"state\"\n[machine]\nfolder = \".\"\n";
        std::ofstream(m_folder.path() / "machine.toml")
            << "[[bus]]\nname = \"planar\"\n"
               "[[chip]]\nbus = \"planar\"\ntype = \"24C512\"\naddress = 0xA0\nimage = \"large.bin\"\n"
               "[[chip]]\nbus = \"planar\"\ntype = \"24C256\"\naddress = 0xA2\nimage = \"main.bin\"\n"
               "write_cycle_ms = 3.5\nwrite_cycle_min_ms = 3.5\n";
        if (!kest::host::useConfigurationFile(m_folder.path() / "kest.toml")) {
            throw std::runtime_error("the configuration was read too early");
        }
        m_wires = kest::sim::openMachine(m_folder.path(), false)->findBus("planar", "");
    }

    [[nodiscard]] double busNs() const { return static_cast<double>(m_wires->busTimeNs()); }
    [[nodiscard]] const std::filesystem::path& folder() const { return m_folder.path(); }

private:
    kest::bench::scratchFolder m_folder;
    std::shared_ptr<kest::sim::bus> m_wires;
};

/// Opens and configures a chip as the library does.
mern_t openChip(const char* path, std::uint16_t address, std::uint32_t page, std::uint32_t khz)
{
    const MernNode local;
    mern_t handle = mern_iic_open(local, path, MERN_OPEN_READ_WRITE_SYNC);
    mern_iic_block block{};
    block.address = address;
    block.offsetLength = 2;
    block.writeCycleMs = 15;
    block.pageSize = page;
    block.busyWaitMs = 1000;
    std::uint32_t speed = khz;
    if (mern_iic_config(handle, MERN_CONFIG_SET, WOBU_IIC_BLOCK, &block, sizeof block) != 0 ||
        mern_iic_config(handle, MERN_CONFIG_SET, WOBU_IIC_SPEED, &speed, sizeof speed) != 0) {
        throw std::runtime_error("the chip can't be configured");
    }
    return handle;
}

/// @return bus time of a whole read, divided by that of one transaction: the least that the wires need
double readRatio(const scratchMachine& machine, std::uint32_t khz)
{
    mern_t handle = openChip("sim:planar", 0xA0, 128, khz);
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
    const std::uint64_t bit = bitLastingNs(khz);
    return taken / (bits * static_cast<double>(bit) + static_cast<double>(kest::sim::repeatedStartNs(bit)));
}

/// A bus that notes how long its longest transaction took.
class timedBus final : public iic::bus
{
public:
    explicit timedBus(std::shared_ptr<iic::bus> wires) : m_wires(std::move(wires)) {}
    [[nodiscard]] std::uint64_t longestNs() const { return m_longestNs; }

    iic::transferResult transfer(std::span<const iic::segment> segments, const iic::transferPace& pace) override
    {
        const std::uint64_t before = m_wires->nowNs();
        const iic::transferResult result = m_wires->transfer(segments, pace);
        m_longestNs = std::max(m_longestNs, result.nowNs - before);
        return result;
    }
    iic::transferResult probe(std::uint8_t address, iic::probeMethod method, const iic::transferPace& pace) override
    {
        return m_wires->probe(address, method, pace);
    }
    iic::outcome reset(std::uint8_t address) override { return m_wires->reset(address); }
    [[nodiscard]] iic::transferLimits limits() const override { return m_wires->limits(); }
    [[nodiscard]] std::uint64_t clockHz(const iic::transferPace& pace) const override { return m_wires->clockHz(pace); }
    [[nodiscard]] const iic::busIdentity& identity() const override { return m_wires->identity(); }
    [[nodiscard]] std::string adapterName() const override { return m_wires->adapterName(); }
    [[nodiscard]] std::vector<std::string> capabilities() const override { return m_wires->capabilities(); }
    [[nodiscard]] std::vector<std::string> lacks() const override { return m_wires->lacks(); }
    bool heldByDriver(std::uint8_t address) override { return m_wires->heldByDriver(address); }
    std::uint64_t nowNs() override { return m_wires->nowNs(); }
    void pause(std::uint64_t nanoseconds) override { m_wires->pause(nanoseconds); }
    [[nodiscard]] std::uint64_t questionPauseNs() const override { return m_wires->questionPauseNs(); }

private:
    std::shared_ptr<iic::bus> m_wires;
    std::uint64_t m_longestNs = 0;
};

/// @return bus time of the longest transaction of a whole read at 100 kHz
double longestTransactionMs(const scratchMachine& machine)
{
    std::shared_ptr<iic::bus> wires;
    if (iic::openSimulatedBus(machine.folder(), false, "planar", "", wires) != 0) {
        throw std::runtime_error("the bus can't be opened");
    }
    timedBus timed(std::move(wires));
    const iic::transferSettings settings{
        .target = 0xA0, .offsetLength = 2, .busyWaitMs = 1000, .pace = {.speedKhz = slowSpeedKhz}};
    iic::transactionHistory history;
    iic::transferLimits learnt = timed.limits();
    std::vector<std::uint8_t> data(readBytes);
    if (iic::readDevice(timed, settings, data, history, learnt).moved != readBytes) {
        throw std::runtime_error("the slow read failed");
    }
    return static_cast<double>(timed.longestNs()) / 1e6;
}

/// @return bus time of a long write, divided by that of each page's bits and its true write cycle. The write ends with
/// the STOP of the last page, so neither side counts that page's write cycle.
double writeRatio(const scratchMachine& machine)
{
    mern_t handle = openChip("sim:planar", 0xA2, pageBytes, speedKhz);
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
        // the worse of two speeds: at the slow one a read has more transactions
        const double read = std::max(readRatio(machine, speedKhz), readRatio(machine, slowSpeedKhz));
        const double write = writeRatio(machine);
        const double longest = longestTransactionMs(machine);
        std::printf("{\"bus.read_ratio\": %.6f, \"bus.write_ratio\": %.6f, \"bus.transaction_ms\": %.3f}\n", read,
                    write, longest);
        result = 0;
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "bus_bench: %s\n", problem.what());
    }
    return result;
}
