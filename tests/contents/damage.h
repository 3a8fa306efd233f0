/// What must hold of every format: a changed byte is found, and no length is too short to be read.
#pragma once

#include <cstddef>
#include <string_view>

#include "tests/contents/images.h"

namespace kest::contents::test
{

/// Every byte of a range, changed by one bit and by all, damages the checksum of this name.
void expectBytesGuarded(std::string_view formatName, const Bytes& image, std::string_view checksumName,
                        std::size_t from, std::size_t length);

/// The first `length` bytes of an image, for every length shorter than `whole`, are read and found damaged.
void expectCutsDamaged(std::string_view formatName, const Bytes& image, std::size_t whole);

} // namespace kest::contents::test
