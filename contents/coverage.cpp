#include "contents/coverage.h"

#include <algorithm>

namespace kest::contents
{

void coverage::add(std::size_t begin, std::size_t length)
{
    if (length != 0) {
        m_ranges.emplace_back(begin, begin + length);
    }
}

std::vector<std::pair<std::size_t, std::size_t>> coverage::gaps(std::size_t end) const
{
    auto sorted = m_ranges;
    for (const auto& [at, mask] : m_bits) {
        sorted.emplace_back(at, at + 1);
    }
    std::sort(sorted.begin(), sorted.end());
    std::vector<std::pair<std::size_t, std::size_t>> found;
    std::size_t reached = 0;
    for (const auto& [first, behind] : sorted) {
        if (first > reached) {
            found.emplace_back(reached, first);
        }
        reached = std::max(reached, behind);
    }
    if (reached < end) {
        found.emplace_back(reached, end);
    }
    return found;
}

std::vector<std::pair<std::size_t, std::uint8_t>> coverage::openBits() const
{
    constexpr std::uint8_t all = 0xFF;
    auto sorted = m_ranges;
    std::sort(sorted.begin(), sorted.end());
    std::vector<std::pair<std::size_t, std::uint8_t>> found;
    std::size_t reached = 0;
    auto range = sorted.begin();
    for (const auto& [at, mask] : m_bits) {
        for (; range != sorted.end() && range->first <= at; ++range) {
            reached = std::max(reached, range->second);
        }
        if (mask != all && reached <= at) {
            found.emplace_back(at, static_cast<std::uint8_t>(all & ~mask));
        }
    }
    return found;
}

} // namespace kest::contents
