/// What the host platform says of itself to kest_platform_check, on the demo machine with a copy of `power-vpd`.
#include "base/hex.h"
#include "platform/check.h"
#include "platform/host/errorlog/store.h"

namespace
{

std::string committedText(std::uint32_t logId)
{
    std::string text;
    for (const kest::host::loggedEntry& entry : kest::host::listEntries({.plid = logId}).entries) {
        text += "entry\n";
        for (const auto& trace : entry.traces) {
            text += trace.text;
        }
        for (const auto& details : entry.userDetails) {
            text += kest::hexDigits(details.bytes);
            text += '\n';
        }
    }
    return text;
}

} // namespace

kest_checkedPort kest_describePort()
{
    kest_checkedPort port;
    port.memory = {.path = "sim:planar",
                   .text = "sim:planar,L,2C0032,A8",
                   .address = 0xA8,
                   .offsetLength = 2,
                   .pageSize = 32,
                   .size = 4096};
    port.silentAddress = 0xAC;
    port.silentText = "sim:planar,L,2C0032,AC";
    port.expanderText = "sim:planar,L,9554,42";
    port.expanderAddress = 0x42;
    port.missingPath = "sim:nowhere";
    port.missingNode = 7;
    port.keepsFirstFailures = true;
    port.registryKey = "tavo/ReadMode";
    port.registryValue = "HWareMode";
    port.hasCopy = true;
    port.copyNumber = 0xD004;
    port.location = "sim:planar,L,2C0032,A8";
    port.locatedNumber = 0xD004;
    port.hasMissingNumber = true;
    port.missingNumber = 0xDEAD;
    port.committedText = committedText;
    return port;
}
