/// What a user wants of every command, whatever it does.
#pragma once

#include <cstdint>

namespace kest::tools
{

enum class colourChoice : std::uint8_t {
    automatic, ///< on a terminal that takes it
    always,
    never,
};

/// Set once, before a command begins its work.
struct preferences {
    bool quiet = false; ///< results and failures alone: no progress, no notes
    unsigned verbose = 0; ///< 1: what is done on the bus is shown; 2: every repeat and all bytes, too
    colourChoice colour = colourChoice::automatic;
    bool dryRun = false; ///< nothing is changed: the command says what it would do
};

/// The process's preferences.
[[nodiscard]] preferences& preferred();

} // namespace kest::tools
