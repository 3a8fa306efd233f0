/// Forks of a process whose threads are busy with the host's services, or use them for the first time.
#include <gtest/gtest.h>
#include <thread>

#include "platform/host/configuration/configuration.h"
#include "tests/forks.h"
#include "tests/host/host_support.h"
#include "tests/sanitizers.h"

namespace kest::test
{
namespace
{

class HostFork : public testing::Test
{
protected:
    HostFolder folder{"registry.a = \"1\""};
};

TEST_F(HostFork, ChildCommitsBesideTheFirstEntryOfAThread)
{
    KEST_SKIP_FORK_OF_BUSY_THREADS();
    EXPECT_EQ(0, failedBesideFirstUse([] { return commitEntry(1) != 0; }));
}

TEST_F(HostFork, ChildTracesBesideTheFirstBufferOfAThread)
{
    KEST_SKIP_FORK_OF_BUSY_THREADS();
    EXPECT_EQ(0, failedBesideFirstUse([] {
                  trace_wobu_descriptor made = nullptr;
                  return trace_wobu_init_buffer(&made, "FORK", 4096) == 0;
              }));
}

TEST_F(HostFork, ChildReadsTheConfigurationBesideAReloadOfAThread)
{
    KEST_SKIP_FORK_OF_BUSY_THREADS();
    const std::jthread reloading([](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            host::reloadConfiguration();
        }
    });
    for (int round = 0; round < 50; ++round) {
        ASSERT_EQ(0, inChild([] {
                      alarm(hangSeconds);
                      const bool read = host::reloadConfiguration().empty();
                      return read && host::currentConfiguration().registry.at("a") == "1" ? 0 : 1;
                  }))
            << round;
    }
}

} // namespace
} // namespace kest::test
