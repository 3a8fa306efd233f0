/// What the error log writes to standard error, also when nobody reads it.
#include <array>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <thread>

#include "platform/host/errorlog/tell.h"
#include "platform/host/errorlog/waiting.h"
#include "tests/forks.h"
#include "tests/host/host_support.h"

namespace kest::test
{

namespace
{

/// A clock that only pauses move. Each pause also calls `duringPause`.
std::chrono::steady_clock::time_point now{std::chrono::hours(1)};
int pauses = 0;
void (*duringPause)() = [] {};

constexpr host::waitingClock drivenClock{[] { return now; },
                                         [](std::chrono::microseconds length) {
                                             now += length;
                                             ++pauses;
                                             duringPause();
                                         }};

class ErrorLogOnStandardError : public testing::Test
{
protected:
    void SetUp() override
    {
        folder.write("state", "a file where the folder should be: every entry goes to standard error");
        folder.configure("");
    }

    /// Commits in a child whose standard error is a pipe or socket, full or without a reader. @return how the child
    /// ended
    static int commitsInto(bool isSocket, bool isFull, const std::function<bool()>& check)
    {
        return inChild([&] {
            alarm(hangSeconds);
            std::array<int, 2> ends{};
            if (isSocket ? socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0 : pipe(ends.data()) != 0) {
                return 2;
            }
            fcntl(ends[1], F_SETFL, O_NONBLOCK);
            while (isFull && write(ends[1], "xxxxxxxx", 8) > 0) {
                continue;
            }
            fcntl(ends[1], F_SETFL, 0);
            if (!isFull) {
                close(ends[0]);
            }
            dup2(ends[1], STDERR_FILENO);
            signal(SIGPIPE, SIG_DFL);
            host::useWaitingClock(&drivenClock);
            commitEntry(1);
            return check() ? 0 : 1;
        });
    }

    HostFolder folder;
};

TEST_F(ErrorLogOnStandardError, AFullPipeHoldsACommitUpForASecondAtMost)
{
    for (const bool isSocket : {false, true}) {
        EXPECT_EQ(0, commitsInto(isSocket, true,
                                 [] {
                                     return pauses > 0 &&
                                            now <= std::chrono::steady_clock::time_point(std::chrono::hours(1)) +
                                                       std::chrono::milliseconds(1020) &&
                                            host::listEntries().entries.size() >= 1;
                                 }))
            << isSocket;
    }
}

TEST_F(ErrorLogOnStandardError, AReaderThatHasGoneEndsNoProcess)
{
    for (const bool isSocket : {false, true}) {
        EXPECT_EQ(0, commitsInto(isSocket, false,
                                 [] {
                                     sigset_t pending;
                                     sigpending(&pending);
                                     return sigismember(&pending, SIGPIPE) == 0 &&
                                            host::listEntries().entries.size() >= 1;
                                 }))
            << isSocket;
    }
}

TEST_F(ErrorLogOnStandardError, OthersCommitWhileStandardErrorIsFull)
{
    EXPECT_EQ(0, commitsInto(false, true, [] {
                  duringPause = [] {
                      duringPause = [] {};
                      // otherwise it would wait for the log's mutex for ever
                      std::thread([] { host::listEntries(); }).join();
                  };
                  commitEntry(2);
                  return host::listEntries().entries.size() >= 2;
              }));
}

TEST_F(ErrorLogOnStandardError, AFileIsWrittenWhole)
{
    const std::string long1(20000, 'a');
    EXPECT_EQ(0, inChild([&] {
                  const int file = open(folder.write("told", "").c_str(), O_WRONLY | O_APPEND);
                  dup2(file, STDERR_FILENO);
                  host::tellStandardError(long1 + "\n");
                  return 0;
              }));
    EXPECT_EQ(long1 + "\n", folder.read("told"));
}

} // namespace

} // namespace kest::test
