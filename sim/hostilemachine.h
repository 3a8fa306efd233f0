/// The machine of a hostile bench, for software that has to leave the laboratory.
#pragma once

namespace kest::sim
{

/// Its machine.toml.
extern const char* const hostileMachineText;

} // namespace kest::sim
