#include "tools/common/when.h"

#include <gtest/gtest.h>
#include <string>

#include "tests/tools/complaint.h"

namespace kest::tools
{
namespace
{

using test::complaint;

TEST(Times, AreUtc)
{
    EXPECT_EQ("1970-01-01T00:00:00.000Z", timeText(0));
    EXPECT_EQ("2024-02-29T12:34:56.789Z", timeText(1709210096789));
    EXPECT_EQ("1969-12-31T23:59:59.999Z", timeText(-1));
    EXPECT_EQ(1709164800000, parseTime("2024-02-29", "--since"));
    EXPECT_EQ(1709210096000, parseTime("2024-02-29T12:34:56Z", "--since"));
    for (const char* text : {"2024-02-30", "2023-02-29T00:00:00Z", "2024-04-31T12:00", "2024-05-01T12:00:60Z"}) {
        EXPECT_NE("", complaint([text] { static_cast<void>(parseTime(text, "--since")); })) << text;
    }
    EXPECT_NEAR(static_cast<double>(nowMs() - 7'200'000), static_cast<double>(parseTime("2h", "--since")), 60'000);
    EXPECT_EQ("2 --since 'soon': expected a time such as 2024-05-01, 2024-05-01T12:00:00Z, 90s, 15m, 2h or 7d",
              complaint([] { static_cast<void>(parseTime("soon", "--since")); }));
}

} // namespace
} // namespace kest::tools
