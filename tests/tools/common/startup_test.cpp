/// Programs that are started without standard input, output or error.
#include <cstdlib>
#include <fcntl.h>
#include <gmock/gmock.h>

#include "platform/host/trace/reader.h"
#include "tests/tools/kestd_support.h"
#include "tools/common/startup.h"

KEST_STARTS_FIRST;

namespace kest::test
{
namespace
{

/// What this program's initialisers found open as the three streams.
bool isOpen(int number) { return fcntl(number, F_GETFD) >= 0; }
const bool openAtLoad = isOpen(0) && isOpen(1) && isOpen(2);

class ClosedStreams : public MachineTest
{
protected:
    /// The rings in the machine's state folder that no output has been written into.
    [[nodiscard]] std::size_t wholeRings() const { return host::listRings(machine() / "state" / "trace").size(); }
    [[nodiscard]] std::size_t ringFiles() const
    {
        std::size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(machine() / "state" / "trace")) {
            count += entry.path().extension() == ".ring" ? 1 : 0;
        }
        return count;
    }
};

const std::vector<std::vector<int>> ways{{0}, {1}, {2}, {0, 1}, {1, 2}, {0, 1, 2}};

TEST_F(ClosedStreams, KestctlPrintsIntoNoFileOfItsOwn)
{
    const std::string image = readFile(machine() / "system.bin");
    for (const std::vector<int>& closed : ways) {
        EXPECT_EQ(0, kestctl({"seeprom", "read", "planar-vpd"}, {.closed = closed}).exit);
        EXPECT_EQ(4, kestctl({"seeprom", "read", "sim:planar,L,2C0256,AE"}, {.closed = closed}).exit);
        EXPECT_EQ(ringFiles(), wholeRings()) << testing::PrintToString(closed);
    }
    EXPECT_LE(ways.size(), wholeRings());
    EXPECT_EQ(image, readFile(machine() / "system.bin"));
}

TEST_F(ClosedStreams, KestctlReadsNoFileOfItsOwn)
{
    const RunResult result =
        kestctl({"seeprom", "write", "planar-vpd", "--input", "-", "--yes"}, {.input = "bytes", .closed = {0}});
    EXPECT_EQ(2, result.exit) << "standard input has ended: there is nothing to write; " << result.errors;
}

TEST_F(ClosedStreams, KestdServesWithoutThem)
{
    for (const std::vector<int>& closed : ways) {
        Program service("kestd", {}, configured({.closed = closed}));
        const auto until = std::chrono::steady_clock::now() + patience;
        const auto connected = [this] { return RawClient(machine() / "state" / "kestd.socket").connected(); };
        bool serves = connected();
        while (!serves && std::chrono::steady_clock::now() < until) {
            poll(nullptr, 0, 5);
            serves = connected();
        }
        EXPECT_TRUE(serves) << testing::PrintToString(closed);
        service.sendSignal(SIGTERM);
        EXPECT_EQ(0, service.finish().exit);
        EXPECT_EQ(ringFiles(), wholeRings()) << testing::PrintToString(closed);
    }
}

TEST(Startup, RunsBeforeInitialisers)
{
    if (std::getenv("KEST_STARTED_WITHOUT_STREAMS") != nullptr) {
        EXPECT_TRUE(openAtLoad);
    } else {
        for (const std::vector<int>& closed : ways) {
            const RunResult again = run("../tests/tools_tests", {"--gtest_filter=Startup.IsAheadOfInitialisers"},
                                        {.environment = {{"KEST_STARTED_WITHOUT_STREAMS", "yes"}}, .closed = closed});
            EXPECT_EQ(0, again.exit) << testing::PrintToString(closed) << again.output << again.errors;
        }
    }
}

} // namespace
} // namespace kest::test
