#include "tools/common/signalblock.h"

#include <gtest/gtest.h>

namespace kest::tools
{
namespace
{

volatile std::sig_atomic_t arrived = 0;

TEST(SignalBlock, LetsSignalsArriveAtItsEnd)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        arrived = 0;
        const auto before = std::signal(number, [](int) { arrived = arrived + 1; });
        {
            const signalBlock quiet;
            std::raise(number);
            EXPECT_EQ(0, arrived) << number;
        }
        EXPECT_EQ(1, arrived) << number;
        std::signal(number, before);
    }
}

} // namespace
} // namespace kest::tools
