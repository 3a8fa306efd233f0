#include "tools/common/devicetype.h"

#include <gtest/gtest.h>

namespace kest::tools
{
namespace
{

TEST(DeviceTypes, EachHasItsCapacityPagesAndPins)
{
    struct Row {
        std::uint32_t type, bytes, page;
        unsigned pins;
    };
    for (const Row& expected : {Row{0xF0, 0, 0, 0}, Row{0x922, 0, 0, 0}, Row{0x1C0002, 256, 8, 0},
                                Row{0x2C0032, 4096, 32, 0}, Row{0x2C0064, 8192, 32, 0}, Row{0x2C0128, 16384, 64, 0},
                                Row{0x2C0256, 32768, 64, 0}, Row{0x2C0512, 65536, 128, 0}, Row{0x9551, 0, 0, 8},
                                Row{0x9552, 0, 0, 16}, Row{0x9554, 0, 0, 8}, Row{0x9555, 0, 0, 16}, Row{0xD10, 0, 0, 0},
                                Row{0x75, 0, 0, 16}, Row{0x92, 0, 0, 16}, Row{0x172, 22016, 0, 0}}) {
        const deviceTypeInfo* type = findType(expected.type);
        ASSERT_NE(nullptr, type) << std::hex << expected.type;
        EXPECT_EQ(expected.bytes, type->bytes) << std::hex << expected.type;
        EXPECT_EQ(expected.page, type->pageBytes) << std::hex << expected.type;
        EXPECT_EQ(expected.pins, type->pins) << std::hex << expected.type;
    }
    EXPECT_EQ(16U, deviceTypes().size());
    EXPECT_EQ(nullptr, findType(0x9553));
}

} // namespace
} // namespace kest::tools
