#include "sim/machinetext.h"
#include "tests/sim/machinetest.h"

#include <utility>

#include <sys/stat.h>

namespace kest::sim::test
{

namespace
{

class MachineText : public ::testing::Test
{
protected:
    [[nodiscard]] std::filesystem::path file() const { return home.path / "machine.toml"; }
    /// Gives the file another text, and the time stamp that it has.
    void replaceInSecret(const std::string& text) const
    {
        const auto stamp = std::filesystem::last_write_time(file());
        home.put("machine.toml", text);
        std::filesystem::last_write_time(file(), stamp);
        ASSERT_EQ(stamp, std::filesystem::last_write_time(file()));
    }
    /// When the system last changed what it knows of the file.
    [[nodiscard]] std::pair<time_t, long> changed() const
    {
        struct stat found {
        };
        EXPECT_EQ(0, stat(file().c_str(), &found));
        return {found.st_ctim.tv_sec, found.st_ctim.tv_nsec};
    }
    // No file is that old, or every one is.
    static constexpr std::uint64_t trustsNoStamp = ~std::uint64_t{0}, trustsAllStamps = 0;

    Folder home;
};

TEST_F(MachineText, AnotherContentCountsAlsoWithTheSameSizeAndTimeStamp)
{
    home.put("machine.toml", "first");
    machineText young{file(), trustsNoStamp};
    replaceInSecret("other");
    EXPECT_FALSE(young.stillHolds());

    machineText old{file(), trustsAllStamps};
    EXPECT_EQ("other", old.text());
    EXPECT_TRUE(old.stillHolds());
    // the next tick of the system changes the stamp
    const auto before = changed();
    while (changed() == before) {
        replaceInSecret("third");
    }
    EXPECT_FALSE(old.stillHolds());
}

TEST_F(MachineText, AnotherContentCountsEachTimeItIsAskedFor)
{
    home.put("machine.toml", "first");
    machineText text{file(), trustsAllStamps};
    home.put("machine.toml", "first and more");
    EXPECT_FALSE(text.stillHolds());
    EXPECT_FALSE(text.stillHolds());
    home.put("machine.toml", "first");
    EXPECT_TRUE(text.stillHolds());
    EXPECT_TRUE(text.stillHolds());
}

TEST_F(MachineText, TheSameContentCountsAsTheSameInAnyFile)
{
    home.put("machine.toml", "first");
    machineText text{file()};
    home.put("new", "first");
    std::filesystem::rename(home.path / "new", file());
    EXPECT_TRUE(text.stillHolds());
    home.put("machine.toml", "first and more");
    EXPECT_FALSE(text.stillHolds());
    home.put("machine.toml", "first");
    EXPECT_TRUE(text.stillHolds());
}

TEST_F(MachineText, AFileThatIsGoneIsAnError)
{
    home.put("machine.toml", "first");
    machineText text{file()};
    std::filesystem::remove(file());
    EXPECT_THROW(text.stillHolds(), std::system_error);
    EXPECT_THROW(machineText{file()}, std::system_error);
}

} // namespace
} // namespace kest::sim::test
