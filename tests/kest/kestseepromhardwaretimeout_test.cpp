#include <vector>

#include "kestseeprom.h"
#include "tests/platform/scripted.h"

using namespace scripted;
using namespace kest;

namespace
{

constexpr bool read = true;
constexpr bool write = false;

struct Row {
    kest_deviceType type;
    unsigned length;
    bool read;
    // speed, write cycle, factor, transfer mode
    kest_attributeValue speed, cycle, factor, mode;
    std::uint32_t timeout;
};

using KestTimeout = PlatformTest;

TEST_F(KestTimeout, OfADirectDevice)
{
    const std::vector<Row> rows{
        // the defaults
        {KEST_DEV_SEEPROM_32K, 256, read, 400, 15, 2, 1, 2512},
        {KEST_DEV_SEEPROM_32K, 256, write, 400, 15, 2, 1, 2992},
        // whole blocks of 32, at least one
        {KEST_DEV_SEEPROM_256K, 0, read, 400, 15, 2, 1, 2064},
        {KEST_DEV_SEEPROM_256K, 31, read, 400, 15, 2, 1, 2064},
        {KEST_DEV_SEEPROM_256K, 32, read, 400, 15, 2, 1, 2064},
        {KEST_DEV_SEEPROM_256K, 63, read, 400, 15, 2, 1, 2064},
        {KEST_DEV_SEEPROM_256K, 64, read, 400, 15, 2, 1, 2128},
        {KEST_DEV_SEEPROM_512K, 65536, read, 400, 15, 2, 1, 133072},
        // pages: at least one, whole ones only; each type with its own size
        {KEST_DEV_SEEPROM_2K, 7, write, 400, 15, 1, 2, 31},
        {KEST_DEV_SEEPROM_2K, 8, write, 400, 15, 1, 2, 31},
        {KEST_DEV_SEEPROM_2K, 16, write, 400, 15, 1, 2, 46},
        {KEST_DEV_SEEPROM_32K, 0, write, 400, 15, 1, 2, 31},
        {KEST_DEV_SEEPROM_32K, 63, write, 400, 15, 1, 2, 31},
        {KEST_DEV_SEEPROM_32K, 64, write, 400, 15, 1, 2, 62},
        {KEST_DEV_SEEPROM_64K, 64, write, 400, 15, 1, 2, 62},
        {KEST_DEV_SEEPROM_128K, 128, write, 400, 15, 1, 2, 94},
        {KEST_DEV_SEEPROM_256K, 128, write, 400, 15, 1, 2, 94},
        {KEST_DEV_SEEPROM_512K, 128, write, 400, 15, 1, 2, 79},
        {KEST_DEV_SEEPROM_512K, 255, write, 400, 5, 1, 2, 117},
        {KEST_DEV_SEEPROM_512K, 256, write, 400, 5, 1, 2, 138},
        // types without pages: a write takes as long as a read
        {KEST_DEV_172, 256, write, 400, 15, 2, 1, 2512},
        {KEST_DEV_9552, 2, write, 400, 15, 2, 1, 2064},
        {KEST_DEV_922HUB, 256, write, 400, 15, 2, 1, 2512},
        // another speed: 64 a block; the third formula scales by whole hundreds
        {KEST_DEV_SEEPROM_32K, 256, read, 100, 15, 1, 2, 512},
        {KEST_DEV_SEEPROM_32K, 256, read, 100, 15, 2, 1, 4048},
        {KEST_DEV_SEEPROM_32K, 256, read, 401, 15, 1, 2, 512},
        {KEST_DEV_SEEPROM_32K, 256, read, 400, 15, 1, 3, 2768},
        {KEST_DEV_SEEPROM_32K, 256, read, 100, 15, 1, 3, 3536},
        {KEST_DEV_SEEPROM_32K, 256, read, 199, 15, 1, 3, 3536},
        {KEST_DEV_SEEPROM_32K, 256, read, 200, 15, 1, 4, 4048},
        {KEST_DEV_SEEPROM_32K, 256, read, 99, 15, 1, 4, 3024},
        {KEST_DEV_SEEPROM_32K, 256, write, 99, 15, 3, 5, 9792},
        // the factor
        {KEST_DEV_SEEPROM_32K, 256, read, 400, 15, 1, 1, 1256},
        {KEST_DEV_SEEPROM_32K, 256, read, 400, 15, 10, 1, 12560},
    };
    for (const Row& row : rows) {
        const kest_deviceAddress device{0xA0, row.type, 0, nullptr};
        const kest_attributeValue attributes[6] = {row.speed, 1, row.cycle, 1, row.factor, row.mode};
        EXPECT_EQ(row.timeout, kest_timeoutCalc(&device, row.length, row.read, attributes))
            << std::hex << row.type << std::dec << " length " << row.length << " speed " << row.speed << " mode "
            << row.mode;
    }
    EXPECT_EQ("\n", platform.log());
}

TEST_F(KestTimeout, BehindAHubCountsBlocksOf256WhateverTheAttributes)
{
    kest_deviceAddress device{0xA2, KEST_DEV_SEEPROM_512K, 0, nullptr};
    const struct {
        unsigned length;
        std::uint32_t timeout;
    } rows[] = {{0, 1200}, {255, 1200}, {256, 1200}, {511, 1200}, {512, 2400}, {65536, 307200}};
    const kest_attributeValue records[][6] = {{400, 1, 15, 1, 2, 1}, {100, 1, 50, 1, 9, 3}};
    for (const kest_deviceType hubType : {KEST_DEV_922HUB, KEST_DEV_HUB_F0}) {
        const kest_deviceAddress hub{0x80, hubType, 3, &device};
        for (const auto& row : rows) {
            for (const auto& record : records) {
                EXPECT_EQ(row.timeout, kest_timeoutCalc(&hub, row.length, read, record)) << row.length;
                EXPECT_EQ(row.timeout, kest_timeoutCalc(&hub, row.length, write, record)) << row.length;
            }
        }
    }
}

TEST_F(KestTimeout, WithoutAChainIsOneBlocksTime)
{
    const kest_attributeValue fast[6] = {400, 1, 15, 1, 2, 1};
    const kest_attributeValue slow[6] = {100, 1, 15, 1, 2, 1};
    EXPECT_EQ(16u, kest_timeoutCalc(nullptr, 4096, read, fast));
    EXPECT_EQ(64u, kest_timeoutCalc(nullptr, 4096, write, slow));
    ASSERT_EQ(2u, platform.traceRecords().size());
    for (const TraceRecord& trace : platform.traceRecords()) {
        EXPECT_EQ(" %s", trace.format);
        EXPECT_EQ(std::vector<std::string>{"\"kest_timeoutCalc\""}, trace.arguments);
    }
    EXPECT_EQ("\n", platform.log(kindScope));
}

} // namespace
