/// What a value is once it has been read.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "contents/reading.h"

namespace kest::contents
{

struct decodedValue {
    fieldValue value{};
    std::string text{}; ///< for people, without the unit
    std::optional<std::uint64_t> raw{}; ///< as stored: of kinds that other rows can refer to
    verdict is = verdict::good;
    std::string problem{}; ///< why it is damaged
};

/// Bytes that break a rule of their kind. They are shown as bytes. @param problem  which rule
[[nodiscard]] decodedValue damagedBytes(std::span<const std::uint8_t> bytes, std::string problem);

/// A value that is text.
[[nodiscard]] decodedValue textValue(std::string text);

/// Bytes as people read them: "81 19 00".
[[nodiscard]] std::string spacedHex(std::span<const std::uint8_t> bytes);

} // namespace kest::contents
