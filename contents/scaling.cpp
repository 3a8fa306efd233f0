#include "contents/scaling.h"

#include <limits>
#include <string_view>

namespace kest::contents
{
namespace
{

/// The value of a field, 1 when none is named.
std::optional<std::int64_t> namedFactor(std::string_view name, const knownFields& known)
{
    if (name.empty()) {
        return 1;
    }
    const std::optional<std::uint64_t> raw = known.find(name);
    if (!raw || *raw > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(*raw);
}

std::optional<fraction> scaled(std::int64_t stored, const scale& by, const knownFields& known)
{
    const auto factor = namedFactor(by.factorField, known);
    const auto divisor = namedFactor(by.divisorField, known);
    if (!factor || !divisor) {
        return std::nullopt;
    }
    const auto fixed = fractionOf(by.factor, by.divisor);
    const auto read = fractionOf(*factor, *divisor);
    if (!fixed || !read) {
        return std::nullopt;
    }
    const auto base = product(*fixed, *read);
    const auto value = base ? product(*base, fraction{.numerator = stored}) : std::nullopt;
    return value ? sum(*value, fraction{.numerator = by.plus}) : std::nullopt;
}

std::optional<std::int64_t> valueOf(const factor& each, const knownFields& known)
{
    const std::optional<std::uint64_t> raw = known.find(each.field);
    const std::optional<std::int64_t> more = each.plusField.empty() ? 0 : namedFactor(each.plusField, known);
    if (!raw || !more || *raw > std::numeric_limits<std::uint32_t>::max() ||
        *more > std::numeric_limits<std::uint32_t>::max()) {
        return std::nullopt;
    }
    if (each.values.empty()) {
        const auto total =
            product(fraction{.numerator = static_cast<std::int64_t>(*raw) + *more}, fraction{.numerator = each.times});
        const auto value = total ? sum(*total, fraction{.numerator = each.plus}) : std::nullopt;
        return value ? std::optional(value->numerator) : std::nullopt;
    }
    const std::int64_t found = *raw < each.values.size() ? each.values[static_cast<std::size_t>(*raw)] : 0;
    return found == 0 ? std::nullopt : std::optional(found);
}

/// The stored value of a finer part.
std::int64_t storedOf(const fineCorrection& part, std::uint8_t byte)
{
    if (part.bits == 0) {
        return static_cast<std::int8_t>(byte);
    }
    return (byte >> part.bit) & ((1 << part.bits) - 1);
}

} // namespace

std::optional<fraction> scaledValue(const row& field, std::int64_t stored, std::span<const std::uint8_t> block,
                                    const knownFields& known)
{
    const auto coarse = scaled(stored, field.by, known);
    if (!coarse || field.fine.at == 0) {
        return coarse;
    }
    if (field.fine.at >= block.size()) {
        return std::nullopt;
    }
    const auto fine = scaled(storedOf(field.fine, block[field.fine.at]), field.fine.by, known);
    return fine ? sum(*coarse, *fine) : std::nullopt;
}

std::optional<fraction> productOf(const row& field, const knownFields& known)
{
    std::optional<fraction> result = fractionOf(field.by.factor, field.by.divisor);
    for (const factor& each : field.factors) {
        const std::optional<std::int64_t> value = valueOf(each, known);
        const auto one = value ? fractionOf(each.divides ? 1 : *value, each.divides ? *value : 1) : std::nullopt;
        result = result && one ? product(*result, *one) : std::nullopt;
    }
    return result;
}

} // namespace kest::contents
