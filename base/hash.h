/// FNV-1a hashes of texts.
#pragma once

#include <cstdint>
#include <string_view>

namespace kest
{

constexpr std::uint32_t fnvHash32(std::string_view text)
{
    constexpr std::uint32_t offsetBasis = 0x811C9DC5;
    constexpr std::uint32_t prime = 0x01000193;
    std::uint32_t hash = offsetBasis;
    for (const char character : text) {
        hash = (hash ^ static_cast<unsigned char>(character)) * prime;
    }
    return hash;
}

constexpr std::uint64_t fnvHash64(std::string_view text)
{
    constexpr std::uint64_t offsetBasis = 0xCBF29CE484222325;
    constexpr std::uint64_t prime = 0x100000001B3;
    std::uint64_t hash = offsetBasis;
    for (const char character : text) {
        hash = (hash ^ static_cast<unsigned char>(character)) * prime;
    }
    return hash;
}

} // namespace kest
