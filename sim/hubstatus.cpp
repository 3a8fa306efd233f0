#include "sim/hubstatus.h"

#include <algorithm>
#include <array>

namespace kest::sim
{

namespace
{

struct statusText {
    hubStatus status;
    const char* text;
};
constexpr std::array statusTexts{
    statusText{hubStatus::done, "done"},
    statusText{hubStatus::malformedCommand, "malformed command"},
    statusText{hubStatus::noAnswer, "device did not answer"},
    statusText{hubStatus::subBusSdaHeld, "sub-bus SDA held"},
    statusText{hubStatus::subBusSclHeld, "sub-bus SCL held"},
    statusText{hubStatus::arbitrationLost, "arbitration lost"},
    statusText{hubStatus::subBusTimeout, "sub-bus time-out"},
    statusText{hubStatus::noSuchPort, "no such port"},
    statusText{hubStatus::tooLong, "transfer too long"},
    statusText{hubStatus::outOfReset, "out of reset"},
};
// the hub's own faults come after the last status of a transfer, and end before this one
constexpr hubStatus firstUnknown{12};

} // namespace

const char* textOf(hubStatus status)
{
    const auto* const found = std::ranges::find(statusTexts, status, &statusText::status);
    if (found != statusTexts.end()) {
        return found->text;
    }
    return status < firstUnknown ? "hub hardware fault" : "unknown";
}

} // namespace kest::sim
