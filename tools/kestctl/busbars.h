/// Progress bars, one a bus, at the bottom of a terminal.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kest::tools
{

struct busBar {
    std::string bus;
    std::uint64_t done = 0; ///< bytes
    std::uint64_t total = 0;
    bool ended = false;
};

/// "sim:planar        [######..............]  12.0 KiB of 40.0 KiB", at most 79 columns
[[nodiscard]] std::string barText(const busBar& bar);

/// Draws them on standard error, where that is a terminal that takes escape sequences; else draws nothing.
class busBars
{
public:
    busBars();
    busBars(const busBars&) = delete;
    busBars& operator=(const busBars&) = delete;
    ~busBars() { clear(); }

    void draw(std::span<const busBar> bars);
    /// Takes them away, so that lines can be printed in their place.
    void clear();

private:
    bool m_terminal;
    std::size_t m_drawn = 0; ///< lines
};

} // namespace kest::tools
