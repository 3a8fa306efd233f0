#include "base/clock.h"
#include "sim/machinetext.h"
#include "tests/sim/machinetest.h"

#include <sched.h>
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
    /// Lets the file get so old that its time stamps are trusted.
    void age() const
    {
        struct stat found {
        };
        ASSERT_EQ(0, stat(file().c_str(), &found));
        const auto changed = static_cast<std::uint64_t>(found.st_ctim.tv_sec) * nsPerSecond +
                             static_cast<std::uint64_t>(found.st_ctim.tv_nsec);
        while (clockNs(CLOCK_REALTIME) < changed + 150 * nsPerMs) {
            sched_yield();
        }
    }

    Folder home;
};

TEST_F(MachineText, AnotherContentCountsAlsoWithTheSameSizeAndTimeStamp)
{
    home.put("machine.toml", "first");
    machineText young{file()};
    replaceInSecret("other");
    EXPECT_FALSE(young.stillHolds());

    age();
    machineText old{file()};
    EXPECT_EQ("other", old.text());
    EXPECT_TRUE(old.stillHolds());
    replaceInSecret("third");
    EXPECT_FALSE(old.stillHolds());
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
