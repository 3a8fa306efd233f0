#include "contents/knownfields.h"

#include <algorithm>

namespace kest::contents
{

std::optional<std::uint64_t> knownFields::find(std::string_view name) const
{
    const auto found =
        std::find_if(m_fields.rbegin(), m_fields.rend(), [&](const auto& field) { return field.first == name; });
    return found == m_fields.rend() ? std::nullopt : std::optional(found->second);
}

bool knownFields::holds(const condition& rule) const
{
    if (rule.field.empty()) {
        return true;
    }
    const std::optional<std::uint64_t> raw = find(rule.field);
    if (!raw) {
        return false;
    }
    constexpr std::uint64_t most = 63;
    const std::uint64_t value = *raw & rule.mask;
    const bool inSet = rule.oneOf == 0 || (value <= most && ((rule.oneOf >> value) & 1) == 1);
    return value >= rule.least && value <= rule.most && inSet;
}

} // namespace kest::contents
