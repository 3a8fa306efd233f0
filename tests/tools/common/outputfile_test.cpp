/// The files that kestctl writes are complete, or as they were before.
#include <algorithm>
#include <array>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using testing::HasSubstr;

class KestctlFiles : public SeepromTest
{
protected:
    /// Names in a folder, sorted.
    static std::vector<std::string> namesIn(const std::filesystem::path& folder)
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            names.push_back(entry.path().filename().string());
        }
        std::ranges::sort(names);
        return names;
    }
    static struct stat factsOf(const std::filesystem::path& path)
    {
        struct stat facts {
        };
        EXPECT_EQ(0, lstat(path.c_str(), &facts)) << path;
        return facts;
    }
    void readPanelInto(const std::string& target) const
    {
        EXPECT_EQ("", says({"seeprom", "read", "panel-vpd", "-o", target}));
    }
};

TEST_F(KestctlFiles, AFullDiskLeavesTheOlderBackup)
{
    std::filesystem::create_directory(folder() / "out");
    const std::string target = (folder() / "out/backup").string();
    says({"copy", "capture", "firmware"});
    for (int entry = 0; entry < 20; ++entry) {
        EXPECT_EQ(4, kestctl({"detect", "sim:planar,L,2C0256,AA"}).exit);
    }
    // reading the error log's database needs room, too
    for (const auto& [room, command] : std::vector<std::pair<std::uint64_t, std::vector<std::string>>>{
             {100, {"seeprom", "read", "firmware", "-o", target}},
             {100, {"seeprom", "dump", "firmware", "-o", target}},
             {100, {"copy", "export", "firmware", target}},
             {33000, {"errors", "export", target}}}) {
        writeFile(target, "older backup");
        EXPECT_THAT(complaint(1, command, {.largestFile = room}), HasSubstr(target + ": "))
            << testing::PrintToString(command);
        EXPECT_EQ("older backup", readFile(target)) << testing::PrintToString(command);
        EXPECT_EQ(std::vector<std::string>{"backup"}, namesIn(folder() / "out")) << testing::PrintToString(command);
    }
    EXPECT_LT(33000U, says({"errors", "export"}).size());
}

TEST_F(KestctlFiles, ModeAndOwnerOfAReplacedFileAreKept)
{
    const std::string target = file("out.bin", "older");
    ASSERT_EQ(0, chmod(target.c_str(), 0604));
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(0, chown(target.c_str(), 12, 34));
    }
    readPanelInto(target);
    EXPECT_EQ(image("panel"), readFile(target));
    const struct stat facts = factsOf(target);
    EXPECT_EQ(0604U, facts.st_mode & 07777U);
    EXPECT_EQ(root ? 12U : geteuid(), facts.st_uid);
    EXPECT_EQ(root ? 34U : getegid(), facts.st_gid);
}

TEST_F(KestctlFiles, ANewFileHasTheModeThatTheUmaskLeaves)
{
    const std::string target = (folder() / "out.bin").string();
    const mode_t before = umask(026);
    readPanelInto(target);
    EXPECT_EQ(image("panel"), readFile(target));
    umask(before);
    EXPECT_EQ(0640U, factsOf(target).st_mode & 07777U);
}

TEST_F(KestctlFiles, ALinkGoesOnLeadingToItsFile)
{
    std::filesystem::create_directories(folder() / "links");
    std::filesystem::create_directories(folder() / "files");
    writeFile(folder() / "files/there", "older");
    for (const char* name : {"there", "missing"}) {
        const std::filesystem::path link = folder() / "links" / name;
        std::filesystem::create_symlink(std::filesystem::path("../files") / name, link);
        readPanelInto(link.string());
        EXPECT_EQ(image("panel"), readFile(folder() / "files" / name));
        EXPECT_TRUE(S_ISLNK(factsOf(link).st_mode)) << name;
        EXPECT_TRUE(S_ISREG(factsOf(folder() / "files" / name).st_mode)) << name;
    }
    EXPECT_EQ((std::vector<std::string>{"missing", "there"}), namesIn(folder() / "files"));
}

TEST_F(KestctlFiles, PipesAndOpenDescriptorsAreWrittenInPlace)
{
    const std::string pipe = (folder() / "pipe").string();
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_LE(0, reader);
    readPanelInto(pipe);
    std::array<char, 512> bytes{};
    EXPECT_EQ(256, read(reader, bytes.data(), bytes.size()));
    close(reader);
    EXPECT_EQ(image("panel"), std::string(bytes.data(), 256));
    EXPECT_TRUE(S_ISFIFO(factsOf(pipe).st_mode));

    const std::string target = file("stdout", "");
    const auto before = factsOf(target).st_ino;
    says({"seeprom", "read", "panel-vpd", "-o", "/dev/stdout"}, {.outputTo = target});
    EXPECT_EQ(image("panel"), readFile(target));
    EXPECT_EQ(before, factsOf(target).st_ino);
}

TEST_F(KestctlFiles, AFileThatMayNotBeWrittenIsRefused)
{
    if (!letStrangersIn()) {
        GTEST_SKIP() << "a user without rights can't start the programs here";
    }
    const std::string target = file("out", "older");
    ASSERT_EQ(0, chmod(target.c_str(), 0444));
    // every user may replace names in this folder
    ASSERT_EQ(0, chmod(folder().c_str(), 0777));
    writeFile(machine() / "kest.toml", readFile(machine() / "kest.toml") + "\n");
    const RunResult made = kestctl({"sim", "new", (folder() / "own").string()}, {.stranger = true});
    ASSERT_EQ(0, made.exit) << made.errors;
    const RunResult refused = run(
        "kestctl", {"--config", (folder() / "own/kest.toml").string(), "seeprom", "read", "panel-vpd", "-o", target},
        {.stranger = true});
    EXPECT_EQ(3, refused.exit);
    EXPECT_EQ("kestctl: " + target + ": write: Permission denied\n", refused.errors);
    EXPECT_EQ("older", readFile(target));
}

/// The entry can't be stored either. The output does not show it as JSON, but names its number.
TEST_F(KestctlFiles, AnUnusableStateFolderIsReportedInOneLine)
{
    std::string text = readFile(machine() / "kest.toml");
    const std::size_t at = text.find("state = \"state\"");
    ASSERT_NE(std::string::npos, at) << text;
    writeFile(machine() / "kest.toml", text.replace(at, 15, "state = \"taken\""));
    writeFile(machine() / "taken", "a file");
    const RunResult failed = kestctl({"detect", "sim:planar,L,2C0256,AA"});
    EXPECT_EQ(4, failed.exit);
    const std::string taken = (machine() / "taken").string();
    EXPECT_THAT(failed.errors,
                testing::StartsWith("kestctl: the error log can't be used: " + taken +
                                    ": Not a directory; entries wait in its spool\n"
                                    "kestctl: sim:planar,L,2C0256,AA: detect: nothing answers at AA = 0x55; "));
    EXPECT_EQ(2, std::ranges::count(failed.errors, '\n')) << failed.errors;
    EXPECT_THAT(kestctl({"errors", "show", "last"}).output, HasSubstr("0x130A the device is absent"));
}

} // namespace
} // namespace kest::test
