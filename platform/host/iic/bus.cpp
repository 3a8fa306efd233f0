#include "platform/host/iic/bus.h"

#include <array>
#include <cerrno>

namespace kest::host::iic
{
namespace
{

struct outcomeRow {
    outcome end;
    int error;
    const char* name;
};

constexpr std::array outcomes{
    outcomeRow{outcome::done, 0, "done"},
    outcomeRow{outcome::addressNotAcknowledged, ENXIO, "address not acknowledged"},
    outcomeRow{outcome::dataNotAcknowledged, EIO, "data not acknowledged"},
    outcomeRow{outcome::notAcknowledged, ENXIO, "not acknowledged"},
    outcomeRow{outcome::arbitrationLost, EIO, "arbitration lost"},
    outcomeRow{outcome::interrupted, EIO, "interrupted"},
    outcomeRow{outcome::sclHeld, ETIME, "SCL held"},
    outcomeRow{outcome::sdaHeld, ETIME, "SDA held"},
    outcomeRow{outcome::busBusy, ETIME, "bus busy"},
    outcomeRow{outcome::timedOut, ETIME, "timed out"},
    outcomeRow{outcome::shortTransfer, EIO, "short"},
    outcomeRow{outcome::gone, ENODEV, "bus gone"},
    outcomeRow{outcome::notSupported, ENOSYS, "not supported"},
    outcomeRow{outcome::tooLong, ENOSYS, "too long for the adapter"},
    outcomeRow{outcome::notPermitted, EACCES, "not permitted"},
    outcomeRow{outcome::noMemory, ENOMEM, "no memory"},
    outcomeRow{outcome::failed, EIO, "failed"},
};

constexpr bool inOrder()
{
    for (std::size_t index = 0; index < outcomes.size(); ++index) {
        if (static_cast<std::size_t>(outcomes[index].end) != index) {
            return false;
        }
    }
    return true;
}
static_assert(inOrder(), "rows are found by their place");

} // namespace

int errnoOf(outcome end) { return outcomes.at(static_cast<std::size_t>(end)).error; }

bool isShortage(int error) { return error == ENOMEM || error == EMFILE || error == ENFILE; }

const char* nameOf(outcome end) { return outcomes.at(static_cast<std::size_t>(end)).name; }

} // namespace kest::host::iic
