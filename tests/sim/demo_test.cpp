#include "sim/demo.h"
#include "tests/sim/machinetest.h"

#include <set>
#include <stdexcept>

namespace kest::sim::test
{

namespace
{

const std::string bus = "[[bus]]\nname = \"planar\"\n";

class DemoMachine : public MachineTest
{
};

TEST_F(DemoMachine, HasEveryTypeAndTheContentsGiven)
{
    writeDemoMachine(home.path / "demo", {{"panel.bin", {1, 2, 3}}, {"riser.bin", {9}}});
    const auto demo = openMachine(home.path / "demo", false);
    EXPECT_EQ(demo->busNames(""), std::vector<std::string>{"planar"});
    User planar{demo->findBus("planar", "")};
    std::set<std::string> types;
    for (const auto& chip : demo->chips()) {
        types.insert(chip.type);
        EXPECT_TRUE(chip.behindHub || planar.probe(chip.address) == outcome::done) << +chip.address;
    }
    EXPECT_EQ(types, (std::set<std::string>{"24C02", "24C32", "24C128", "24C256", "24C512", "PCA9551", "PCA9552",
                                            "PCA9554", "PCA9555", "LM75", "LM92", "HUB922"}));
    EXPECT_EQ(planar.readAt(0xA4, {0}, 4).data, (Bytes{1, 2, 3, 0xFF}));
    EXPECT_EQ(planar.readAt(0x80, {3, 0xA2, 0, 0}, 3).data, (Bytes{0, 9, 0xFF}));
    EXPECT_EQ(planar.read(0x90, 2).data, (Bytes{0x19, 0x80}));
}

TEST_F(DemoMachine, DoesNotOverwrite)
{
    home.put("machine.toml", bus);
    EXPECT_THROW(writeDemoMachine(home.path, {}), std::runtime_error);
    EXPECT_EQ(home.text("machine.toml"), bus);
    EXPECT_THROW(writeDemoMachine(home.path / "new", {{"other.bin", {1}}}), std::runtime_error);
    EXPECT_THROW(writeDemoMachine(home.path / "new", {{"panel.bin", Bytes(257)}}), std::runtime_error);
    EXPECT_FALSE(std::filesystem::exists(home.path / "new" / "machine.toml"));
}

} // namespace
} // namespace kest::sim::test
