#include "tools/common/busparts.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>

#include "tests/host/fakekernel.h"
#include "tests/host/iic_support.h"
#include "tests/temporaryfolder.h"

namespace kest::tools
{
namespace
{

using host::iic::presence;
using test::FakeChip;

/// Adapter 7 of a made-up kernel, with chips of its own.
class BusParts : public testing::Test
{
protected:
    void name(const std::string& device, const std::string& part, const std::string& driver = {}) const
    {
        const auto where = folder.path() / "bus/i2c/devices" / device;
        std::filesystem::create_directories(where);
        std::ofstream(where / "name") << part << '\n';
        if (!driver.empty()) {
            std::filesystem::create_symlink("../../../../bus/i2c/drivers/" + driver, where / "driver");
        }
    }
    /// The part at an address; the test fails when there is none.
    [[nodiscard]] foundPart at(std::uint8_t address) const
    {
        const std::vector<foundPart> parts = findParts({"/dev/i2c-7", "L"}, host::iic::sysfs(folder.path()), {});
        const auto found = std::ranges::find(parts, address, &foundPart::address);
        EXPECT_NE(parts.end(), found);
        return found == parts.end() ? foundPart() : *found;
    }
    static std::string typeOf(const foundPart& part) { return part.types.empty() ? "" : part.types.front()->code; }

    test::TemporaryFolder folder{test::TemporaryFolder::inMemory};
    test::OwnConfiguration own;
    test::FakeKernel kernel;
};

TEST_F(BusParts, ADriversPartHasTheKernelsNameAndIsNotAsked)
{
    name("7-0050", "24c256", "at24");
    kernel.chips[0x50] = FakeChip{.memory = test::pattern(256), .offsetBytes = 1};
    kernel.held = {0x50};
    const foundPart part = at(0xA0);
    EXPECT_EQ(presence::heldByDriver, part.state);
    EXPECT_EQ(partSource::kernel, part.source);
    EXPECT_EQ("2C0256", typeOf(part));
    EXPECT_TRUE(part.isReady);
    EXPECT_EQ("the kernel names it '24c256'; its driver at24 has the address, so that writes are refused unless forced",
              part.note);
    EXPECT_TRUE(std::ranges::none_of(kernel.log, [](const std::string& line) { return line.starts_with("50"); }));
}

TEST_F(BusParts, ADeviceTreesPartIsExact)
{
    name("7-0048", "lm75b");
    name("7-0060", "pca9552");
    kernel.chips[0x48] = FakeChip{.memory = test::pattern(8), .offsetBytes = 1};
    kernel.chips[0x60] = FakeChip{.memory = test::pattern(8), .offsetBytes = 1};
    EXPECT_EQ("75", typeOf(at(0x90)));
    EXPECT_TRUE(at(0x90).isReady);
    EXPECT_EQ("the kernel names it 'lm75b'", at(0x90).note);
    EXPECT_EQ("9552", typeOf(at(0xC0)));
}

TEST_F(BusParts, AKernelsNameThatNothingAnswersToIsNotReady)
{
    name("7-0048", "lm75");
    EXPECT_EQ(presence::absent, at(0x90).state);
    EXPECT_FALSE(at(0x90).isReady);
    EXPECT_EQ("the kernel names it 'lm75'; nothing answers there", at(0x90).note);
}

TEST_F(BusParts, PartsThatAreNotServedAreNamed)
{
    name("7-0040", "ina219", "ina2xx");
    kernel.held = {0x40};
    EXPECT_EQ("", typeOf(at(0x80)));
    EXPECT_EQ(
        "the kernel names it 'ina219', which is not served; its driver ina2xx has the address, so that writes are "
        "refused unless forced",
        at(0x80).note);
}

TEST_F(BusParts, AHeldAddressWithoutANameIsSaid)
{
    kernel.held = {0x51};
    EXPECT_EQ(presence::heldByDriver, at(0xA2).state);
    EXPECT_EQ("a kernel driver has this address; its name is not known", at(0xA2).note);
    EXPECT_EQ("", typeOf(at(0xA2)));
}

TEST_F(BusParts, ReadsThatContradictTheKernelsNameAreSaid)
{
    name("7-0050", "24c256");
    name("7-0051", "24c02");
    kernel.chips[0x50] = FakeChip{.memory = test::pattern(256), .offsetBytes = 1};
    kernel.chips[0x51] = FakeChip{.memory = test::pattern(256), .offsetBytes = 1};
    EXPECT_FALSE(at(0xA0).isReady);
    EXPECT_NE(std::string::npos, at(0xA0).note.find("but its reads show another part: proved: one offset byte"));
    EXPECT_TRUE(at(0xA2).isReady);
    EXPECT_EQ("the kernel names it '24c02'", at(0xA2).note);
}

TEST_F(BusParts, PartsWithRegistersAreGuessedWithoutATransferOfTheirBytes)
{
    kernel.chips[0x48] = FakeChip{.memory = test::pattern(8), .offsetBytes = 1};
    kernel.chips[0x6F] = FakeChip{.memory = test::pattern(8), .offsetBytes = 1};
    const foundPart sensor = at(0x90);
    EXPECT_EQ(partSource::address, sensor.source);
    EXPECT_EQ(2U, sensor.types.size());
    EXPECT_FALSE(sensor.isReady);
    EXPECT_EQ("something answers, by its address an LM75 or an LM92: a guess", sensor.note);
    EXPECT_EQ("something answers; no type that is served has this address", at(0xDE).note);
    // each was asked by its address alone, once a scan
    const auto asked =
        std::ranges::count_if(kernel.log, [](const std::string& line) { return line.starts_with("48"); });
    EXPECT_EQ(2, asked);
}

/// A scan asks once, and a part in a write cycle does not acknowledge then.
TEST_F(BusParts, APartInAWriteCycleIsWaitedFor)
{
    name("7-0050", "24c02");
    for (const std::uint8_t address7 : std::initializer_list<std::uint8_t>{0x50, 0x51}) {
        kernel.chips[address7] =
            FakeChip{.memory = test::pattern(256), .offsetBytes = 1, .busyUntilNs = kernel.clockNs + 30'000'000};
    }
    EXPECT_EQ(presence::present, at(0xA0).state);
    EXPECT_EQ("the kernel names it '24c02'", at(0xA0).note);
    for (const std::uint8_t address7 : std::initializer_list<std::uint8_t>{0x50, 0x51}) {
        kernel.chips[address7].busyUntilNs = kernel.clockNs + 30'000'000;
    }
    EXPECT_EQ(partSource::proof, at(0xA2).source);
    EXPECT_EQ("1C0002", typeOf(at(0xA2)));
}

} // namespace
} // namespace kest::tools
