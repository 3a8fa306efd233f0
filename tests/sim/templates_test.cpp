#include "sim/demo.h"
#include "sim/templates.h"
#include "tests/sim/machinetest.h"

#include <algorithm>
#include <map>
#include <set>

namespace kest::sim::test
{

namespace
{

class Templates : public MachineTest
{
protected:
    /// Writes and opens the machine of a template.
    void start(std::string_view name)
    {
        const auto all = machineTemplates();
        const auto found = std::ranges::find(all, name, &machineTemplate::name);
        ASSERT_NE(all.end(), found);
        writeMachine(home.path / name, found->text(), {});
        machine = openMachine(home.path / name, false);
    }
};

TEST_F(Templates, HaveNames)
{
    std::vector<std::string_view> names;
    for (const auto& each : machineTemplates()) {
        names.push_back(each.name);
    }
    EXPECT_EQ((std::vector<std::string_view>{"demo", "rack", "hubs", "hostile"}), names);
}

TEST_F(Templates, RackIs64BusesWith16DevicesEach)
{
    start("rack");
    EXPECT_EQ((std::vector<std::string>{"", "shelf1", "shelf2", "shelf3", "shelf4", "shelf5", "shelf6", "shelf7"}),
              machine->nodes());
    std::map<std::string, unsigned> devices;
    for (const auto& chip : machine->chips()) {
        ++devices[chip.node + ":" + chip.bus];
    }
    EXPECT_EQ(64U, devices.size());
    for (const auto& [bus, count] : devices) {
        EXPECT_EQ(16U, count) << bus;
    }
    User last{machine->findBus("m7", "shelf7")};
    EXPECT_EQ(outcome::done, last.probe(0x96));
    EXPECT_EQ(last.readAt(0x80, {5, 0xA2, 0}, 2).data, (Bytes{0, 0xFF}));
}

TEST_F(Templates, HubsHaveChipsBehindEveryPort)
{
    start("hubs");
    User tree{machine->findBus("tree", "")};
    std::set<std::pair<unsigned, unsigned>> ports;
    for (const auto& chip : machine->chips()) {
        if (chip.behindHub) {
            ports.emplace(chip.hubAddress, chip.port);
        }
    }
    EXPECT_EQ(32U, ports.size());
    for (const std::uint8_t hub : Bytes{0x80, 0x82, 0x88, 0x8A}) {
        for (std::uint8_t port = 0; port < 8; ++port) {
            EXPECT_EQ(tree.readAt(hub, {port, 0xA4, 0}, 2).data, (Bytes{0, 0xFF})) << +hub << " " << +port;
        }
    }
}

TEST_F(Templates, HostileStrikesAndIsTheSameEachTime)
{
    std::vector<outcome> ends[2];
    for (auto& list : ends) {
        start("hostile");
        User flaky{machine->findBus("flaky", "")};
        for (int i = 0; i < 300; ++i) {
            list.push_back(flaky.readAt(0xA0, {0, 0}, 8).end);
            if (flaky.planar->lines() != outcome::done) {
                flaky.planar->reset();
            }
        }
        std::filesystem::remove_all(home.path / "hostile");
    }
    EXPECT_EQ(ends[0], ends[1]);
    const std::set<outcome> kinds{ends[0].begin(), ends[0].end()};
    EXPECT_TRUE(kinds.contains(outcome::done));
    EXPECT_TRUE(kinds.contains(outcome::addressNotAcknowledged));
    EXPECT_TRUE(kinds.contains(outcome::arbitrationLost));
    EXPECT_TRUE(kinds.contains(outcome::shortTransfer));
    EXPECT_TRUE(kinds.contains(outcome::sdaHeld));
}

TEST_F(Templates, HostileHasPartsOfOtherMakers)
{
    start("hostile");
    User parts{machine->findBus("parts", "")}, deaf{machine->findBus("deaf", "")};
    // 17 bytes to a page of 16
    parts.store(0xA0, Bytes{0x00, 0x00} + Bytes(16, 0x11) + Bytes{0x22});
    EXPECT_EQ(parts.readAt(0xA0, {0x00, 0x00}, 2).data, (Bytes{0x22, 0x11}));
    EXPECT_EQ(outcome::done, parts.write(0xA2, {0x00, 0x00, 1}).end);
    EXPECT_EQ(outcome::done, parts.probe(0xA2));
    EXPECT_EQ(outcome::done, parts.probe(0xAE));
    EXPECT_EQ(outcome::done, deaf.probe(0xAE));
    for (const Bytes& behindHub : {Bytes{0, 0xA2, 0}, Bytes{1, 0xAE, 0}, Bytes{2, 0xA4, 0}, Bytes{3, 0xA4, 0, 0}}) {
        parts.write(0x80, behindHub + Bytes{0x5A});
        parts.idleMs(10);
        EXPECT_EQ(parts.readAt(0x80, behindHub, 2).data, (Bytes{0, 0x5A})) << +behindHub[0];
    }
    parts.write(0x80, {4, 0xA4, 0, 0x5A});
    parts.idleMs(10);
    EXPECT_EQ(parts.readAt(0x80, {4, 0xA4, 0}, 2).data, (Bytes{0, 0xFF}));
}

TEST_F(Templates, FaultsAndWavesReachBusesOfEveryNode)
{
    start("hostile");
    EXPECT_EQ((std::vector<std::string>{"", "far"}), machine->nodes());
    machine->clearFaults();
    User near{machine->findBus("flaky", "")}, far{machine->findBus("flaky", "far")};
    machine->addFault({.kind = "nack", .bus = "flaky", .node = "far"});
    EXPECT_EQ("far:flaky", machine->faults().at(0).what.bus);
    EXPECT_EQ(outcome::addressNotAcknowledged, far.probe(0xA0));
    EXPECT_EQ(outcome::done, near.probe(0xA0));
    EXPECT_THROW(machine->addFault({.kind = "nack", .bus = "slow", .node = "far"}), std::invalid_argument);

    const auto file = home.path / "far.vcd";
    EXPECT_TRUE(machine->startWave("flaky", "far", file));
    const auto empty = std::filesystem::file_size(file);
    near.probe(0xA0);
    EXPECT_EQ(empty, std::filesystem::file_size(file));
    far.probe(0xA0);
    EXPECT_LT(empty, std::filesystem::file_size(file));
    EXPECT_TRUE(machine->stopWave("flaky", "far"));
    EXPECT_FALSE(machine->stopWave("flaky", "far"));
    EXPECT_FALSE(machine->startWave("flaky", "nowhere", file));
}

} // namespace
} // namespace kest::sim::test
