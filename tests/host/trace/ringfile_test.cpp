/// Rings in files: after a crash, next to those of living processes, across fork, and in files that others have
/// changed.
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "platform/host/trace/ringfile.h"
#include "platform/registry.h"
#include "tests/host/host_support.h"
#include "tests/host/memory.h"
#include "tests/host/trace_support.h"
#include "tests/places.h"

namespace kest::test
{
namespace
{

/// A child that traces into a folder, reports this by a byte through a pipe, and then waits to be killed.
class TracingChild
{
public:
    TracingChild(const std::filesystem::path& folder, const char* name)
    {
        int ends[2];
        EXPECT_EQ(0, pipe(ends));
        m_pid = fork();
        if (m_pid == 0) {
            trace_wobu_descriptor ring = newRing(name);
            trace_wobu_write_all(ring, 0x12345678, " %s,%d", 11, 0, "beforeTheFolder", 1);
            host::useTraceFolder(folder);
            trace_wobu_write_all(ring, 0x12345678, " %s,%d", 12, 0, "inTheFolder", 2);
            EXPECT_EQ(1, write(ends[1], "x", 1));
            for (;;) {
                pause();
            }
        }
        close(ends[1]);
        char byte = 0;
        EXPECT_EQ(1, read(ends[0], &byte, 1));
        close(ends[0]);
    }
    TracingChild(const TracingChild&) = delete;
    TracingChild& operator=(const TracingChild&) = delete;
    ~TracingChild() { end(); }

    [[nodiscard]] std::uint32_t pid() const { return static_cast<std::uint32_t>(m_pid); }
    void end()
    {
        if (!m_ended) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        m_ended = true;
    }

private:
    pid_t m_pid = -1;
    bool m_ended = false;
};

host::ringInfo ringOf(const std::filesystem::path& folder, std::uint32_t pid, const std::string& name)
{
    for (const host::ringInfo& ring : host::listRings(folder)) {
        if (ring.pid == pid && ring.buffer == name) {
            return ring;
        }
    }
    ADD_FAILURE() << "no ring " << name << " of " << pid;
    return {};
}

TEST(TraceFile, ReadableWhileAliveAndAfterAKill)
{
    TemporaryFolder folder;
    TracingChild child(folder.path(), "killed");
    for (const bool alive : {true, false}) {
        const host::ringInfo ring = ringOf(folder.path(), child.pid(), "killed");
        EXPECT_EQ(alive, ring.alive);
        EXPECT_NE("", ring.processName);
        const host::ringContents read = host::readRing(ring.file);
        EXPECT_EQ("", read.error);
        EXPECT_EQ(alive, read.info.alive);
        EXPECT_EQ((std::vector<std::string>{" beforeTheFolder,1", " inTheFolder,2"}), textsOf(read.records));
        EXPECT_EQ(0x12345678u, read.records.back().hash);
        EXPECT_EQ(12u, read.records.back().line);
        const auto now = static_cast<std::uint64_t>(time(nullptr)) * 1'000'000'000u;
        // about a minute
        EXPECT_GT(120'000'000'000u, now - read.records.back().timeNs + 2'000'000'000u);
        child.end();
    }
}

TEST(TraceFile, ProcessIsReadOverAllItsBuffersInOrder)
{
    TemporaryFolder folder;
    EXPECT_EQ(0, inChild([&] {
                  host::useTraceFolder(folder.path());
                  trace_wobu_descriptor one = newRing("orderOne"), two = newRing("orderTwo");
                  for (int number = 0; number < 6; ++number) {
                      trace_wobu_write_all(number % 2 == 0 ? one : two, 1, "%d", 1, 0, number);
                  }
                  return 0;
              }));
    const auto rings = host::listRings(folder.path());
    ASSERT_FALSE(rings.empty());
    std::vector<std::string> texts;
    for (const host::traceRecord& record : host::readProcess(folder.path(), rings.front().pid)) {
        if (record.buffer.starts_with("order")) {
            texts.push_back(record.buffer.substr(5) + record.text);
        }
    }
    EXPECT_EQ((std::vector<std::string>{"One0", "Two1", "One2", "Two3", "One4", "Two5"}), texts);
}

/// Runs in a process of its own, which learns the folder of its traces from its configuration alone.
TEST(TraceFileOfAFreshProcess, DISABLED_WhoseEndIsSudden)
{
    trace_wobu_descriptor ring = newRing("sudden");
    trace_wobu_write_all(ring, 1, "before", 1, 0);
    std::array<char, 16> buffer{};
    unsigned int size = 16;
    EXPECT_EQ(nullptr, UtilReg::read("tavo/ReadMode", buffer.data(), size, false, nullptr));
    trace_wobu_write_all(ring, 1, "after", 1, 0);
    raise(SIGKILL);
}

TEST(TraceFileOfAFreshProcess, IsReadableAfterItsSuddenEnd)
{
    const HostFolder folder;
    const std::string config = folder.write("other.toml", "trace.folder = \"lines\"").string();
    const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
    const std::string command =
        "KEST_CONFIG=" + config + " exec " + emulator + " " + program +
        " --gtest_also_run_disabled_tests --gtest_filter=TraceFileOfAFreshProcess.DISABLED_* > " +
        (folder.path() / "said").string();
    const int status = std::system(command.c_str());
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    std::vector<std::string> texts;
    for (const host::ringInfo& info : host::listRings(folder.path() / "lines")) {
        EXPECT_FALSE(info.alive);
        if (info.buffer == "sudden") {
            texts = textsOf(host::readRing(info.file).records);
        }
    }
    EXPECT_EQ((std::vector<std::string>{"before", "after"}), texts);
}

TEST(TraceFile, ChildOfAForkStopsSharing)
{
    TemporaryFolder folder;
    EXPECT_EQ(0, inChild([&] {
                  trace_wobu_descriptor ring = newRing("forked");
                  host::useTraceFolder(folder.path());
                  trace_wobu_write_all(ring, 1, "parent 1", 1, 0);
                  const auto own = static_cast<std::uint32_t>(getpid());
                  const int result = inChild([&] {
                      trace_wobu_write_all(ring, 1, "child 1", 1, 0);
                      const bool kept = textsOf(recordsOf("forked")) == std::vector<std::string>{"parent 1", "child 1"};
                      host::useTraceFolder(folder.path());
                      trace_wobu_write_all(ring, 1, "child 2", 1, 0);
                      return kept ? 0 : 1;
                  });
                  trace_wobu_write_all(ring, 1, "parent 2", 1, 0);
                  for (const host::ringInfo& info : host::listRings(folder.path())) {
                      const auto texts = textsOf(host::readRing(info.file).records);
                      if (info.buffer != "forked") {
                          continue;
                      }
                      if (info.pid == own && texts != std::vector<std::string>{"parent 1", "parent 2"}) {
                          return 2;
                      }
                      if (info.pid == own && !info.alive) {
                          return 3;
                      }
                      if (info.pid != own && texts != std::vector<std::string>{"parent 1", "child 1", "child 2"}) {
                          return 4;
                      }
                      if (info.pid != own && info.alive) {
                          return 5;
                      }
                  }
                  return result;
              }));
}

TEST(TraceFile, UnusableFolderLeavesTheRingInMemory)
{
    EXPECT_EQ(0, inChild([] {
                  trace_wobu_descriptor ring = newRing("noFolder");
                  errno = 42;
                  host::useTraceFolder("/proc/no/such/folder");
                  const bool kept = errno == 42;
                  trace_wobu_write_all(ring, 1, "still here", 1, 0);
                  const auto texts = textsOf(recordsOf("noFolder"));
                  return kept && texts.size() == 2 && texts[0].starts_with(" useTraceFolder,/proc/no/such/folder,") &&
                                 texts[1] == "still here"
                             ? 0
                             : 1;
              }));
}

/// A disk that fills up later would end a writer. So the space is reserved first, and a file without it is not used.
TEST(TraceFile, RoomIsReservedOnTheDisk)
{
    TemporaryFolder folder;
    EXPECT_EQ(0, inChild([&] {
                  rlimit limit{4096, 4096};
                  setrlimit(RLIMIT_FSIZE, &limit);
                  trace_wobu_descriptor ring = newRing("noRoom");
                  host::useTraceFolder(folder.path());
                  trace_wobu_write_all(ring, 1, "still here", 1, 0);
                  return textsOf(recordsOf("noRoom")).back() == "still here" ? 0 : 1;
              }));
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

constexpr uid_t somebody = 65534;

/// What a ring reports in a child that is to use the folder: the path and the errno that keep it in memory; nothing
/// when it has a file.
std::string whyInMemory(const std::filesystem::path& folder)
{
    std::array<int, 2> ends{};
    EXPECT_EQ(0, pipe(ends.data()));
    EXPECT_EQ(0, inChild([&] {
                  newRing("place");
                  host::useTraceFolder(folder);
                  const auto texts = textsOf(recordsOf("place"));
                  return texts.empty() || write(ends[1], texts[0].data(), texts[0].size()) > 0 ? 0 : 1;
              }));
    close(ends[1]);
    std::array<char, 500> text{};
    const ssize_t length = read(ends[0], text.data(), text.size());
    close(ends[0]);
    return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

TEST(TraceFile, LinkOfAnotherUserIsNotFollowed)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give a link away";
    }
    TemporaryFolder folder;
    const auto link = folder.path() / "state" / "trace";
    std::filesystem::create_directories(folder.path() / "elsewhere");
    std::filesystem::create_directory(folder.path() / "state");
    std::filesystem::create_directory_symlink("../elsewhere", link);
    EXPECT_EQ("", whyInMemory(link)) << "root's own link";
    EXPECT_FALSE(std::filesystem::is_empty(folder.path() / "elsewhere"));
    std::filesystem::remove_all(folder.path() / "elsewhere");
    std::filesystem::create_directories(folder.path() / "elsewhere");
    ASSERT_EQ(0, lchown(link.c_str(), somebody, somebody));
    // ELOOP
    EXPECT_EQ(" useTraceFolder," + link.string() + ",40", whyInMemory(link));
    ASSERT_EQ(0, lchown(link.c_str(), 0, 0));
    ASSERT_EQ(0, chown((folder.path() / "state").c_str(), somebody, somebody));
    EXPECT_EQ(" useTraceFolder," + link.string() + ",40", whyInMemory(link))
        << "the owner of the folder can replace it";
    EXPECT_TRUE(std::filesystem::is_empty(folder.path() / "elsewhere"));
}

TEST(TraceFile, FolderOfAnotherUserIsUsedInHisOwnPlaceAlone)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give a folder away";
    }
    TemporaryFolder folder;
    const auto trace = folder.path() / "state" / "trace";
    std::filesystem::create_directories(trace);
    ASSERT_EQ(0, chown(trace.c_str(), somebody, somebody));
    // EPERM
    EXPECT_EQ(" useTraceFolder," + trace.string() + ",1", whyInMemory(trace));
    ASSERT_EQ(0, chown((folder.path() / "state").c_str(), somebody, somebody));
    EXPECT_EQ("", whyInMemory(trace));
    struct stat ring {
    };
    for (const auto& entry : std::filesystem::directory_iterator(trace)) {
        EXPECT_EQ(0, stat(entry.path().c_str(), &ring)) << entry.path();
    }
    EXPECT_EQ(somebody, ring.st_uid) << "the folder's owner cleans it up";
}

TEST(TraceFile, WithoutMemoryARingIsMadeAndItsLinesAreKept)
{
    KEST_SKIP_UNLESS_MEMORY_CAN_FAIL();
    TemporaryFolder folder;
    EXPECT_EQ("", withoutMemory([&] {
                  trace_wobu_descriptor ring = nullptr;
                  const bool made = trace_wobu_init_buffer(&ring, "short", 2048) == 0;
                  trace_wobu_write_all(ring, 1, "before", 1, 0);
                  host::useTraceFolder(folder.path());
                  trace_wobu_descriptor later = nullptr;
                  const bool madeLater = trace_wobu_init_buffer(&later, "later", 2048) == 0;
                  trace_wobu_write_all(ring, 1, "behind", 1, 0);
                  giveMemoryBack();
                  const auto texts = textsOf(recordsOf("short"));
                  for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
                      // otherwise the clean-up of the next child would need more
                      std::filesystem::remove(entry.path());
                  }
                  return made == (ring != nullptr) && made && madeLater == (later != nullptr) && madeLater &&
                         texts.front() == "before" && texts.back() == "behind";
              }));
}

TEST(TraceFile, FolderKeepsTheLatestRingsOfEndedProcesses)
{
    TemporaryFolder folder;
    TracingChild living(folder.path(), "living");
    const auto now = std::filesystem::file_time_type::clock::now();
    for (int number = 0; number < 100; ++number) {
        const auto path = folder.path() / ("old-" + std::to_string(number) + ".ring");
        std::ofstream(path) << "dead";
        std::filesystem::last_write_time(path, now - std::chrono::hours(200 - number));
    }
    std::ofstream(folder.path() / "other.txt") << "not ours";
    for (const auto& entry :
         // the oldest ring belongs to a living process, and is kept
         std::filesystem::directory_iterator(folder.path())) {
        if (entry.path().filename().string().starts_with("living")) {
            std::filesystem::last_write_time(entry.path(), now - std::chrono::hours(1000));
        }
    }
    host::trace::removeOldRings(folder.path());
    EXPECT_TRUE(std::filesystem::exists(folder.path() / "other.txt"));
    EXPECT_EQ(living.pid(), ringOf(folder.path(), living.pid(), "living").pid);
    for (int number = 0; number < 100; ++number) {
        EXPECT_EQ(number >= 100 - 64,
                  std::filesystem::exists(folder.path() / ("old-" + std::to_string(number) + ".ring")))
            << number;
    }
}

// --- files from elsewhere ---

/// The example in docs/trace-format.md, from a big-endian machine.
constexpr const char* exampleHeader = "4b455354 52494e47 01020304 00000001 00000080 00000001 00000100 00000010"
                                      "5eed1234 00001267 17979cfe 362a0000 17979cff 602ff200 6b657374 00000000"
                                      "00000000 00000000 00000000 00000000 00000000 00000000 6b657374 64000000"
                                      "00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000";
constexpr const char* examplePosition = "00000008";
constexpr const char* exampleRecord = "00000000 1187f56e 00000001 2a07d440 77e7226a 0000020b 00000001 00010019"
                                      "2025732c 2564006b 6573745f 776f6275 4f70656e 00000000 02000000 00000000";

std::vector<std::uint8_t> fromHex(const std::string& text)
{
    std::vector<std::uint8_t> bytes;
    std::string digits;
    for (const char character : text) {
        digits += character == ' ' ? "" : std::string(1, character);
    }
    for (std::size_t index = 0; index + 1 < digits.size(); index += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(index, 2), nullptr, 16)));
    }
    return bytes;
}

std::vector<std::uint8_t> exampleImage()
{
    std::vector<std::uint8_t> image = fromHex(exampleHeader);
    const auto position = fromHex(examplePosition);
    const auto record = fromHex(exampleRecord);
    image.insert(image.end(), position.begin(), position.end());
    image.resize(128 + 128);
    image.insert(image.end(), record.begin(), record.end());
    image.resize(128 + 256);
    return image;
}

void expectExample(const host::ringContents& read)
{
    EXPECT_EQ("", read.error);
    EXPECT_EQ("kest", read.info.buffer);
    EXPECT_EQ("kestd", read.info.processName);
    EXPECT_EQ(4711u, read.info.pid);
    EXPECT_EQ(1'700'000'005'000'000'000u, read.info.createdNs);
    ASSERT_EQ(1u, read.records.size());
    EXPECT_EQ("22:13:25.000123 1 77E7226A 523 kest_wobuOpen,2", host::renderRecord(read.records[0]));
}

TEST(TraceFile, ExampleOfTheDocumentation) { expectExample(host::readRingImage(exampleImage())); }

TEST(TraceFile, FilesOfEitherByteOrder)
{
    std::vector<std::uint8_t> image = exampleImage();
    const auto swap = [&image](std::size_t from, std::size_t to) {
        for (std::size_t at = from; at < to; at += 4) {
            std::reverse(image.begin() + static_cast<std::ptrdiff_t>(at),
                         image.begin() + static_cast<std::ptrdiff_t>(at + 4));
        }
    };
    // header's words
    swap(8, 56);
    // position
    swap(128, 132);
    // record's head
    swap(256, 256 + 32);
    // the number 2
    std::reverse(image.begin() + 256 + 32 + 21, image.begin() + 256 + 32 + 25);
    host::ringContents read = host::readRingImage(image);
    EXPECT_EQ("", read.error);
    EXPECT_EQ(0u, read.records.size()) << "the check word was made for other words";
    // The same text in words of the other order has another check word
    const auto check = fromHex("c02a0a75");
    std::copy(check.rbegin(), check.rend(), image.begin() + 256 + 4);
    expectExample(host::readRingImage(image));
}

TEST(TraceFile, CutShortAtEveryByte)
{
    const std::vector<std::uint8_t> image = exampleImage();
    for (std::size_t length = 0; length < image.size(); ++length) {
        const host::ringContents read = host::readRingImage({image.data(), length});
        EXPECT_NE("", read.error) << length;
        EXPECT_TRUE(read.records.empty()) << length;
    }
}

/// A changed byte makes the record unreadable or changes the header's fields, and has no other effect.
TEST(TraceFile, EveryByteChanged)
{
    for (std::size_t at = 0; at < 128 + 256; ++at) {
        for (const unsigned change : {0x01u, 0x80u, 0xFFu}) {
            std::vector<std::uint8_t> image = exampleImage();
            image[at] = static_cast<std::uint8_t>(image[at] ^ change);
            for (const host::traceRecord& record : host::readRingImage(image).records) {
                EXPECT_EQ(" kest_wobuOpen,2", record.text) << at;
            }
        }
    }
}

TEST(TraceFile, SizesThatWrap)
{
    // header bytes, lanes, stride, units
    for (const std::size_t field : {16u, 20u, 24u, 28u}) {
        for (const char* value : {"00000000", "00000001", "7fffffff", "80000000", "fffffff8", "ffffffff"}) {
            std::vector<std::uint8_t> image = exampleImage();
            const auto bytes = fromHex(value);
            std::copy(bytes.begin(), bytes.end(), image.begin() + static_cast<std::ptrdiff_t>(field));
            const host::ringContents read = host::readRingImage(image);
            const bool smaller =
                // one lane, or lanes of one unit: possible
                (field == 20 || field == 28) && bytes.back() == 1;
            EXPECT_EQ(!smaller, !read.error.empty()) << field << " " << value;
            EXPECT_EQ(field == 20 && smaller ? 1u : 0u, read.records.size());
        }
    }
}

TEST(TraceFile, OtherThingsInTheFolder)
{
    TemporaryFolder folder;
    std::filesystem::create_directory(folder.path() / "folder.ring");
    std::filesystem::create_symlink("/dev/zero", folder.path() / "link.ring");
    ASSERT_EQ(0, mkfifo((folder.path() / "pipe.ring").c_str(), 0600));
    std::ofstream(folder.path() / "text.ring") << "text";
    std::ofstream(folder.path() / "empty.ring");
    EXPECT_TRUE(host::listRings(folder.path()).empty());
    EXPECT_TRUE(host::listRings(folder.path() / "none").empty());
    for (const char* name : {"folder.ring", "link.ring", "pipe.ring", "text.ring", "empty.ring", "none.ring"}) {
        EXPECT_NE("", host::readRing(folder.path() / name).error) << name;
    }
}

std::map<std::string, std::string> troublesOf(const host::ringList& list)
{
    std::map<std::string, std::string> troubles;
    for (const host::ringContents& skipped : list.skipped) {
        troubles[skipped.info.file.filename().string()] = skipped.error;
    }
    return troubles;
}

void writeBytes(const std::filesystem::path& file, const std::vector<std::uint8_t>& bytes)
{
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

TEST(TraceFile, EachFileThatIsLeftOutIsReported)
{
    TemporaryFolder folder;
    std::vector<std::uint8_t> image = exampleImage();
    writeBytes(folder.path() / "whole.ring", image);
    writeBytes(folder.path() / "cut.ring", {image.begin(), image.begin() + 300});
    writeBytes(folder.path() / "head.ring", {image.begin(), image.begin() + 100});
    writeBytes(folder.path() / "zeroed.ring", std::vector<std::uint8_t>(image.size()));
    image[0] = 'k';
    writeBytes(folder.path() / "other.ring", image);
    image = exampleImage();
    image[15] = 2;
    writeBytes(folder.path() / "version.ring", image);
    image = exampleImage();
    image[23] = 0;
    writeBytes(folder.path() / "numbers.ring", image);
    std::filesystem::create_symlink("whole.ring", folder.path() / "link.ring");
    writeBytes(folder.path() / "other.txt", {});

    int pauses = 0;
    const host::ringList list = host::listRingsAndOthers(folder.path(), [&] { ++pauses; });
    ASSERT_EQ(1U, list.rings.size());
    EXPECT_EQ(4711U, list.rings[0].pid);
    EXPECT_EQ((std::map<std::string, std::string>{
                  {"cut.ring", "cut short: 300 of 384 bytes"},
                  {"head.ring", "cut short: 100 of 128 bytes of a header"},
                  {"zeroed.ring", "its header is zeroed, or was never written"},
                  {"other.ring", "not a trace ring"},
                  {"version.ring", "a trace ring of a version or byte order that is not known"},
                  {"numbers.ring", "the numbers in its header don't fit together"},
                  {"link.ring", "Too many levels of symbolic links"},
              }),
              troublesOf(list));
    EXPECT_EQ(1, pauses) << "one for all of them";
}

TEST(TraceFile, ARingThatIsBeingMadeOrRemovedIsNotReportedAsDamaged)
{
    TemporaryFolder folder;
    writeBytes(folder.path() / "new.ring", {});
    writeBytes(folder.path() / "zeros.ring", std::vector<std::uint8_t>(384));
    writeBytes(folder.path() / "going.ring", {});
    const host::ringList list = host::listRingsAndOthers(folder.path(), [&] {
        writeBytes(folder.path() / "new.ring", exampleImage());
        writeBytes(folder.path() / "zeros.ring", exampleImage());
        std::filesystem::remove(folder.path() / "going.ring");
    });
    EXPECT_EQ(2U, list.rings.size());
    EXPECT_EQ((std::map<std::string, std::string>{}), troublesOf(list));
    EXPECT_EQ(ENOENT, host::readRing(folder.path() / "going.ring").errorNumber);
}

TEST(TraceFile, AFolderThatIsNoneIsReportedAndAMissingOneIsNot)
{
    TemporaryFolder folder;
    writeBytes(folder.path() / "file", {});
    const host::ringList list = host::listRingsAndOthers(folder.path() / "file", [] {});
    EXPECT_EQ((std::map<std::string, std::string>{{"file", "Not a directory"}}), troublesOf(list));
    EXPECT_EQ(ENOTDIR, list.skipped.at(0).errorNumber);
    EXPECT_TRUE(host::listRingsAndOthers(folder.path() / "none", [] {}).skipped.empty());
}

TEST(TraceFile, ALaneWhosePositionIsDamagedCostsItsRecordsAlone)
{
    // a second lane, the same as the first
    std::vector<std::uint8_t> image = exampleImage();
    image.insert(image.end(), image.begin() + 128, image.end());
    image[23] = 2;
    EXPECT_EQ(2U, host::readRingImage(image).records.size());
    // one past the last unit
    image[128 + 3] = 0x10;
    EXPECT_EQ(1U, host::readRingImage(image).records.size());
    EXPECT_EQ("", host::readRingImage(image).error);
}

/// What a client sends is traced as data, and it may look like a record. When the record around it has been overwritten
/// in part, it must not become a line: its check word would need a number that the client does not know.
TEST(TraceFile, TracedBytesCannotPassForARecord)
{
    trace_wobu_descriptor ring = newRing("forged", 2048);
    std::vector<std::uint8_t> forged = fromHex(exampleRecord);
    for (int number = 0; number < 1000; ++number) {
        trace_wobu_write2(ring, 0, 0, nullptr, static_cast<unsigned>(forged.size()), forged.data());
        trace_wobu_write_all(ring, 1, "%s", 1, 0, std::string(static_cast<std::size_t>(number % 50), 'a').c_str());
    }
    for (const host::traceRecord& record : recordsOf("forged")) {
        EXPECT_NE(" kest_wobuOpen,2", record.text);
    }
}

} // namespace
} // namespace kest::test
