/// What the numbers of an error entry mean, in a few words. docs/error-codes.md has more.
#pragma once

#include <cstdint>
#include <string>

namespace kest::tools
{

/// @return "" for a reason that is not known
[[nodiscard]] const char* reasonText(std::uint32_t reason);
/// What a module number of a component (base/component.h) stands for; "" when it is not known.
[[nodiscard]] const char* moduleText(std::uint32_t component, std::uint32_t module);
[[nodiscard]] const char* subsystemText(std::uint32_t subsystem);
[[nodiscard]] const char* severityText(std::uint32_t severity);
[[nodiscard]] const char* procedureText(std::uint32_t procedure);
/// What a component's block of user details is; "" when it is not known.
[[nodiscard]] const char* subsectionText(std::uint32_t component, std::uint8_t subsection);

} // namespace kest::tools
