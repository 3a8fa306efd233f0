#include "tools/common/progress.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <pty.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace kest::tools
{
namespace
{

using namespace std::chrono_literals;

TEST(Progress, ShowsRateAndTimeLeft)
{
    EXPECT_EQ("12.0 KiB of 64.0 KiB, 3.0 KiB/s, 18 s left", progressText(12288, 65536, 4s));
    EXPECT_EQ("0 B of 300 B, 0 B/s, - left", progressText(0, 300, 0s));
    EXPECT_EQ("300 B of 300 B, 150 B/s, 0 s left", progressText(300, 300, 2s));
}

/// What progress writes to a terminal of this type.
std::string progressOn(const char* terminalType)
{
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child == 0) {
        setenv("TERM", terminalType, 1);
        {
            progress shown("read", 100, 0ms);
            shown.update(50);
        }
        std::fputs("end", stderr);
        _exit(0);
    }
    std::string text;
    std::array<char, 99> bytes{};
    for (ssize_t got = 0; (got = read(terminal, bytes.data(), bytes.size())) > 0;) {
        text.append(bytes.data(), static_cast<std::size_t>(got));
    }
    close(terminal);
    waitpid(child, nullptr, 0);
    return text;
}

TEST(Progress, IsNotForTerminalsThatTakeNoSequences)
{
    EXPECT_EQ("end", progressOn("dumb"));
    EXPECT_EQ("end", progressOn(""));
    const std::string shown = progressOn("xterm");
    EXPECT_TRUE(shown.starts_with("\r\033[Kread: 50 B of 100 B, ")) << shown;
    EXPECT_TRUE(shown.ends_with("\r\033[Kend")) << shown;
}

} // namespace
} // namespace kest::tools
