#include "tests/tools/seeprom_support.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <utility>

namespace kest::test
{

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
