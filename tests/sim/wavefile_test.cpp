#include "sim/wavefile.h"
#include "tests/sim/machinetest.h"

namespace kest::sim::test
{

namespace
{

class WaveFile : public MachineTest
{
protected:
    bool append(std::uint64_t& length) { return appendToWaveFile(home.path / "some.vcd", length, "#5\n", "#6\n"); }
};

TEST_F(WaveFile, GrowsBehindTheRecording)
{
    home.put("some.vcd", "$comment one $end\n#0\n#1\n#2\n#3\n");
    std::uint64_t length = 21;
    EXPECT_TRUE(append(length));
    EXPECT_EQ(24U, length);
    EXPECT_EQ("$comment one $end\n#0\n#5\n#6\n", home.text("some.vcd"));
}

TEST_F(WaveFile, AnotherFileInItsPlaceStaysAsItIs)
{
    home.put("some.vcd", "[[bus]]\nname = \"planar\"\n");
    for (std::uint64_t length : {0U, 5U}) {
        EXPECT_FALSE(append(length));
        EXPECT_EQ("[[bus]]\nname = \"planar\"\n", home.text("some.vcd"));
    }
}

TEST_F(WaveFile, OneThatWasCutStaysShort)
{
    home.put("some.vcd", "$comment one $end\n");
    for (std::uint64_t length : {std::uint64_t{19}, std::uint64_t{1} << 16U}) {
        EXPECT_FALSE(append(length));
        EXPECT_EQ("$comment one $end\n", home.text("some.vcd"));
    }
}

TEST_F(WaveFile, ARecordingEndsWhereItsFileIsAnother)
{
    power(chip("LM75", "0x90"));
    ASSERT_TRUE(machine->startWave("planar", home.path / "some.vcd"));
    const std::string other(1000, 'x');
    home.put("some.vcd", other);
    EXPECT_EQ(outcome::done, on->probe(0x90));
    EXPECT_EQ(other, home.text("some.vcd"));
    EXPECT_FALSE(machine->stopWave("planar"));
}

} // namespace

} // namespace kest::sim::test
