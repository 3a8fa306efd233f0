/// The folder in which the users of a bus meet.
#include <sys/resource.h>
#include <sys/stat.h>

#include "platform/host/iic/sharedfolder.h"
#include "tests/host/fakekernel.h"
#include "tests/host/iic_support.h"
#include "tests/host/trace_support.h"

namespace kest::test
{
namespace
{

class SharedFolder : public testing::Test
{
protected:
    SharedFolder() { umask(0077); } // a careful user's, who is the first on the bus
    ~SharedFolder() override { umask(m_umask); }

    [[nodiscard]] mode_t modeOf(const std::string& name) const
    {
        struct stat about {
        };
        EXPECT_EQ(0, lstat((settings.folder() / name).c_str(), &about)) << name;
        return about.st_mode;
    }
    /// The errno of the first lock of a bus whose lock folder is `name`, 0 when it was had.
    [[nodiscard]] int lockIn(const std::string& name) const
    {
        settings.use("state = \"state\"\n[linux]\nlock_folder = \"" + name + "\"\n");
        OpenDevice device("/dev/i2c-7@A0");
        bytes      record = registerLock(0xC0, 0);
        return device.config(2, 17, record.data(), 8).error;
    }

    OwnConfiguration settings;
    FakeKernel       kernel;

private:
    mode_t m_umask = umask(0);
};

TEST_F(SharedFolder, MakesWhatIsMissingAboveForEverybodyToPass)
{
    kernel.nodeMode = S_IFCHR | 0660;
    EXPECT_EQ(0, lockIn("srv/a/b"));
    EXPECT_EQ(S_IFDIR | mode_t{0755}, modeOf("srv"));
    EXPECT_EQ(S_IFDIR | mode_t{0755}, modeOf("srv/a"));
    EXPECT_EQ(S_IFDIR | mode_t{02775}, modeOf("srv/a/b"));
    EXPECT_EQ(S_IFREG | mode_t{0660}, modeOf("srv/a/b/i2c-89-7.lock"));
}

TEST_F(SharedFolder, LeavesWhatIsThereAsItIs)
{
    std::filesystem::create_directories(settings.folder() / "srv/a");
    const mode_t before = modeOf("srv");
    EXPECT_EQ(0, lockIn("srv/a"));
    EXPECT_EQ(before, modeOf("srv"));
    EXPECT_EQ(before, modeOf("srv/a"));
}

TEST_F(SharedFolder, WhatIsInTheWayIsNotPermitted)
{
    std::filesystem::create_symlink("nowhere", settings.folder() / "link");
    EXPECT_EQ(EACCES, lockIn("kest.toml"));
    EXPECT_EQ(EACCES, lockIn("kest.toml/a"));
    EXPECT_EQ(EACCES, lockIn("link"));
    EXPECT_EQ(EACCES, lockIn("link/a/b"));
    EXPECT_EQ(EACCES, lockIn(std::string(300, 'a')));
    EXPECT_EQ(EACCES, lockIn("/proc/kest/a"));
}

TEST_F(SharedFolder, LockFileIsNotReachedThroughALink)
{
    std::filesystem::create_directory(settings.folder() / "locks");
    std::filesystem::create_symlink("../elsewhere", settings.folder() / "locks/i2c-89-7.lock");
    EXPECT_EQ(EACCES, lockIn("locks"));
    EXPECT_FALSE(std::filesystem::exists(settings.folder() / "elsewhere"));
}

TEST_F(SharedFolder, NoDescriptorLeftIsNoMemory)
{
    if (underSanitizer)
        GTEST_SKIP() << "the check of virtual tables needs descriptors of its own";
    settings.use("state = \"state\"\n[linux]\nlock_folder = \"locks\"\n");
    OpenDevice    device("/dev/i2c-7@A0");
    bytes         record = registerLock(0xC0, 0);
    struct rlimit before {
    };
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    const rlimit nothing{0, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &nothing));
    const answer result = device.config(2, 17, record.data(), 8);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_EQ((answer{-1, ENOMEM}), result);
}

} // namespace
} // namespace kest::test
