#include "contents/area.h"

#include <algorithm>
#include <optional>

namespace kest::contents
{
namespace
{

/// No image is as long; products of two such numbers fit 64 bits.
constexpr std::uint64_t tooFar = 0x7FFF'FFFF;

std::string bytesText(std::uint64_t count) { return std::to_string(count) + (count == 1 ? " byte" : " bytes"); }

/// A position or length that a field gives.
std::uint64_t scaledField(std::uint64_t raw, std::size_t unit) { return std::min(raw, tooFar) * unit; }

/// Where it begins, from the outer window's first byte. Nothing when the image says that there is none.
std::optional<std::uint64_t> positionOf(const row& field, const knownFields& known)
{
    if (field.where.atField.empty()) {
        return field.at;
    }
    const std::uint64_t raw = known.find(field.where.atField).value_or(0);
    return raw == 0 ? std::nullopt : std::optional(field.at + scaledField(raw, field.where.atUnit));
}

/// How many bytes from `position` there are before the next of the areas that the row names.
std::optional<std::uint64_t> bytesBeforeNext(const extent& where, std::uint64_t position, const knownFields& known)
{
    std::optional<std::uint64_t> nearest;
    for (const std::string_view name : where.beforeFields) {
        const std::uint64_t next = scaledField(known.find(name).value_or(0), where.atUnit);
        if (next > position) {
            nearest = std::min(nearest.value_or(next - position), next - position);
        }
    }
    return nearest;
}

std::uint64_t plus(std::uint64_t length, std::int64_t more)
{
    const std::int64_t whole = static_cast<std::int64_t>(length) + more;
    return whole < 0 ? 0 : static_cast<std::uint64_t>(whole);
}

/// The length that the image or the row says. Nothing when the byte that says it is missing.
/// @param room  bytes up to the end of the outer window
std::optional<std::uint64_t> lengthOf(const row& field, std::uint64_t position, std::span<const std::uint8_t> room,
                                      const knownFields& known)
{
    const extent& where = field.where;
    if (where.ownLength) {
        return where.ownLengthAt < room.size()
                   ? std::optional(plus(scaledField(room[where.ownLengthAt], where.lengthUnit), where.lengthPlus))
                   : std::nullopt;
    }
    if (!where.lengthField.empty()) {
        const std::optional<std::uint64_t> raw = known.find(where.lengthField);
        return raw ? std::optional(plus(scaledField(*raw, where.lengthUnit), where.lengthPlus)) : std::nullopt;
    }
    const std::uint64_t rest = field.length != 0 ? field.length : room.size();
    return bytesBeforeNext(where, position, known).value_or(rest);
}

} // namespace

area areaOf(const row& field, const window& outer, std::span<const std::uint8_t> image, const knownFields& known)
{
    const std::optional<std::uint64_t> position = positionOf(field, known);
    if (!position) {
        return {};
    }
    if (*position >= outer.size()) {
        const bool fits = *position == outer.size() && field.length == 0 && field.where.least == 0;
        const bool isNoLoss = field.optional || (fits && field.where.atField.empty());
        return {.is = isNoLoss ? presence::absent : presence::missing,
                .bytes = {.begin = outer.end, .end = outer.end, .isCut = true},
                .problem =
                    "it begins " + bytesText(*position) + " after the start of an area of " + bytesText(outer.size())};
    }
    const std::size_t begin = outer.begin + static_cast<std::size_t>(*position);
    const auto length = lengthOf(field, *position, image.subspan(begin, outer.end - begin), known);
    area found{.is = presence::present, .bytes = {.begin = begin, .end = outer.end, .isCut = !length}};
    if (!length) {
        found.problem = "the byte with its length is missing";
    } else if (*length < field.where.least) {
        found.bytes.end = begin + std::min<std::size_t>(static_cast<std::size_t>(*length), outer.end - begin);
        found.problem =
            "its length is " + bytesText(*length) + ", and the least is " + std::to_string(field.where.least);
    } else if (*length > outer.end - begin) {
        found.bytes.isCut = true;
        found.problem = "it should have " + bytesText(*length) + ", and there are " + std::to_string(outer.end - begin);
    } else {
        found.bytes.end = begin + static_cast<std::size_t>(*length);
    }
    return found;
}

} // namespace kest::contents
