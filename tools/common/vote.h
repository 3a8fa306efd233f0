/// Several reads of the same bytes: where they differ, and what most of them say.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace kest::tools
{

/// Offsets from `first` on at which byte strings of one length differ.
[[nodiscard]] std::vector<std::uint32_t> differing(std::uint32_t first, std::span<const unsigned char> one,
                                                   std::span<const unsigned char> other);

/// The result of several reads for one byte.
struct byteVote {
    unsigned char byte;
    bool unanimous;
    bool majority; ///< more than half of the reads have this byte
};
/// @param reads  of one length, at least one. @param at  index of the byte
[[nodiscard]] byteVote vote(std::span<const std::vector<unsigned char>> reads, std::uint32_t at);

} // namespace kest::tools
