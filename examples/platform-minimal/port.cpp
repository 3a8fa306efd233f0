/// What this platform says of itself to kest_platform_check.
#include "minimal.h"
#include "platform/check.h"

kest_checkedPort kest_describePort()
{
    kest_checkedPort port;
    port.memory = {
        .path = "mem:0", .text = "mem:0,L,2C0032,A8", .address = 0xA8, .offsetLength = 2, .pageSize = 32, .size = 4096};
    port.silentAddress = 0xAA;
    port.silentText = "mem:0,L,2C0032,AA";
    port.expanderText = "mem:0,L,9554,40";
    port.expanderAddress = 0x40;
    port.missingPath = "mem:1";
    port.missingNode = 7;
    port.keepsFirstFailures = true;
    port.registryKey = "tavo/ReadMode";
    port.registryValue = "HWareMode";
    port.hasCopy = true;
    port.copyNumber = 0xD004;
    port.location = "mem:0,L,2C0032,A8";
    port.locatedNumber = 0xD004;
    port.hasMissingNumber = true;
    port.missingNumber = 0xDEAD;
    port.committedText = minimal::committedText;
    return port;
}
