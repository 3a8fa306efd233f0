/// What the numbers of an error entry mean, in a few words. docs/error-codes.md has more.
#pragma once

#include <cstdint>
#include <string>

namespace kest::tools
{

/// @return "" for a reason that is not known
[[nodiscard]] const char* reasonText(std::uint32_t reason);
/// What a module number stands for, of which each component has its own: 0x1300 library, 0x1400 VPD service, 0x1500
/// registry, 0x1600 kestd, 0x1700 kestctl; "" when it is not known.
[[nodiscard]] const char* moduleText(std::uint32_t component, std::uint32_t module);
[[nodiscard]] const char* subsystemText(std::uint32_t subsystem);
[[nodiscard]] const char* severityText(std::uint32_t severity);
[[nodiscard]] const char* procedureText(std::uint32_t procedure);
/// What a component's block of user details is; "" when it is not known.
[[nodiscard]] const char* subsectionText(std::uint32_t component, std::uint8_t subsection);

} // namespace kest::tools
