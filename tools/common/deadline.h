/// An end to a whole command, however long its parts take.
#pragma once

#include <cstdint>
#include <string>

namespace kest::tools
{

/// What a process says when it ends at once.
struct lastReport {
    std::string errorText; ///< on standard error
    std::string outputText; ///< on standard output, unless beginsOutput() was called
};

/// Ends the process's work when a time has passed, by SIGALRM. Where signals are watched (interruptWatch), it counts as
/// any other: nothing is cut off in the middle, and the command says what is done. Elsewhere the process gives its
/// report, as far as that needs no wait and at most PIPE_BUF bytes of each text, and ends with exit code 1. A child
/// process has no such end; its parent passes the signal on. To be called once, by a process of one thread.
/// @return 0 or an errno
[[nodiscard]] int endAfter(std::uint64_t nanoseconds, const lastReport& report);

/// Whether endAfter() was called, here or in the parent: SIGALRM is its signal then.
[[nodiscard]] bool endsInTime();

/// Results go to standard output from now on: no report comes in the middle of them.
void beginsOutput();

} // namespace kest::tools
