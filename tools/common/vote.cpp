#include "tools/common/vote.h"

#include <algorithm>
#include <map>

namespace kest::tools
{

std::vector<std::uint32_t> differing(std::uint32_t first, std::span<const unsigned char> one,
                                     std::span<const unsigned char> other)
{
    std::vector<std::uint32_t> offsets;
    for (std::uint32_t at = 0; at < one.size(); ++at) {
        if (one[at] != other[at]) {
            offsets.push_back(first + at);
        }
    }
    return offsets;
}

byteVote vote(std::span<const std::vector<unsigned char>> reads, std::uint32_t at)
{
    std::map<unsigned char, unsigned> votes;
    for (const std::vector<unsigned char>& one : reads) {
        ++votes[one[at]];
    }
    const auto winner = std::ranges::max_element(votes, {}, [](const auto& each) { return each.second; });
    return {winner->first, votes.size() == 1, winner->second * 2 > reads.size()};
}

} // namespace kest::tools
