/// The numbers that have been read so far, by the last part of their names. Rows refer to them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "contents/table.h"

namespace kest::contents
{

class knownFields
{
public:
    void remember(std::string_view name, std::uint64_t raw) { m_fields.emplace_back(name, raw); }
    /// The value read last by this name.
    [[nodiscard]] std::optional<std::uint64_t> find(std::string_view name) const;
    [[nodiscard]] bool holds(const condition& rule) const;
    /// How many there are, for forgetSince().
    [[nodiscard]] std::size_t count() const { return m_fields.size(); }
    void forgetSince(std::size_t count) { m_fields.resize(count); }

private:
    std::vector<std::pair<std::string_view, std::uint64_t>> m_fields;
};

} // namespace kest::contents
