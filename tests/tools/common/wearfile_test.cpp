#include "tools/common/wearfile.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tests/temporaryfolder.h"
#include "tests/tools/program.h"

namespace kest::test
{
namespace
{

using testing::ElementsAre;
using tools::wearCounts;

class WearFile : public testing::Test
{
protected:
    [[nodiscard]] std::filesystem::path path() const { return m_folder.path() / "wear/device"; }
    [[nodiscard]] static wearCounts of(std::vector<std::uint64_t> groups, const std::string& place = "here")
    {
        return {.place = place, .groupBytes = 128, .groups = std::move(groups)};
    }
    int add(const wearCounts& more) { return tools::addWear(path(), more, counts, setAside); }
    /// What the file says of a device with two groups.
    [[nodiscard]] std::vector<std::uint64_t> read() const
    {
        wearCounts found = of({0, 0});
        EXPECT_EQ(0, tools::readWear(path(), found));
        return found.groups;
    }

    wearCounts counts;
    bool setAside = false;

private:
    TemporaryFolder m_folder;
};

TEST_F(WearFile, CountsAddUp)
{
    EXPECT_THAT(read(), ElementsAre(0, 0)) << "no file";
    EXPECT_EQ(0, add(of({1, 0})));
    EXPECT_EQ(0, add(of({2, 7})));
    EXPECT_THAT(counts.groups, ElementsAre(3, 7));
    EXPECT_EQ(10U, counts.total());
    EXPECT_EQ(1U, counts.busiest());
    EXPECT_THAT(read(), ElementsAre(3, 7));
    EXPECT_EQ(0, add(of({UINT32_MAX, 0})));
    EXPECT_THAT(read(), ElementsAre(4294967298U, 7));
    EXPECT_FALSE(setAside);
}

/// The bytes of the document, put together by hand: one group, place "here", CRC-32 of the 44 bytes before it.
TEST_F(WearFile, TheFileIsThatOfTheDocument)
{
    EXPECT_EQ(0, add(of({5})));
    const std::string slot("kestwear"
                           "\0\0\0\1"
                           "\0\0\0\0\0\0\0\1"
                           "\0\0\0\x80"
                           "\0\0\0\1"
                           "\0\0\0\4"
                           "here"
                           "\0\0\0\0\0\0\0\5"
                           "\xF1"
                           "\x6D"
                           "\xAC"
                           "\xE7",
                           48);
    EXPECT_EQ(slot, readFile(path()));
}

/// A loss of power tears the slot that is being written.
TEST_F(WearFile, ATornSlotLosesTheLatestCountAlone)
{
    EXPECT_EQ(0, add(of({1, 0})));
    EXPECT_EQ(0, add(of({1, 0})));
    EXPECT_EQ(0, add(of({1, 0})));
    // the third count is in the first slot
    std::string file = readFile(path());
    file[40] = static_cast<char>(file[40] ^ 1);
    writeFile(path(), file);
    EXPECT_THAT(read(), ElementsAre(2, 0));
    EXPECT_EQ(0, add(of({0, 5})));
    EXPECT_THAT(read(), ElementsAre(2, 5));
    EXPECT_FALSE(setAside);
}

TEST_F(WearFile, ADamagedFileIsSetAside)
{
    EXPECT_EQ(0, add(of({1, 0})));
    std::string file = readFile(path());
    for (std::size_t bit = 0; bit < 8 * file.size(); ++bit) {
        std::string damaged = file;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ 1 << bit % 8);
        writeFile(path(), damaged);
        wearCounts found = of({0, 0});
        EXPECT_EQ(EBADMSG, tools::readWear(path(), found)) << bit;
    }
    file.back() = static_cast<char>(file.back() ^ 1);
    writeFile(path(), file);
    EXPECT_EQ(0, add(of({0, 3})));
    EXPECT_TRUE(setAside);
    EXPECT_THAT(read(), ElementsAre(0, 3));
    EXPECT_EQ(file, readFile(path().string() + ".damaged"));
    EXPECT_EQ(0, add(of({0, 3})));
    EXPECT_FALSE(setAside);
}

TEST_F(WearFile, AnotherDevicesFileIsLeftAlone)
{
    EXPECT_EQ(0, add(of({1, 0})));
    const std::string before = readFile(path());
    EXPECT_EQ(EEXIST, add(of({1, 0}, "elsewhere")));
    EXPECT_EQ(EEXIST, add(of({1, 0, 0})));
    EXPECT_EQ(before, readFile(path()));
}

TEST_F(WearFile, LinksAndOtherFilesAreNotFollowed)
{
    EXPECT_EQ(0, add(of({1, 0})));
    const std::string other = path().string() + "-other";
    std::filesystem::rename(path(), other);
    std::filesystem::create_symlink(other, path());
    const std::string before = readFile(other);
    EXPECT_EQ(ELOOP, add(of({1, 0})));
    EXPECT_EQ(before, readFile(other));
    std::filesystem::remove(path());
    ASSERT_EQ(0, mkfifo(path().c_str(), 0600));
    EXPECT_EQ(ESPIPE, add(of({1, 0})));
}

TEST_F(WearFile, WritersOfTwoProcessesLoseNoCount)
{
    const auto addMany = [this](const wearCounts& more) {
        int failures = 0;
        for (int round = 0; round < 200; ++round) {
            failures += add(more) != 0 ? 1 : 0;
        }
        return failures;
    };
    const pid_t child = fork();
    if (child == 0) {
        _exit(addMany(of({1, 0})));
    }
    EXPECT_EQ(0, addMany(of({0, 1})));
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_THAT(read(), ElementsAre(200, 200));
}

} // namespace
} // namespace kest::test
