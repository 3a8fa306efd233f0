#include "contents/bitfield.h"

#include <limits>

namespace kest::contents
{
namespace
{

constexpr unsigned bitsOfByte = 8;
constexpr unsigned mostBits = 64;

std::uint64_t lowBits(std::uint64_t value, unsigned bits)
{
    return bits >= mostBits ? value : value & ((std::uint64_t{1} << bits) - 1);
}

std::uint64_t wholeBytes(std::span<const std::uint8_t> bytes, byteOrder order)
{
    std::uint64_t value = 0;
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        value = value << bitsOfByte | bytes[order == byteOrder::big ? index : bytes.size() - 1 - index];
    }
    return value;
}

} // namespace

std::optional<rawNumber> rawNumberOf(const row& field, std::span<const std::uint8_t> block, std::size_t at,
                                     std::size_t length)
{
    if (length > mostBits / bitsOfByte || length * bitsOfByte <= field.bit) {
        return std::nullopt;
    }
    const unsigned above = static_cast<unsigned>(length) * bitsOfByte - field.bit;
    rawNumber number{.bits = field.bits == 0 ? above : field.bits};
    number.value = lowBits(wholeBytes(block.subspan(at, length), field.order) >> field.bit, number.bits);
    for (const place& piece : field.more) {
        if (piece.at >= block.size() || number.bits + piece.bits > mostBits) {
            return std::nullopt;
        }
        number.value |= lowBits(block[piece.at] >> piece.bit, piece.bits) << number.bits;
        number.bits += piece.bits;
    }
    return number;
}

std::int64_t signedValue(const rawNumber& number)
{
    const bool negative = number.bits != 0 && ((number.value >> (number.bits - 1)) & 1) == 1;
    if (!negative) {
        return static_cast<std::int64_t>(number.value);
    }
    return -static_cast<std::int64_t>(lowBits(~number.value, number.bits)) - 1;
}

} // namespace kest::contents
