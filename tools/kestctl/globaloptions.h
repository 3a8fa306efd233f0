/// The options that every verb takes.
#pragma once

#include "tools/common/command.h"
#include "tools/kestctl/context.h"

namespace kest::tools
{

/// Adds them to the program.
void addGlobalOptions(command program, context& shared);

/// Puts into force what the command line says, and the defaults of the configuration for the rest; the time of
/// --timeout begins. To be called once, behind the parsing. Throws a `failure` when there is no timer.
void useGlobalOptions(context& shared);

} // namespace kest::tools
