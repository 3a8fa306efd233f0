/// What the error log tells standard error, when nobody listens there.
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

/// A clock that only pauses move; each pause does something, too.
std::chrono::steady_clock::time_point now{std::chrono::hours(1)};
int pauses = 0;
void (*duringPause)() = [] {};

constexpr host::waitingClock drivenClock{[] { return now; },
                                         [](std::chrono::microseconds length) {
                                             now += length;
                                             ++pauses;
                                             duringPause();
                                         }};

class ErrorLogTells : public testing::Test
{
protected:
    void SetUp() override
    {
        folder.write("state", "a file where the folder should be: standard error is told of every entry");
        folder.configure("");
    }

    /// In a child: has standard error be a pipe or socket, full or without reader, and commits. @return how the child
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

TEST_F(ErrorLogTells, AFullPipeHoldsACommitUpForASecondAtMost)
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

TEST_F(ErrorLogTells, AReaderThatHasGoneEndsNobody)
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

TEST_F(ErrorLogTells, OthersCommitWhileStandardErrorIsFull)
{
    EXPECT_EQ(0, commitsInto(false, true, [] {
                  duringPause = [] {
                      duringPause = [] {};
                      // it would wait for ever for the log's mutex
                      std::thread([] { host::listEntries(); }).join();
                  };
                  commitEntry(2);
                  return host::listEntries().entries.size() >= 2;
              }));
}

TEST_F(ErrorLogTells, AFileIsWrittenWhole)
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
