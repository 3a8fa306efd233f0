/// What the message service tells its manager: signs of life and reloads.
#include <algorithm>
#include <fcntl.h>

#include "tests/places.h"
#include "tests/tools/kestd_support.h"

namespace kest::test
{
namespace
{

using client::outcome;

class KestdManaged : public KestdTest
{
protected:
    /// Serves a simulated machine, with a watchdog that wants a sign of life every 20 ms.
    void serveMachine()
    {
        const RunResult made = run("kestctl", {"sim", "new", (folder() / "machine").string()});
        ASSERT_EQ(0, made.exit) << made.errors;
        configure("", "HWareMode",
                  "[machine]\nfolder = \"machine\"\n[[device]]\nnumber = 17\nlocation = \"sim:planar,L,2C0512,A6\"\n");
        start(-1, {{"WATCHDOG_USEC", "20000"}});
    }
    /// Locks the simulated buses, or unlocks them. Meanwhile, who uses one waits in the kernel.
    void lockBuses(bool lock)
    {
        m_state = m_state >= 0 ? m_state : open((folder() / "machine/machine.state").c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_LE(0, m_state);
        struct flock range {
        };
        range.l_type = static_cast<short>(lock ? F_WRLCK : F_UNLCK);
        range.l_whence = SEEK_SET;
        ASSERT_EQ(0, fcntl(m_state, F_OFD_SETLK, &range));
    }
    void TearDown() override { close(m_state); }

    /// Runs `kestd --reload` as the service manager does.
    [[nodiscard]] RunResult reloadByCommand()
    {
        return run("kestd", configured({"--reload", std::to_string(daemon().pid())}),
                   {.environment = {{"NOTIFY_SOCKET", daemon().manager()}}});
    }

private:
    int m_state = -1;
};

bool isSignOfLife(const std::string& message) { return message == "WATCHDOG=1"; }

TEST_F(KestdManaged, AHungRequestEndsTheSignsOfLifeUntilItEnds)
{
    serveMachine();
    // makes the machine's files
    ASSERT_EQ(outcome::done, connect().readSeeprom("sim:planar,L,2C0512,A6", 0, 4).what);
    lockBuses(true);
    RawClient hung(socketPath());
    ASSERT_TRUE(hung.send(seepromRequest(0x8001, 0, 4, 5, "sim:planar,L,2C0512,A6")));
    EXPECT_TRUE(daemon().says("STATUS=a request has been at work for 0 s and is taken for hung"));
    // others are served, for longer than a sign of life takes
    client::serviceConnection other = connect();
    for (int number = 0; number < 2000; ++number) {
        ASSERT_TRUE(other.location(17, 0));
    }
    lockBuses(false);
    const auto reply = hung.receive();
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(0x42, reply->flags);
    const std::vector<std::string> meanwhile =
        daemon().saidUntil("STATUS=the request that was taken for hung has ended");
    EXPECT_EQ(1U, meanwhile.size());
    EXPECT_EQ(0, std::ranges::count_if(meanwhile, isSignOfLife));
    EXPECT_TRUE(daemon().says("WATCHDOG=1"));
    EXPECT_EQ(0, daemon().stop());
}

TEST_F(KestdManaged, TheCommandOfAReloadTellsTheManagerFirst)
{
    start();
    configure("max_payload = 512");
    const RunResult done = reloadByCommand();
    EXPECT_EQ(0, done.exit) << done.errors;
    const std::vector<std::string> said = daemon().saidUntil("READY=1");
    // of the command, of the service, the end
    EXPECT_EQ(3U, said.size());
    EXPECT_EQ(2, std::ranges::count_if(said, [](const std::string& message) {
                  return message.starts_with("RELOADING=1\nMONOTONIC_USEC=");
              }));
    EXPECT_EQ(0x80001603U, connect().writeSeeprom(someLocation, 0, std::vector<std::uint8_t>(1000)).returnCode);
}

TEST_F(KestdManaged, AReloadWithAWrongConfigurationIsNotBegun)
{
    start();
    configure("max_clients = \"many\"");
    const RunResult refused = reloadByCommand();
    EXPECT_EQ(2, refused.exit);
    EXPECT_NE(std::string::npos, refused.errors.find("key 'service.max_clients'")) << refused.errors;
    EXPECT_TRUE(connect().readSeeprom(someLocation, 0, 4));
    daemon().signal(SIGTERM);
    EXPECT_EQ((std::vector<std::string>{"STOPPING=1"}), daemon().saidUntil("STOPPING=1"));
    EXPECT_EQ("", daemon().errors());
}

TEST_F(KestdManaged, AReloadNamesAProcess)
{
    start();
    EXPECT_EQ(2, run("kestd", configured({"--reload", "x"})).exit);
    EXPECT_EQ(2, run("kestd", configured({"--reload", "1"})).exit);
    // no process has so high a number
    const RunResult nobody = run("kestd", configured({"--reload", "2147483647"}));
    EXPECT_EQ(1, nobody.exit);
    EXPECT_NE(std::string::npos, nobody.errors.find("No such process")) << nobody.errors;
}

} // namespace
} // namespace kest::test
