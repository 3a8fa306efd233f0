/// The raw image file of a memory chip.
#pragma once

#include "sim/chip.h"
#include "sim/pagewrite.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <utility>

namespace kest::sim
{

class image final : public memory
{
public:
    image(std::filesystem::path file, std::uint32_t chipBytes) : m_path{std::move(file)}, m_sizeBytes{chipBytes} {}
    ~image() override { close(); }
    image(const image&) = delete;
    image& operator=(const image&) = delete;

    /// Makes the file, all 0xFF, when there is none.
    /// @param[out] error  the system's number for what is wrong; 0: the file itself is wrong
    /// @return what is wrong; empty: nothing
    std::string prepare(int& error);

    /// Makes the file, all 0xFF, when there is none. What cannot be made is lost when it is used.
    /// @return whether there was one, and not a link to one in another folder
    bool makeWhenMissing() const;

    /// Begins a transaction. The file is opened when it is first used, so that the next transaction finds a file that
    /// was put in its place.
    void begin(std::uint32_t chipIndex, pageWrite& pending);
    void close();

    /// What can't be read is 0xFF, and the image is lost.
    void read(std::uint32_t offset, std::span<std::uint8_t> bytes) override;
    /// Only notes the page; store() writes it when the state says so.
    void program(std::uint32_t offset, std::span<const std::uint8_t> bytes) override;
    bool write(std::uint32_t offset, std::span<const std::uint8_t> bytes) override;
    /// @return false when the file would not take it
    bool store(const pageWrite& page);
    /// Whether it could not be read or written, or had another size, since begin().
    [[nodiscard]] bool isLost() const { return m_lost; }
    /// Whether a page is of this image.
    [[nodiscard]] bool holds(const pageWrite& page) const;

    [[nodiscard]] const std::filesystem::path& file() const { return m_path; }

private:
    static constexpr std::uint32_t windowBytes = 4096;

    bool open();
    void fill(std::uint32_t start);

    const std::filesystem::path m_path;
    const std::uint32_t m_sizeBytes;
    int m_descriptor = -1;
    std::array<std::uint8_t, windowBytes> m_window{};
    std::uint32_t m_windowStart = noWindow;
    bool m_lost = false;
    std::uint32_t m_chip = 0;
    pageWrite* m_page = nullptr;

    static constexpr std::uint32_t noWindow = 0xFFFFFFFF;
};

} // namespace kest::sim
