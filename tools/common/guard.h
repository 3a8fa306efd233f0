/// Runs a command and reports how it ends.
#pragma once

#include <functional>
#include <string>

#include "tools/common/failure.h"
#include "tools/common/json.h"

namespace kest::tools
{

/// The value of an "error" field.
[[nodiscard]] jsonValue errorJson(const failure& why);

/// Runs `action` and turns what it throws into one line on standard error (and with `json` also an "error" object on
/// standard output) and an exit code. Also makes sure that everything written to standard output arrived.
/// @param json  read after the action, since the command line is parsed within it
int runGuarded(const std::string& program, const bool& json, const std::function<int()>& action);

} // namespace kest::tools
