#include "tools/common/attributes.h"

#include <algorithm>
#include <cstring>

#include "platform/errl.h"

namespace kest::tools
{

attributeRecord hardwareAttributes(std::uint32_t speedKhz)
{
    attributeRecord record{};
    for (int id = 0; id < KEST_ATTR_COUNT; ++id) {
        delete KEST_setAttribute(static_cast<kest_attribute>(id), 0,
                                 // 0 puts the default there, and can't fail
                                 record.data());
    }
    record[KEST_ATTR_READ_MODE] = readModeHardware;
    if (speedKhz != 0) {
        record[KEST_ATTR_BUS_SPEED] = speedKhz;
    }
    return record;
}

tavo_deviceaddress tavoAddress(const device& which)
{
    tavo_deviceaddress address{.number = which.number, .location = {}};
    std::memcpy(static_cast<char*>(address.location), which.text.data(),
                std::min(which.text.size(), sizeof address.location - 1));
    return address;
}

} // namespace kest::tools
