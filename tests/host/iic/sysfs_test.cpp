#include "platform/host/iic/sysfs.h"

#include <cerrno>
#include <fstream>
#include <gtest/gtest.h>

#include "tests/temporaryfolder.h"

namespace kest::test
{
namespace
{

using host::iic::kernelDevice;
using host::iic::sysfs;

class Sysfs : public testing::Test
{
protected:
    void write(const std::string& file, const std::string& text) const
    {
        std::filesystem::create_directories((root() / file).parent_path());
        std::ofstream(root() / file, std::ios::binary) << text;
    }
    void link(const std::string& from, const std::string& to) const
    {
        std::filesystem::create_directories((root() / from).parent_path());
        std::filesystem::create_symlink(to, root() / from);
    }
    [[nodiscard]] const std::filesystem::path& root() const { return folder.path(); }

    TemporaryFolder folder{TemporaryFolder::inMemory};
    int error = -1;
};

TEST_F(Sysfs, ListsAdaptersInTheOrderOfTheirNumbers)
{
    for (const char* name : {"i2c-10", "i2c-2", "i2c-", "i2c-x", "i2c-3x", "2-0050"}) {
        std::filesystem::create_directories(root() / "bus/i2c/devices" / name);
    }
    EXPECT_EQ((std::vector<unsigned int>{2, 10}), sysfs(root()).adapters(error));
    EXPECT_EQ(0, error);
}

TEST_F(Sysfs, ReportsAFolderThatCannotBeRead)
{
    EXPECT_TRUE(sysfs(root()).adapters(error).empty());
    EXPECT_EQ(ENOENT, error);
    error = -1;
    EXPECT_TRUE(sysfs(root()).devices(1, error).empty());
    EXPECT_EQ(ENOENT, error);
}

TEST_F(Sysfs, NamesAnAdapter)
{
    EXPECT_EQ("", sysfs(root()).adapterName(1));
    write("class/i2c-dev/i2c-1/name", "by its node\n");
    EXPECT_EQ("by its node", sysfs(root()).adapterName(1));
    write("bus/i2c/devices/i2c-1/name", "bcm2835 (i2c@7e804000)\n");
    EXPECT_EQ("bcm2835 (i2c@7e804000)", sysfs(root()).adapterName(1));
}

TEST_F(Sysfs, ListsDevicesWithTheirDrivers)
{
    write("bus/i2c/devices/1-0050/name", "24c256\n");
    link("bus/i2c/devices/1-0050/driver", "../../../../bus/i2c/drivers/at24");
    write("bus/i2c/devices/1-0048/name", "lm75\n");
    std::filesystem::create_directories(root() / "bus/i2c/devices/1-0020");
    // a driver that can't be read: no link
    write("bus/i2c/devices/1-0020/driver", "");
    // another adapter's, a 10-bit address, an address of the adapter itself, and none at all
    for (const char* name : {"11-0051", "1-a052", "1-1053", "1-005", "1-00zz", "1-0080", "i2c-1"}) {
        std::filesystem::create_directories(root() / "bus/i2c/devices" / name);
    }
    const std::vector<kernelDevice> found = sysfs(root()).devices(1, error);
    EXPECT_EQ(0, error);
    ASSERT_EQ(3U, found.size());
    EXPECT_EQ(0x40, found[0].address);
    EXPECT_EQ("", found[0].name);
    EXPECT_FALSE(found[0].driver.has_value());
    EXPECT_EQ(0x90, found[1].address);
    EXPECT_EQ("lm75", found[1].name);
    EXPECT_EQ("", found[1].driver);
    EXPECT_EQ(0xA0, found[2].address);
    EXPECT_EQ("24c256", found[2].name);
    EXPECT_EQ("at24", found[2].driver);
}

} // namespace
} // namespace kest::test
