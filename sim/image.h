/// The raw image file of a memory chip.
#pragma once

#include "sim/busstate.h"
#include "sim/chip.h"

#include <filesystem>

namespace kest::sim
{

class image final : public memory
{
public:
    image(std::filesystem::path file, std::uint32_t chipBytes) : path{std::move(file)}, sizeBytes{chipBytes} {}
    ~image() override { close(); }
    image(const image&) = delete;
    image& operator=(const image&) = delete;

    /// Makes the file, all 0xFF, when there is none. @return what is wrong with it; empty: nothing
    /// @param[out] error  the system's number for that; 0: it is the image's own fault
    std::string prepare(int& error);

    /// For one transaction: the file is opened at first use, so that a file put in its place is met by the next one.
    void begin(std::uint32_t chipIndex, pageWrite& pending);
    void close();

    /// What can't be read is 0xFF, and the image is lost.
    void read(std::uint32_t offset, std::span<std::uint8_t> bytes) override;
    /// Only notes the page; store() writes it when the state says so.
    void program(std::uint32_t offset, std::span<const std::uint8_t> bytes) override;
    /// @return false when the file would not take it
    bool store(const pageWrite& page);
    /// Whether it could not be read, or had another size, since begin().
    [[nodiscard]] bool isLost() const { return lost; }
    /// Whether a page is of this image.
    [[nodiscard]] bool holds(const pageWrite& page) const;

    [[nodiscard]] const std::filesystem::path& file() const { return path; }

private:
    static constexpr std::uint32_t windowBytes = 4096;

    bool open();
    void fill(std::uint32_t start);

    const std::filesystem::path path;
    const std::uint32_t sizeBytes;
    int descriptor = -1;
    std::array<std::uint8_t, windowBytes> window{};
    std::uint32_t windowStart = noWindow;
    bool lost = false;
    std::uint32_t chip = 0;
    pageWrite* page = nullptr;

    static constexpr std::uint32_t noWindow = 0xFFFFFFFF;
};

} // namespace kest::sim
