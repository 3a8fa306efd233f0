/// What must be on the disk when a call returns.
#include <gmock/gmock.h>
#include <sys/syscall.h>

#include "platform/host/errorlog/spool.h"
#include "platform/host/files/files.h"
#include "tests/host/host_support.h"

namespace
{

thread_local std::vector<std::string>* synced = nullptr; ///< when somebody wants to know: paths brought to the disk

} // namespace

/// Stands in front of the C library's.
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
    HostFolder               m_folder;
    std::vector<std::string> m_synced;
};

TEST_F(Durable, EachFolderMadeIsInTheOneAroundIt)
{
    EXPECT_EQ(0, host::makeFolders(path("a/b/c")));
    EXPECT_THAT(syncedSince(), ElementsAre(path(), path("a"), path("a/b")));
    EXPECT_EQ(0, host::makeFolders(path("a/b/c")));
    EXPECT_THAT(syncedSince(), IsEmpty()) << "nothing was made";
}

TEST(Folders, LinksInACircleAreAnError)
{
    const HostFolder folder;
    std::filesystem::create_symlink("there", folder.path() / "here");
    std::filesystem::create_symlink("here", folder.path() / "there");
    EXPECT_EQ(ELOOP, host::makeFolders(folder.path() / "here"));
    EXPECT_EQ(ELOOP, host::makeFolders(folder.path() / "here" / "below"));
}

TEST(Folders, LinkIntoAFolderThatMayNotBeSearchedIsAnError)
{
    const HostFolder folder;
    std::filesystem::create_directories(folder.path() / "closed" / "inside");
    std::filesystem::create_symlink("closed/inside", folder.path() / "link");
    std::filesystem::permissions(folder.path(), std::filesystem::perms{0711});
    std::filesystem::permissions(folder.path() / "closed", std::filesystem::perms::none);
    EXPECT_EQ(EACCES, inChild([&] { return dropRights() ? host::makeFolders(folder.path() / "link") : -1; }));
    EXPECT_EQ(EACCES, inChild([&] { return dropRights() ? host::makeFolders(folder.path() / "link" / "below") : -1; }));
    std::filesystem::permissions(folder.path() / "closed", std::filesystem::perms::owner_all);
}

TEST(Folders, FileOrDanglingLinkIsNoFolder)
{
    const HostFolder folder;
    std::filesystem::create_symlink("nowhere", folder.path() / "link");
    EXPECT_EQ(ENOTDIR, host::makeFolders(folder.write("file", "")));
    EXPECT_EQ(ENOTDIR, host::makeFolders(folder.path() / "link"));
}

TEST_F(Durable, SpoolsNameWhoeverMakesIt)
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
