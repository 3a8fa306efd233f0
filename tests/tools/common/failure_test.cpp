#include "tools/common/failure.h"

#include <gtest/gtest.h>

namespace kest::tools
{
namespace
{

TEST(Failures, AreOneLine)
{
    EXPECT_EQ("kestctl: planar-vpd: detect: nothing answers; check power [log 0x50000012]",
              failureLine("kestctl", {.code = exitAbsent,
                                      .what = "nothing answers",
                                      .tryThis = "check power",
                                      .device = "planar-vpd",
                                      .step = "detect",
                                      .logId = 0x50000012}));
    EXPECT_EQ("kestctl: x\\x0Ay: bad", failureLine("kestctl", {.code = exitFailed, .what = "bad", .device = "x\ny"}));
}

} // namespace
} // namespace kest::tools
