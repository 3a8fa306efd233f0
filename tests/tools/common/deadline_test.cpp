/// The end of a process whose time is up: what it says, and that nobody keeps it from ending.
#include "tools/common/deadline.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "base/clock.h"
#include "base/descriptor.h"
#include "tools/common/output.h"

namespace kest::tools
{
namespace
{

/// A pipe in place of standard output.
class Deadline : public testing::Test
{
protected:
    Deadline()
    {
        std::array<int, 2> ends{-1, -1};
        EXPECT_EQ(0, pipe2(ends.data(), O_CLOEXEC));
        readEnd = fileDescriptor(ends[0]);
        writeEnd = fileDescriptor(ends[1]);
    }

    /// Until the next byte would have to wait.
    void fill() const
    {
        const std::string block(4096, 'x');
        fcntl(writeEnd.number(), F_SETFL, O_NONBLOCK);
        while (write(writeEnd.number(), block.data(), block.size()) > 0) {
            continue;
        }
        fcntl(writeEnd.number(), F_SETFL, 0);
    }
    /// What is in the pipe, when nobody writes to it any more.
    [[nodiscard]] std::string taken()
    {
        writeEnd = fileDescriptor();
        std::string all;
        std::array<char, 4096> block{};
        for (ssize_t got = 0; (got = read(readEnd.number(), block.data(), block.size())) > 0;) {
            all.append(block.data(), static_cast<std::size_t>(got));
        }
        return all;
    }
    /// In a process of its own.
    static void runOut()
    {
        constexpr std::uint64_t hourNs = 3600 * nsPerSecond;
        if (endAfter(hourNs, {"the time is up\n", "{\"error\": {}}\n"}) == 0) {
            std::raise(SIGALRM);
        }
    }

    fileDescriptor readEnd;
    fileDescriptor writeEnd;
};

TEST_F(Deadline, ReportsOnBothStreams)
{
    const auto ends = [this] {
        dup2(writeEnd.number(), STDOUT_FILENO);
        runOut();
    };
    EXPECT_EXIT(ends(), testing::ExitedWithCode(1), "^the time is up\n$");
    EXPECT_EQ("{\"error\": {}}\n", taken());
}

TEST_F(Deadline, DoesNotWaitForRoomInAPipe)
{
    fill();
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
        const auto ends = [this, stream] {
            dup2(writeEnd.number(), stream);
            runOut();
        };
        EXPECT_EXIT(ends(), testing::ExitedWithCode(1), "") << stream;
    }
}

TEST_F(Deadline, SaysNothingIntoAClosedPipe)
{
    readEnd = fileDescriptor();
    const auto ends = [this] {
        dup2(writeEnd.number(), STDOUT_FILENO);
        runOut();
    };
    EXPECT_EXIT(ends(), testing::ExitedWithCode(1), "^the time is up\n$");
}

TEST_F(Deadline, AddsNothingToResultsThatHaveBegun)
{
    const auto ends = [this] {
        dup2(writeEnd.number(), STDOUT_FILENO);
        standardOutput().text("{\"entries\": [");
        standardOutput().flush();
        runOut();
    };
    EXPECT_EXIT(ends(), testing::ExitedWithCode(1), "^the time is up\n$");
    EXPECT_EQ("{\"entries\": [", taken());
}

} // namespace
} // namespace kest::tools
