#include "platform/host/iic/detection.h"

#include <algorithm>
#include <array>

#include "platform/host/iic/conversation.h"

namespace kest::host::iic
{
namespace
{

struct stateRow {
    outcome end;
    mern_detect_state state;
};
constexpr std::array states{
    stateRow{.end = outcome::done, .state = MERN_DETECT_PRESENT},
    stateRow{.end = outcome::addressNotAcknowledged, .state = MERN_DETECT_ABSENT},
    stateRow{.end = outcome::sclHeld, .state = MERN_DETECT_SCL_HELD},
    stateRow{.end = outcome::sdaHeld, .state = MERN_DETECT_SDA_HELD},
};

} // namespace

mern_detect_state detectDevice(bus& wires, const transferSettings& settings, transactionHistory& history)
{
    conversation talk(wires, settings, history);
    const outcome end = talk.askUntilAnswered(waiting::start);
    const auto* const row = std::ranges::find(states, end, &stateRow::end);
    return row == states.end() ? MERN_DETECT_UNCERTAIN : row->state;
}

} // namespace kest::host::iic
