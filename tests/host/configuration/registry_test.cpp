#include "platform/registry.h"

#include <array>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>

#include "platform/host/configuration/configuration.h"
#include "tests/host/host_support.h"
#include "tests/host/memory.h"
#include "tests/places.h"

namespace kest::test
{

namespace
{

class Registry : public testing::Test
{
protected:
    std::unique_ptr<ErrlEntry> read(const char* key, unsigned int room = 16)
    {
        buffer.fill('#');
        size = room;
        return std::unique_ptr<ErrlEntry>(UtilReg::read(key, buffer.data(), size, false, nullptr));
    }
    [[nodiscard]] std::string value() const { return {buffer.data(), size}; }
    /// Return code and the first two user data words.
    static std::array<std::uint32_t, 3> summaryOf(const ErrlEntry& entry)
    {
        unsigned int count = 0;
        const std::uint32_t* words = entry.getSRC(0)->getHexData(count);
        return {entry.getRC(), words[4], words[5]};
    }

    HostFolder folder;
    std::array<char, 16> buffer{};
    unsigned int size = 0;
};

/// Whether a failed read is reported by an entry and leaves the caller's buffer as it was.
bool isFailure(const ErrlEntry* entry, const std::array<char, 16>& buffer, unsigned int size)
{
    return entry != nullptr && buffer.front() == '#' && size == 16;
}

TEST_F(Registry, ReadModeHasADefault)
{
    EXPECT_EQ(nullptr, read("tavo/ReadMode"));
    EXPECT_EQ("HWareMode", value());
    EXPECT_EQ('#', buffer[9]) << "bytes beyond the value are left alone";
}

TEST_F(Registry, ConfiguredValuesAreReadWithoutTerminator)
{
    folder.configure("[registry]\n\"tavo/ReadMode\" = \"FileMode\"\n\"a/b\" = \"0123456789abcdef\"");
    EXPECT_EQ(nullptr, read("tavo/ReadMode"));
    EXPECT_EQ("FileMode", value());
    EXPECT_EQ(nullptr, read("a/b"));
    EXPECT_EQ("0123456789abcdef", value());
}

TEST_F(Registry, AValueThatDoesNotFitIsAnErrorAndLeavesTheBuffer)
{
    const auto entry = read("tavo/ReadMode", 8);
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ((std::array<std::uint32_t, 3>{0x80001503, 8, 9}), summaryOf(*entry));
    EXPECT_EQ('#', buffer[0]);
    EXPECT_EQ(8U, size);
}

TEST_F(Registry, AnUnknownKeyIsAnErrorThatNamesIt)
{
    const auto entry = read("tavo/Nothing");
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(0x80001502U, entry->getRC());
    EXPECT_EQ(0x1500, entry->creator());
    const host::loggedEntry facts = host::describeEntry(*entry);
    ASSERT_EQ(1U, facts.userDetails.size());
    EXPECT_EQ("tavo/Nothing", std::string(facts.userDetails[0].bytes.begin(), facts.userDetails[0].bytes.end()));
    ASSERT_EQ(1U, facts.callouts.size());
    EXPECT_EQ(1U, facts.callouts[0].priority);
    EXPECT_EQ(4U, facts.callouts[0].procedure);
}

TEST_F(Registry, NullArgumentsAreRefused)
{
    const auto noKey = read(nullptr);
    ASSERT_NE(nullptr, noKey);
    EXPECT_EQ(0x80001501U, noKey->getRC());
    const std::unique_ptr<ErrlEntry> noBuffer(UtilReg::read("tavo/ReadMode", nullptr, size, false, nullptr));
    ASSERT_NE(nullptr, noBuffer);
    EXPECT_EQ(0x80001501U, noBuffer->getRC());
}

/// Runs in a process of its own, whose configuration is wrong from the start.
TEST(RegistryOfAFreshProcess, DISABLED_WithAFileInError)
{
    EXPECT_EQ("HWareMode", host::currentConfiguration().registry.at("tavo/ReadMode"));
    std::array<char, 16> buffer{};
    unsigned int size = 16;
    const std::unique_ptr<ErrlEntry> entry(UtilReg::read("tavo/ReadMode", buffer.data(), size, false, nullptr));
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(0x80001504U, entry->getRC());
    const host::loggedEntry facts = host::describeEntry(*entry);
    ASSERT_EQ(2U, facts.userDetails.size());
    const auto& reason = facts.userDetails[1].bytes;
    EXPECT_NE(std::string::npos, std::string(reason.begin(), reason.end()).find("wrong.toml:1:1: key 'stat'"));
}

/// Runs one disabled test in a process of its own. @return its output
std::string inFreshProcess(const HostFolder& folder, const std::string& file, const std::string& test)
{
    const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
    const std::string command = "KEST_CONFIG=" + file + " " + emulator + " " + program +
                                " --gtest_also_run_disabled_tests --gtest_filter=" + test + " > " +
                                (folder.path() / "said").string();
    EXPECT_EQ(0, std::system(command.c_str()));
    return folder.read("said");
}

// With a default in place of the configured value, writes meant for a copy would go to the hardware.
TEST(RegistryOfAFreshProcess, GivesNoDefaultsInPlaceOfAFileInError)
{
    const HostFolder folder;
    EXPECT_THAT(inFreshProcess(folder, folder.write("wrong.toml", "stat = 1").string(), "*.DISABLED_WithAFileInError"),
                testing::HasSubstr("[  PASSED  ] 1 test."));
}

/// Runs in a process of its own, which has not read its configuration yet.
TEST(RegistryOfAFreshProcess, DISABLED_WithoutMemory)
{
    EXPECT_EQ("", withoutMemory([] {
                  std::array<char, 16> buffer{'#'};
                  unsigned int size = buffer.size();
                  ErrlEntry* const early = UtilReg::read("tavo/ReadMode", buffer.data(), size, false, nullptr);
                  const bool kept = early == nullptr ? size == 8 : isFailure(early, buffer, size);
                  delete early;
                  giveMemoryBack();
                  size = buffer.size();
                  return kept && UtilReg::read("tavo/ReadMode", buffer.data(), size, false, nullptr) == nullptr &&
                         std::string(buffer.data(), size) == "FileMode";
              }));
}

TEST(RegistryOfAFreshProcess, ReadsTheConfigurationOnceThereIsMemory)
{
    KEST_SKIP_UNLESS_MEMORY_CAN_FAIL();
    const HostFolder folder;
    const std::string file =
        folder.write("right.toml", "state = \"fresh\"\nregistry.\"tavo/ReadMode\" = \"FileMode\"").string();
    EXPECT_THAT(inFreshProcess(folder, file, "*.DISABLED_WithoutMemory"), testing::HasSubstr("[  PASSED  ] 1 test."));
}

TEST_F(Registry, WithoutMemoryAReadIsTheValueOrAnEntry)
{
    KEST_SKIP_UNLESS_MEMORY_CAN_FAIL();
    EXPECT_EQ("", withoutMemory([this] {
                  const auto entry = read("tavo/ReadMode");
                  return entry == nullptr ? value() == "HWareMode" : isFailure(entry.get(), buffer, size);
              }));
    EXPECT_EQ("", withoutMemory([this] {
                  const auto entry = read("no such key");
                  return isFailure(entry.get(), buffer, size);
              }));
}

} // namespace

} // namespace kest::test
