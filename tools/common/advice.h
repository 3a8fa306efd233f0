/// What an `errno` of the IIC layer or the system means to the user of a program.
#pragma once

#include <string>

#include "tools/common/devicetext.h"
#include "tools/common/failure.h"

namespace kest::tools
{

struct errnoAdvice {
    exitCode code;
    std::string what;
    std::string tryThis;
};
/// @param bus  on which it happened; hints name it. A simulated bus is examined for what is wrong with it
[[nodiscard]] errnoAdvice adviceFor(int error, const busName& bus);

/// "adapter: SMBus calls only, with at most 32 bytes; ...": what the adapter of a bus lacks. Empty when nothing is
/// known.
[[nodiscard]] std::string adapterText(const busName& bus);

/// Puts the bus in the place of the word BUS at the end of commands: "'kestctl scan BUS' shows ...".
void nameBus(std::string& advice, const busName& bus);

} // namespace kest::tools
