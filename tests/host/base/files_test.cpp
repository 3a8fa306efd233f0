/// What must be on the disk when a call returns.
#include <array>
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include "base/descriptor.h"
#include "base/filelock.h"
#include "base/files.h"
#include "base/folders.h"
#include "platform/host/configuration/configuration.h"
#include "platform/host/errorlog/spool.h"
#include "platform/host/iic/systemcalls.h"
#include "tests/host/host_support.h"
#include "tests/host/linux_bus.h"

namespace
{

thread_local std::vector<std::string>* synced = nullptr; ///< paths brought to the disk; null: not recorded

} // namespace

/// Replaces the C library's function.
extern "C" int fsync(int descriptor)
{
    if (synced != nullptr) {
        synced->push_back(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor)).string());
    }
    return static_cast<int>(syscall(SYS_fsync, descriptor));
}

namespace kest::test
{
namespace
{

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class Durable : public testing::Test
{
protected:
    Durable() { synced = &m_synced; }
    ~Durable() override { synced = nullptr; }

    [[nodiscard]] std::string path(const std::string& name = "") const
    {
        const std::filesystem::path whole = std::filesystem::canonical(m_folder.path());
        return (name.empty() ? whole : whole / name).string();
    }
    std::vector<std::string> syncedSince() { return std::exchange(m_synced, {}); }

private:
    HostFolder m_folder;
    std::vector<std::string> m_synced;
};

class DurableRecord : public LinuxBus
{
};

TEST_F(DurableRecord, OfAFirstFailureIsOnTheDiskWithItsName)
{
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    kernel.lastingFailure = EIO;
    Bytes data(4);
    std::vector<std::string> paths;
    synced = &paths;
    EXPECT_EQ((Answer{0, EIO}), device.read(data));
    synced = nullptr;
    ASSERT_EQ(2u, paths.size());
    EXPECT_EQ(std::filesystem::path(paths[0]).parent_path(), paths[1]) << paths[0];
}

TEST_F(Durable, EachNewFolderIsOnTheDiskInItsParent)
{
    EXPECT_EQ(0, makeFolders(path("a/b/c")));
    EXPECT_THAT(syncedSince(), ElementsAre(path(), path("a"), path("a/b")));
    EXPECT_EQ(0, makeFolders(path("a/b/c")));
    EXPECT_THAT(syncedSince(), IsEmpty()) << "nothing was made";
}

/// Whether standard input, output and error are all /dev/null.
bool nothingStandsForStreams()
{
    bool nothing = true;
    for (int number = 0; number <= 2; ++number) {
        std::array<char, 64> target{};
        const auto length = readlink(("/proc/self/fd/" + std::to_string(number)).c_str(), target.data(), target.size());
        nothing =
            nothing && (length < 0 || std::string_view(target.data(), static_cast<std::size_t>(length)) == "/dev/null");
    }
    return nothing;
}

/// Runs `work` in a process without standard input, output and error. @return 0 when `work` succeeded and no file that
/// it leaves open has one of their numbers
int withoutStreams(const std::function<bool()>& work)
{
    return inChild([&] {
        for (int number = 0; number <= 2; ++number) {
            close(number);
        }
        return !work() ? 1 : !nothingStandsForStreams() ? 2 : 0;
    });
}

TEST(Descriptors, OfThePlatformNeverStandForTheStandardStreams)
{
    const HostFolder folder;
    EXPECT_EQ(0, withoutStreams([] {
                  trace_wobu_descriptor made = nullptr;
                  const bool rings = trace_wobu_init_buffer(&made, "STREAMS", 4096) == 0;
                  // this opens the file of the ring
                  return host::reloadConfiguration().empty() && rings;
              }));
    EXPECT_EQ(0, withoutStreams([&] {
                  const fileLock lock(folder.path() / "lock");
                  const fileDescriptor file = openFile(folder.path() / "kest.toml", O_RDONLY);
                  return lock.error() == 0 && file.number() > 2 && nothingStandsForStreams();
              }));
    EXPECT_EQ(0, withoutStreams([] { return commitEntry(1) != 0; }));
    EXPECT_EQ(0, withoutStreams([] { return host::iic::systemCalls().openNode("/dev/null", O_RDWR) > 2; }));
}

TEST(Descriptors, AreClosedInProgramsThatAreStarted)
{
    EXPECT_EQ(0, withoutStreams([] {
                  const int own = ownDescriptor(open("/dev/null", O_RDWR));
                  return own > 2 && fcntl(own, F_GETFD) == FD_CLOEXEC;
              }));
    EXPECT_EQ(EMFILE, inChild([] {
                  rlimit none{3, 3};
                  setrlimit(RLIMIT_NOFILE, &none);
                  close(1);
                  const int own = ownDescriptor(open("/dev/null", O_RDWR));
                  const int error = errno;
                  return own == -1 && fcntl(1, F_GETFD) < 0 ? error : 0;
              }));
}

TEST(Folders, LinksInACircleAreAnError)
{
    const HostFolder folder;
    std::filesystem::create_symlink("there", folder.path() / "here");
    std::filesystem::create_symlink("here", folder.path() / "there");
    EXPECT_EQ(ELOOP, makeFolders(folder.path() / "here"));
    EXPECT_EQ(ELOOP, makeFolders(folder.path() / "here" / "below"));
}

TEST(Folders, LinkIntoAFolderThatMayNotBeSearchedIsAnError)
{
    const HostFolder folder;
    std::filesystem::create_directories(folder.path() / "closed" / "inside");
    std::filesystem::create_symlink("closed/inside", folder.path() / "link");
    std::filesystem::permissions(folder.path(), std::filesystem::perms{0711});
    std::filesystem::permissions(folder.path() / "closed", std::filesystem::perms::none);
    EXPECT_EQ(EACCES, inChild([&] { return dropRights() ? makeFolders(folder.path() / "link") : -1; }));
    EXPECT_EQ(EACCES, inChild([&] { return dropRights() ? makeFolders(folder.path() / "link" / "below") : -1; }));
    std::filesystem::permissions(folder.path() / "closed", std::filesystem::perms::owner_all);
}

TEST(Folders, FileOrDanglingLinkIsNoFolder)
{
    const HostFolder folder;
    std::filesystem::create_symlink("nowhere", folder.path() / "link");
    EXPECT_EQ(ENOTDIR, makeFolders(folder.write("file", "")));
    EXPECT_EQ(ENOTDIR, makeFolders(folder.path() / "link"));
}

TEST(Files, WriteBeyondTheSizeLimitFailsAndTheProcessContinues)
{
    const HostFolder folder;
    EXPECT_EQ(EFBIG, inChild([&] {
                  const rlimit limit{4096, 4096};
                  setrlimit(RLIMIT_FSIZE, &limit);
                  const auto file = openFile(folder.path() / "file", O_WRONLY | O_CREAT);
                  const int error = writeAll(file.number(), std::string(8192, 'x'));
                  sigset_t pending;
                  return sigpending(&pending) == 0 && sigismember(&pending, SIGXFSZ) == 0 ? error : 1;
              }));
    EXPECT_EQ(4096U, std::filesystem::file_size(folder.path() / "file"));
}

TEST(Files, AreReplacedInAFolderThatMayNotBeRead)
{
    const HostFolder folder;
    std::filesystem::permissions(folder.path(), std::filesystem::perms{0777});
    EXPECT_EQ(0, inChild([&] {
                  const std::filesystem::path closed = folder.path() / "closed";
                  const std::string text = "new";
                  return !dropRights() || mkdir(closed.c_str(), 0300) != 0
                             ? -1
                             : replaceFile(closed / "file",
                                           {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
              }));
    std::filesystem::permissions(folder.path() / "closed", std::filesystem::perms::owner_all);
    EXPECT_EQ("new", folder.read("closed/file"));
}

TEST_F(Durable, SpoolsNameWhicheverProcessMakesIt)
{
    host::spool reserved(path("reserved"), path("lock"));
    EXPECT_EQ(0, reserved.reserve());
    EXPECT_THAT(syncedSince(), Contains(path()));
    EXPECT_EQ(0, reserved.append("{}", {.entries = 10, .bytes = 1000}));
    EXPECT_THAT(syncedSince(), IsEmpty());
    host::spool appended(path("appended"), path("lock"));
    EXPECT_EQ(0, appended.append("{}", {.entries = 10, .bytes = 1000}));
    EXPECT_THAT(syncedSince(), Contains(path()));
}

} // namespace
} // namespace kest::test
