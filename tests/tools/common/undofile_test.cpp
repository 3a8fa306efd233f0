/// Undo files: which a write makes, which are kept, and what `seeprom undo` does with them.
#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;
using testing::MatchesRegex;

class KestctlUndo : public SeepromTest
{
protected:
    /// Writes one byte to panel-vpd. @return its undo file
    [[nodiscard]] std::string write(const std::string& hex, const std::string& offset = "0") const
    {
        return json::parse(says({"seeprom", "write", "panel-vpd", "--hex", hex, "--offset", offset, "--yes", "--force",
                                 "--json"}))
            .at("undo_file");
    }
    [[nodiscard]] json list(const std::string& device = "panel-vpd", const std::string& mode = "hardware") const
    {
        return json::parse(says({"seeprom", "undo", device, "--list", "--mode", mode, "--json"})).at("undo_files");
    }
    [[nodiscard]] std::filesystem::path undoFolder() const { return machine() / "state/undo"; }
    [[nodiscard]] std::size_t files() const
    {
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(undoFolder()), {}));
    }
    void configure(const std::string& section) const
    {
        const std::filesystem::path file = machine() / "kest.toml";
        writeFile(file, readFile(file) + "\n" + section + "\n");
    }
    /// The file under a name as if it had been made at another time.
    [[nodiscard]] static std::filesystem::path renamed(const std::filesystem::path& file, const std::string& time)
    {
        const std::string stem = file.filename().string();
        const auto other = file.parent_path() / (stem.substr(0, stem.size() - 21) + time + ".json");
        std::filesystem::rename(file, other);
        return other;
    }
    /// The name of a file with another number.
    [[nodiscard]] static std::filesystem::path numbered(const std::filesystem::path& file, const std::string& number)
    {
        // "-000001-20240501T120000Z.json"
        constexpr std::size_t tail = 29;
        constexpr std::size_t behindNumber = 22;
        const std::string name = file.string();
        return name.substr(0, name.size() - tail) + "-" + number + name.substr(name.size() - behindNumber);
    }
};

TEST_F(KestctlUndo, BringsBackWhatTheLatestWriteReplaced)
{
    const std::string old = image("panel");
    static_cast<void>(write("A1A2", "0x10"));
    const std::string between = image("panel");
    const std::string latest = write("B1", "0x80");
    EXPECT_THAT(
        says({"seeprom", "undo", "panel-vpd", "--yes"}),
        MatchesRegex("panel-vpd: undoes the write of 20.*Z: " + latest + "\npanel-vpd: wrote 1 byte in 1 page; .*"));
    EXPECT_EQ(between, image("panel"));
    // a second one takes the first back
    says({"seeprom", "undo", "panel-vpd", "--yes"});
    EXPECT_EQ('\xB1', image("panel")[0x80]);
    const json all = list();
    ASSERT_EQ(4U, all.size());
    says({"seeprom", "restore", all.at(2).at("file"), "--yes", "--force"});
    EXPECT_EQ(between, image("panel"));
    says({"seeprom", "restore", all.at(3).at("file"), "--yes", "--force"});
    EXPECT_EQ(old, image("panel"));
}

/// One place: the same part was written by another name, and as another type.
TEST_F(KestctlUndo, OfOnePlaceIsTheLatestHoweverItWasNamed)
{
    static_cast<void>(write("A1"));
    const std::string between = image("panel");
    says({"seeprom", "write", "sim:planar@A4,l,1c0002,a4", "--hex", "A2", "--yes", "--force"});
    ASSERT_EQ(2U, list().size());
    EXPECT_EQ(list(), list("sim:planar,L,1C0002,A4"));
    says({"seeprom", "undo", "panel-vpd", "--yes"});
    EXPECT_EQ(between, image("panel"));
}

TEST_F(KestctlUndo, OfAnotherTypeIsFoundAndRefused)
{
    const std::string file = write("A1");
    const std::string panel = image("panel");
    EXPECT_EQ("sim:planar,L,2C0032,A4: " + file +
                  " was saved from a 24C02, this is a 24C32; name the device as it was "
                  "then, sim:planar,L,1C0002,A4",
              complaint(2, {"seeprom", "undo", "sim:planar,L,2C0032,A4", "--force", "--yes"}));
    EXPECT_EQ(panel, image("panel"));
}

/// Older versions made the key of a device of its type, too.
TEST_F(KestctlUndo, FilesWithAKeyOfOlderVersionsAreFoundAndCounted)
{
    const std::string old = image("panel");
    const std::filesystem::path file = write("A1");
    std::string name = file.filename().string();
    const std::size_t key = name.size() - std::string("-000001-20240501T120000Z.json").size() - 16;
    // "sim:planar", "L", "hardware", "1C0002 A4 0", one a line
    name.replace(key, 16, "b5845a7158a4c737");
    std::filesystem::rename(file, undoFolder() / name);
    ASSERT_EQ(1U, list().size());
    const std::string next = write("A2");
    EXPECT_THAT(next, HasSubstr("-000002-"));
    EXPECT_EQ(2U, list().size());
    EXPECT_EQ(next, list().at(0).at("file"));
    std::filesystem::remove(next);
    says({"seeprom", "undo", "panel-vpd", "--yes"});
    EXPECT_EQ(old, image("panel"));
}

TEST_F(KestctlUndo, ListShowsTheLatestFirst)
{
    const std::string first = write("A1A2", "0x10");
    const std::string second = write("B1", "0x80");
    const json all = list();
    ASSERT_EQ(2U, all.size());
    EXPECT_EQ(second, all.at(0).at("file"));
    EXPECT_EQ(128, all.at(0).at("offset"));
    EXPECT_EQ(1, all.at(0).at("length"));
    EXPECT_EQ("hardware", all.at(0).at("mode"));
    EXPECT_EQ(first, all.at(1).at("file"));
    EXPECT_EQ(2, all.at(1).at("length"));
    EXPECT_THAT(says({"seeprom", "undo", "panel-vpd", "--list"}),
                MatchesRegex("SAVED                     OFFSET  LENGTH  FILE\n"
                             "20[-0-9]*T[0-9:.]*Z     128       1  " +
                             second +
                             "\n"
                             "20[-0-9]*T[0-9:.]*Z      16       2  " +
                             first + "\n"));
    EXPECT_EQ("planar-vpd: no undo files\n", says({"seeprom", "undo", "planar-vpd", "--list"}));
}

TEST_F(KestctlUndo, TakesTheSameCareAsAWrite)
{
    static_cast<void>(write("A1"));
    EXPECT_THAT(complaint(3, {"seeprom", "undo", "panel-vpd"}), HasSubstr("not confirmed; --yes confirms it"));
    EXPECT_THAT(says({"seeprom", "undo", "panel-vpd", "--dry-run"}), HasSubstr("panel-vpd: would write 1 byte"));
    EXPECT_EQ('\xA1', image("panel")[0]);
    EXPECT_EQ(1U, list().size());
    const json undone = json::parse(says({"seeprom", "undo", "panel-vpd", "--yes", "--json"}));
    EXPECT_EQ(true, undone.at("verified"));
    EXPECT_EQ(1, undone.at("bytes_written"));
}

TEST_F(KestctlUndo, DeviceWithoutOneIsAFailure)
{
    EXPECT_EQ("planar-vpd: undo: there is no undo file of it",
              complaint(1, {"seeprom", "undo", "planar-vpd", "--yes"}));
}

/// An older file in its place would bring back what nobody expects.
TEST_F(KestctlUndo, ADamagedFileIsNotPassedOver)
{
    const std::string first = write("A1");
    const std::string second = write("B1");
    writeFile(second, readFile(second).substr(0, 100));
    EXPECT_THAT(complaint(1, {"seeprom", "undo", "panel-vpd", "--yes"}),
                HasSubstr("undo: the latest undo file can't be used: " + second));
    const json all = list();
    ASSERT_EQ(2U, all.size());
    EXPECT_THAT(all.at(0).at("trouble").get<std::string>(), HasSubstr(second));
    EXPECT_EQ(first, all.at(1).at("file"));
    EXPECT_EQ('\xB1', image("panel")[0]);
}

TEST_F(KestctlUndo, AFileOfAnotherDeviceUnderItsNameIsLeftAlone)
{
    const std::string mine = write("A1");
    const std::string other =
        json::parse(says({"seeprom", "write", "planar-vpd", "--hex", "A1", "--yes", "--force", "--json"}))
            .at("undo_file");
    writeFile(mine, readFile(other));
    EXPECT_EQ(0U, list().size());
}

/// In a folder that others may write to, a file with the highest number would otherwise be the latest.
TEST_F(KestctlUndo, APipeOrALinkUnderALaterNameIsPassedOver)
{
    const std::string mine = write("A1");
    const auto pipe = numbered(mine, "000007");
    const auto link = numbered(mine, "000008");
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0666));
    std::filesystem::create_symlink(mine, link);
    const json all = list();
    ASSERT_EQ(3U, all.size());
    EXPECT_EQ(link.string() + ": it is no regular file", all.at(0).at("trouble"));
    EXPECT_EQ(pipe.string() + ": it is no regular file", all.at(1).at("trouble"));
    EXPECT_EQ(mine, all.at(2).at("file"));
    const RunResult undone = kestctl({"seeprom", "undo", "panel-vpd", "--yes"});
    EXPECT_EQ(0, undone.exit);
    EXPECT_EQ("kestctl: panel-vpd: undo passes over " + link.string() +
                  ": it is no regular file\n"
                  "kestctl: panel-vpd: undo passes over " +
                  pipe.string() + ": it is no regular file\n",
              undone.errors);
    EXPECT_THAT(undone.output, HasSubstr("undoes the write of 20"));
    EXPECT_THAT(undone.output, HasSubstr(mine));
}

TEST_F(KestctlUndo, AFileOfAnotherUserIsPassedOverAndNeverCounts)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can make files of other users";
    }
    constexpr uid_t another = 4711;
    const std::string mine = write("A1");
    const auto forged = numbered(mine, "000500");
    writeFile(forged, readFile(mine));
    ASSERT_EQ(0, chown(forged.c_str(), another, another));
    EXPECT_EQ(forged.string() + ": it belongs to user 4711", list().at(0).at("trouble"));
    EXPECT_EQ(numbered(mine, "000002").string().substr(0, mine.size() - 21), write("B1").substr(0, mine.size() - 21));
    const RunResult undone = kestctl({"seeprom", "undo", "panel-vpd", "--yes"});
    EXPECT_EQ(0, undone.exit);
    EXPECT_EQ("kestctl: panel-vpd: undo passes over " + forged.string() + ": it belongs to user 4711\n", undone.errors);
    EXPECT_EQ('\xA1', image("panel")[0]);
}

TEST_F(KestctlUndo, ANumberThatNoDeviceReachesIsNoUndoFile)
{
    const std::string mine = write("A1");
    writeFile(numbered(mine, "18446744073709551615"), readFile(mine));
    const std::string second = write("B1");
    const json all = list();
    ASSERT_EQ(3U, all.size());
    EXPECT_EQ(second, all.at(0).at("file"));
    EXPECT_EQ(mine, all.at(1).at("file"));
}

TEST_F(KestctlUndo, CopiesHaveFilesOfTheirOwn)
{
    says({"copy", "capture", "panel-vpd"});
    static_cast<void>(write("A1"));
    says({"seeprom", "write", "panel-vpd", "--hex", "C1", "--mode", "file"});
    ASSERT_EQ(1U, list().size());
    ASSERT_EQ(1U, list("panel-vpd", "file").size());
    EXPECT_EQ("file", list("panel-vpd", "file").at(0).at("mode"));
    says({"seeprom", "undo", "panel-vpd", "--mode", "file"});
    EXPECT_EQ('\xA1', image("panel")[0]);
}

TEST_F(KestctlUndo, OrderIsThatOfTheWritesWhateverTheClockSaid)
{
    const std::filesystem::path first = renamed(write("A1"), "20380101T000000Z");
    const std::filesystem::path second = renamed(write("B1"), "20000101T000000Z");
    const json all = list();
    ASSERT_EQ(2U, all.size());
    EXPECT_EQ(second.string(), all.at(0).at("file"));
    EXPECT_EQ("2000-01-01T00:00:00.000Z", all.at(0).at("time"));
    EXPECT_EQ(first.string(), all.at(1).at("file"));
}

TEST_F(KestctlUndo, FilesOfTheFormerNamesStillWorkAndComeLast)
{
    const std::string old = image("panel");
    const std::filesystem::path former = undoFolder() / "panel-vpd-20200101T000000Z.json";
    std::filesystem::rename(write("A1"), former);
    writeFile(undoFolder() / "notes.json", "nothing");
    ASSERT_EQ(1U, list().size());
    EXPECT_EQ(former.string(), list().at(0).at("file"));
    const std::string later = write("B1");
    ASSERT_EQ(2U, list().size());
    EXPECT_EQ(later, list().at(0).at("file"));
    EXPECT_EQ(former.string(), list().at(1).at("file"));
    std::filesystem::remove(later);
    says({"seeprom", "undo", "panel-vpd", "--yes"});
    EXPECT_EQ(old, image("panel"));
}

TEST_F(KestctlUndo, OldFilesGoByNumber)
{
    configure("[undo]\nkeep = 2");
    const std::string first = write("A1");
    const std::string second = write("A2");
    const std::string third = write("A3");
    EXPECT_FALSE(std::filesystem::exists(first));
    EXPECT_TRUE(std::filesystem::exists(second));
    EXPECT_TRUE(std::filesystem::exists(third));
    // of each device
    says({"seeprom", "write", "planar-vpd", "--hex", "A1", "--yes", "--force"});
    EXPECT_EQ(3U, files());
}

TEST_F(KestctlUndo, OldFilesGoByAgeButNeverTheLatest)
{
    configure("[undo]\ndays = 30");
    const std::filesystem::path first = renamed(write("A1"), "20200101T000000Z");
    const std::filesystem::path second = renamed(write("A2"), "20200102T000000Z");
    EXPECT_FALSE(std::filesystem::exists(first));
    // of this device it is the latest; its age does not count
    says({"seeprom", "write", "planar-vpd", "--hex", "A1", "--yes", "--force"});
    EXPECT_TRUE(std::filesystem::exists(second));
    const std::string third = write("A3");
    EXPECT_FALSE(std::filesystem::exists(second));
    EXPECT_TRUE(std::filesystem::exists(third));
}

TEST_F(KestctlUndo, ZeroKeepsAll)
{
    configure("[undo]\nkeep = 0\ndays = 0");
    const std::filesystem::path first = renamed(write("A1"), "20000101T000000Z");
    for (const char* hex : {"A2", "A3", "A4"}) {
        static_cast<void>(write(hex));
    }
    EXPECT_TRUE(std::filesystem::exists(first));
    EXPECT_EQ(4U, files());
}

TEST_F(KestctlUndo, WhatItDoesNotKnowIsNeverRemoved)
{
    configure("[undo]\nkeep = 1\ndays = 1");
    std::filesystem::create_directories(undoFolder());
    for (const char* name :
         {"panel-vpd-20000101T000000Z.json", "mine.json", "x-00112233445566ff-000001-20000101T000000Z",
          "x-00112233445566ff-000001-20000101T000000Z.json"}) {
        writeFile(undoFolder() / name, "mine");
    }
    static_cast<void>(write("A1"));
    EXPECT_EQ(5U, files());
}

} // namespace
} // namespace kest::test
