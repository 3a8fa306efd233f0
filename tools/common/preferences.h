/// What a user wants of every command, whatever it does.
#pragma once

#include <cstdint>

namespace kest::tools
{

/// Set once, before a command begins its work.
struct preferences {
    bool quiet = false; ///< results and failures alone: no progress, no notes
    bool dryRun = false; ///< nothing is changed: the command says what it would do
};

/// The process's preferences.
[[nodiscard]] preferences& preferred();

} // namespace kest::tools
