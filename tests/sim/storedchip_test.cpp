#include "sim/busstate.h"
#include "sim/storedchip.h"
#include "tests/sim/machinetest.h"

#include <fstream>
#include <system_error>

namespace kest::sim::test
{

namespace
{

/// Chips whose records are damaged while a process has the machine open: an expander (chip 0), an EEPROM that chip 0
/// protects (1), a hub (2) with an EEPROM behind it (3), and an expander that has nothing to do with them (4).
class StoredChips : public MachineTest
{
protected:
    static constexpr std::size_t chips = 5;
    static constexpr std::size_t block = 4096, record = block + 2048,
                                 recordBytes = busStateBytes + chips * chipStateBytes;
    static constexpr std::size_t choices = 25; ///< in the record of an EEPROM without a write cycle

    void SetUp() override
    {
        power(chip("PCA9554", "0x40") +
              chip("24C02", "0xA0", "image = \"a.bin\"\nprotect = \"nak\"\nprotect_chip = 0x40\nprotect_pin = 0") +
              chip("HUB922", "0x80") + chip("24C02", "0xA2", "hub = 0x80\nport = 1\nimage = \"b.bin\"") +
              chip("PCA9554", "0x42"));
    }
    /// Puts bytes into both records of the state file.
    void put(std::size_t at, const Bytes& bytes) const
    {
        std::fstream state{home.path / "machine.state", std::ios::in | std::ios::out | std::ios::binary};
        for (const std::size_t which : {std::size_t{0}, recordBytes}) {
            state.seekp(static_cast<std::streamoff>(record + which + at))
                .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        }
    }
    static constexpr std::size_t ofChip(std::size_t number) { return busStateBytes + number * chipStateBytes; }
    /// A register that no PCA9554 has.
    void damageExpander() const { put(ofChip(0) + 10, {1}); }
    /// Address counters beyond the memory.
    void damageMemory() const { put(ofChip(1), {0, 1}); }
    void damageMemoryBehindHub() const { put(ofChip(3), {0, 1}); }
    void damageHub() const { put(ofChip(2) + 9, {2}); }
    /// @return what the machine says when it is opened again
    std::string openAndHear()
    {
        on.reset();
        machine.reset();
        ::testing::internal::CaptureStderr();
        open();
        return ::testing::internal::GetCapturedStderr();
    }
    std::string said(const std::string& damage)
    {
        return "kest: " + (std::filesystem::canonical(home.path) / "machine.state").string() +
               ": damaged: bus 'planar': " + damage +
               " cannot be; it is kept as machine.state.damaged, and the machine starts anew\n";
    }
};

TEST_F(StoredChips, DamageOfOneIsMetByThoseWhoUseIt)
{
    damageMemory();
    EXPECT_EQ(outcome::done, on->probe(0x42));
    EXPECT_EQ(outcome::done, on->write(0x42, {0x01, 0x5A}).end);
    const std::uint64_t before = on->planar->busTimeNs();
    EXPECT_EQ(outcome::gone, on->probe(0xA0));
    EXPECT_EQ(before, on->planar->busTimeNs());
    const std::string bad = home.text("machine.state");
    EXPECT_EQ(said("an EEPROM's address counter"), openAndHear());
    EXPECT_EQ(bad, home.text("machine.state.damaged"));
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    EXPECT_EQ(0xFF, on->readAt(0x42, {0x01}, 1).data.at(0));
}

TEST_F(StoredChips, DamageBehindAHubIsMetByThoseWhoGoThere)
{
    damageMemoryBehindHub();
    EXPECT_EQ(Bytes{0}, on->read(0x80, 1).data);
    EXPECT_EQ((Bytes{2, 0xFF}), on->readAt(0x80, {2, 0xA2, 0}, 2).data);
    EXPECT_EQ(Bytes{2}, on->read(0x80, 1).data);
    EXPECT_EQ(outcome::gone, on->readAt(0x80, {1, 0xA2, 0}, 2).end);
    EXPECT_EQ(outcome::gone, on->write(0x80, {1, 0xA2, 0, 7}).end);
    EXPECT_EQ(Bytes(256, 0xFF), home.content("b.bin"));
    EXPECT_EQ(said("an EEPROM's address counter"), openAndHear());
}

TEST_F(StoredChips, DamageOfAHubIsMetByThoseWhoAddressIt)
{
    damageHub();
    EXPECT_EQ(outcome::done, on->probe(0x42));
    EXPECT_EQ(outcome::gone, on->probe(0x80));
    EXPECT_EQ(said("a flag"), openAndHear());
}

TEST_F(StoredChips, DamageOfTheExpanderThatProtectsAMemoryIsMetByItsWriters)
{
    EXPECT_EQ(outcome::done, on->write(0x40, {0x01, 0xFE}).end);
    EXPECT_EQ(outcome::done, on->write(0x40, {0x03, 0xFE}).end);
    damageExpander();
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    EXPECT_EQ(Bytes{0xFF}, on->readAt(0xA0, {0}, 1).data);
    EXPECT_EQ(outcome::gone, on->write(0xA0, {0, 1}).end);
    EXPECT_EQ(Bytes(256, 0xFF), home.content("a.bin"));
    EXPECT_EQ(said("a register that a PCA955x does not have"), openAndHear());
}

TEST_F(StoredChips, DamagedOnesAreNeitherListedNorMendedByAPowerCycle)
{
    damageMemoryBehindHub();
    EXPECT_THROW(machine->registers(), std::system_error);
    EXPECT_FALSE(machine->powerCycle());
    EXPECT_EQ(said("an EEPROM's address counter"), openAndHear());
    EXPECT_TRUE(machine->powerCycle());
}

TEST_F(StoredChips, DamagedOnesSurviveTheEndOfALossOfPower)
{
    // the mark of a loss of power whose torn pages may not be in their images yet
    put(297, {1});
    damageMemoryBehindHub();
    EXPECT_EQ(outcome::gone, on->probe(0x42));
    EXPECT_EQ(said("an EEPROM's address counter"), openAndHear());
}

TEST_F(StoredChips, NoOneIsStoredByAUseThatDoesNotNeedIt)
{
    EXPECT_EQ(outcome::done, on->write(0x40, {0x03, 0xFE}).end);
    EXPECT_EQ(outcome::done, on->write(0x42, {0x01, 0x12}).end);
    // a number that nothing checks: random choices that the memory has made
    put(ofChip(1) + choices, {1, 2, 3, 4, 5, 6, 7, 8});
    for (const std::uint8_t value : Bytes{0x34, 0x56, 0x78}) {
        EXPECT_EQ(outcome::done, on->write(0x42, {0x01, value}).end);
        EXPECT_EQ(outcome::done, on->probe(0x80));
        on->idleMs(1);
    }
    const Bytes state = home.content("machine.state");
    for (const std::size_t which : {std::size_t{0}, recordBytes}) {
        const auto at = state.begin() + static_cast<std::ptrdiff_t>(record + which + ofChip(1) + choices);
        EXPECT_EQ((Bytes{1, 2, 3, 4, 5, 6, 7, 8}), Bytes(at, at + 8));
    }
    EXPECT_EQ(Bytes{0xFE}, on->readAt(0x40, {0x03}, 1).data);
    EXPECT_EQ(Bytes{0x78}, on->readAt(0x42, {0x01}, 1).data);
}

} // namespace
} // namespace kest::sim::test
