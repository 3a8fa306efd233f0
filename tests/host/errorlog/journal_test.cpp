/// Entries in the journal of the service manager: their fields, and who gets them.
#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "platform/host/errorlog/journal.h"
#include "platform/host/errorlog/waiting.h"
#include "tests/forks.h"
#include "tests/host/host_support.h"

namespace kest::test
{

namespace
{

host::loggedEntry entryOf(std::uint16_t component)
{
    host::loggedEntry entry;
    entry.plid = 0x1A2;
    entry.severity = 0x20;
    entry.creator = component;
    entry.returnCode = 0x40001311;
    entry.process = "kestd";
    return entry;
}

host::loggedSrc srcOf(std::uint32_t reason)
{
    host::loggedSrc src;
    src.words[2] = reason;
    return src;
}

void addDetails(host::loggedEntry& entry, std::uint16_t component, std::uint8_t subsection, const std::string& text)
{
    entry.userDetails.push_back({component, 1, subsection, {text.begin(), text.end()}});
}

/// The value of a field; empty when there is none, or when it has a line end.
std::string valueOf(const std::string& fields, const std::string& name)
{
    const std::string start = "\n" + name + "=";
    const std::string lines = "\n" + fields;
    const std::size_t at = lines.find(start);
    return at == std::string::npos ? "" : lines.substr(at + start.size(), lines.find('\n', at + 1) - at - start.size());
}

TEST(JournalFields, AFailedTransfer)
{
    host::loggedEntry entry = entryOf(0x1300);
    addDetails(entry, 0x1300, 7, std::string("sim:planar,L,2C0256,A0\0", 23));
    EXPECT_EQ("MESSAGE=sim:planar,L,2C0256,A0 failed (reason 0x1311): kestctl errors show 0x000001A2\n"
              "MESSAGE_ID=91c132395bfcd6c71a39c3ee03905a2d\n"
              "PRIORITY=3\n"
              "SYSLOG_IDENTIFIER=kestd\n"
              "KEST_LOG_ID=0x000001A2\n"
              "KEST_REASON=0x1311\n"
              "KEST_RETURN_CODE=0x40001311\n"
              "KEST_COMPONENT=0x1300\n"
              "KEST_DEVICE=sim:planar,L,2C0256,A0\n",
              host::journalFields(entry, srcOf(0x1311)));
}

TEST(JournalFields, ARefusalIsInItsWords)
{
    host::loggedEntry entry = entryOf(0x1600);
    addDetails(entry, 0x1600, 8, "user 1001 is not permitted to write");
    const std::string fields = host::journalFields(entry, srcOf(0x1601));
    EXPECT_EQ("user 1001 is not permitted to write (reason 0x1601): kestctl errors show 0x000001A2",
              valueOf(fields, "MESSAGE"));
    EXPECT_EQ("", valueOf(fields, "KEST_DEVICE"));
}

TEST(JournalFields, KindsByWhoReports)
{
    const std::array<std::pair<std::uint16_t, const char*>, 6> kinds{{{0x1300, "91c132395bfcd6c71a39c3ee03905a2d"},
                                                                      {0x1400, "cc03b569f6e929cfa1dcf9b7f6027c4b"},
                                                                      {0x1500, "2ba484acb7c4b03742ca30a391da5705"},
                                                                      {0x1600, "640afc2901f98a070a83971ce3e719d1"},
                                                                      {0x1700, "1e651b8c30875cafd773918afe6eafaf"},
                                                                      {0x4711, "1d61a54bdd001ec7cc6ace2f763f5a4c"}}};
    for (const auto& [component, id] : kinds) {
        EXPECT_EQ(id, valueOf(host::journalFields(entryOf(component), srcOf(0x1312)), "MESSAGE_ID")) << component;
    }
}

TEST(JournalFields, PriorityBySeverity)
{
    host::loggedEntry entry = entryOf(0x1300);
    entry.severity = 0x10;
    EXPECT_EQ("5", valueOf(host::journalFields(entry, srcOf(0x1312)), "PRIORITY"));
    entry.severity = 0x20;
    EXPECT_EQ("3", valueOf(host::journalFields(entry, srcOf(0x1312)), "PRIORITY"));
}

/// A client's text must not make fields of its own.
TEST(JournalFields, AValueWithALineEndHasItsLength)
{
    host::loggedEntry entry = entryOf(0x1300);
    addDetails(entry, 0x1300, 7, "x\nPRIORITY=0\n\x01");
    const std::string fields = host::journalFields(entry, srcOf(0x1311));
    const std::string device = std::string("\nKEST_DEVICE\n\x11\0\0\0\0\0\0\0", 21) + "x\nPRIORITY=0\n\\x01\n";
    EXPECT_EQ(fields.size() - device.size(), fields.find(device)) << fields;
    EXPECT_EQ("x\\x0APRIORITY=0\\x0A\\x01 failed (reason 0x1311): kestctl errors show 0x000001A2",
              valueOf(fields, "MESSAGE"));
    EXPECT_EQ("3", valueOf(fields, "PRIORITY"));
}

TEST(JournalFields, ALongValueEndsWithAWholeCharacter)
{
    host::loggedEntry entry = entryOf(0x1300);
    // 2 bytes each; the 4096th byte is the first of one
    std::string text = "x";
    for (int count = 0; count < 3000; ++count) {
        text += "\u00FC";
    }
    addDetails(entry, 0x1300, 7, text);
    EXPECT_EQ(text.substr(0, 4095), valueOf(host::journalFields(entry, srcOf(0x1311)), "KEST_DEVICE"));
}

/// A clock that only pauses move.
std::chrono::steady_clock::time_point now{std::chrono::hours(1)};
constexpr host::waitingClock drivenClock{[] { return now; }, [](std::chrono::microseconds length) { now += length; }};

class ErrorLogInTheJournal : public testing::Test
{
protected:
    void SetUp() override
    {
        path = folder.path() / "journal";
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.string().copy(address.sun_path, sizeof address.sun_path - 1);
        receiver = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        ASSERT_EQ(0, bind(receiver, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    }
    void TearDown() override { close(receiver); }

    /// Runs a child whose standard error goes to the journal, as that of a service does.
    int asService(const std::function<bool()>& work) const
    {
        return inChild([&] {
            alarm(hangSeconds);
            std::array<int, 2> ends{};
            struct stat facts {
            };
            if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0 || dup2(ends[0], STDERR_FILENO) < 0 ||
                fstat(STDERR_FILENO, &facts) != 0) {
                return 2;
            }
            setenv("JOURNAL_STREAM", (std::to_string(facts.st_dev) + ":" + std::to_string(facts.st_ino)).c_str(), 1);
            host::useJournalSocket(path.c_str());
            host::useWaitingClock(&drivenClock);
            return work() ? 0 : 1;
        });
    }
    /// The next datagram that the journal got; empty when there is none.
    [[nodiscard]] std::string received() const
    {
        std::string datagram(8192, '\0');
        const ssize_t length = recv(receiver, datagram.data(), datagram.size(), 0);
        datagram.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
        return datagram;
    }

    HostFolder folder;
    std::filesystem::path path;
    int receiver = -1;
};

TEST_F(ErrorLogInTheJournal, ACommitOfAServiceGoesThere)
{
    EXPECT_EQ(0, asService([] {
                  commitEntry(1);
                  return host::listEntries().entries.size() == 1;
              }));
    const std::string got = received();
    EXPECT_EQ("0x1312", valueOf(got, "KEST_REASON")) << got;
    EXPECT_EQ(1U, idsInLog().count(static_cast<std::uint32_t>(std::stoul(valueOf(got, "KEST_LOG_ID"), nullptr, 16))));
    EXPECT_EQ("", received());
}

TEST_F(ErrorLogInTheJournal, ProgramsWithAnotherStandardErrorSendNothing)
{
    EXPECT_EQ(0, asService([] {
                  const int file = open("/dev/null", O_WRONLY);
                  dup2(file, STDERR_FILENO);
                  commitEntry(1);
                  unsetenv("JOURNAL_STREAM");
                  commitEntry(2);
                  return host::listEntries().entries.size() == 2;
              }));
    EXPECT_EQ("", received());
}

TEST_F(ErrorLogInTheJournal, WithoutAJournalTheLogIsAsEver)
{
    std::filesystem::remove(path);
    EXPECT_EQ(0, asService([] {
                  commitEntry(1);
                  return host::listEntries().entries.size() == 1;
              }));
}

TEST_F(ErrorLogInTheJournal, AFullJournalHoldsACommitUpForAFifthOfASecondAtMost)
{
    EXPECT_EQ(0, asService([this] {
                  sockaddr_un address{};
                  address.sun_family = AF_UNIX;
                  path.string().copy(address.sun_path, sizeof address.sun_path - 1);
                  const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
                  while (sendto(sender, "x", 1, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 1) {
                      continue;
                  }
                  const auto before = now;
                  commitEntry(1);
                  return now == before + std::chrono::milliseconds(200) && host::listEntries().entries.size() == 1;
              }));
    EXPECT_EQ("x", received());
}

} // namespace

} // namespace kest::test
