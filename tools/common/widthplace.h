/// Places at which a width proof sends a second offset byte: which they are, and what the bytes read there say.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "tools/common/widthreads.h"

namespace kest::tools
{

/// What is read behind (at, first[at]), where `first` are 256 bytes read behind one offset byte.
struct widthPlace {
    std::uint8_t at;
    std::vector<std::uint8_t> bytes = {};
    bool refused = false; ///< the second offset byte was
};

/// Whether a part with one offset byte drops or rewrites its own byte at a place, and goes on behind it.
[[nodiscard]] bool isSafePlace(std::size_t at);
/// Bytes that are read at a place.
[[nodiscard]] std::size_t surroundingOf(const widthReads& reads);

/// The first safe places whose bytes are certain and show something, those before others whose bytes are to be written.
/// Neighbours are welcome: between two of them a part with two offset bytes shows that it goes on. At most six.
[[nodiscard]] std::vector<widthPlace> placesOf(const widthReads& reads, const widthQuestion& question);
/// The first six, for a part that can't have one offset byte: no part takes what is sent there for data.
[[nodiscard]] std::vector<widthPlace> anyPlaces();

/// Places whose bytes say something about where they were read.
[[nodiscard]] std::ptrdiff_t variedPlaces(std::span<const widthPlace> places);
/// Whether a place's bytes are what a part with one offset byte gives. @param ahead  1 when it has gone on past the byte
/// that it dropped or rewrote
[[nodiscard]] bool fitsOne(const widthReads::firstRead& first, const widthPlace& place, std::size_t ahead);
/// Whether a part with two offset bytes whose content repeats every 256 bytes would have given the same as one with one:
/// content that counts up can be read both ways.
[[nodiscard]] bool readsAlike(const widthReads::firstRead& first, std::span<const widthPlace> places,
                              std::size_t ahead);
/// Whether two places overlap as on a part with one offset byte, where they are so many bytes apart as their offsets.
[[nodiscard]] bool overlapAsOne(std::span<const widthPlace> places);
/// How far a part with two offset bytes has from a place to the one behind the next offset.
[[nodiscard]] std::size_t distanceFrom(const widthReads::firstRead& first, const widthPlace& place);

} // namespace kest::tools
