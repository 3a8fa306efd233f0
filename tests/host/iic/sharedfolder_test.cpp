/// The folder that all users of a bus share.
#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "platform/host/iic/ffdc.h"
#include "platform/host/iic/sharedfolder.h"
#include "platform/host/iic/tools.h"
#include "tests/host/fakekernel.h"
#include "tests/host/host_support.h"
#include "tests/host/iic_support.h"
#include "tests/host/trace_support.h"

namespace
{

int changesOfOwner = 0;

} // namespace

/// Replaces the C library's function.
extern "C" int fchown(int descriptor, uid_t owner, gid_t group) noexcept
{
    ++changesOfOwner;
    return fchownat(descriptor, "", owner, group, AT_EMPTY_PATH);
}

namespace kest::test
{
namespace
{

class SharedFolder : public testing::Test
{
protected:
    // of a user with a strict umask, who is the first on the bus
    SharedFolder() { umask(0077); }
    ~SharedFolder() override { umask(m_umask); }

    [[nodiscard]] mode_t modeOf(const std::string& name) const
    {
        struct stat about {
        };
        EXPECT_EQ(0, lstat((settings.folder() / name).c_str(), &about)) << name;
        return about.st_mode;
    }
    /// The errno of the first lock of a bus whose lock folder is `name`, 0 when it was taken.
    [[nodiscard]] int lockIn(const std::string& name) const
    {
        settings.use("state = \"state\"\n[linux]\nlock_folder = \"" + name + "\"\n");
        OpenDevice device("/dev/i2c-7@A0");
        Bytes record = registerLock(0xC0, 0);
        return device.config(2, 17, record.data(), 8).error;
    }

    [[nodiscard]] struct stat about(const std::string& name) const
    {
        struct stat facts {
        };
        EXPECT_EQ(0, lstat((settings.folder() / name).c_str(), &facts)) << name;
        return facts;
    }
    void makeFolder(const std::string& name, uid_t owner, gid_t group, mode_t mode) const
    {
        const std::string path = settings.folder() / name;
        std::filesystem::create_directory(path);
        EXPECT_EQ(0, chown(path.c_str(), owner, group));
        EXPECT_EQ(0, chmod(path.c_str(), mode));
    }
    /// The errno that a user without rights, who is in `group`, gets for a lock in `name`; -1 when something else went
    /// wrong.
    [[nodiscard]] int lockOfAStranger(const std::string& name, gid_t group) const
    {
        EXPECT_EQ(0, chmod(settings.folder().c_str(), 0755));
        const pid_t child = fork();
        if (child == 0) {
            changesOfOwner = 0;
            const bool ready = setgroups(1, &group) == 0 && dropRights();
            const int error = lockIn(name);
            _exit(!ready || changesOfOwner != 0 ? 255 : error);
        }
        int status = -1;
        waitpid(child, &status, 0);
        return WIFEXITED(status) && WEXITSTATUS(status) != 255 ? WEXITSTATUS(status) : -1;
    }
    [[nodiscard]] static std::string trouble() { return host::iic::lockFolderTrouble("/dev/i2c-7", -1); }

    static constexpr uid_t stranger = 65534;
    static constexpr gid_t lab = 4242;
    static constexpr gid_t anotherLab = 4343;

    OwnConfiguration settings;
    FakeKernel kernel;

private:
    mode_t m_umask = umask(0);
};

TEST_F(SharedFolder, MakesMissingParentsThatEveryUserCanEnter)
{
    kernel.nodeMode = S_IFCHR | 0660;
    EXPECT_EQ(0, lockIn("srv/a/b"));
    EXPECT_EQ(S_IFDIR | mode_t{0755}, modeOf("srv"));
    EXPECT_EQ(S_IFDIR | mode_t{0755}, modeOf("srv/a"));
    EXPECT_EQ(S_IFDIR | mode_t{02775}, modeOf("srv/a/b"));
    EXPECT_EQ(S_IFREG | mode_t{0660}, modeOf("srv/a/b/i2c-89-7.lock"));
}

TEST_F(SharedFolder, LeavesExistingFoldersUnchanged)
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

#define KEST_NEEDS_ROOT()                                                                                              \
    if (geteuid() != 0)                                                                                                \
    GTEST_SKIP() << "only root can prepare the folders of other users"

// A filter of system calls may end a service that tries to change an owner.
TEST_F(SharedFolder, FilesHaveTheFoldersGroupAndTheNodesModeWithoutAChangeOfOwner)
{
    KEST_NEEDS_ROOT();
    kernel.nodeMode = S_IFCHR | 0660;
    kernel.nodeGroup = lab;
    makeFolder("locks", 0, lab, 02775);
    EXPECT_EQ(0, lockOfAStranger("locks", lab));
    EXPECT_EQ(stranger, about("locks/i2c-89-7.lock").st_uid);
    EXPECT_EQ(lab, about("locks/i2c-89-7.lock").st_gid);
    EXPECT_EQ(S_IFREG | mode_t{0660}, modeOf("locks/i2c-89-7.lock"));
}

TEST_F(SharedFolder, AnotherGroupThanTheNodesHasNoMoreRightsThanOthers)
{
    KEST_NEEDS_ROOT();
    kernel.nodeMode = S_IFCHR | 0660;
    kernel.nodeGroup = lab;
    makeFolder("locks", stranger, anotherLab, 02775);
    EXPECT_EQ(0, lockOfAStranger("locks", anotherLab));
    EXPECT_EQ(S_IFREG | mode_t{0600}, modeOf("locks/i2c-89-7.lock"));
}

TEST_F(SharedFolder, RootMendsTheFilesOfANodeThatChanged)
{
    KEST_NEEDS_ROOT();
    kernel.nodeMode = S_IFCHR | 0660;
    kernel.nodeGroup = lab;
    EXPECT_EQ(0, lockIn("locks"));
    std::ofstream(settings.folder() / "locks/i2c-89-7.A0.ffdc") << "{}";
    std::ofstream(settings.folder() / "locks/i2c-89-70.A0.ffdc") << "{}";
    kernel.nodeMode = S_IFCHR | 0666;
    kernel.nodeGroup = anotherLab;
    EXPECT_EQ(0, lockIn("locks"));
    for (const char* name : {"locks/i2c-89-7.lock", "locks/i2c-89-7.A0.ffdc"}) {
        EXPECT_EQ(anotherLab, about(name).st_gid) << name;
        EXPECT_EQ(S_IFREG | mode_t{0666}, modeOf(name)) << name;
    }
    // another bus's
    EXPECT_EQ(S_IFREG | mode_t{0600}, modeOf("locks/i2c-89-70.A0.ffdc"));
    EXPECT_EQ(0, lockOfAStranger("locks", anotherLab));
}

TEST_F(SharedFolder, FileWithASecondNameIsNotMended)
{
    KEST_NEEDS_ROOT();
    kernel.nodeMode = S_IFCHR | 0666;
    makeFolder("locks", 0, 0, 0755);
    std::ofstream(settings.folder() / "secret") << "secret";
    std::filesystem::create_hard_link(settings.folder() / "secret", settings.folder() / "locks/i2c-89-7.lock");
    EXPECT_EQ(0, lockIn("locks"));
    EXPECT_EQ(S_IFREG | mode_t{0600}, modeOf("secret"));
}

TEST_F(SharedFolder, FolderOfAnotherUserIsRefusedWithTheCommandThatMakesItRight)
{
    KEST_NEEDS_ROOT();
    const std::string path = settings.folder() / "locks";
    kernel.nodeGroup = lab;
    makeFolder("locks", stranger, stranger, 0755);
    EXPECT_EQ(EACCES, lockIn("locks"));
    EXPECT_EQ("'" + path + "' belongs to user 65534, who could exchange the locks in it; as root: chown 0:4242 '" +
                  path + "'",
              trouble());
    // it is the user's own
    EXPECT_EQ(0, lockOfAStranger("locks", stranger));
    EXPECT_EQ(0, chown(path.c_str(), 0, lab));
    EXPECT_EQ("", trouble());
}

TEST_F(SharedFolder, LinkOfAnotherUserIsRefused)
{
    KEST_NEEDS_ROOT();
    makeFolder("locks", 0, 0, 0755);
    std::filesystem::create_directory_symlink("locks", settings.folder() / "link");
    EXPECT_EQ(0, lockIn("link"));
    EXPECT_EQ(0, lchown((settings.folder() / "link").c_str(), stranger, stranger));
    EXPECT_EQ(EACCES, lockIn("link"));
}

TEST_F(SharedFolder, FolderThatEverybodyMayWriteNeedsTheStickyBit)
{
    const std::string path = settings.folder() / "locks";
    makeFolder("locks", geteuid(), getegid(), 0777);
    EXPECT_EQ(EACCES, lockIn("locks"));
    EXPECT_EQ("everybody could exchange the locks in '" + path + "'; as its owner: chmod +t '" + path + "'", trouble());
    EXPECT_EQ(0, chmod(path.c_str(), 01777));
    EXPECT_EQ(0, lockIn("locks"));
    EXPECT_EQ("", trouble());
}

TEST_F(SharedFolder, MadeForEverybodyItHasTheStickyBit)
{
    kernel.nodeMode = S_IFCHR | 0666;
    EXPECT_EQ(0, lockIn("locks"));
    EXPECT_EQ(S_IFDIR | mode_t{03777}, modeOf("locks"));
    EXPECT_EQ(S_IFREG | mode_t{0666}, modeOf("locks/i2c-89-7.lock"));
}

TEST_F(SharedFolder, PipeIsNoLockFile)
{
    makeFolder("locks", geteuid(), getegid(), 0755);
    ASSERT_EQ(0, mkfifo((settings.folder() / "locks/i2c-89-7.lock").c_str(), 0600));
    EXPECT_EQ(EACCES, lockIn("locks"));
}

// In a folder with the sticky bit only a file's owner may remove it.
TEST_F(SharedFolder, RecordOfAnotherUserIsReadDroppedAndWrittenAnew)
{
    KEST_NEEDS_ROOT();
    const host::iic::busIdentity everybodys{
        .folder = settings.folder() / "locks", .name = "i2c-89-7", .mode = 0666, .group = lab, .text = "bus"};
    makeFolder("locks", 0, lab, 03777);
    std::ofstream(settings.folder() / "locks/i2c-89-7.A0.ffdc") << "{}";
    std::ofstream(settings.folder() / "locks/i2c-89-7.A2.ffdc") << "[]";
    EXPECT_EQ(0, chmod((settings.folder() / "locks/i2c-89-7.A0.ffdc").c_str(), 0666));
    EXPECT_EQ(0, chmod((settings.folder() / "locks/i2c-89-7.A2.ffdc").c_str(), 0644));
    EXPECT_EQ(0, chmod(settings.folder().c_str(), 0755));
    const pid_t child = fork();
    if (child == 0) {
        std::string first;
        std::string readOnly;
        std::string none = "?";
        const bool good = dropRights() && host::iic::firstFailure(everybodys, 0xA0, first) == 0 && first == "{}" &&
                          host::iic::firstFailure(everybodys, 0xA2, readOnly) == 0 && readOnly == "[]" &&
                          host::iic::dropFirstFailure(everybodys, 0xA0) == 0 &&
                          host::iic::firstFailure(everybodys, 0xA0, none) == 0 && none.empty() &&
                          host::iic::dropFirstFailure(everybodys, 0xA2) == EACCES;
        _exit(good ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
}

TEST_F(SharedFolder, NoDescriptorLeftIsNoMemory)
{
    if (underSanitizer) {
        GTEST_SKIP() << "the check of virtual tables needs descriptors of its own";
    }
    settings.use("state = \"state\"\n[linux]\nlock_folder = \"locks\"\n");
    OpenDevice device("/dev/i2c-7@A0");
    Bytes record = registerLock(0xC0, 0);
    struct rlimit before {
    };
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    const rlimit nothing{0, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &nothing));
    const Answer result = device.config(2, 17, record.data(), 8);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_EQ((Answer{-1, ENOMEM}), result);
}

} // namespace
} // namespace kest::test
