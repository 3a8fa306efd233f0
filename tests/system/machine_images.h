/// A simulated machine of the test's own, which is the configured one: folder, images, the bus "planar".
#pragma once

#include <filesystem>
#include <gtest/gtest.h>
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
    void power(const std::string& text);

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
    void fill(const std::string& image, const Bytes& data) const;
    [[nodiscard]] Bytes image(const std::string& name) const;
    /// The image as it was, with `data` at `offset`.
    [[nodiscard]] static Bytes with(Bytes before, std::size_t offset, const Bytes& data);
    [[nodiscard]] static Bytes part(const Bytes& all, std::size_t offset, std::size_t length)
    {
        return {all.begin() + static_cast<std::ptrdiff_t>(offset),
                all.begin() + static_cast<std::ptrdiff_t>(offset + length)};
    }
    /// Waits until every write cycle has ended and every hub has passed on what it took.
    void settle() const { wires->idle(2'000'000'000); }

    OwnConfiguration settings;
    std::shared_ptr<sim::machine> machine;
    std::shared_ptr<sim::bus> wires;
};

} // namespace kest::test
