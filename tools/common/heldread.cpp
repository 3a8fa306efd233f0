#include "tools/common/heldread.h"

#include "tools/common/interrupt.h"

namespace kest::tools
{

byteVector readHeld(seeprom& chip, const byteRange& range, const std::string& step, const operationRequest& request)
{
    const deviceOperation held(chip.touchesHardware() ? std::vector{chip.target()} : std::vector<device>{}, request);
    byteVector bytes = chip.read(range, step);
    throwIfInterrupted(chip.target().label, step);
    return bytes;
}

} // namespace kest::tools
