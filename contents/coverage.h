/// Which bytes of an image have been given a meaning.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

namespace kest::contents
{

class coverage
{
public:
    void add(std::size_t begin, std::size_t length);
    /// Some bits of a byte.
    void addBits(std::size_t at, std::uint8_t mask) { m_bits[at] = static_cast<std::uint8_t>(m_bits[at] | mask); }
    /// The ranges (first byte, byte behind the last) from 0 to `end` that were not added, in order.
    [[nodiscard]] std::vector<std::pair<std::size_t, std::size_t>> gaps(std::size_t end) const;
    /// The bytes of which some bits were added and others not, with those others, in order.
    [[nodiscard]] std::vector<std::pair<std::size_t, std::uint8_t>> openBits() const;

private:
    std::vector<std::pair<std::size_t, std::size_t>> m_ranges;
    std::map<std::size_t, std::uint8_t> m_bits;
};

} // namespace kest::contents
