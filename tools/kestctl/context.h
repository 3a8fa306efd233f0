/// kestctl: what its areas share, and how to add one.
///
/// An area ("seeprom", "port", ...) is a header and a source: `port.h` declares a plain struct of options for each verb
/// and
///     int runPortRead(const context&, const portReadOptions&);
/// `port.cpp` defines it. It knows nothing of the command-line library. It prints through standardOutput(), text or JSON by
/// `context.json`, returns an exit code, and throws a `failure` (tools/common/failure.h) when it ends early; entries of the library go
/// through throwEntry(), which commits them.
/// `commands.cpp` (or another source with the same few includes) says how its options are spelled:
///     void addPort(CLI::App& app, context& context);
/// and the table in `main.cpp` names that function. Compiling the option parser takes long: keep it to these sources.
/// Tests run the program: tests/tools/kestctl_AREA_test.cpp.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "kest/address.h"

namespace kest::tools
{

/// What holds for the whole command.
struct context {
    bool json = false; ///< --json
    /// What the command line asked for; set while it is parsed.
    std::function<int()> action;
    /// The command works without a usable configuration.
    bool needsConfiguration = true;
};

} // namespace kest::tools
