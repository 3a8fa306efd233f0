/// What a part holds from its first byte on, read only as far as the format of its contents reaches.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "contents/table.h"
#include "tools/common/seeprom.h"

namespace kest::tools
{

using bytesReader = std::function<byteVector(const byteRange& range)>;

/// The bytes of a part, each of which is read once.
class partContents
{
public:
    /// @param capacity  bytes of the part
    partContents(std::uint32_t capacity, bytesReader read) : m_capacity(capacity), m_read(std::move(read)) {}

    /// Bytes that need not be read.
    void know(const byteRange& range, std::span<const unsigned char> bytes);

    /// The bytes from the first one to `end`, or to the end of the part. Reads what is not known. Throws as the reader.
    [[nodiscard]] const byteVector& upTo(std::uint32_t end);

    /// The bytes that know() gave.
    [[nodiscard]] std::span<const unsigned char> knownBytes() const { return m_known; }
    [[nodiscard]] std::uint32_t capacity() const { return m_capacity; }

private:
    std::uint32_t m_capacity;
    bytesReader m_read;
    byteRange m_knownRange;
    std::span<const unsigned char> m_known;
    byteVector m_bytes; ///< from the first byte on
};

/// How many bytes the recognition of every format needs, at most as many as the part has.
[[nodiscard]] std::uint32_t recognitionBytes(std::uint32_t capacity);

/// The format of an image, as the first that recognises it; null: none is known.
[[nodiscard]] const contents::format* recognisedFormat(std::span<const unsigned char> image);

/// The first byte behind what a part holds by its format, as far as the part goes; 0 when no format is known. Reads so much
/// that nothing of it is cut.
[[nodiscard]] std::uint32_t endOfContents(partContents& part);

/// How many bytes can be read from where a device is served: a persisted copy can be shorter than its device.
[[nodiscard]] std::uint32_t servedBytes(const seeprom& chip);

/// The format of a name: its own ("tlvinfo"), the same with dashes or "spd-" ("spd-ddr4", "sff-8472"), or its beginning when no other format
/// has it ("tlv"). Throws a `failure` (exit code 2) that lists the formats.
[[nodiscard]] const contents::format& formatNamed(const std::string& name);

} // namespace kest::tools
