#include "sim/folderwatch.h"
#include "tests/sim/machinetest.h"

#include <functional>

namespace kest::sim::test
{

namespace
{

class FolderWatch : public ::testing::Test
{
protected:
    // No folder is that old, or every one is.
    static constexpr std::uint64_t trustsNoStamp = ~std::uint64_t{0}, trustsAllStamps = 0;

    void SetUp() override { home.put("a.bin", "a"); }
    /// Does it again and again, until the tick of the system's clock gives the folder another stamp.
    void inTheNextTick(const std::function<void()>& change) const
    {
        const auto before = std::filesystem::last_write_time(home.path);
        while (std::filesystem::last_write_time(home.path) == before) {
            change();
        }
    }

    Folder home;
};

TEST_F(FolderWatch, KnowsNothingBeforeItIsTold)
{
    folderWatch watch{home.path, trustsAllStamps};
    EXPECT_FALSE(watch.isUnchanged());
    watch.note();
    EXPECT_TRUE(watch.isUnchanged());
    watch.forget();
    EXPECT_FALSE(watch.isUnchanged());
}

TEST_F(FolderWatch, SeesFilesThatComeAndGo)
{
    folderWatch watch{home.path, trustsAllStamps};
    watch.note();
    inTheNextTick([this] {
        home.put("b.bin", "b");
        std::filesystem::remove(home.path / "b.bin");
    });
    EXPECT_FALSE(watch.isUnchanged());
    watch.note();
    EXPECT_TRUE(watch.isUnchanged());
    inTheNextTick([this] {
        std::filesystem::rename(home.path / "a.bin", home.path / "c.bin");
        std::filesystem::rename(home.path / "c.bin", home.path / "a.bin");
    });
    EXPECT_FALSE(watch.isUnchanged());
}

TEST_F(FolderWatch, DoesNotCareWhatTheFilesHold)
{
    folderWatch watch{home.path, trustsAllStamps};
    watch.note();
    home.put("a.bin", "other");
    EXPECT_TRUE(watch.isUnchanged());
}

TEST_F(FolderWatch, TrustsNoFolderThatHasJustChanged)
{
    folderWatch watch{home.path, trustsNoStamp};
    watch.note();
    EXPECT_FALSE(watch.isUnchanged());
}

TEST_F(FolderWatch, AFolderThatIsGoneOrAnotherIsNotTheSame)
{
    std::filesystem::create_directory(home.path / "one");
    folderWatch watch{home.path / "one", trustsAllStamps};
    watch.note();
    std::filesystem::rename(home.path / "one", home.path / "two");
    EXPECT_FALSE(watch.isUnchanged());
    std::filesystem::create_directory(home.path / "one");
    EXPECT_FALSE(watch.isUnchanged());
    std::filesystem::remove(home.path / "one");
    watch.note();
    EXPECT_FALSE(watch.isUnchanged());
}

} // namespace
} // namespace kest::sim::test
