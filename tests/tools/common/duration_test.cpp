#include "tools/common/duration.h"

#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "tests/tools/complaint.h"

namespace kest::tools
{
namespace
{

using test::complaint;

TEST(Durations, TakeUnits)
{
    const std::vector<std::pair<const char*, std::uint64_t>> rows{
        {"0", 0},
        {"0s", 0},
        {"1ns", 1},
        {"7us", 7'000},
        {"500ms", 500'000'000},
        {"2s", 2'000'000'000},
        {"1.5s", 1'500'000'000},
        {".5s", 500'000'000},
        {"5.s", 5'000'000'000},
        {"0.25ms", 250'000},
        {"5min", 300'000'000'000},
        {"5m", 300'000'000'000},
        {"1.5min", 90'000'000'000},
        {"2h", 7'200'000'000'000},
        {"1d", 86'400'000'000'000},
        {"0.0000000019s", 1},
        {"007ms", 7'000'000},
        {"1.00000000000000000000000000001s", 1'000'000'000},
    };
    for (const auto& [text, nanoseconds] : rows) {
        EXPECT_EQ(nanoseconds, parseDuration(text, "--wait")) << text;
    }
}

TEST(Durations, OfANumberAloneHaveTheUsualUnit)
{
    EXPECT_EQ(30'000'000'000U, parseDuration("30", "--wait"));
    EXPECT_EQ(500'000'000U, parseDuration("0.5", "--wait"));
    EXPECT_EQ(15'000'000U, parseDuration("15", "--write-cycle", {.plainNs = 1'000'000}));
    EXPECT_EQ(15'000'000'000U, parseDuration("15s", "--write-cycle", {.plainNs = 1'000'000}));
    EXPECT_EQ("2 --since '90': expected a time such as 500ms, 2s or 5min",
              complaint([] { static_cast<void>(parseDuration("90", "--since", {.plainNs = 0})); }));
}

TEST(Durations, ThatAreNoneAreRefused)
{
    for (const char* text : {"",
                             "s",
                             ".",
                             ".s",
                             "-1",
                             "-1s",
                             "+1s",
                             "1 s",
                             " 1s",
                             "1s ",
                             "1sec",
                             "1S",
                             "1M",
                             "1MS",
                             "2s3",
                             "1.2.3s",
                             "1e3s",
                             "nan",
                             "inf",
                             "0x10s",
                             "soon",
                             "1,5s",
                             "18446744073709551616ns",
                             "99999999999999999999d"}) {
        EXPECT_EQ("2 --wait '" + std::string(text) +
                      "': expected a time such as 500ms, 2s or 5min; a number alone means seconds",
                  complaint([&] { static_cast<void>(parseDuration(text, "--wait")); }));
    }
    EXPECT_EQ("2 --write-cycle 'long': expected a time such as 500ms, 2s or 5min; a number alone means milliseconds",
              complaint([] { static_cast<void>(parseDuration("long", "--write-cycle", {.plainNs = 1'000'000})); }));
}

TEST(Durations, OutOfTheirLimitsAreRefused)
{
    for (const char* text : {"86401", "25h", "1441min", "18446744073709551615ns"}) {
        EXPECT_EQ("2 --wait '" + std::string(text) + "': expected 0 to 1d",
                  complaint([&] { static_cast<void>(parseDuration(text, "--wait")); }));
    }
    EXPECT_EQ("2 --lasts-ms '0': expected 1ms to 1h", complaint([] {
                  static_cast<void>(parseDuration(
                      "0", "--lasts-ms", {.plainNs = 1'000'000, .leastNs = 1'000'000, .mostNs = 3'600'000'000'000}));
              }));
}

TEST(Durations, AreShownInTheLargestUnitThatFits)
{
    EXPECT_EQ("0", durationText(0));
    EXPECT_EQ("1500ms", durationText(1'500'000'000));
    EXPECT_EQ("5min", durationText(300'000'000'000));
    EXPECT_EQ("25h", durationText(90'000'000'000'000));
    EXPECT_EQ("2d", durationText(172'800'000'000'000));
    EXPECT_EQ("18446744073709551615ns", durationText(18446744073709551615U));
}

} // namespace
} // namespace kest::tools
