/// The error log without memory: an entry lacks what needs memory, but it has its identifier, and it is stored or
/// reported.
#include <array>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>

#include "platform/host/errorlog/json.h"
#include "platform/trace.h"
#include "tests/host/host_support.h"
#include "tests/host/memory.h"

namespace kest::test
{

namespace
{

using Words = std::vector<std::uint32_t>;

ErrlEntry* newEntry(unsigned int word)
{
    return new ErrlEntry(0x1300, ERRL_SEV_UNRECOVERED, ERRL_EVENT_NONE, SRCI_TYPE_SERVICE_PROCESSOR, 0, 0x0D,
                         SERVICE_CODE_KEST, 0x1312, word, 2, 3, 4, EPUB_SUBSYSTEM_IIC_DEVICE, SRCI_TERM_NONE);
}

Words wordsOf(const SrciSrc* src)
{
    unsigned int count = 0;
    const std::uint32_t* first = src != nullptr ? src->getHexData(count) : nullptr;
    return {first, first + count};
}

/// What the process writes to standard error from now on. Allocates nothing until it is read.
class CapturedError
{
public:
    CapturedError()
    {
        if (pipe2(m_ends.data(), O_NONBLOCK) == 0) {
            dup2(m_ends[1], STDERR_FILENO);
        }
    }
    [[nodiscard]] std::string read() const
    {
        std::string text(65536, '\0');
        const auto moved = ::read(m_ends[0], text.data(), text.size());
        text.resize(moved > 0 ? static_cast<std::size_t>(moved) : 0);
        return text;
    }

private:
    std::array<int, 2> m_ends{-1, -1};
};

class ErrorLogMemory : public testing::Test
{
protected:
    void SetUp() override { KEST_SKIP_UNLESS_MEMORY_CAN_FAIL(); }

    /// Whether an entry from newEntry(62), completed by fill(), has all that an entry always has.
    static bool hasItsFacts(const ErrlEntry& entry)
    {
        return wordsOf(entry.getSRC(0)) == Words{0x00B143FF, 0x1300000D, 0x1312, 0x55, 62, 2, 3, 4} &&
               entry.getRC() == 0x80001312 && entry.creator() == 0x1300 && entry.plid() != 0 &&
               entry.plid() != UINT32_MAX;
    }
    static bool isWhole(const host::loggedEntry& facts)
    {
        return facts.srcs.size() == 2 && facts.userDetails.size() == 1 && facts.callouts.size() == 1;
    }
    static void fillWhole(ErrlEntry& entry)
    {
        entry.addSRC(0x1400, *entry.getSRC(0));
        entry.addUsrDtls("details", 7, 0x1300, 1, 2);
        fill(entry);
    }
    /// Commits in a process that has not opened the log yet. @return whether the entry is in the log once, or else in
    /// what was reported, with a remark when it is not whole
    static bool commitsWithoutMemory(ErrlEntry& entry)
    {
        const CapturedError captured;
        entry.commit(0x1300, ERRL_ACTION_REPORT);
        giveMemoryBack();
        const std::string text = captured.read();
        const auto stored = host::listEntries({.plid = entry.plid()}).entries;
        const auto found = stored.empty() ? host::fromLine(text.substr(0, text.find('\n'))) : stored.front();
        return hasItsFacts(entry) && stored.size() <= 1 && found && found->plid == entry.plid() &&
               found->returnCode == 0x80001312 && found->srcs.at(0).words[4] == 62 &&
               (found->incomplete || isWhole(*found));
    }

    HostFolder folder;
    std::unique_ptr<ErrlEntry> ready{newEntry(62)};
};

TEST_F(ErrorLogMemory, AnEntryKeepsItsFactsAndSaysWhatItLacks)
{
    trace_wobu_descriptor ring = nullptr;
    ASSERT_EQ(0, trace_wobu_init_buffer(&ring, "memorytest", 4096));
    trace_wobu_write_all(ring, 0x1234, " %s,%d", 77, 0, "text", 5);
    EXPECT_EQ("", withoutMemory([] {
                  const std::unique_ptr<ErrlEntry> entry(newEntry(62));
                  if (entry == nullptr) {
                      return true;
                  }
                  entry->CollectTrace("memorytest", 500);
                  fillWhole(*entry);
                  giveMemoryBack();
                  const host::loggedEntry facts = host::describeEntry(*entry);
                  return hasItsFacts(*entry) && (facts.incomplete || (isWhole(facts) && facts.traces.size() == 1));
              }));
}

TEST_F(ErrorLogMemory, ACommittedEntryIsStoredOrReported)
{
    fillWhole(*ready);
    commitEntry(0);
    EXPECT_EQ("", withoutMemory([&] {
                  const bool kept = commitsWithoutMemory(*ready);
                  // the next one finds the same log
                  host::clearEntries();
                  return kept;
              }));
}

TEST_F(ErrorLogMemory, TheVeryFirstEntryIsStoredOrReported)
{
    fillWhole(*ready);
    std::vector<std::string> files;
    for (const char* name : {"errors.db", "errors.db-wal", "errors.db-shm", "errors.spool", "errors.lock"}) {
        files.push_back(folder.state(name));
    }
    EXPECT_EQ("", withoutMemory([&] {
                  for (const std::string& file : files) {
                      unlink(file.c_str());
                  }
                  const bool kept = commitsWithoutMemory(*ready);
                  // the same identifier comes again
                  std::filesystem::remove_all(folder.path() / "spool");
                  return kept;
              }));
}

TEST_F(ErrorLogMemory, AWaitingSpoolLosesNothing)
{
    fillWhole(*ready);
    if (!hasDatabase(folder)) {
        GTEST_SKIP() << "built without a database";
    }
    host::loggedEntry entry = host::describeEntry(*ready);
    std::string spooled;
    for (entry.plid = 1001; entry.plid <= 1003; ++entry.plid) {
        spooled += host::toLine(entry) + "\n";
    }
    folder.write("state/errors.spool", spooled);
    EXPECT_EQ("", withoutMemory([&] {
                  const CapturedError captured;
                  ready->commit(0x1300, ERRL_ACTION_REPORT);
                  giveMemoryBack();
                  const auto ids = idsInLog();
                  host::clearEntries();
                  // the next one finds the same log
                  folder.write("state/errors.spool", spooled);
                  return ids.count(1001) == 1 && ids.count(1002) == 1 && ids.count(1003) == 1;
              }));
}

TEST_F(ErrorLogMemory, TwoEntriesCanBeToldApart)
{
    EXPECT_EQ("", withoutMemory([] {
                  const std::unique_ptr<ErrlEntry> first(newEntry(1));
                  const std::unique_ptr<ErrlEntry> second(newEntry(2));
                  giveMemoryBack();
                  return first == nullptr || second == nullptr ||
                         (first->plid() != second->plid() && first->plid() != 0 && second->plid() != 0);
              }));
}

TEST_F(ErrorLogMemory, AnAssignedEntryHasAtLeastTheNumbersOfTheOther)
{
    const std::unique_ptr<ErrlEntry> other(newEntry(62));
    other->setSev(ERRL_SEV_RECOVERED);
    other->addSRC(0x1400, *other->getSRC(0));
    fill(*other);
    const std::unique_ptr<ErrlEntry> entry(newEntry(61));
    entry->addSwErr(0x1300, 1, 2, 3, 0);
    EXPECT_EQ("", withoutMemory([&] {
                  *entry = *other;
                  giveMemoryBack();
                  const host::loggedEntry facts = host::describeEntry(*entry);
                  return hasItsFacts(*entry) && facts.plid == other->plid() && facts.severity == 0x10 &&
                         facts.softwareErrors.empty() && facts.incomplete == (facts.callouts.empty()) &&
                         facts.srcs.size() == (facts.incomplete ? 1U : 2U);
              }));
}

} // namespace

} // namespace kest::test
