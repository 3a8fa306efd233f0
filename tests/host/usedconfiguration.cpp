#include "tests/host/usedconfiguration.h"

#include <cstdlib>
#include <gtest/gtest.h>

#include "platform/host/configuration/configuration.h"

namespace kest::test
{
namespace
{

constexpr const char* variable = "KEST_CONFIG";

} // namespace

UsedConfiguration::UsedConfiguration(const std::filesystem::path& file)
{
    if (const char* before = std::getenv(variable)) {
        m_before = before;
    }
    setenv(variable, file.c_str(), 1);
    EXPECT_EQ("", host::reloadConfiguration());
}

UsedConfiguration::~UsedConfiguration()
{
    if (m_before) {
        setenv(variable, m_before->c_str(), 1);
    } else {
        unsetenv(variable);
    }
    host::reloadConfiguration();
}

} // namespace kest::test
