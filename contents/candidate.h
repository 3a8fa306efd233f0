/// Which formats an image can have of which only some bytes are known.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kest::contents
{

/// Whether some bytes leave it open that the image carries the signature of any format.
/// @param known  bytes of the image  @param offset  of the first of them in the image
[[nodiscard]] bool canHaveFormat(std::span<const std::uint8_t> known, std::size_t offset);

} // namespace kest::contents
