/// Hashes of trace messages.
#pragma once

#include <cstdint>
#include <string_view>

namespace kest::host
{

/// Hash of a message (32-bit FNV-1a), made at compile time: the same text has the same hash wherever it is traced.
consteval std::uint32_t messageHash(std::string_view message)
{
    std::uint32_t hash = 0x811C9DC5;
    for (const char character : message) {
        hash = (hash ^ static_cast<unsigned char>(character)) * 0x01000193u;
    }
    return hash;
}

} // namespace kest::host
