/// Where a structure of an image lies.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "contents/knownfields.h"
#include "contents/table.h"

namespace kest::contents
{

/// Bytes of the image that a structure has.
struct window {
    std::size_t begin = 0;
    std::size_t end = 0; ///< at most the image's
    bool isCut = false; ///< it should be longer

    [[nodiscard]] std::size_t size() const { return end - begin; }
};

enum class presence : std::uint8_t {
    present,
    absent, ///< the image says that there is none
    missing, ///< the bytes end before it
};

struct area {
    presence is = presence::absent;
    window bytes{}; ///< inside the window that it lies in
    std::string problem{}; ///< empty when its place and length are right; then it may be read
};

/// @param outer  the window of the structure that it lies in
[[nodiscard]] area areaOf(const row& field, const window& outer, std::span<const std::uint8_t> image,
                          const knownFields& known);

} // namespace kest::contents
