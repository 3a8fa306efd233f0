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
    const auto fine = scaled(static_cast<std::int8_t>(block[field.fine.at]), field.fine.by, known);
    return fine ? sum(*coarse, *fine) : std::nullopt;
}

} // namespace kest::contents
