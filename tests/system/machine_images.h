/// A simulated machine of the test's own, as the configured one: its folder, its images, its bus "planar".
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <iterator>
#include <memory>
#include <string>

#include "sim/machine.h"
#include "tests/host/iic_support.h"

namespace kest::test
{

class OwnMachine : public testing::Test
{
protected:
    explicit OwnMachine(const std::string& more) : settings(more + "[machine]\nfolder = \"machine\"\n")
    {
        std::filesystem::create_directory(folder());
    }
    /// @param text  machine.toml; the images are there already
    void power(const std::string& text)
    {
        std::ofstream(folder() / "machine.toml") << text;
        machine = sim::openMachine(folder(), false);
        wires = machine->findBus("planar", "");
    }

    static std::string chip(const std::string& type, int address, const std::string& more = "")
    {
        return "[[chip]]\nbus = \"planar\"\ntype = \"" + type + "\"\naddress = " + std::to_string(address) + "\n" +
               more;
    }
    static std::string eeprom(const std::string& type, int address, const std::string& image,
                              const std::string& more = "")
    {
        return chip(type, address, more + "image = \"" + image + "\"\n");
    }

    [[nodiscard]] std::filesystem::path folder() const { return settings.folder() / "machine"; }
    void fill(const std::string& image, const Bytes& data) const
    {
        std::ofstream(folder() / image, std::ios::binary)
            .write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
    }
    [[nodiscard]] Bytes image(const std::string& name) const
    {
        std::ifstream file(folder() / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    /// The image as it was, with `data` at `offset`.
    [[nodiscard]] static Bytes with(Bytes before, std::size_t offset, const Bytes& data)
    {
        // an image that is too short equals none
        before.resize(std::max(before.size(), offset + data.size()));
        std::ranges::copy(data, before.begin() + static_cast<std::ptrdiff_t>(offset));
        return before;
    }
    [[nodiscard]] static Bytes part(const Bytes& all, std::size_t offset, std::size_t length)
    {
        return {all.begin() + static_cast<std::ptrdiff_t>(offset),
                all.begin() + static_cast<std::ptrdiff_t>(offset + length)};
    }
    /// Lets every write cycle end, and a hub pass on what it took.
    void settle() const { wires->idle(2'000'000'000); }

    OwnConfiguration settings;
    std::shared_ptr<sim::machine> machine;
    std::shared_ptr<sim::bus> wires;
};

} // namespace kest::test
