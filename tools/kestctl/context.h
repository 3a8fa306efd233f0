/// kestctl: what all areas share.
///
/// An area ("seeprom", "port", ...) is a header and a source. The header declares one function, which adds the area to
/// the command line; the table in `main.cpp` names it:
///     void addPort(command program, context& shared);
/// The source has the options of each verb as a plain struct, what the verb does, and the names of its options. A
/// verb prints through standardOutput(), text or JSON by `context.json`, returns an exit code, and throws a `failure`
/// (tools/common/failure.h) when it ends early; entries of the library go through throwEntry(), which commits them.
/// Tests run the program: tests/tools/kestctl_AREA_test.cpp.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

namespace kest::tools
{

struct context {
    bool json = false; ///< --json
    std::optional<std::uint64_t> timeoutNs; ///< --timeout; 0 and none: no end
    bool retries = true; ///< transactions that failed for a passing reason are sent again
    /// The verb itself ends in that time.
    bool timesItself = false;
    /// What the command line asked for; set while it is parsed.
    std::function<int()> action;
    /// The command works without a usable configuration.
    bool needsConfiguration = true;
};

} // namespace kest::tools
