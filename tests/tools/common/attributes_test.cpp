#include "tools/common/attributes.h"

#include <gtest/gtest.h>

#include "tools/common/devicetext.h"

namespace kest::tools
{
namespace
{

TEST(Attributes, AreTheDefaultsWithHardwareMode)
{
    EXPECT_EQ((attributeRecord{400, 1, 15, 4, 2, 1}), hardwareAttributes());
    EXPECT_EQ((attributeRecord{100, 1, 15, 4, 2, 1}), hardwareAttributes(100));
}

TEST(Attributes, AddressCarriesNumberAndText)
{
    device which = parseDeviceText("sim:p,L,2C0256,A0");
    which.number = 0xD001;
    const tavo_deviceaddress address = tavoAddress(which);
    EXPECT_EQ(0xD001U, address.number);
    EXPECT_STREQ("sim:p,L,2C0256,A0", static_cast<const char*>(address.location));
}

} // namespace
} // namespace kest::tools
