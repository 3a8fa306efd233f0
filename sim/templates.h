/// The machines that a user can start from.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace kest::sim
{

struct machineTemplate {
    std::string_view name;
    std::string_view about; ///< a few words for people
    std::string (*text)(); ///< makes its machine.toml
};

/// The first is the one that a user gets who names none.
std::span<const machineTemplate> machineTemplates();

} // namespace kest::sim
