#include "tools/common/presence.h"

#include "kest/detect.h"
#include "kest/seeprom.h"
#include "tools/common/attributes.h"
#include "tools/common/buffer.h"
#include "tools/common/device.h"
#include "tools/common/entryfailure.h"

namespace kest::tools
{
namespace
{

ErrlEntry* readOneByte(const device& which, std::uint32_t speedKhz)
{
    const attributeRecord attributes = hardwareAttributes(speedKhz);
    unsigned length = 1;
    unsigned char* data = nullptr;
    ErrlEntry* entry = KEST_seepromRead(tavoAddress(which), nullptr, 0, &length, &data, attributes.data());
    const tavoBuffer buffer(data);
    return entry;
}

ErrlEntry* detect(const device& which, std::uint32_t speedKhz)
{
    const attributeRecord attributes = hardwareAttributes(speedKhz);
    return KEST_detectDevice(detectionText(which).c_str(), speedKhz == 0 ? nullptr : attributes.data());
}

} // namespace

void checkPresence(const device& which, std::uint32_t speedKhz)
{
    refuseUnservedChain(which);
    device asked = which;
    asked.speedKhz = which.behindHub() && speedKhz == 0 ? libraryKhz : speedKhz;
    throwEntry(which.behindHub() ? readOneByte(which, speedKhz) : detect(which, speedKhz), asked, "detect");
}

} // namespace kest::tools
