/// A simulated machine of the test's own, as the configured one, for the tests of the IIC layer.
#pragma once

#include <gmock/gmock.h>
#include <memory>

#include "sim/machine.h"
#include "tests/host/iic_support.h"

namespace kest::test
{

class IicMachine : public testing::Test
{
protected:
    static constexpr const char* folderKeys = "[machine]\nfolder = \"machine\"\n[nodes]\n3 = \"sim:three\"\n";

    explicit IicMachine(double writeCycleMs = 3.5) : settings(folderKeys)
    {
        const std::string cycle = "write_cycle_ms = " + std::to_string(writeCycleMs) + "\n";
        std::filesystem::create_directory(folder());
        std::ofstream(folder() / "machine.toml")
            << "[[bus]]\nname = \"planar\"\n"
               "[[bus]]\nname = \"planar\"\nnode = \"three\"\n"
               "[[chip]]\nbus = \"planar\"\ntype = \"24C256\"\naddress = 0xA0\nimage = \"main.bin\"\n" +
                   cycle + "[[chip]]\nbus = \"planar\"\ntype = \"24C02\"\naddress = 0xA8\nimage = \"small.bin\"\n" +
                   cycle + "[[chip]]\nbus = \"planar\"\ntype = \"24C512\"\naddress = 0xA4\nimage = \"large.bin\"\n" +
                   cycle +
                   "[[chip]]\nbus = \"planar\"\ntype = \"24C32\"\naddress = 0xAA\nimage = \"protected.bin\"\nprotect = "
                   "\"nak\"\n"
                   "[[chip]]\nbus = \"planar\"\ntype = \"PCA9552\"\naddress = 0xC0\n"
                   "[[chip]]\nbus = \"planar\"\ntype = \"LM75\"\naddress = 0x90\n"
                   "[[chip]]\nbus = \"planar\"\ntype = \"HUB922\"\naddress = 0x80\n"
                   "[[chip]]\nbus = \"planar\"\nhub = 0x80\nport = 3\ntype = \"24C128\"\naddress = 0xA2\nimage = "
                   "\"riser.bin\"\n" +
                   cycle +
                   "[[chip]]\nbus = \"planar\"\nhub = 0x80\nport = 1\ntype = \"24C02\"\naddress = 0xA6\nimage = "
                   "\"card.bin\"\n" +
                   cycle +
                   "[[chip]]\nbus = \"planar\"\nnode = \"three\"\ntype = \"24C256\"\naddress = 0xA0\nimage = "
                   "\"far.bin\"\n";
        fill("main.bin", pattern(32768, 1));
        fill("small.bin", pattern(256, 2));
        fill("large.bin", pattern(65536, 3));
        fill("protected.bin", pattern(4096, 4));
        fill("riser.bin", pattern(16384, 5));
        fill("card.bin", pattern(256, 6));
        fill("far.bin", pattern(32768, 7));
        machine = sim::openMachine(folder(), false);
        wires   = machine->findBus("planar", "");
    }

    [[nodiscard]] std::filesystem::path folder() const { return settings.folder() / "machine"; }
    void                                fill(const std::string& image, const bytes& data) const
    {
        std::ofstream(folder() / image, std::ios::binary)
            .write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
    }
    [[nodiscard]] bytes image(const std::string& name) const
    {
        std::ifstream file(folder() / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    /// The image as it was, with `data` at `offset`.
    [[nodiscard]] static bytes with(bytes before, std::size_t offset, const bytes& data)
    {
        std::ranges::copy(data, before.begin() + static_cast<std::ptrdiff_t>(offset));
        return before;
    }
    [[nodiscard]] static bytes part(const bytes& all, std::size_t offset, std::size_t length)
    {
        return {all.begin() + static_cast<std::ptrdiff_t>(offset),
                all.begin() + static_cast<std::ptrdiff_t>(offset + length)};
    }
    /// Lets every write cycle end.
    void                 settle() const { wires->idle(1'000'000'000); }
    [[nodiscard]] double busMs() const { return static_cast<double>(wires->busTimeNs()) / 1e6; }

    static block          main256() { return {.address = 0xA0, .offsetLength = 2, .pageSize = 64}; }
    static block          small02() { return {.address = 0xA8, .offsetLength = 1, .pageSize = 8}; }
    static block          hub128() { return {.address = 0x80, .offsetLength = 4, .pageSize = 64}; }
    static block          hub02() { return {.address = 0x80, .offsetLength = 3, .pageSize = 8}; }
    static constexpr long onRiser = 0x03A20000;
    static constexpr long onCard  = 0x01A600;

    OwnConfiguration              settings;
    std::shared_ptr<sim::machine> machine;
    std::shared_ptr<sim::bus>     wires;
};

} // namespace kest::test
