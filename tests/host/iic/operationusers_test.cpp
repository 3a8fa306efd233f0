/// Two users at the lock of one operation, in the folder as the package makes it: root and another user of the bus's
/// group, in both orders.
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <grp.h>
#include <gtest/gtest.h>
#include <optional>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/host/iic/operationlock.h"
#include "tests/temporaryfolder.h"

namespace kest::test
{
namespace
{

using host::iic::operationLock;
using host::iic::operationUse;

// a user and groups that no machine has
constexpr uid_t member = 64'001;
constexpr gid_t ownGroup = 64'001;
constexpr gid_t busGroup = 64'002;

constexpr host::iic::operationPlace place{.address = 0xA0};

/// A process of another user that tries to have the device, and keeps it until its end.
class OtherUser
{
public:
    OtherUser(const host::iic::busIdentity& bus, operationUse use, gid_t group)
    {
        std::array<int, 2> told{};
        EXPECT_EQ(0, pipe2(told.data(), O_CLOEXEC));
        m_process = fork();
        if (m_process == 0) {
            if (setgroups(1, &group) != 0 || setresgid(ownGroup, ownGroup, ownGroup) != 0 ||
                setresuid(member, member, member) != 0) {
                _exit(1);
            }
            operationLock lock(bus, place, use);
            const int error = lock.attempt(
                {.process = 4711, .user = member, .sinceMs = 0, .program = "other", .doing = "hold", .device = "vpd"});
            static_cast<void>(!write(told[1], &error, sizeof error));
            pause();
            _exit(0);
        }
        close(told[1]);
        if (int error = 0; read(told[0], &error, sizeof error) == sizeof error) {
            m_error = error;
        }
        close(told[0]);
    }
    OtherUser(const OtherUser&) = delete;
    OtherUser& operator=(const OtherUser&) = delete;
    ~OtherUser() { end(); }

    /// How its attempt ended; nothing when it could not become that user.
    [[nodiscard]] std::optional<int> error() const { return m_error; }
    void end()
    {
        if (m_process > 0) {
            kill(m_process, SIGKILL);
            waitpid(m_process, nullptr, 0);
            m_process = 0;
        }
    }

private:
    pid_t m_process = 0;
    std::optional<int> m_error;
};

class OperationUsers : public testing::Test
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root, which can become another user";
        }
        // the folders above /run/lock/kest can be entered by everybody; it belongs to root and the bus's group
        ASSERT_EQ(0, chmod(m_folder.path().c_str(), 0755));
        ASSERT_EQ(0, mkdir(bus().folder.c_str(), 0755));
        ASSERT_EQ(0, chown(bus().folder.c_str(), 0, busGroup));
        ASSERT_EQ(0, chmod(bus().folder.c_str(), 02775));
    }
    /// A bus whose node is root's, for the members of a group.
    [[nodiscard]] host::iic::busIdentity bus() const
    {
        return {.folder = m_folder.path() / "kest",
                .name = "i2c-89-7",
                .mode = 0660,
                .group = busGroup,
                .text = "/dev/i2c-7",
                .owner = 0};
    }
    [[nodiscard]] struct stat lockFile() const
    {
        struct stat about {
        };
        EXPECT_EQ(0, stat((bus().folder / "i2c-89-7.operations").c_str(), &about));
        return about;
    }
    static int attempt(operationLock& lock)
    {
        return lock.attempt(
            {.process = 1, .user = 0, .sinceMs = 0, .program = "root's", .doing = "write", .device = "vpd"});
    }

private:
    TemporaryFolder m_folder;
};

TEST_F(OperationUsers, RootComesFirst)
{
    operationLock mine(bus(), place, operationUse::write);
    ASSERT_EQ(0, attempt(mine));
    // root made the file: others of the group can use it
    EXPECT_EQ(0660U, lockFile().st_mode & 07777U);
    EXPECT_EQ(busGroup, lockFile().st_gid);
    for (const operationUse use : {operationUse::read, operationUse::write}) {
        EXPECT_EQ(EAGAIN, OtherUser(bus(), use, busGroup).error());
    }
    mine.release();
    EXPECT_EQ(0, OtherUser(bus(), operationUse::write, busGroup).error());
}

TEST_F(OperationUsers, TheOtherComesFirst)
{
    OtherUser other(bus(), operationUse::write, busGroup);
    ASSERT_EQ(0, other.error());
    EXPECT_EQ(member, lockFile().st_uid);
    EXPECT_EQ(busGroup, lockFile().st_gid);
    operationLock mine(bus(), place, operationUse::read);
    EXPECT_EQ(EAGAIN, attempt(mine));
    ASSERT_EQ(1U, mine.holders().size());
    EXPECT_EQ("other", mine.holders().front().program);
    EXPECT_EQ(member, mine.holders().front().user);
    other.end();
    EXPECT_EQ(0, attempt(mine));
    EXPECT_EQ(0660U, lockFile().st_mode & 07777U);
}

TEST_F(OperationUsers, ReadersOfBothShare)
{
    operationLock mine(bus(), place, operationUse::read);
    ASSERT_EQ(0, attempt(mine));
    OtherUser other(bus(), operationUse::read, busGroup);
    EXPECT_EQ(0, other.error());
    operationLock writer(bus(), place, operationUse::write);
    EXPECT_EQ(EAGAIN, attempt(writer));
    EXPECT_EQ(2U, writer.holders().size());
}

TEST_F(OperationUsers, WhoMayNotUseTheBusMayNotLockIt)
{
    EXPECT_EQ(EACCES, OtherUser(bus(), operationUse::read, ownGroup).error());
    operationLock mine(bus(), place, operationUse::write);
    ASSERT_EQ(0, attempt(mine));
    EXPECT_EQ(EACCES, OtherUser(bus(), operationUse::read, ownGroup).error());
}

} // namespace
} // namespace kest::test
