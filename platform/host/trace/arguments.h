/// The arguments in a record's payload.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace kest::host::trace
{

/// Takes a record's arguments one after another. Past the end every argument is missing.
class argumentReader
{
public:
    /// @param foreign  the words are in the other byte order
    argumentReader(std::span<const std::uint8_t> bytes, bool foreign) : m_rest(bytes), m_foreign(foreign) {}

    [[nodiscard]] bool missing() const { return m_missing; }

    std::uint32_t number();
    std::uint64_t wide();
    /// Text up to its NUL.
    std::string_view text();
    /// The bytes that are left, at most `most`.
    std::span<const std::uint8_t> bytes(std::size_t most);

private:
    bool take(std::size_t count);

    std::span<const std::uint8_t> m_rest;
    const std::uint8_t* m_taken = nullptr;
    bool m_foreign = false;
    bool m_missing = false;
};

} // namespace kest::host::trace
