/// What stands in place of a file now is what a call uses: nothing that an earlier call has learnt, and no descriptor that
/// it left open, hides a machine, a node, a lock file or a configuration that was replaced meanwhile.
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>

#include "kest/kest.h"
#include "platform/errl.h"
#include "tests/host/fakekernel.h"
#include "tests/system/iic_clock.h"
#include "tests/system/machine_images.h"

namespace kest::test
{
namespace
{

constexpr const char* expander = "sim:planar,L,9555,40";

/// Return code of an entry that is done with; 0: there is none.
std::uint32_t codeOf(ErrlEntry* entry)
{
    const std::unique_ptr<ErrlEntry> owned(entry);
    return owned ? owned->getRC() : 0;
}

unsigned int pinsOf(const std::string& text)
{
    unsigned int value = 0xDEAD0000;
    EXPECT_EQ(0U, codeOf(KEST_dpRead(text.c_str(), 0xFFFF, &value, nullptr, 0))) << text;
    return value;
}

std::string locationOf(unsigned int number)
{
    char* text = nullptr;
    EXPECT_EQ(0U, codeOf(TAVO_get_dev_addr_string(number, &text, zelPosition{}, false)));
    std::string location = text == nullptr ? "" : text;
    tavo_util_free(reinterpret_cast<void**>(&text));
    return location;
}

/// Open descriptors of this process on files of a name, also on ones that have been deleted or moved.
std::size_t openFilesNamed(const std::string& name)
{
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const std::string file = std::filesystem::read_symlink(entry, gone).string();
        count += file.find("/" + name) != std::string::npos ? 1 : 0;
    }
    return count;
}

class ReplacedFiles : public OwnMachine
{
protected:
    ReplacedFiles() : OwnMachine("") { makeMachine(0x1234, 1); }

    /// A machine whose expander's pins are driven so, written and not opened.
    void makeMachine(unsigned int pins, unsigned int contents) const
    {
        std::filesystem::create_directory(folder());
        std::ofstream(folder() / "machine.toml") << machineText("", pins);
        fill("main.bin", pattern(32768, contents));
    }
    static std::string machineText(const std::string& node, unsigned int pins)
    {
        const std::string of = node.empty() ? "" : "node = \"" + node + "\"\n";
        return "[[bus]]\nname = \"planar\"\n" + of + eeprom("24C256", 0xA0, "main.bin", of) +
               chip("PCA9555", 0x40, "inputs = " + std::to_string(pins) + "\n" + of);
    }
    static Bytes firstBytes()
    {
        constexpr std::array<kest_attributeValue, KEST_ATTR_COUNT> hardware{400, 1, 1, 4, 2, 1};
        const tavo_deviceaddress address{.number = 0, .location = "sim:planar,L,2C0256,A0"};
        unsigned int length = 32;
        unsigned char* data = nullptr;
        EXPECT_EQ(0U, codeOf(KEST_seepromRead(address, nullptr, 0, &length, &data, hardware.data())));
        Bytes read(data, data + length);
        tavo_util_free(reinterpret_cast<void**>(&data));
        return read;
    }
};

TEST_F(ReplacedFiles, MachineInPlaceOfAnotherIsUsedAndTheOldOneIsLetGo)
{
    EXPECT_EQ(0x1234U, pinsOf(expander));
    EXPECT_EQ(pattern(32, 1), firstBytes());
    std::filesystem::rename(folder(), settings.folder() / "aside");
    makeMachine(0x5678, 2);
    EXPECT_EQ(0x5678U, pinsOf(expander));
    EXPECT_EQ(pattern(32, 2), firstBytes());
    EXPECT_EQ(1U, openFilesNamed("machine/machine.state"));
    EXPECT_EQ(0U, openFilesNamed("aside/"));
    EXPECT_EQ(0U, openFilesNamed("main.bin"));
}

TEST_F(ReplacedFiles, MachineFileInPlaceOfAnotherIsRead)
{
    EXPECT_EQ(0x1234U, pinsOf(expander));
    std::ofstream(folder() / "new.toml") << machineText("", 0x0F0F);
    std::filesystem::rename(folder() / "new.toml", folder() / "machine.toml");
    EXPECT_EQ(0x0F0FU, pinsOf(expander));
}

TEST_F(ReplacedFiles, StateThatIsMovedAsideIsNotUsedAnyMore)
{
    EXPECT_EQ(0U, codeOf(KEST_dpConfig(expander, KEST_DP_CONFIG_OUTPUT, 0x00FF, nullptr)));
    EXPECT_EQ(0U, codeOf(KEST_dpWrite(expander, KEST_DP_SELECT_00, 0x00FF, 0, nullptr, 0)));
    EXPECT_EQ(0x1200U, pinsOf(expander));
    std::filesystem::rename(folder() / "machine.state", settings.folder() / "aside.state");
    // as after power-up: all pins are inputs
    EXPECT_EQ(0x1234U, pinsOf(expander));
    EXPECT_EQ(0U, openFilesNamed("aside.state"));
}

TEST_F(ReplacedFiles, ImageInPlaceOfAnotherIsRead)
{
    EXPECT_EQ(pattern(32, 1), firstBytes());
    fill("new.bin", pattern(32768, 3));
    std::filesystem::rename(folder() / "new.bin", folder() / "main.bin");
    EXPECT_EQ(pattern(32, 3), firstBytes());
}

TEST_F(ReplacedFiles, LockFileInPlaceOfAnotherIsWhereCallsMeet)
{
    EXPECT_EQ(0x1234U, pinsOf(expander));
    const std::filesystem::path file = folder() / "iic.planar.lock";
    EXPECT_TRUE(std::filesystem::remove(file));
    std::ofstream(file) << "";
    OpenDevice other("sim:planar");
    Bytes record{0, 2, 0, 0x40, 0, 0, 0, 0};
    EXPECT_EQ((Answer{0, 0}), other.config(2, 17, record.data(), 8));
    DrivenClock clock;
    unsigned int value = 0;
    // the lock is another's for all of the half second
    EXPECT_EQ(0x0000130EU, codeOf(KEST_dpRead(expander, 0xFFFF, &value, nullptr, 0)));
    EXPECT_EQ((Answer{0, 0}), other.config(2, 18, record.data(), 8));
    EXPECT_EQ(0x1234U, pinsOf(expander));
    EXPECT_EQ(0U, openFilesNamed("iic.planar.lock"));
}

TEST_F(ReplacedFiles, NodeInPlaceOfAnotherIsOpenedWithItsOwnLock)
{
    settings.use("state = \"state\"\n[linux]\nlock_folder = \"locks\"\n");
    FakeKernel kernel;
    kernel.chips[0x20] = {.memory = {0x34, 0x12}, .offsetBytes = 1};
    EXPECT_EQ(0x1234U, pinsOf("/dev/i2c-7,L,9555,40"));
    EXPECT_EQ(0, kernel.openNodes);
    kernel.minorNumber = 8;
    kernel.chips[0x20].memory = {0x78, 0x56};
    EXPECT_EQ(0x5678U, pinsOf("/dev/i2c-7,L,9555,40"));
    EXPECT_EQ(0, kernel.openNodes);
    EXPECT_TRUE(std::filesystem::exists(settings.folder() / "locks" / "i2c-89-7.lock"));
    EXPECT_TRUE(std::filesystem::exists(settings.folder() / "locks" / "i2c-89-8.lock"));
    EXPECT_EQ(0U, openFilesNamed("locks/"));
}

TEST_F(ReplacedFiles, NodesAndDeviceTableOfAConfigurationReadAnewCountAtOnce)
{
    const std::string start = "[machine]\nfolder = \"machine\"\n[nodes]\n0 = \"sim:";
    const std::string device = "\"\n[[device]]\nnumber = 5\nlocation = \"sim:planar,L,";
    std::ofstream(folder() / "machine.toml") << machineText("one", 0x1111) +
                                                    "[[bus]]\nname = \"planar\"\nnode = \"two\"\n" +
                                                    chip("PCA9555", 0x40, "node = \"two\"\ninputs = 0x2222\n");
    settings.use(start + "one" + device + "2C0256,A0\"\n");
    EXPECT_EQ(0x1111U, pinsOf("sim:planar,0,9555,40"));
    EXPECT_EQ("sim:planar,L,2C0256,A0", locationOf(5));
    settings.use(start + "two" + device + "1C0002,A4\"\n");
    EXPECT_EQ(0x2222U, pinsOf("sim:planar,0,9555,40"));
    EXPECT_EQ("sim:planar,L,1C0002,A4", locationOf(5));
}

} // namespace
} // namespace kest::test
