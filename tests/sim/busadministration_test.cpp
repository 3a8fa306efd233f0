#include "tests/sim/machinetest.h"

#include <cerrno>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

#include <sys/resource.h>

namespace kest::sim::test
{

namespace
{

/// Two buses. The image of one takes no page, which leaves that bus unusable. Every bus has fault 1.
class UnusableBus : public MachineTest
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &m_usual));
        home.put("machine.toml", "[[bus]]\nname = \"other\"\n[[bus]]\nname = \"planar\"\n" +
                                     chip("24C512", "0xA0", "image = \"large.bin\"") +
                                     "[[chip]]\nbus = \"other\"\ntype = \"PCA9554\"\naddress = 0x40\n");
        open();
        ASSERT_EQ(1U, fault({.kind = "nack", .address = 0xEE}));
        // the page is beyond the limit
        limitFiles(16384);
        ASSERT_EQ(outcome::gone, on->write(0xA0, {0x80, 0x00, 0x5A}).end);
    }
    void TearDown() override { repair(); }
    void repair() const { limitFiles(m_usual.rlim_cur); }

    /// @return what is said of the bus; empty: nothing
    static std::string trouble(const std::function<void()>& step)
    {
        try {
            step();
        } catch (const std::system_error& why) {
            EXPECT_EQ(ENODEV, why.code().value());
            return why.what();
        }
        return "";
    }

    const std::string unusable = "bus 'planar' cannot be used: No such device";

private:
    void limitFiles(rlim_t bytes) const
    {
        const rlimit limit{bytes, m_usual.rlim_max};
        ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    }

    rlimit m_usual{};
};

TEST_F(UnusableBus, IsNotLeftOutOfListings)
{
    EXPECT_EQ(unusable, trouble([this] { machine->registers(); }));
    EXPECT_EQ(unusable, trouble([this] { machine->faults(); }));
    repair();
    EXPECT_EQ("", trouble([this] { machine->registers(); }));
    EXPECT_EQ(1U, machine->faults().size());
}

TEST_F(UnusableBus, KeepsItsFaultsWhenAllAreClearedAndThatIsSaid)
{
    EXPECT_EQ(unusable, trouble([this] { machine->clearFaults(); }));
    repair();
    ASSERT_EQ(1U, machine->faults().size());
    User other{machine->findBus("other", "")};
    EXPECT_EQ(0U, machine->faults().at(0).struck);
    other.probe(0xEE);
    // the other bus's was cleared
    EXPECT_EQ(0U, machine->faults().at(0).struck);
    on->probe(0xEE);
    EXPECT_EQ(1U, machine->faults().at(0).struck);
}

TEST_F(UnusableBus, KeepsAFaultThatIsClearedAndThatIsSaid)
{
    EXPECT_EQ(unusable, trouble([this] { machine->clearFault(1); }));
    // it may have one of that number
    EXPECT_EQ(unusable, trouble([this] { machine->clearFault(2); }));
    repair();
    EXPECT_TRUE(machine->clearFault(1));
    EXPECT_FALSE(machine->clearFault(2));
}

TEST_F(UnusableBus, GetsNoFaultAndThatIsSaid)
{
    EXPECT_EQ(unusable, trouble([this] { fault({.kind = "nack", .address = 0xEC}); }));
    EXPECT_EQ(unusable, trouble([this] { fault({.kind = "nack", .bus = "planar"}); }));
    EXPECT_EQ("", trouble([this] { fault({.kind = "corrupt", .bus = "other"}); }));
    repair();
    std::vector<std::string> kinds;
    for (const auto& each : machine->faults()) {
        kinds.push_back(each.what.kind);
    }
    EXPECT_EQ((std::vector<std::string>{"nack", "corrupt"}), kinds);
}

} // namespace
} // namespace kest::sim::test
