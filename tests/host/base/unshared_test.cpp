/// Locked files, and the children of the processes that hold them.
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>

#include "base/filelock.h"
#include "base/unshared.h"
#include "tests/host/fakekernel.h"
#include "tests/host/host_support.h"
#include "tests/host/iic_support.h"
#include "tests/sanitizers.h"

namespace
{

thread_local std::function<void(int)> afterClose; ///< called once, with the number that was closed

} // namespace

#ifndef KEST_THREAD_SANITIZER
/// Replaces the C library's function.
extern "C" int close(int descriptor)
{
    const int result = static_cast<int>(syscall(SYS_close, descriptor));
    if (afterClose) {
        std::exchange(afterClose, nullptr)(descriptor);
    }
    return result;
}
#endif

namespace kest::test
{
namespace
{

bool isOpen(int descriptor) { return fcntl(descriptor, F_GETFD) >= 0; }

/// Two ends of a pipe.
struct Pipe {
    Pipe() { EXPECT_EQ(0, pipe2(ends, O_CLOEXEC)); }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe()
    {
        closeEnd(0);
        closeEnd(1);
    }
    void closeEnd(int which)
    {
        if (ends[which] >= 0) {
            close(std::exchange(ends[which], -1));
        }
    }
    void announce() const { EXPECT_EQ(1, write(ends[1], "!", 1)); }
    [[nodiscard]] bool hear() const
    {
        char word = 0;
        return read(ends[0], &word, 1) == 1;
    }

    int ends[2]{-1, -1};
};

TEST(UnsharedFile, IsClosedInAChild)
{
    unsharedFile one;
    unsharedFile two;
    unsharedFile three;
    for (unsharedFile* file : {&one, &two, &three}) {
        EXPECT_TRUE(file->open([] { return open("/dev/null", O_RDWR | O_CLOEXEC); }));
    }
    const int numbers[] = {one.number(), three.number()};
    two.close();
    const pid_t child = fork();
    if (child == 0) {
        const bool closed = !isOpen(numbers[0]) && !isOpen(numbers[1]);
        const bool known = !one.valid() && !two.valid() && !three.valid();
        const bool opens = two.open([] { return open("/dev/null", O_RDWR | O_CLOEXEC); });
        _exit(closed && known && opens ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    EXPECT_TRUE(isOpen(one.number()));
    EXPECT_TRUE(isOpen(three.number()));
}

TEST(UnsharedFile, ThatCanNotBeOpenedIsNone)
{
    unsharedFile file;
    errno = 0;
    EXPECT_FALSE(file.open([] { return open("/nowhere/at/all", O_RDONLY); }));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(file.valid());
}

#ifndef KEST_THREAD_SANITIZER
// The number is free as soon as the lock's file is closed. Another file may have it before the next statement.
TEST(UnsharedFile, ForkBesideAnUnlockClosesNoFileOfAnotherThread)
{
    KEST_SKIP_FORK_OF_BUSY_THREADS();
    const OwnConfiguration settings;
    const FakeKernel kernel;
    Pipe forked;
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    int another = -1;
    std::thread forking;
    int status = -1;
    {
        OpenDevice device("/dev/i2c-7@A0");
        Bytes record = registerLock(0xC0, 0);
        EXPECT_EQ((Answer{0, 0}), device.config(2, 17, record.data(), 8));
        afterClose = [&](int number) {
            another = dup2(null, number);
            forking = std::thread([&] {
                const pid_t child = fork();
                if (child == 0) {
                    _exit(isOpen(another) ? 0 : 1);
                }
                waitpid(child, &status, 0);
                forked.announce();
            });
            pollfd word{forked.ends[0], POLLIN, 0};
            // if the lock makes the fork wait, it comes later
            poll(&word, 1, 300);
        };
    }
    forking.join();
    EXPECT_EQ(0, status);
    close(another);
    close(null);
}
#endif

TEST(FileLock, OfAKilledOwnerIsFreeThoughAChildOfItLives)
{
    const HostFolder folder;
    const std::string file = folder.path() / "lock";
    Pipe ready;
    // this ends the grandchild
    Pipe life;
    const pid_t owner = fork();
    if (owner == 0) {
        const fileLock held(file);
        if (held.error() == 0 && fork() == 0) {
            life.closeEnd(1);
            ready.announce();
            static_cast<void>(life.hear());
            _exit(0);
        }
        pause();
    }
    ASSERT_TRUE(ready.hear());
    EXPECT_EQ(ETIMEDOUT, fileLock(file, std::chrono::milliseconds(0)).error());
    EXPECT_EQ(0, kill(owner, SIGKILL));
    waitpid(owner, nullptr, 0);
    EXPECT_EQ(0, fileLock(file, std::chrono::milliseconds(0)).error());
}

} // namespace
} // namespace kest::test
