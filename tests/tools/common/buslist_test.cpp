#include "tools/common/buslist.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/host/fakekernel.h"
#include "tests/host/iic_support.h"
#include "tests/temporaryfolder.h"

namespace kest::tools
{
namespace
{

using nlohmann::json;

/// A made-up kernel whose adapter 7 has a node below a folder, which node 1 stands for.
class BusList : public testing::Test
{
protected:
    BusList()
    {
        write("dev/i2c-7", "");
        own.use("[nodes]\n1 = \"" + root().string() + "\"\n");
    }

    void write(const std::string& file, const std::string& text) const
    {
        std::filesystem::create_directories((root() / file).parent_path());
        std::ofstream(root() / file, std::ios::binary) << text;
    }
    void writeAdapter() const
    {
        write("sys/bus/i2c/devices/i2c-7/name", "bcm2835 (i2c@7e804000)\n");
        write("sys/bus/i2c/devices/i2c-7/of_node/clock-frequency", std::string("\x00\x01\x86\xA0", 4));
        write("sys/bus/i2c/devices/7-0050/name", "24c256\n");
        std::filesystem::create_symlink("../../../../bus/i2c/drivers/at24",
                                        root() / "sys/bus/i2c/devices/7-0050/driver");
        write("sys/bus/i2c/devices/7-0048/name", "lm75\n");
    }
    [[nodiscard]] const std::filesystem::path& root() const { return folder.path(); }

    /// The bus of the made-up node; the test fails when there is none.
    [[nodiscard]] busDescription bus(unsigned int number = 7)
    {
        const std::vector<busDescription> all = describeBuses(host::iic::sysfs(root() / "sys"), trouble);
        const auto found = std::ranges::find_if(all, [number](const busDescription& one) {
            return one.number == number && (one.bus.node == "1" || number != 7);
        });
        EXPECT_NE(all.end(), found);
        return found == all.end() ? busDescription() : *found;
    }

    test::TemporaryFolder folder{test::TemporaryFolder::inMemory};
    test::OwnConfiguration own;
    test::FakeKernel kernel;
    std::vector<failure> trouble;
};

TEST_F(BusList, DescribesAnAdapterOfTheKernel)
{
    writeAdapter();
    kernel.functions = I2C_FUNC_I2C | I2C_FUNC_SMBUS_READ_BYTE | I2C_FUNC_SMBUS_WRITE_BYTE |
                       I2C_FUNC_SMBUS_READ_BYTE_DATA | I2C_FUNC_SMBUS_WRITE_BYTE_DATA;
    EXPECT_EQ("/dev/i2c-7 on node 1  bcm2835 (i2c@7e804000)\n"
              "  clock      100 kHz, from the device tree\n"
              "  functions  I2C messages, SMBus send byte, SMBus receive byte, SMBus write\n"
              "             byte, SMBus read byte\n"
              "  limits     no messages without data\n"
              "  devices    90 = 0x48  lm75       no driver\n"
              "             A0 = 0x50  24c256     driver at24\n",
              busLines(bus()));
    EXPECT_TRUE(trouble.empty());
    // nothing was asked on the wires
    EXPECT_TRUE(kernel.log.empty());
}

TEST_F(BusList, GivesJson)
{
    writeAdapter();
    kernel.functions = I2C_FUNC_I2C | I2C_FUNC_SMBUS_QUICK;
    EXPECT_EQ(
        json::parse(R"json({"path":"/dev/i2c-7","node":"1","kind":"kernel","number":7,"name":"bcm2835 (i2c@7e804000)",
                              "clock_hz":100000,"functions":["I2C messages","SMBus quick command"],"limits":[],
                              "not_known":[],"devices":[
                              {"address":144,"address7":72,"name":"lm75","driver":null,"driver_known":true},
                              {"address":160,"address7":80,"name":"24c256","driver":"at24","driver_known":true}]
})json"),
        json::parse(busJson(bus()).dump(-1)));
}

TEST_F(BusList, SaysWhatIsNotKnown)
{
    EXPECT_TRUE(busLines(bus()).ends_with("  not known  name: the kernel does not show it\n"
                                          "  not known  clock: the device tree has none\n"
                                          "  not known  drivers: No such file or directory\n"));
    EXPECT_EQ(json(), json::parse(busJson(bus()).dump(-1)).at("name"));
    EXPECT_EQ(json(), json::parse(busJson(bus()).dump(-1)).at("clock_hz"));
    EXPECT_EQ(3U, json::parse(busJson(bus()).dump(-1)).at("not_known").size());
}

TEST_F(BusList, ANodeThatCannotBeOpenedIsListed)
{
    kernel.openError = EACCES;
    const std::vector<busDescription> all = describeBuses(host::iic::sysfs(root() / "sys"), trouble);
    const auto found = std::ranges::find_if(all, [](const busDescription& one) { return one.bus.node == "1"; });
    ASSERT_NE(all.end(), found);
    EXPECT_EQ("/dev/i2c-7 on node 1\n"
              "  not known  functions: not permitted\n"
              "  not known  adapter: its number in the kernel is not known\n",
              busLines(*found));
}

TEST_F(BusList, AnAdapterWithoutANodeIsListed)
{
    write("sys/bus/i2c/devices/i2c-977/name", "SMBus adapter\n");
    EXPECT_EQ("/dev/i2c-977  SMBus adapter\n"
              "  not known  functions: the adapter has no node; the kernel's module i2c-dev\n"
              "             makes it\n"
              "  not known  clock: the device tree has none\n",
              busLines(bus(977)));
}

TEST_F(BusList, TextsOfTheKernelAreEscaped)
{
    writeAdapter();
    write("sys/bus/i2c/devices/i2c-7/name", "a\x1B[2Jb\n");
    write("sys/bus/i2c/devices/7-0048/name", "lm\x07\n");
    const std::string lines = busLines(bus());
    EXPECT_EQ(std::string::npos, lines.find('\x1B'));
    EXPECT_EQ(std::string::npos, lines.find('\x07'));
    EXPECT_NE(std::string::npos, lines.find("  a\\x1B[2Jb\n"));
}

} // namespace
} // namespace kest::tools
