#include "base/hash.h"
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
        made->save(file, text);
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
    EXPECT_EQ(1U, index->chipsOf(0));
    EXPECT_EQ(1U, index->chipsOf(1));
    const machineDescription right = index->parse(text, "m", 1);
    ASSERT_EQ(2U, right.buses.size());
    EXPECT_EQ("left", right.buses[0].name);
    EXPECT_EQ("far", right.buses[1].node);
    ASSERT_EQ(1U, right.chips.size());
    EXPECT_EQ("PCA9554", right.chips[0].typeName);
    EXPECT_EQ(1U, right.chips[0].bus);
    EXPECT_EQ("8:3", right.chips[0].place);
    EXPECT_EQ(7U, right.seed);
    EXPECT_TRUE(right.faults.empty());
    EXPECT_EQ("4:1", index->parse(text, "m", 0).chips.at(0).place);
    EXPECT_TRUE(index->parse(text, "m", std::nullopt).chips.empty());
}

TEST_F(MachineIndex, MarksAreThoseOfTheWholeText)
{
    const machineDescription whole = parseMachine(text, "m");
    const auto index = machineIndex::load(file, text);
    ASSERT_TRUE(index.has_value());
    EXPECT_EQ(whole.layoutMark(), index->layoutMark());
    EXPECT_EQ(whole.faultMark(), index->faultMark());
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
    // 60 bytes and 20 for each of two buses and two chips
    ASSERT_EQ(140U, good.size());
    for (std::size_t at = 0; at < good.size(); ++at) {
        std::string bad = good;
        bad[at] = static_cast<char>(bad[at] ^ 0x10);
        home.put("machine.index", bad);
        EXPECT_FALSE(machineIndex::load(file, text).has_value()) << at;
        home.put("machine.index", good.substr(0, at));
        EXPECT_FALSE(machineIndex::load(file, text).has_value()) << at;
    }
}

// Pieces are 20 bytes: offset, length, line, column and bus.
TEST_F(MachineIndex, AForgedFileDoesNoHarm)
{
    const Bytes good = home.content("machine.index");
    constexpr std::size_t secondChip = 60 + 3 * 20;
    struct Row {
        std::size_t at;
        Bytes value;
        bool loads;
    };
    const Row rows[] = {
        {secondChip, {0xFF, 0xFF, 0xFF, 0xFF}, false},
        {secondChip + 4, {0xFF, 0xFF, 0xFF, 0xFF}, false},
        {secondChip + 16, {2}, false},
        {48, {0xFF, 0xFF}, false}, // bytes before the first table
        {52, {3, 0, 0, 0, 2}, false}, // more tables than there are
        {secondChip + 4, {0}, true}, // no chip
        {secondChip + 16, {0}, true}, // of the other bus
        {secondChip, {19}, true}, // in the middle of a word
    };
    for (const Row& forged : rows) {
        Bytes bad = good;
        std::ranges::copy(forged.value, bad.begin() + static_cast<std::ptrdiff_t>(forged.at));
        put(bad);
        const auto index = machineIndex::load(file, text);
        ASSERT_EQ(forged.loads, index.has_value()) << forged.at;
        if (index) {
            EXPECT_THROW((static_cast<void>(index->parse(text, "m", 0)), static_cast<void>(index->parse(text, "m", 1))),
                         std::runtime_error)
                << forged.at;
        }
    }
}

TEST(MachineIndexOf, TablesThatShareLinesHaveNone)
{
    const std::string shared = "bus = [{name = \"a\"}, {name = \"b\"}]\n";
    EXPECT_FALSE(machineIndex::make(shared, parseMachine(shared, "m")).has_value());
}

} // namespace
} // namespace kest::sim::test
