#include "tools/common/device.h"

#include <gtest/gtest.h>

#include "tests/tools/complaint.h"
#include "tools/common/devicetext.h"

namespace kest::tools
{
namespace
{

using test::complaint;

TEST(Devices, UnservedChainsAreRefused)
{
    const auto refusal = [](const std::string& text) {
        return complaint([&text] { refuseUnservedChain(parseDeviceText(text)); });
    };
    EXPECT_EQ("2 no transfer goes through an F0 hub", refusal("sim:p,L,F0,70,1,2C0256,A0"));
    EXPECT_EQ("2 no transfer goes through an F0 hub", refusal("sim:p,L,F0,70,1,922,80,3,2C0256,A0"));
    EXPECT_EQ("2 a PCA9552 can't be reached behind a 922 hub, which passes SEEPROM transfers on and nothing else",
              refusal("sim:p,L,922,80,3,9552,C0"));
    EXPECT_EQ("2 an LM75 can't be reached behind a 922 hub, which passes SEEPROM transfers on and nothing else",
              refusal("sim:p,L,922,80,3,75,90"));
    EXPECT_EQ("2 a 172 device can't be reached behind a 922 hub, which passes SEEPROM transfers on and nothing else",
              refusal("sim:p,L,922,80,3,172,A0"));
    EXPECT_EQ("", refusal("sim:p,L,922,80,3,2C0128,A2"));
    EXPECT_EQ("", refusal("sim:p,L,172,A0"));
}

} // namespace
} // namespace kest::tools
