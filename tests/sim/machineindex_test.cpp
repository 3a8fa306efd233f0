#include "base/hash.h"
#include "sim/machinefile.h"
#include "sim/machineindex.h"
#include "tests/sim/machinetest.h"

#include <stdexcept>

namespace kest::sim::test
{

namespace
{

// Lines 1 to 17. The tables of the buses are not together, and the second chip's header is indented.
const std::string text = "seed = 7 # of all\n"
                         "[[bus]]\nname = \"left\"\n"
                         "[[chip]]\nbus = \"left\"\ntype = \"LM75\"\naddress = 0x90\n"
                         "  [[chip]] # the right one\nbus = \"right\"\nnode = \"far\"\ntype = \"PCA9554\"\n"
                         "address = 0x40\n"
                         "[[fault]]\nkind = \"nack\"\n"
                         "[[bus]]\nname = \"right\"\nnode = \"far\"";

class MachineIndex : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const auto made = machineIndex::make(text, parseMachine(text, "m"));
        ASSERT_TRUE(made.has_value());
        made->save(file);
    }
    /// The file as another process may have left it, with a hash that is right.
    void put(Bytes content) const
    {
        const std::uint64_t hash = fnvHash64({reinterpret_cast<const char*>(content.data()) + 16, content.size() - 16});
        for (std::size_t i = 0; i < 8; ++i) {
            content[8 + i] = static_cast<std::uint8_t>(hash >> (8 * i));
        }
        home.put("machine.index", {content.begin(), content.end()});
    }

    Folder home;
    const std::filesystem::path file = home.path / "machine.index";
};

TEST_F(MachineIndex, OneBusIsParsedWithTheChipsOfItAlone)
{
    const auto index = machineIndex::load(file, text);
    ASSERT_TRUE(index.has_value());
    ASSERT_EQ(2U, index->layouts().size());
    EXPECT_EQ(1U, index->layouts()[0].chips);
    EXPECT_EQ(1U, index->layouts()[1].chips);
    const auto right = index->parseChipsOf(1, "m");
    ASSERT_TRUE(right.has_value());
    ASSERT_EQ(2U, right->buses.size());
    EXPECT_EQ("left", right->buses[0].name);
    EXPECT_EQ("far", right->buses[1].node);
    ASSERT_EQ(1U, right->chips.size());
    EXPECT_EQ("PCA9554", right->chips[0].typeName);
    EXPECT_EQ(1U, right->chips[0].bus);
    EXPECT_EQ("8:3", right->chips[0].place);
    EXPECT_EQ(7U, right->seed);
    EXPECT_TRUE(right->faults.empty());
    const auto left = index->parseChipsOf(0, "m");
    ASSERT_TRUE(left.has_value());
    EXPECT_EQ("4:1", left->chips.at(0).place);
}

TEST_F(MachineIndex, BusesAreParsedWithTheFaultsAndWithoutChips)
{
    const auto index = machineIndex::load(file, text);
    ASSERT_TRUE(index.has_value());
    const auto buses = index->parseBuses("m");
    ASSERT_TRUE(buses.has_value());
    EXPECT_EQ(2U, buses->buses.size());
    EXPECT_TRUE(buses->chips.empty());
    ASSERT_EQ(1U, buses->faults.size());
    EXPECT_EQ("nack", buses->faults[0].kind);
}

TEST_F(MachineIndex, MarksAreThoseOfTheWholeText)
{
    const machineDescription whole = parseMachine(text, "m");
    const auto index = machineIndex::load(file, text);
    ASSERT_TRUE(index.has_value());
    EXPECT_EQ(whole.layouts(), index->layouts());
    EXPECT_NE(index->layouts()[0].mark, index->layouts()[1].mark);
    EXPECT_EQ(whole.layoutMark(), index->parseBuses("m")->layoutMark(index->layouts()));
    EXPECT_EQ(whole.faultMark(), index->parseBuses("m")->faultMark());
}

TEST_F(MachineIndex, IsOfOneTextAlone)
{
    std::string other = text;
    other[text.find("0x90")] = '1';
    EXPECT_FALSE(machineIndex::load(file, other).has_value());
    EXPECT_FALSE(machineIndex::load(file, text + "\n").has_value());
    EXPECT_FALSE(machineIndex::load(home.path / "nothing", text).has_value());
}

TEST_F(MachineIndex, ADamagedFileIsNone)
{
    const std::string good = home.text("machine.index");
    // 40 bytes, 12 for each of two buses, 4 for each of two chips
    ASSERT_EQ(72U, good.size());
    for (std::size_t at = 0; at < good.size(); ++at) {
        std::string bad = good;
        bad[at] = static_cast<char>(bad[at] ^ 0x10);
        home.put("machine.index", bad);
        EXPECT_FALSE(machineIndex::load(file, text).has_value()) << at;
        home.put("machine.index", good.substr(0, at));
        EXPECT_FALSE(machineIndex::load(file, text).has_value()) << at;
    }
}

// A bus has 12 bytes from 40 on, its number of chips and their mark; a chip has 4, its bus.
TEST_F(MachineIndex, AForgedFileIsNoneOrFitsNoBusThatItIsWrongAbout)
{
    const Bytes good = home.content("machine.index");
    constexpr std::size_t leftBus = 40, rightBus = 52, firstChip = 64, secondChip = 68;
    struct Row {
        std::size_t at;
        Bytes value;
        bool loads, left, right;
    };
    const Row rows[] = {
        {32, {3}, false, false, false}, // buses
        {36, {3}, false, false, false}, // chips
        {secondChip, {2}, false, false, false}, // of no bus
        {firstChip, {1, 0, 0, 0, 0}, true, false, false}, // of each other's bus
        {firstChip, {1}, true, false, false}, // of the other's, too
        {leftBus, {2}, true, false, true}, // chips of the bus
        {leftBus + 4, {0, 0, 0, 0, 0, 0, 0, 0}, true, false, true}, // what they are
        {rightBus + 4, {0, 0, 0, 0, 0, 0, 0, 0}, true, true, false},
    };
    for (const Row& forged : rows) {
        SCOPED_TRACE(forged.at);
        Bytes bad = good;
        std::ranges::copy(forged.value, bad.begin() + static_cast<std::ptrdiff_t>(forged.at));
        put(bad);
        const auto index = machineIndex::load(file, text);
        ASSERT_EQ(forged.loads, index.has_value());
        EXPECT_EQ(forged.left, index && index->parseChipsOf(0, "m"));
        EXPECT_EQ(forged.right, index && index->parseChipsOf(1, "m"));
    }
}

TEST_F(MachineIndex, OfATextWithErrorsFitsNothing)
{
    std::string bad = text;
    bad.replace(bad.find("0x90"), 4, "0x91");
    Bytes index = home.content("machine.index");
    const std::uint64_t hash = fnvHash64(bad);
    for (std::size_t i = 0; i < 8; ++i) {
        index[24 + i] = static_cast<std::uint8_t>(hash >> (8 * i));
    }
    put(index);
    const auto loaded = machineIndex::load(file, bad);
    ASSERT_TRUE(loaded.has_value());
    EXPECT_FALSE(loaded->parseChipsOf(0, "m").has_value());
    EXPECT_TRUE(loaded->parseChipsOf(1, "m").has_value());
}

TEST(MachineIndexOf, TablesThatShareLinesHaveNone)
{
    const std::string shared = "bus = [{name = \"a\"}, {name = \"b\"}]\n";
    EXPECT_FALSE(machineIndex::make(shared, parseMachine(shared, "m")).has_value());
}

} // namespace
} // namespace kest::sim::test
