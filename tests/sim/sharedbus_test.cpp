// What a process that is killed leaves on its bus.
#include "sim/realclock.h"
#include "tests/sim/machinetest.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kest::sim::test
{

namespace
{

constexpr unsigned rounds = 25;

/// A machine of such a clock does not stay open without users.
class StillClock final : public realClock
{
public:
    std::uint64_t nowNs() override { return 1; }
    void sleepUntil(std::uint64_t) override {}
};

class KilledProcess : public MachineTest
{
protected:
    /// A child process makes steps from number 0 on, and reports how each ended. It is killed within a later one.
    /// @param reports  after how many
    /// @return what it reported: one step at most went without a report
    static std::vector<outcome> killWithin(unsigned reports, const std::function<outcome(unsigned)>& step)
    {
        int told[2];
        EXPECT_EQ(0, pipe(told));
        const pid_t child = fork();
        if (child == 0) {
            for (unsigned number = 0;; ++number) {
                const outcome end = step(number);
                if (write(told[1], &end, sizeof end) != sizeof end) {
                    _exit(1);
                }
            }
        }
        close(told[1]);
        std::vector<outcome> ends;
        outcome end{};
        while (ends.size() < reports && read(told[0], &end, sizeof end) == sizeof end) {
            ends.push_back(end);
        }
        // at another place of the step each time
        for (unsigned turn = 0; turn < reports * 389 % 64; ++turn) {
            sched_yield();
        }
        kill(child, SIGKILL);
        while (read(told[0], &end, sizeof end) == sizeof end) {
            ends.push_back(end);
        }
        close(told[0]);
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(SIGKILL, WTERMSIG(status));
        return ends;
    }
};

// A ferroelectric memory keeps each byte as it is acknowledged: of the last write, some are there.
TEST_F(KilledProcess, LeavesTheBytesThatAFerroelectricMemoryAcknowledged)
{
    constexpr unsigned length = 8;
    power(chip("24C512", "0xA0", "kind = \"fram\"\nimage = \"a.bin\""));
    for (unsigned round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        const auto mark = static_cast<std::uint8_t>(round + 1);
        Bytes expected = home.content("a.bin");
        const auto ends = killWithin(7 * round + 1, [&](unsigned number) {
            const unsigned offset = number * length % 0x10000;
            const Bytes place{static_cast<std::uint8_t>(offset >> 8), static_cast<std::uint8_t>(offset)};
            return on->write(0xA0, place + Bytes(length, mark)).end;
        });
        EXPECT_EQ(std::vector(ends.size(), outcome::done), ends);
        EXPECT_EQ(Bytes{mark}, on->readAt(0xA0, {0, 0}, 1).data);
        const Bytes image = home.content("a.bin");
        const auto written =
            std::ranges::find_if_not(image, [mark](auto byte) { return byte == mark; }) - image.begin();
        EXPECT_LE(std::min<std::size_t>(ends.size() * length, image.size()), static_cast<std::size_t>(written));
        EXPECT_GE((ends.size() + 1) * length, static_cast<std::size_t>(written));
        std::fill_n(expected.begin(), written, mark);
        EXPECT_EQ(expected, image);
    }
}

// The adapter sends a STOP and a START between messages: what the first one wrote counts, whether or not the second was
// sent.
TEST_F(KilledProcess, LeavesThePagesThatWereSentBetweenStops)
{
    power("adapter = { stop_between = true }\n" + chip("24C02", "0xA0", "image = \"a.bin\"") +
          chip("24C02", "0xA2", "image = \"b.bin\""));
    for (unsigned round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        const auto ends = killWithin(7 * round + 1, [this](unsigned number) {
            const auto mark = static_cast<std::uint8_t>(number);
            Bytes first{0x10, mark, mark}, second{0x20, mark, mark};
            segment parts[2] = {{0xA0, direction::write, first, false}, {0xA2, direction::write, second, false}};
            // no write cycle is running any more
            on->idleMs(10);
            return on->run(parts, {}).end;
        });
        EXPECT_EQ(std::vector(ends.size(), outcome::done), ends);
        // finishes what is left to do
        on->idleMs(10);
        const Bytes a = home.content("a.bin"), b = home.content("b.bin");
        const Bytes both{a[0x10], a[0x11], b[0x20], b[0x21]};
        const auto last = static_cast<std::uint8_t>(ends.size() - 1), next = static_cast<std::uint8_t>(ends.size());
        EXPECT_TRUE(both == (Bytes{last, last, last, last}) || both == (Bytes{next, next, last, last}) ||
                    both == (Bytes{next, next, next, next}))
            << ::testing::PrintToString(both) << " after " << ends.size();
    }
}

// The chip is away for the 100th transaction alone, whoever makes it.
TEST_F(KilledProcess, LeavesAScenarioWhichGoesOnWhereItWas)
{
    constexpr std::size_t withoutTheChip = 99;
    power(chip("PCA9554", "0x40"));
    const std::string at = "[[event]]\nbus = \"planar\"\naddress = 0x40\n";
    for (unsigned round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        machine->play(at + "transaction = 100\ndo = \"remove\"\n" + at + "transaction = 101\ndo = \"insert\"\n", "s");
        // around the 100th, and in rounds after one another before it and after it
        auto ends = killWithin(75 + 2 * round, [this](unsigned) { return on->probe(0x40); });
        const std::size_t reported = ends.size();
        while (ends.size() < 2 * withoutTheChip + reported) {
            ends.push_back(on->probe(0x40));
        }
        const auto away = std::ranges::find(ends, outcome::addressNotAcknowledged);
        const auto number = static_cast<std::size_t>(away - ends.begin());
        // one transaction may have gone without a report: the one without the chip, or one before it
        EXPECT_TRUE(number == withoutTheChip || (number == withoutTheChip - 1 && reported < withoutTheChip) ||
                    (away == ends.end() && reported == withoutTheChip))
            << number << " after " << reported;
        EXPECT_GE(1, std::ranges::count(ends, outcome::addressNotAcknowledged));
        EXPECT_LE(static_cast<std::ptrdiff_t>(ends.size()) - 1, std::ranges::count(ends, outcome::done));
    }
}

// A page is torn once, with the same choices, whoever brings it into the image.
TEST_F(KilledProcess, LeavesThePagesThatItTore)
{
    const std::string text = "[[bus]]\nname = \"planar\"\n" + chip("24C02", "0xA0", "image = \"a.bin\"");
    const auto writeAndTear = [](sim::machine& machine, User& user, unsigned number) {
        const auto page = static_cast<std::uint8_t>(8 * number);
        const outcome end = user.write(0xA0, Bytes{page} + counting(8, static_cast<std::uint8_t>(number))).end;
        return machine.powerCycle() ? end : outcome::gone;
    };
    const Folder unharmed;
    unharmed.put("machine.toml", text);
    StillClock clock;
    const auto model = openMachine(unharmed.path, clock);
    User modelUser{model->findBus("planar", "")};
    std::vector<Bytes> images{Bytes(256, 0xFF)};
    for (unsigned round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        std::filesystem::remove(home.path / "machine.state");
        home.put("a.bin", std::string(256, '\xFF'));
        home.put("machine.toml", text);
        open();
        const auto ends =
            killWithin(3 * round + 1, [&](unsigned number) { return writeAndTear(*machine, *on, number); });
        EXPECT_EQ(std::vector(ends.size(), outcome::done), ends);
        while (images.size() <= ends.size() + 1) {
            writeAndTear(*model, modelUser, static_cast<unsigned>(images.size() - 1));
            images.push_back(unharmed.content("a.bin"));
        }
        // tears the page of a write without a power cycle
        EXPECT_TRUE(machine->powerCycle());
        const Bytes image = home.content("a.bin");
        EXPECT_TRUE(image == images[ends.size()] || image == images[ends.size() + 1]) << ends.size();
    }
}

TEST_F(KilledProcess, LeavesNoStateHalfMade)
{
    std::string buses;
    for (const char* name : {"planar", "b1", "b2", "b3"}) {
        buses += "[[bus]]\nname = \"" + std::string{name} + "\"\n";
    }
    const auto withFault = [&buses](const std::string& kind) { return buses + "[[fault]]\nkind = \"" + kind + "\"\n"; };
    StillClock clock;
    for (unsigned round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        killWithin(2 * round + 1, [&](unsigned number) {
            // every third one makes the state, the others take its faults from the file
            if (number % 3 == 0) {
                std::filesystem::remove(home.path / "machine.state");
            }
            home.put("machine.toml", withFault(number % 2 == 0 ? "corrupt" : "nack"));
            return openMachine(home.path, clock)->findBus("planar", "") == nullptr ? outcome::gone : outcome::done;
        });
        home.put("machine.toml", withFault("nack"));
        ::testing::internal::CaptureStderr();
        const auto left = openMachine(home.path, clock);
        const auto faults = left->faults();
        EXPECT_EQ("", ::testing::internal::GetCapturedStderr());
        ASSERT_EQ(1U, faults.size());
        EXPECT_EQ("nack", faults[0].what.kind);
        for (const std::string& name : left->busNames("")) {
            EXPECT_EQ(outcome::addressNotAcknowledged, User{left->findBus(name, "")}.probe(0x40));
        }
        EXPECT_EQ(4U, left->faults().at(0).struck);
    }
}

} // namespace
} // namespace kest::sim::test
