/// Every exported name can be used with namespace kest and without, and means the same. One header declares all of
/// them.
#include "kest/kest.h"

#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace
{

static_assert(std::is_same_v<::kest_deviceType, kest::kest_deviceType>);
static_assert(std::is_same_v<::kest_deviceAddress, kest::kest_deviceAddress>);
static_assert(std::is_same_v<::kest_attribute, kest::kest_attribute>);
static_assert(std::is_same_v<::kest_attributeValue, kest::kest_attributeValue>);
static_assert(std::is_same_v<::kest_dpConfig, kest::kest_dpConfig>);
static_assert(std::is_same_v<::kest_dpOperation, kest::kest_dpOperation>);
static_assert(std::is_same_v<::KEST_thermal_sensor_info, kest::KEST_thermal_sensor_info>);

TEST(KestNames, FunctionsHaveBothSpellings)
{
    EXPECT_EQ(&::KEST_addDevAddress, &kest::KEST_addDevAddress);
    EXPECT_EQ(&::KEST_deleteDevAddress, &kest::KEST_deleteDevAddress);
    EXPECT_EQ(&::KEST_flattenAddressList, &kest::KEST_flattenAddressList);
    EXPECT_EQ(&::KEST_unflattenAddressList, &kest::KEST_unflattenAddressList);
    EXPECT_EQ(&::KEST_reflattenAddressList, &kest::KEST_reflattenAddressList);
    EXPECT_EQ(&::kest_checkAddressList, &kest::kest_checkAddressList);
    EXPECT_EQ(&::KEST_setAttribute, &kest::KEST_setAttribute);
    EXPECT_EQ(&::KEST_dpConfig, &kest::KEST_dpConfig);
    EXPECT_EQ(&::KEST_dpWrite, &kest::KEST_dpWrite);
    EXPECT_EQ(&::KEST_dpRead, &kest::KEST_dpRead);
    EXPECT_EQ(&::KEST_detectDevice, &kest::KEST_detectDevice);
    EXPECT_EQ(&::kestProcessMsg, &kest::kestProcessMsg);
    EXPECT_EQ(&::KEST_seepromRead, &kest::KEST_seepromRead);
    EXPECT_EQ(&::KEST_seepromWrite, &kest::KEST_seepromWrite);
    EXPECT_EQ(&::KEST_miscLowHexNibbleToChar, &kest::KEST_miscLowHexNibbleToChar);
    EXPECT_EQ(&::KEST_miscUnpack, &kest::KEST_miscUnpack);
    EXPECT_EQ(&::KEST_miscPutText, &kest::KEST_miscPutText);
    EXPECT_EQ(&::KEST_miscFmtAndDump, &kest::KEST_miscFmtAndDump);
    EXPECT_EQ(&::KEST_convert_str_to_MernNodeId, &kest::KEST_convert_str_to_MernNodeId);
    EXPECT_EQ(&::KEST_thermal_sensor_read_temperature_data, &kest::KEST_thermal_sensor_read_temperature_data);
}

template <class Value>
using Spellings = std::vector<std::pair<Value, Value>>;

TEST(KestNames, DeviceTypesHaveBothSpellings)
{
    const Spellings<kest_deviceType> types{{::KEST_DEV_HUB_F0, kest::KEST_DEV_HUB_F0},
                                           {::KEST_DEV_922HUB, kest::KEST_DEV_922HUB},
                                           {::KEST_DEV_SEEPROM_2K, kest::KEST_DEV_SEEPROM_2K},
                                           {::KEST_DEV_SEEPROM_32K, kest::KEST_DEV_SEEPROM_32K},
                                           {::KEST_DEV_SEEPROM_64K, kest::KEST_DEV_SEEPROM_64K},
                                           {::KEST_DEV_SEEPROM_128K, kest::KEST_DEV_SEEPROM_128K},
                                           {::KEST_DEV_SEEPROM_256K, kest::KEST_DEV_SEEPROM_256K},
                                           {::KEST_DEV_SEEPROM_512K, kest::KEST_DEV_SEEPROM_512K},
                                           {::KEST_DEV_9551, kest::KEST_DEV_9551},
                                           {::KEST_DEV_9552, kest::KEST_DEV_9552},
                                           {::KEST_DEV_9554, kest::KEST_DEV_9554},
                                           {::KEST_DEV_9555, kest::KEST_DEV_9555},
                                           {::KEST_DEV_D10, kest::KEST_DEV_D10},
                                           {::KEST_DEV_75, kest::KEST_DEV_75},
                                           {::KEST_DEV_92, kest::KEST_DEV_92},
                                           {::KEST_DEV_172, kest::KEST_DEV_172}};
    for (const auto& [global, qualified] : types) {
        EXPECT_EQ(global, qualified);
    }
}

TEST(KestNames, AttributesHaveBothSpellings)
{
    const Spellings<kest_attribute> attributes{{::KEST_ATTR_BUS_SPEED, kest::KEST_ATTR_BUS_SPEED},
                                               {::KEST_ATTR_OPTION, kest::KEST_ATTR_OPTION},
                                               {::KEST_ATTR_WRITE_CYCLE, kest::KEST_ATTR_WRITE_CYCLE},
                                               {::KEST_ATTR_READ_MODE, kest::KEST_ATTR_READ_MODE},
                                               {::KEST_ATTR_TIMEOUT_FACTOR, kest::KEST_ATTR_TIMEOUT_FACTOR},
                                               {::KEST_ATTR_TRANSFER_MODE, kest::KEST_ATTR_TRANSFER_MODE}};
    for (const auto& [global, qualified] : attributes) {
        EXPECT_EQ(global, qualified);
    }
    EXPECT_EQ(6, ::KEST_ATTR_COUNT);
    EXPECT_EQ(6, kest::KEST_ATTR_COUNT);
}

TEST(KestNames, DataPortNumbersHaveBothSpellings)
{
    const Spellings<kest_dpConfig> configs{{::KEST_DP_CONFIG_INPUT, kest::KEST_DP_CONFIG_INPUT},
                                           {::KEST_DP_CONFIG_OUTPUT, kest::KEST_DP_CONFIG_OUTPUT},
                                           {::KEST_DP_CONFIG_PRESCALER0, kest::KEST_DP_CONFIG_PRESCALER0},
                                           {::KEST_DP_CONFIG_DUTY0, kest::KEST_DP_CONFIG_DUTY0},
                                           {::KEST_DP_CONFIG_PRESCALER1, kest::KEST_DP_CONFIG_PRESCALER1},
                                           {::KEST_DP_CONFIG_DUTY1, kest::KEST_DP_CONFIG_DUTY1},
                                           {::KEST_DP_CONFIG_POLARITY0, kest::KEST_DP_CONFIG_POLARITY0},
                                           {::KEST_DP_CONFIG_POLARITY1, kest::KEST_DP_CONFIG_POLARITY1}};
    // in the order of their numbers, from 0
    for (unsigned number = 0; number < configs.size(); ++number) {
        EXPECT_EQ(number, configs[number].first);
        EXPECT_EQ(number, configs[number].second);
    }
    const Spellings<kest_dpOperation> operations{{::KEST_DP_SELECT_00, kest::KEST_DP_SELECT_00},
                                                 {::KEST_DP_SELECT_01, kest::KEST_DP_SELECT_01},
                                                 {::KEST_DP_COPY, kest::KEST_DP_COPY},
                                                 {::KEST_DP_SELECT_10, kest::KEST_DP_SELECT_10},
                                                 {::KEST_DP_SELECT_11, kest::KEST_DP_SELECT_11}};
    for (unsigned number = 0; number < operations.size(); ++number) {
        EXPECT_EQ(number, operations[number].first);
        EXPECT_EQ(number, operations[number].second);
    }
}

TEST(KestNames, ThermalMarksHaveBothSpellings)
{
    EXPECT_EQ(0xAA, ::KEST_THERMAL_INVALID);
    EXPECT_EQ(0xAA, kest::KEST_THERMAL_INVALID);
    EXPECT_EQ(0x55, ::KEST_THERMAL_VALID);
    EXPECT_EQ(0x55, kest::KEST_THERMAL_VALID);
}

} // namespace
