/// Which bytes of an image have been given a meaning.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

namespace kest::contents
{

class coverage
{
public:
    void add(std::size_t begin, std::size_t length);
    /// The ranges (first byte, byte behind the last) from 0 to `end` that were not added, in order.
    [[nodiscard]] std::vector<std::pair<std::size_t, std::size_t>> gaps(std::size_t end) const;

private:
    std::vector<std::pair<std::size_t, std::size_t>> m_ranges;
};

} // namespace kest::contents
