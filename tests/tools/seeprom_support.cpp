#include "tests/tools/seeprom_support.h"

#include <algorithm>
#include <cstdint>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <utility>

namespace kest::test
{

std::string variedBytes(std::size_t length)
{
    std::string bytes;
    // linear congruence of 32 bits
    std::uint32_t state = 1;
    for (std::size_t at = 0; at < length; ++at) {
        state = state * 1664525U + 1013904223U;
        bytes += static_cast<char>(state >> 24);
    }
    return bytes;
}

std::string SeepromTest::complaint(int exit, std::vector<std::string> arguments, RunOptions options) const
{
    const std::string command = testing::PrintToString(arguments);
    const RunResult result = kestctl(std::move(arguments), std::move(options));
    EXPECT_EQ(exit, result.exit) << command << result.errors;
    EXPECT_THAT(result.errors, testing::StartsWith("kestctl: ")) << command;
    EXPECT_EQ(1, std::ranges::count(result.errors, '\n')) << result.errors;
    return result.errors.size() < 10 ? "" : result.errors.substr(9, result.errors.size() - 10);
}

} // namespace kest::test
