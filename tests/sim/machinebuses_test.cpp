#include "sim/busstate.h"
#include "sim/chip.h"
#include "sim/realclock.h"
#include "sim/statefile.h"
#include "tests/sim/machinetest.h"

#include <fstream>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kest::sim::test
{

namespace
{

/// A machine of such a clock does not stay open without users: each is like that of a process that begins.
class StillClock final : public realClock
{
public:
    std::uint64_t nowNs() override { return 1; }
    void sleepUntil(std::uint64_t) override {}
};

/// Runs a function in a child process, which is ended when it waits. @return its status, 0 when the function returned true
int inChild(const std::function<bool()>& body)
{
    constexpr unsigned longestWaitSeconds = 20;
    const pid_t child = fork();
    if (child == 0) {
        alarm(longestWaitSeconds);
        _exit(body() ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

/// Two buses with a memory each.
class MachineBuses : public MachineTest
{
protected:
    void SetUp() override
    {
        power("[[bus]]\nname = \"other\"\n" + chip("24C02", "0xA0", "image = \"a.bin\"") +
              "[[chip]]\nbus = \"other\"\ntype = \"24C02\"\naddress = 0xA0\nimage = \"b.bin\"\n");
        on.reset();
        machine.reset();
    }
    [[nodiscard]] std::filesystem::path stateName() const { return home.path / "machine.state"; }

    static constexpr std::size_t recordBytes = busStateBytes + chipStateBytes;
    static constexpr std::size_t layout[] = {recordBytes, recordBytes};
    StillClock clock;
};

// New faults make all buses, also those that nobody has used.
TEST_F(MachineBuses, AnImageThatIsWrongIsFoundAlsoWhenTheFaultsOfTheFileChange)
{
    home.put("machine.toml", home.text("machine.toml") + "[[fault]]\nkind = \"nack\"\naddress = 0xEE\n");
    home.put("a.bin", "short");
    const auto opened = openMachine(home.path, clock);
    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            opened->findBus("planar", "");
            ADD_FAILURE() << "opened";
        } catch (const std::runtime_error& why) {
            EXPECT_EQ((std::filesystem::canonical(home.path) / "machine.toml").string() +
                          ":5:1: image 'a.bin': has 5 bytes, the chip 256",
                      why.what());
        }
    }
    home.put("a.bin", std::string(256, 'x'));
    EXPECT_EQ(Bytes{'x'}, User{opened->findBus("planar", "")}.readAt(0xA0, {0}, 1).data);
}

// Another process has the bus for as long as its transaction takes, which is long in real time.
TEST_F(MachineBuses, AProcessThatBeginsDoesNotWaitForTransactionsOfOtherBuses)
{
    EXPECT_EQ(0, inChild([this] {
                  stateFile another{stateName(), layout};
                  const stateFile::hold transaction{another, 0};
                  const auto opened = openMachine(home.path, clock);
                  User other{opened->findBus("other", "")};
                  return transaction.held() && other.probe(0xA0) == outcome::done;
              }));
}

TEST_F(MachineBuses, AFaultDoesNotWaitForTransactionsOfOtherBuses)
{
    EXPECT_EQ(0, inChild([this] {
                  stateFile another{stateName(), layout};
                  const auto opened = openMachine(home.path, clock);
                  const stateFile::hold transaction{another, 0};
                  User other{opened->findBus("other", "")};
                  return transaction.held() && opened->addFault({.kind = "nack", .bus = "other"}) == 1 &&
                         other.probe(0xA0) == outcome::addressNotAcknowledged;
              }));
}

/// Whether somebody waits for a lock of a file.
bool isAwaited(const std::filesystem::path& file)
{
    struct stat found {
    };
    stat(file.c_str(), &found);
    const std::string number = ":" + std::to_string(found.st_ino) + " ";
    std::ifstream locks{"/proc/locks"};
    for (std::string line; std::getline(locks, line);) {
        if (line.find("->") != std::string::npos && line.find(number) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// The one who found the damage waits for the lock of all while another process makes a smaller machine.
TEST_F(MachineBuses, AMachineThatReplacedADamagedOneStays)
{
    if (!std::ifstream{"/proc/locks"}) {
        GTEST_SKIP() << "no list of locks";
    }
    std::string bad = home.text("machine.state");
    constexpr std::size_t other = 4096 + 2048 + 2 * recordBytes, time = 2048 + 269;
    bad.replace(other + time, 8, std::string(8, '\xFF'));
    bad.replace(other + recordBytes + time, 8, std::string(8, '\xFF'));
    home.put("machine.state", bad);
    EXPECT_EQ(0, inChild([this] {
                  const auto opened = openMachine(home.path, clock);
                  stateFile another{stateName(), layout};
                  std::optional<stateFile::hold> transaction{std::in_place, another, 0};
                  std::jthread user{[&opened] { opened->findBus("other", ""); }};
                  while (!isAwaited(stateName())) {
                      sched_yield();
                  }
                  stateFile smaller{stateName(), std::span{layout}.first(1)};
                  smaller.renew(1);
                  smaller.seal();
                  transaction.reset();
                  user.join();
                  return smaller.seemsUsable(1) && !std::filesystem::exists(home.path / "machine.state.damaged");
              }));
}

} // namespace
} // namespace kest::sim::test
