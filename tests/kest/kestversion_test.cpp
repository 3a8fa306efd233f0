#include "kest/version.h"

#include <string>

#include <gtest/gtest.h>

namespace
{

TEST(Version, OfTheLibraryIsThatOfTheBuild) { EXPECT_STREQ(KEST_PROJECT_VERSION, kest_version()); }

TEST(Version, OfTheHeadersIsThatOfTheBuild) { EXPECT_STREQ(KEST_PROJECT_VERSION, KEST_VERSION); }

TEST(Version, HasItsPartsAsNumbers)
{
    EXPECT_EQ(std::string(KEST_VERSION), std::to_string(KEST_VERSION_MAJOR) + "." + std::to_string(KEST_VERSION_MINOR) +
                                             "." + std::to_string(KEST_VERSION_PATCH));
}

} // namespace
